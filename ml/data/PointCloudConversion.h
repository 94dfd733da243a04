#pragma once

// Conversions between a KeypointSet and host point clouds, one cloud per frame.
//
// keypointsToPointClouds: cloud f holds all points of frame f, channel by channel, with the
// label channel + 1 (0 means "unlabelled" for a PointCloud, so the first channel is label 1).
// Normals and colours are allocated at their defaults (zero normal, opaque black), and the
// cloud's matrix is the identity since keypoints are world coordinates already.
//
// pointCloudsToKeypoints: frame f comes from cloud f. A point's coordinates are mapped to the
// world by the cloud's matrixToWorld() when that is not the identity; its channel is its label
// minus 1. Every frame gets the same number of channels, the largest over all clouds, so that
// channel c means the same class in every sample (labels 1 and 3 give channels 0 and 2 with an
// empty channel 1). Failures, logged under "ML.KeypointSet":
//   - a cloud with points but no labels: a warning, and all its points go to channel 0;
//   - a label of 0 or below: an error, and the result is an empty set;
//   - a null cloud pointer: an error, and the result is an empty set.

#include "ml/data/KeypointSet.h"

#include "host/data/PointCloud.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

std::vector<std::unique_ptr<PointCloud>> keypointsToPointClouds(KeypointSet const& keypoints);

KeypointSet pointCloudsToKeypoints(std::vector<PointCloud const*> const& clouds);
KeypointSet pointCloudsToKeypoints(std::vector<std::unique_ptr<PointCloud>> const& clouds);
KeypointSet pointCloudsToKeypoints(std::vector<std::shared_ptr<PointCloud>> const& clouds);

} // namespace Velmoria::ML
