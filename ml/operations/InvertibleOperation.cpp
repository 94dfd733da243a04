#include "ml/operations/InvertibleOperation.h"

#include "ml/operations/OperationInversionBridge.h"

namespace Velmoria::ML {

InvertibleOperation::InvertibleOperation(std::string name, ProcessingPolicy policy)
    : Operation(std::move(name), policy)
{
    preProcessHooks().emplace_back([](Operation& operation, DataElement* element) {
        if (!operation.recordIdentifier().empty())
            recordOperationForInversion(operation, element);
    });
}

} // namespace Velmoria::ML
