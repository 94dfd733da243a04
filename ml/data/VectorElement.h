#pragma once

// VectorElement: a DataElement whose content is a SharedImageSet of 1x1x1 frames, one per
// sample; the channels of a frame are the components of the sample's vector (a classification
// score vector, a regression target). Invariant: every frame is 1x1x1, with any number of
// channels. dimension() is always 1.

#include "ml/data/SISBasedElement.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

class VectorElement : public SISBasedElement
{
public:
    // Throws DataElementException for a null set ("Input SharedImageSet must be valid.") or a
    // frame that is not 1x1x1.
    explicit VectorElement(std::shared_ptr<SharedImageSet> sis);

    ElementType type() const override { return ElementType::Vector; }
    int dimension() const override { return 1; }
    std::vector<std::shared_ptr<DataElement>> split() override;
    std::unique_ptr<DataElement> clone(CloneOptions options) const override;

    static std::unique_ptr<VectorElement> stack(std::vector<std::shared_ptr<VectorElement>> const& elements);

protected:
    void checkFrames(SharedImageSet const& sis) const override;
};

} // namespace Velmoria::ML
