#include "host/data/CompoundData.h"

namespace Velmoria {

Geometry::AlignedBox CompoundData::bounds() const
{
    Geometry::AlignedBox box;
    for (Data* child : children())
        box.addBox(child->bounds());
    return box;
}

} // namespace Velmoria
