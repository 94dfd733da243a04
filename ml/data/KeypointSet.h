#pragma once

// KeypointSet: annotated points in world coordinates, per frame (sample of the batch) and per
// channel (the class or type of the point); keypoints()[frame][channel][i].
//
// Placement, comparison and copies follow AnnotationSet (see there): matrix() is always the
// identity, isEqual is exact (a NaN makes sets different), isApprox is Eigen's relative test at
// 1e-6 with a 1e-9 mm floor. operator== is isEqual.
//
// The constructors from point clouds use pointCloudsToKeypoints (PointCloudConversion.h): one
// frame per cloud, channel = label - 1. They are defined with that conversion.

#include "ml/data/AnnotationSet.h"

#include <Eigen/Core>
#include <memory>
#include <string>
#include <vector>

namespace Velmoria {
class PointCloud;
}

namespace Velmoria::ML {

class KeypointSet : public AnnotationSet<Eigen::Vector3d>
{
public:
    using Keypoints = Frames;

    KeypointSet();
    explicit KeypointSet(Keypoints keypoints);
    // One frame from `cloud`; an empty set (with an error line) for labels below 1.
    explicit KeypointSet(PointCloud const& cloud);
    // One frame per cloud.
    explicit KeypointSet(std::vector<PointCloud const*> const& clouds);
    KeypointSet(KeypointSet const& other);
    KeypointSet(KeypointSet&& other) noexcept;
    KeypointSet& operator=(KeypointSet const& other);
    KeypointSet& operator=(KeypointSet&& other) noexcept;
    ~KeypointSet() override;

    std::unique_ptr<KeypointSet> clone() const { return std::make_unique<KeypointSet>(*this); }

    // "KeypointSet 'name' (2 frames, 7 points)".
    std::string describe() const override;

    Keypoints const& keypoints() const { return m_frames; }
    Keypoints& keypoints() { return m_frames; }
    void setKeypoints(Keypoints keypoints) { m_frames = std::move(keypoints); }

    // Total number of points over all frames and channels.
    std::size_t numPoints() const;

    bool operator==(KeypointSet const& other) const { return isEqual(other); }
};

} // namespace Velmoria::ML
