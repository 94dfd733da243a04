#include "ml/operations/OperationsSequence.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"

#include "host/core/Log.h"
#include "host/core/Timer.h"

#include <fmt/core.h>

#include <exception>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.OperationsSequence";

bool infoLogging()
{
    return Log::Info >= Log::g_globalLevel.load(std::memory_order_relaxed) &&
           Log::isAccepted(Log::Info, kCategory);
}
} // namespace

OperationsSequence::OperationsSequence(bool verbose)
    : m_verbose(verbose)
{}

OperationsSequence::OperationsSequence(std::vector<Operation::Specs> const& specs, bool verbose)
    : m_verbose(verbose)
{
    for (auto const& spec : specs) {
        if (auto error = addOperation(spec)) {
            VELMORIA_LOG_ERROR(kCategory, "{}", error->message);
            m_error = std::move(error);
            break;
        }
    }
}

std::optional<OperationsSequenceError> OperationsSequence::addOperation(std::shared_ptr<Operation> operation,
                                                                        Phase phase)
{
    if (!operation)
        return OperationsSequenceError{OperationsSequenceError::CannotAdd,
                                       "Cannot add invalid Operation instance"};
    m_entries.push_back({std::move(operation), phase});
    return std::nullopt;
}

std::optional<OperationsSequenceError> OperationsSequence::addOperation(Operation::Specs const& specs)
{
    return addOperation(std::shared_ptr<Operation>(Operation::createFromFactories(specs)), specs.phase);
}

std::optional<OperationsSequenceError> OperationsSequence::process(DataItem& item, Phase phase) const
{
    Timer total;
    Timer step;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        Entry const& entry = m_entries[i];
        if (!includesPhase(entry.phase, phase))
            continue;
        try {
            entry.operation->process(item);
        } catch (std::exception const& failure) {
            item.clear();
            std::string message = "In OperationsSequence: [";
            for (std::size_t j = 0; j < m_entries.size(); ++j)
                message += fmt::format("({}: {}), ", j, m_entries[j].operation->name());
            message += "] ";
            message += fmt::format("Error at operation {}: {}", i, failure.what());
            return OperationsSequenceError{OperationsSequenceError::ProcessingFailed, std::move(message)};
        }
        if (m_verbose && infoLogging())
            Log::log(Log::Info, kCategory,
                     entry.operation->name() + " executed in " + step.formatPassedAndReset());
        else
            step.getPassedMsAndReset();
    }
    if (m_verbose && infoLogging())
        Log::log(Log::Info, kCategory, "OperationsSequence executed in " + total.formatPassed());
    return std::nullopt;
}

std::pair<std::shared_ptr<SharedImageSet>, std::shared_ptr<SharedImageSet>>
OperationsSequence::process(std::shared_ptr<SharedImageSet> image, std::shared_ptr<SharedImageSet> label,
                            Phase phase) const
{
    DataItem item;
    if (image)
        item.set("image", std::move(image));
    if (label)
        item.set("label", std::move(label));
    if (auto error = process(item, phase)) {
        VELMORIA_LOG_ERROR(kCategory, "{}", error->message);
        return {};
    }
    auto read = [&](std::string const& field) -> std::shared_ptr<SharedImageSet> {
        if (!item.contains(field))
            return nullptr;
        if (auto* element = item.get<ImageElement>(field))
            return element->sis();
        VELMORIA_LOG_ERROR(kCategory, "Invalid input");
        return nullptr;
    };
    return {read("image"), read("label")};
}

std::shared_ptr<SharedImageSet> OperationsSequence::process(std::shared_ptr<SharedImageSet> image,
                                                            Phase phase) const
{
    return process(std::move(image), nullptr, phase).first;
}

void OperationsSequence::setOperationSeeds(unsigned int seed)
{
    bool anySeeded = false;
    for (auto const& entry : m_entries) {
        auto existing = entry.operation->seed();
        if (existing) {
            anySeeded = true;
            if (*existing != seed)
                VELMORIA_LOG_WARNING(
                    kCategory,
                    "setOperationSeeds: {} was already seeded with a different value - overriding!",
                    entry.operation->name());
        }
        entry.operation->seedRandomEngine(seed);
    }
    if (anySeeded)
        VELMORIA_LOG_INFO(kCategory, "Operations seeds were reset.");
}

void OperationsSequence::resetOperationSeeds()
{
    for (auto const& entry : m_entries)
        if (auto seed = entry.operation->seed())
            entry.operation->seedRandomEngine(*seed);
}

void OperationsSequence::setOperationsComputingDevice(ComputingDevice device)
{
    for (auto const& entry : m_entries)
        entry.operation->setComputingDevice(device);
}

void OperationsSequence::setErrorOnUnexpectedBehaviour(bool error)
{
    for (auto const& entry : m_entries)
        entry.operation->setErrorOnUnexpectedBehaviour(error);
}

bool OperationsSequence::doesNotModifyInput() const
{
    for (auto const& entry : m_entries)
        if (!entry.operation->doesNotModifyInput())
            return false;
    return true;
}

std::vector<std::string> OperationsSequence::getOperationNames() const
{
    std::vector<std::string> names;
    for (auto const& entry : m_entries)
        names.push_back(entry.operation->name());
    return names;
}

std::vector<std::shared_ptr<Operation>> OperationsSequence::operations() const
{
    std::vector<std::shared_ptr<Operation>> result;
    for (auto const& entry : m_entries)
        result.push_back(entry.operation);
    return result;
}

std::vector<Phase> OperationsSequence::phases() const
{
    std::vector<Phase> result;
    for (auto const& entry : m_entries)
        result.push_back(entry.phase);
    return result;
}

} // namespace Velmoria::ML
