#include "ml/imagemath/Array.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <algorithm>

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

bool resolveRegion(WriteRegion const& region, ImageDescriptor const& frame, int image, FrameRegion& resolved)
{
    Eigen::Vector3i const dims = frame.dimensions();
    resolved.offset = region.offset;
    resolved.size = region.size.value_or(dims - region.offset);
    Eigen::Vector3i const end = resolved.offset + resolved.size;
    if ((resolved.offset.array() < 0).any() || (resolved.size.array() < 0).any() ||
        (end.array() > dims.array()).any()) {
        VELMORIA_LOG_ERROR(
            "ML.ImageMath",
            "Cannot assign to the box at {} {} {} of size {} {} {}: it does not lie inside frame {} "
            "({}x{}x{})",
            resolved.offset.x(), resolved.offset.y(), resolved.offset.z(), resolved.size.x(),
            resolved.size.y(), resolved.size.z(), image, dims.x(), dims.y(), dims.z());
        return false;
    }
    resolved.allChannels = region.channels.empty();
    resolved.channels = region.channels;
    if (resolved.allChannels) {
        resolved.channels.resize(static_cast<std::size_t>(frame.channels));
        for (int c = 0; c < frame.channels; ++c)
            resolved.channels[static_cast<std::size_t>(c)] = c;
        return true;
    }
    std::vector<bool> seen(static_cast<std::size_t>(frame.channels), false);
    for (int c : region.channels) {
        if (c < 0 || c >= frame.channels || seen[static_cast<std::size_t>(c)]) {
            VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign to channel {} of frame {} ({} channels): {}", c,
                               image, frame.channels,
                               c < 0 || c >= frame.channels ? "out of range" : "written twice");
            return false;
        }
        seen[static_cast<std::size_t>(c)] = true;
    }
    return true;
}

ImageDescriptor regionShape(ImageDescriptor const& frame, FrameRegion const& region)
{
    ImageDescriptor shape = frame;
    shape.width = region.size.x();
    shape.height = region.size.y();
    shape.slices = region.size.z();
    shape.channels = static_cast<int>(region.channels.size());
    return shape;
}

} // namespace Velmoria::ImageMath::Detail
