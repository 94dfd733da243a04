#pragma once

// ReferenceImageDataComponent: points from derived content (a prediction, a resampled copy) back
// to the image set it was derived from, so that a later step can put results back into that
// image's geometry.
//
// The reference is a live pointer and means nothing outside this process: configure reads
// nothing and configuration writes nothing, so the component survives a container file only as
// its id, with an empty reference. Users of the reference must therefore check it for null and
// report "no valid reference" themselves. Two components are equal when they point to the same
// set (pointer identity: comparing pixel data would be costly and is not what "the same reference"
// means).

#include "host/data/DataComponent.h"

#include <memory>
#include <string>

namespace Velmoria {
class SharedImageSet;
}

namespace Velmoria::ML {

class ReferenceImageDataComponent : public DataComponent<ReferenceImageDataComponent>
{
public:
    ReferenceImageDataComponent() = default;
    explicit ReferenceImageDataComponent(std::shared_ptr<SharedImageSet> reference)
        : reference(std::move(reference))
    {}

    std::string id() const override { return "ReferenceImageDataComponent"; }
    void configure(Properties const* properties) override;
    void configuration(Properties* properties) const override;

    bool operator==(ReferenceImageDataComponent const& other) const { return reference == other.reference; }

    std::shared_ptr<SharedImageSet> reference;
};

} // namespace Velmoria::ML
