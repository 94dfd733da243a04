#include "ml/sampling/RandomROISampler.h"

#include "ml/sampling/CenterROISampler.h"

#include "host/image/SharedImageSet.h"

#include <fmt/format.h>

namespace Velmoria::ML {

RandomROISampler::RandomROISampler(Eigen::Vector3i roiSize)
    : ImageROISampler("RandomROISampler", PaddingMode::Clamp)
{
    p_roiSize.setValue(roiSize);
}

std::optional<RegionOfInterest> RandomROISampler::computeROI(SharedImageSet const* image) const
{
    if (!image || image->empty())
        throw ImageSamplersException("Got empty image.");
    Eigen::Vector3i const size = preprocessRoiSize(p_roiSize.value(), image->get()->dimensions());
    Eigen::Vector3i const padded = paddedDimensionsFor(*image, size);
    if ((padded.array() < size.array()).any())
        throw ImageSamplersException(
            fmt::format("Cannot sample ROI of size [{} {} {}] from an image with shape "
                        "[{} {} {}]",
                        size.x(), size.y(), size.z(), padded.x(), padded.y(), padded.z()));
    RegionOfInterest roi;
    roi.extent = size;
    // z, then y, then x: the order fixes the regions of a seed.
    for (int axis = 2; axis >= 0; --axis)
        roi.offset[axis] = randomGenerator().getUniformInteger<int>(0, padded[axis] - size[axis]);
    return roi;
}

} // namespace Velmoria::ML
