#include "ml/imagemath/DeviceStrategy.h"

#include <algorithm>

namespace Velmoria::ImageMath {

namespace {
int normalised(DeviceStrategy strategy)
{
    int const value = static_cast<int>(strategy);
    return value >= 0 && value < 3 ? value : static_cast<int>(DeviceStrategy::Any);
}
} // namespace

DeviceStrategy combineDeviceStrategies(DeviceStrategy a, DeviceStrategy b)
{
    return static_cast<DeviceStrategy>(std::min(normalised(a), normalised(b)));
}

DeviceStrategy imageDeviceStrategy(ImageDescriptor const& descriptor)
{
    PixelType const type = descriptor.pixelType;
    bool const textureType = type != PixelType::Int && type != PixelType::UInt && type != PixelType::Double;
    return textureType && descriptor.channels < 5 ? DeviceStrategy::Any : DeviceStrategy::CpuOnly;
}

std::string_view deviceStrategyName(DeviceStrategy strategy)
{
    switch (strategy) {
    case DeviceStrategy::CpuOnly:
        return "cpu_only";
    case DeviceStrategy::CpuPreferred:
        return "cpu_preferred";
    case DeviceStrategy::Any:
        return "any";
    }
    return "invalid";
}

} // namespace Velmoria::ImageMath
