#include "ml/operations/catalogue/InverseOperation.h"

#include "ml/data/DataItem.h"
#include "ml/data/components/InversionComponent.h"

#include "host/core/Log.h"

namespace Velmoria::ML {

InverseOperation::InverseOperation(std::string const& targetIdentifier)
    : Operation("Inverse", ProcessingPolicy::Everything)
{
    p_targetIdentifier.setValue(targetIdentifier);
}

bool InverseOperation::configure(Properties const& properties)
{
    if (!Operation::configure(properties))
        return false;
    if (p_targetIdentifier.value().empty()) {
        configFailed("target_identifier");
        return false;
    }
    return true;
}

bool InverseOperation::setupInverseOperationByIdentifier(DataItem& item, std::string const& identifier)
{
    m_inversionComponents.clear();
    m_operationToInvert.reset();

    std::optional<FieldSet> const selected = selectedFields(item);
    FieldSet recordedFields;
    for (auto const& [field, element] : item.elements()) {
        if (!element || (selected && !selected->contains(field)))
            continue;
        auto* component = element->components().get<InversionComponent>();
        if (component && component->hasInversion(identifier)) {
            m_inversionComponents.push_back(component);
            recordedFields.insert(field);
        }
    }
    if (m_inversionComponents.empty()) {
        VELMORIA_LOG_ERROR(
            logCategory(),
            "No InversionComponent found with record identifier '{}' in any processed elements", identifier);
        return false;
    }

    // createFromFactories reports an unknown name or a failed configuration itself.
    std::shared_ptr<Operation> inverse = Operation::createFromFactories(
        m_inversionComponents.front()->getInversionInfo(identifier)->toSpecs());
    if (!inverse)
        return false;
    inverse->setApplyTo(applyTo() ? applyTo() : std::optional<FieldSet>(std::move(recordedFields)));
    inverse->setComputingDevice(computingDevice());
    inverse->setProcessingPolicy(processingPolicy());
    inverse->setErrorOnUnexpectedBehaviour(errorOnUnexpectedBehaviour());
    m_operationToInvert = std::move(inverse);
    return true;
}

void InverseOperation::process(DataItem& item)
{
    std::string const identifier = p_targetIdentifier.value();
    if (!setupInverseOperationByIdentifier(item, identifier))
        throwOperationError("Failed to find operation with record identifier '" + identifier + "' to invert");

    // After each element: the step is undone there, so its record goes (the latest one only, so
    // that an earlier run of the same identifier is next).
    m_operationToInvert->oneShotPostProcessHooks().emplace_back(
        [identifier, category = logCategory()](Operation& /*inner*/, DataElement* element) {
            auto* component = element ? element->components().get<InversionComponent>() : nullptr;
            if (component && component->hasInversion(identifier) && component->popInversionInfo(identifier)) {
                VELMORIA_LOG_DEBUG(category, "Popped inversion info for identifier '{}' from element",
                                   identifier);
                return;
            }
            VELMORIA_LOG_WARNING(category, "Failed to pop inversion info for identifier '{}' from element",
                                 identifier);
        });
    m_operationToInvert->process(item);
}

void InverseOperation::setComputingDevice(ComputingDevice device)
{
    Operation::setComputingDevice(device);
    if (m_operationToInvert)
        m_operationToInvert->setComputingDevice(device);
}

} // namespace Velmoria::ML
