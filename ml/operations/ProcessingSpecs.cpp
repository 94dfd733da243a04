#include "ml/operations/ProcessingSpecs.h"

#include "ml/operations/ParamException.h"
#include "ml/operations/Phase.h"

#include "host/core/Log.h"
#include "host/core/ValueText.h"

#include <fmt/format.h>

#include <cstdint>

namespace Velmoria::ML {

namespace {

constexpr char const* PhaseKey = "phase";

// The phase of one list item: a text of phase words, a list of words, or the integer mask
// (1 to 7) that the configuration format allows for every enumeration.
Phase readPhase(Properties const& item)
{
    ParamValue const* value = item.paramValue(PhaseKey);
    if (!value)
        return Phase::Always;
    try {
        if (value->isList())
            return detail::multiStringToPhase(*value->list);
        std::uint32_t mask = 0;
        if (ValueText::parseNumber(value->text, mask) && mask >= 1 && mask <= 7)
            return static_cast<Phase>(mask);
        return stringToPhase(value->text);
    } catch (ParamException const& e) {
        throw ParamException(fmt::format("Operation '{}': {}", item.name(), e.what()));
    }
}

template <class PropertiesPointer>
std::vector<Operation::Specs> toSpecs(std::vector<PropertiesPointer> const& list)
{
    std::vector<Operation::Specs> specs;
    specs.reserve(list.size());
    for (std::size_t i = 0; i < list.size(); ++i) {
        Properties const* item = list[i];
        if (!item) {
            VELMORIA_LOG_ERROR("ML.Operation", "Entry {} of the processing list is null and was skipped", i);
            continue;
        }
        specs.push_back({item->name(), *item, readPhase(*item)});
    }
    return specs;
}

} // namespace

std::vector<Operation::Specs> propertyListToProcessingSpecs(std::vector<Properties*> const& list)
{
    return toSpecs(list);
}

std::vector<Operation::Specs> propertyListToProcessingSpecs(std::vector<Properties const*> const& list)
{
    return toSpecs(list);
}

std::vector<Operation::Specs> propertyToProcessingSpecs(Properties const& properties)
{
    if (!properties.name().empty())
        return {{properties.name(), properties, Phase::Always}};
    return propertyListToProcessingSpecs(properties.subProperties());
}

std::optional<std::vector<Operation::Specs>> namedProcessingList(Properties const& tree,
                                                                 std::string const& key)
{
    if (Properties const* list = tree.findSubProperties(key))
        return propertyListToProcessingSpecs(list->subProperties());
    std::vector<std::string> names;
    if (!tree.contains(key) || !tree.param(key, names))
        return std::nullopt;
    std::vector<Operation::Specs> specs;
    for (std::string const& name : names)
        specs.push_back({name, Properties(name), Phase::Always});
    return specs;
}

std::vector<std::unique_ptr<Properties>>
processingSpecsToPropertyList(std::vector<Operation::Specs> const& specs)
{
    std::vector<std::unique_ptr<Properties>> list;
    list.reserve(specs.size());
    for (auto const& spec : specs) {
        auto& item = list.emplace_back(std::make_unique<Properties>(spec.name));
        item->copyFrom(spec.properties);
        item->setParam(PhaseKey, phaseToString(spec.phase));
    }
    return list;
}

} // namespace Velmoria::ML
