#include "ml/operations/OperationInversionBridge.h"

#include "ml/data/DataElement.h"
#include "ml/data/components/InversionComponent.h"
#include "ml/operations/Operation.h"

namespace Velmoria::ML {

bool recordOperationForInversion(Operation& operation, DataElement* element)
{
    // Checked before getOrCreate, so that an element is not given an empty component.
    if (!element || operation.recordIdentifier().empty() || !operation.supportsInversion())
        return false;
    return element->components().getOrCreate<InversionComponent>()->recordInversion(operation);
}

} // namespace Velmoria::ML
