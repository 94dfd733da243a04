#pragma once

// RegionOfInterest: the box a sampler cuts out of an image, in voxels of that image's grid.
//
// `offset` is the first voxel of the box and `extent` its size per axis (x, y, z). Samplers pass
// a region as std::optional<RegionOfInterest>: no value means "no region" (a sampler that found
// nothing to centre on, or one that never cuts). A region may reach past the image on an axis
// that is shorter than the extent; the sampler pads the image first (ImageROISampler).
// Components are 32-bit signed integers (Eigen::Vector3i).

#include <Eigen/Core>

namespace Velmoria::ML {

struct RegionOfInterest
{
    Eigen::Vector3i offset = Eigen::Vector3i::Zero();
    Eigen::Vector3i extent = Eigen::Vector3i::Zero();

    bool operator==(RegionOfInterest const& other) const
    {
        return offset == other.offset && extent == other.extent;
    }
    bool operator!=(RegionOfInterest const& other) const { return !(*this == other); }
};

} // namespace Velmoria::ML
