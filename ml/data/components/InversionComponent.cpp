#include "ml/data/components/InversionComponent.h"

#include "ml/operations/InvertibleOperation.h"

#include "host/core/Log.h"

#include <iterator>
#include <utility>

namespace Velmoria::ML {

namespace {
constexpr char const* kCategory = "ML.InversionComponent";

// Trees read back from a file carry the sub-tree's name ("config", "context"); the recorded ones
// have none. Copying without the name keeps both equal under every comparison.
Properties copyWithoutName(Properties const& properties)
{
    Properties copy;
    copy.copyFrom(properties, Properties::CopyDefault);
    return copy;
}
} // namespace

// ---- InversionInfo ------------------------------------------------------------------------------

Operation::Specs InversionComponent::InversionInfo::toSpecs() const
{
    return Operation::Specs{operationName, config, Phase::Always};
}

InversionComponent::InversionInfo InversionComponent::InversionInfo::fromSpecs(std::string const& identifier,
                                                                               Operation::Specs const& specs)
{
    return InversionInfo{specs.name, identifier, specs.properties, std::nullopt};
}

bool InversionComponent::InversionInfo::operator==(InversionInfo const& other) const
{
    if (operationName != other.operationName || identifier != other.identifier ||
        !config.compareWith(other.config) || context.has_value() != other.context.has_value())
        return false;
    return !context || context->compareWith(*other.context);
}

// ---- Stack --------------------------------------------------------------------------------------

InversionComponent::InversionComponent(std::vector<InversionInfo> infos)
    : m_infos(std::move(infos))
{}

void InversionComponent::recordInversion(InversionInfo const& info)
{
    if (info.identifier.empty())
        return;
    m_infos.push_back(info);
}

void InversionComponent::recordInversion(std::string const& identifier, Operation::Specs const& specs)
{
    recordInversion(InversionInfo::fromSpecs(identifier, specs));
}

void InversionComponent::recordInversion(std::string const& identifier, Operation::Specs const& specs,
                                         Properties const& context)
{
    InversionInfo info = InversionInfo::fromSpecs(identifier, specs);
    info.context = context;
    recordInversion(info);
}

bool InversionComponent::recordInversion(Operation const& operation)
{
    if (operation.recordIdentifier().empty() || !operation.supportsInversion())
        return false;
    auto const* invertible = dynamic_cast<InvertibleOperation const*>(&operation);
    if (!invertible)
        return false;
    recordInversion(operation.recordIdentifier(), invertible->inverseSpecs());
    return true;
}

bool InversionComponent::hasInversion(std::string const& identifier) const
{
    return getInversionInfo(identifier) != nullptr;
}

InversionComponent::InversionInfo const*
InversionComponent::getInversionInfo(std::string const& identifier) const
{
    for (auto it = m_infos.rbegin(); it != m_infos.rend(); ++it)
        if (it->identifier == identifier)
            return &*it;
    return nullptr;
}

InversionComponent::InversionInfo* InversionComponent::getInversionInfo(std::string const& identifier)
{
    return const_cast<InversionInfo*>(std::as_const(*this).getInversionInfo(identifier));
}

std::vector<InversionComponent::InversionInfo const*>
InversionComponent::getAllInversionInfos(std::string const& identifier) const
{
    std::vector<InversionInfo const*> found;
    for (InversionInfo const& info : m_infos)
        if (info.identifier == identifier)
            found.push_back(&info);
    return found;
}

std::vector<InversionComponent::InversionInfo*>
InversionComponent::getAllInversionInfos(std::string const& identifier)
{
    std::vector<InversionInfo*> found;
    for (InversionInfo& info : m_infos)
        if (info.identifier == identifier)
            found.push_back(&info);
    return found;
}

std::optional<Operation::Specs> InversionComponent::inverseSpecs(std::string const& identifier) const
{
    if (InversionInfo const* info = getInversionInfo(identifier))
        return info->toSpecs();
    return std::nullopt;
}

std::optional<InversionComponent::InversionInfo>
InversionComponent::popInversionInfo(std::string const& identifier)
{
    for (auto it = m_infos.rbegin(); it != m_infos.rend(); ++it) {
        if (it->identifier != identifier)
            continue;
        InversionInfo info = std::move(*it);
        m_infos.erase(std::next(it).base());
        return info;
    }
    return std::nullopt;
}

InversionComponent& InversionComponent::operator+=(InversionComponent const& other)
{
    // A copy first: `other` may be this component.
    std::vector<InversionInfo> const infos = other.m_infos;
    m_infos.insert(m_infos.end(), infos.begin(), infos.end());
    return *this;
}

InversionComponent InversionComponent::operator+(InversionComponent const& other) const
{
    InversionComponent sum(*this);
    sum += other;
    return sum;
}

// ---- Persistence --------------------------------------------------------------------------------

void InversionComponent::configure(Properties const* properties)
{
    if (!properties)
        return;
    m_infos.clear();
    for (Properties const* infoTree : properties->subProperties()) {
        InversionInfo info;
        info.identifier = infoTree->name();
        if (!infoTree->param("operation_name", info.operationName) || info.operationName.empty()) {
            VELMORIA_LOG_ERROR(kCategory, "No operation_name found for inversion info '{}'. Skipping.",
                               info.identifier);
            continue;
        }
        if (Properties const* config = infoTree->findSubProperties("config"))
            info.config = copyWithoutName(*config);
        if (Properties const* context = infoTree->findSubProperties("context"))
            info.context = copyWithoutName(*context);
        // Kept even with an empty identifier: the file said so, and dropping it would change
        // the order of what follows.
        m_infos.push_back(std::move(info));
    }
}

void InversionComponent::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (InversionInfo const& info : m_infos) {
        Properties* infoTree = properties->addSubProperties(info.identifier);
        infoTree->setParam("operation_name", info.operationName);
        if (!info.config.isEmpty())
            infoTree->addSubProperties("config")->copyFrom(info.config, Properties::CopyDefault);
        if (info.context && !info.context->isEmpty())
            infoTree->addSubProperties("context")->copyFrom(*info.context, Properties::CopyDefault);
    }
}

} // namespace Velmoria::ML
