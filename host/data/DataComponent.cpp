#include "host/data/DataComponent.h"

namespace Velmoria {

bool isPersistent(DataComponentBase const& component)
{
    return dynamic_cast<TemporaryDataComponent const*>(&component) == nullptr;
}

} // namespace Velmoria
