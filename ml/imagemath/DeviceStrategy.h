#pragma once

// DeviceStrategy: where a node of an ImageMath expression may be evaluated.
//
// Three ordered values; a smaller value is more restrictive:
//   0 CpuOnly       the node can only be computed on the CPU (e.g. 32-bit integer or double
//                   pixels, or more than four channels, which a texture cannot hold)
//   1 CpuPreferred  the GPU would work, but the CPU is the better choice
//   2 Any           either device
//
// Combining: a node with several operands takes the most restrictive of their strategies
// (the minimum), so one CPU-only operand keeps the whole tree on the CPU. The rule is
// associative, so trees of three or more operands give the same answer in any grouping. A
// value outside 0..2 (a raw number cast into the enum) counts as Any, as the GPU path expects.

#include "host/image/ImageDescriptor.h"

#include <string_view>

namespace Velmoria::ImageMath {

enum class DeviceStrategy : int
{
    CpuOnly = 0,
    CpuPreferred = 1,
    Any = 2,
};

// The more restrictive of the two (see the file comment); out-of-range values count as Any.
DeviceStrategy combineDeviceStrategies(DeviceStrategy a, DeviceStrategy b);
// The strategy of an image leaf: Any when the pixel type is neither int32, uint32 nor double
// and there are fewer than five channels; CpuOnly otherwise.
DeviceStrategy imageDeviceStrategy(ImageDescriptor const& descriptor);
// "cpu_only", "cpu_preferred", "any"; "invalid" for other values.
std::string_view deviceStrategyName(DeviceStrategy strategy);

} // namespace Velmoria::ImageMath
