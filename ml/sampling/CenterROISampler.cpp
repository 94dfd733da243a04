#include "ml/sampling/CenterROISampler.h"

#include "host/image/SharedImageSet.h"

namespace Velmoria::ML {

Eigen::Vector3i paddedDimensionsFor(SharedImageSet const& image, Eigen::Vector3i const& size)
{
    return image.get()->dimensions().cwiseMax(size);
}

CenterROISampler::CenterROISampler(Eigen::Vector3i roiSize)
    : ImageROISampler("CenterROISampler", PaddingMode::Clamp)
{
    p_roiSize.setValue(roiSize);
}

std::optional<RegionOfInterest> CenterROISampler::computeROI(SharedImageSet const* image) const
{
    if (!image || image->empty())
        throw ImageSamplersException("Got empty image.");
    Eigen::Vector3i const size = preprocessRoiSize(p_roiSize.value(), image->get()->dimensions());
    Eigen::Vector3i const padded = paddedDimensionsFor(*image, size);
    RegionOfInterest roi;
    roi.offset = (padded - size) / 2; // Eigen's integer division rounds toward zero, as intended
    roi.extent = size;
    return roi;
}

} // namespace Velmoria::ML
