#include "ml/sampling/DefaultROISampler.h"

#include "host/image/SharedImageSet.h"

#include <fmt/format.h>

namespace Velmoria::ML {

DefaultROISampler::DefaultROISampler(int dimensionDivisor)
    : ImageROISampler("DefaultROISampler", PaddingMode::Clamp)
{
    p_dimensionDivisor.setValue(dimensionDivisor);
}

bool DefaultROISampler::configure(Properties const& properties)
{
    if (!ImageROISampler::configure(properties))
        return false;
    if (p_dimensionDivisor.value() < 1) {
        configFailed("dimension_divisor");
        return false;
    }
    return true;
}

std::optional<RegionOfInterest> DefaultROISampler::computeROI(SharedImageSet const* /*image*/) const
{
    return std::nullopt;
}

std::unique_ptr<SharedImageSet> DefaultROISampler::extractROI(SharedImageSet const* image,
                                                              std::optional<RegionOfInterest> /*roi*/) const
{
    if (!image || image->empty())
        throw ImageSamplersException("Got empty image.");
    int const divisor = p_dimensionDivisor.value();
    if (divisor < 1)
        throw ImageSamplersException(fmt::format("dimension_divisor must be at least 1, got {}", divisor));

    Eigen::Vector3i target = image->get()->dimensions();
    int const axes = target.z() == 1 ? 2 : 3;
    for (int axis = 0; axis < axes; ++axis)
        target[axis] = (target[axis] + divisor - 1) / divisor * divisor;

    std::unique_ptr<SharedImageSet> result = padImageToDimensions(image, target, paddingModeFor(image));
    if (!result)
        result = image->clone();
    recordOn(*result);
    return result;
}

} // namespace Velmoria::ML
