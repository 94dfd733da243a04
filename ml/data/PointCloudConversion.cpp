#include "ml/data/PointCloudConversion.h"

#include "host/core/Log.h"

#include <Eigen/Geometry>
#include <algorithm>

namespace Velmoria::ML {

namespace {

constexpr char const* logCategory = "ML.KeypointSet";

template <class Pointer>
std::vector<PointCloud const*> rawPointers(std::vector<Pointer> const& clouds)
{
    std::vector<PointCloud const*> raw;
    raw.reserve(clouds.size());
    for (auto const& cloud : clouds)
        raw.push_back(cloud.get());
    return raw;
}

} // namespace

std::vector<std::unique_ptr<PointCloud>> keypointsToPointClouds(KeypointSet const& keypoints)
{
    std::vector<std::unique_ptr<PointCloud>> clouds;
    clouds.reserve(keypoints.size());
    for (auto const& frame : keypoints.keypoints()) {
        std::vector<Eigen::Vector3d> points;
        std::vector<int> labels;
        for (std::size_t channel = 0; channel < frame.size(); ++channel) {
            points.insert(points.end(), frame[channel].begin(), frame[channel].end());
            labels.insert(labels.end(), frame[channel].size(), static_cast<int>(channel) + 1);
        }
        auto cloud = std::make_unique<PointCloud>(std::move(points), true, true, keypoints.name());
        cloud->setLabels(std::move(labels));
        clouds.push_back(std::move(cloud));
    }
    return clouds;
}

KeypointSet pointCloudsToKeypoints(std::vector<PointCloud const*> const& clouds)
{
    // First pass: validate everything and find the channel count, so that a bad cloud late in
    // the list leaves no half-built result behind.
    int maxLabel = 0;
    for (std::size_t i = 0; i < clouds.size(); ++i) {
        PointCloud const* cloud = clouds[i];
        if (cloud == nullptr) {
            VELMORIA_LOG_ERROR(logCategory, "PointCloud {} of {} is null; no KeypointSet can be made", i,
                               clouds.size());
            return {};
        }
        if (cloud->size() == 0)
            continue;
        if (!cloud->hasLabels()) {
            VELMORIA_LOG_WARNING(
                logCategory,
                "PointCloud does not have any label - all points will be mapped to the zero label.");
            maxLabel = std::max(maxLabel, 1);
            continue;
        }
        auto const [minIt, maxIt] = std::minmax_element(cloud->labels().begin(), cloud->labels().end());
        if (*minIt <= 0) {
            VELMORIA_LOG_ERROR(
                logCategory, "PointCloud labels are expected to be > 0 to be correctly mapped to KeypointSet "
                             "channels.");
            return {};
        }
        maxLabel = std::max(maxLabel, *maxIt);
    }

    KeypointSet::Keypoints frames(clouds.size(), KeypointSet::Frame(static_cast<std::size_t>(maxLabel)));
    for (std::size_t f = 0; f < clouds.size(); ++f) {
        PointCloud const& cloud = *clouds[f];
        Eigen::Matrix4d const matrix = cloud.matrixToWorld();
        bool const moved = !matrix.isIdentity(0.0);
        Eigen::Affine3d const toWorld(matrix);
        for (std::size_t i = 0; i < cloud.size(); ++i) {
            std::size_t const channel =
                cloud.hasLabels() ? static_cast<std::size_t>(cloud.labels()[i] - 1) : std::size_t{0};
            Eigen::Vector3d const& point = cloud.points()[i];
            frames[f][channel].push_back(moved ? Eigen::Vector3d(toWorld * point) : point);
        }
    }
    return KeypointSet(std::move(frames));
}

KeypointSet pointCloudsToKeypoints(std::vector<std::unique_ptr<PointCloud>> const& clouds)
{
    return pointCloudsToKeypoints(rawPointers(clouds));
}

KeypointSet pointCloudsToKeypoints(std::vector<std::shared_ptr<PointCloud>> const& clouds)
{
    return pointCloudsToKeypoints(rawPointers(clouds));
}

KeypointSet::KeypointSet(PointCloud const& cloud)
    : KeypointSet(pointCloudsToKeypoints(std::vector<PointCloud const*>{&cloud}))
{}

KeypointSet::KeypointSet(std::vector<PointCloud const*> const& clouds)
    : KeypointSet(pointCloudsToKeypoints(clouds))
{}

} // namespace Velmoria::ML
