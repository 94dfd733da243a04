#pragma once

// BoundingBoxElement: the DataElement whose content is a BoundingBoxSet; frame i of the set is
// sample i of the batch. Behaviour shared with KeypointsElement: see AnnotationElement.h
// (dimension() is 0, clone(Shell) is a full copy, split/stack copy the per-frame lists).

#include "ml/data/AnnotationElement.h"
#include "ml/data/BoundingBoxSet.h"

#include <memory>

namespace Velmoria::ML {

class BoundingBoxElement
    : public AnnotationElement<BoundingBoxElement, BoundingBoxSet, ElementType::BoundingBox>
{
public:
    static constexpr char const* contentName = "BoundingBoxSet";

    // Throws DataElementException "Input BoundingBoxSet must be valid." for a null set.
    explicit BoundingBoxElement(std::shared_ptr<BoundingBoxSet> boxes);
    ~BoundingBoxElement() override;

    std::shared_ptr<BoundingBoxSet> boxes() const { return sharedSet(); }
    // Throws like the constructor.
    void setBoxes(std::shared_ptr<BoundingBoxSet> boxes) { assignSet(std::move(boxes)); }
};

} // namespace Velmoria::ML
