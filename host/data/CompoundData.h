#pragma once

// CompoundData: a Data made of other Data (e.g. an image with its segmentation meshes). The
// children are owned by the subclass; children() lists them without giving ownership away.
// bounds() is the union of the children's bounds.

#include "host/data/Data.h"
#include "host/data/DataList.h"

namespace Velmoria {

class CompoundData : public Data
{
public:
    using Data::Data;

    Kind kind() const override { return Kind::Compound; }
    virtual DataList children() const = 0;
    Geometry::AlignedBox bounds() const override;
};

} // namespace Velmoria
