#pragma once

// CenterROISampler ("CenterROISampler"): cuts the region of "roi_size" (three integers, default
// 1 1 1; −1 on an axis means the whole axis) from the centre of the image. An axis shorter than
// the region is padded first (clamp unless configured), so there the offset is 0 and the padded
// voxels lie evenly on both sides. Elsewhere the offset is (length − size) / 2, rounded toward
// zero: with an odd remainder the region sits one voxel nearer the low end.

#include "ml/sampling/ImageROISampler.h"

namespace Velmoria::ML {

class CenterROISampler : public ImageROISampler
{
public:
    explicit CenterROISampler(Eigen::Vector3i roiSize = Eigen::Vector3i::Ones());

    // Throws ImageSamplersException "Got empty image." for null.
    std::optional<RegionOfInterest> computeROI(SharedImageSet const* image) const override;

    AdvancedParameter<Eigen::Vector3i, Operation> p_roiSize = {"roi_size", Eigen::Vector3i::Ones(), this};
};

// The dimensions `image`'s focus frame has once padded to `size` (ImageROISampler::
// padImageToDimensions pads only the axes that are too short), computed without copying pixels.
Eigen::Vector3i paddedDimensionsFor(SharedImageSet const& image, Eigen::Vector3i const& size);

} // namespace Velmoria::ML
