#pragma once

// KeypointsElement: the DataElement whose content is a KeypointSet; frame i of the set is
// sample i of the batch. Behaviour shared with BoundingBoxElement: see AnnotationElement.h
// (dimension() is 0, clone(Shell) is a full copy, split/stack copy the per-frame lists).

#include "ml/data/AnnotationElement.h"
#include "ml/data/KeypointSet.h"

#include <memory>

namespace Velmoria::ML {

class KeypointsElement : public AnnotationElement<KeypointsElement, KeypointSet, ElementType::Keypoint>
{
public:
    static constexpr char const* contentName = "KeypointSet";

    // Throws DataElementException "Input KeypointSet must be valid." for a null set.
    explicit KeypointsElement(std::shared_ptr<KeypointSet> keypoints);
    ~KeypointsElement() override;

    std::shared_ptr<KeypointSet> keypoints() const { return sharedSet(); }
    // Throws like the constructor.
    void setKeypoints(std::shared_ptr<KeypointSet> keypoints) { assignSet(std::move(keypoints)); }
};

} // namespace Velmoria::ML
