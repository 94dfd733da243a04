#pragma once

// ImageElement: a DataElement whose content is a SharedImageSet of real images, one frame per
// sample. Invariant: every frame has at least two pixels along some axis; a set of 1x1x1 frames
// is a batch of vectors and belongs in a VectorElement (DataItem::set picks the right one).

#include "ml/data/SISBasedElement.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

class ImageElement : public SISBasedElement
{
public:
    // Throws DataElementException for a null set ("Input SharedImageSet must be valid.") or a
    // 1x1x1 frame.
    explicit ImageElement(std::shared_ptr<SharedImageSet> sis);

    ElementType type() const override { return ElementType::Image; }
    // One ImageElement per frame, sharing the frame.
    std::vector<std::shared_ptr<DataElement>> split() override;
    // Deep copies the pixels; Empty and Shell give a frameless set with the same components.
    std::unique_ptr<DataElement> clone(CloneOptions options) const override;

    // The frames of all elements, in order, sharing them; null for an empty list.
    static std::unique_ptr<ImageElement> stack(std::vector<std::shared_ptr<ImageElement>> const& elements);

protected:
    void checkFrames(SharedImageSet const& sis) const override;
};

} // namespace Velmoria::ML
