#pragma once

// BoundingBoxSet: annotated axis-aligned boxes in world coordinates, per frame (sample of the
// batch) and per channel (the class of the box); boxes()[frame][channel][i].
//
// Placement, comparison and copies follow AnnotationSet (see there): matrix() is always the
// identity (moving the set moves the boxes), isEqual is exact on centers and extents (a NaN
// makes sets different), isApprox compares centers and extents with Eigen's relative test at
// 1e-6 and a 1e-9 mm floor. operator== is isEqual. bounds() surrounds all box corners.

#include "ml/data/AnnotationSet.h"
#include "ml/data/Box.h"

#include <memory>
#include <string>
#include <vector>

namespace Velmoria::ML {

class BoundingBoxSet : public AnnotationSet<Box>
{
public:
    using Boxes = Frames;

    BoundingBoxSet();
    explicit BoundingBoxSet(Boxes boxes);
    BoundingBoxSet(BoundingBoxSet const& other);
    BoundingBoxSet(BoundingBoxSet&& other) noexcept;
    BoundingBoxSet& operator=(BoundingBoxSet const& other);
    BoundingBoxSet& operator=(BoundingBoxSet&& other) noexcept;
    ~BoundingBoxSet() override;

    std::unique_ptr<BoundingBoxSet> clone() const { return std::make_unique<BoundingBoxSet>(*this); }

    // "BoundingBoxSet 'name' (2 frames, 7 boxes)".
    std::string describe() const override;

    Boxes const& boxes() const { return m_frames; }
    Boxes& boxes() { return m_frames; }
    void setBoxes(Boxes boxes) { m_frames = std::move(boxes); }

    // Total number of boxes over all frames and channels.
    std::size_t numBoxes() const;

    bool operator==(BoundingBoxSet const& other) const { return isEqual(other); }
};

} // namespace Velmoria::ML
