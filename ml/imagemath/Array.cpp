#include "ml/imagemath/Array.h"

#include <fmt/format.h>

namespace Velmoria::ImageMath::Detail {

bool checkLeafShape(ImageDescriptor const& desc, ImageDescriptor const& shape, std::string& why)
{
    if (desc.dimensions() != shape.dimensions() || desc.channels != shape.channels) {
        why = fmt::format("operand is {}x{}x{} with {} channels, target is {}x{}x{} with {} channels",
                          desc.width, desc.height, desc.slices, desc.channels, shape.width, shape.height,
                          shape.slices, shape.channels);
        return false;
    }
    return true;
}

bool checkLeafFrame(SharedImage const* frame, int image, PixelType expected, ImageDescriptor const& shape,
                    std::string& why)
{
    if (frame == nullptr || !frame->hasMem()) {
        why = fmt::format("operand has no frame {} in CPU memory", image);
        return false;
    }
    if (frame->pixelType() != expected) {
        why = fmt::format("operand frame {} has pixel type {}, expected {}", image,
                          pixelTypeName(frame->pixelType()), pixelTypeName(expected));
        return false;
    }
    return checkLeafShape(frame->descriptor(), shape, why);
}

} // namespace Velmoria::ImageMath::Detail
