#pragma once

// RandomROISampler ("RandomROISampler"): cuts a region of "roi_size" (three integers, default
// 1 1 1; −1 on an axis means the whole axis) at a uniformly random place of the image. Axes
// shorter than the region are padded first, as in CenterROISampler, so there the offset is 0.
//
// Draws, from the operation's generator (reseeded by "seed"), in this fixed order: the z offset
// getUniformInteger(0, length_z − size_z), then y, then x, bounds included. The order is part of
// the behaviour: a seed gives the same regions on every run and machine.

#include "ml/sampling/ImageROISampler.h"

namespace Velmoria::ML {

class RandomROISampler : public ImageROISampler
{
public:
    explicit RandomROISampler(Eigen::Vector3i roiSize = Eigen::Vector3i::Ones());

    // Throws ImageSamplersException "Got empty image." for null, and "Cannot sample ROI of size
    // [sx sy sz] from an image with shape [x y z]" when the region cannot fit.
    std::optional<RegionOfInterest> computeROI(SharedImageSet const* image) const override;

    AdvancedParameter<Eigen::Vector3i, Operation> p_roiSize = {"roi_size", Eigen::Vector3i::Ones(), this};
};

} // namespace Velmoria::ML
