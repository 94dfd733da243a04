#include "host/image/ImageDescriptor.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <algorithm>
#include <cmath>

namespace Velmoria {

namespace {

constexpr char const* g_category = "Host.ImageDescriptor";

std::size_t nonNegative(int value)
{
    return value > 0 ? static_cast<std::size_t>(value) : 0;
}

// Reads `key` when present; logs and returns false when its text does not read as T or
// `check` refuses the value. `what` says what a good value is.
template <class T, class Check>
bool readKey(Properties const& properties, char const* key, T& out, char const* what, Check check)
{
    if (!properties.contains(key))
        return true;
    T value{};
    if (!properties.param(key, value) || !check(value)) {
        VELMORIA_LOG_ERROR(g_category, "Invalid value '{}' for '{}' in image descriptor '{}': expected {}",
                           properties.paramValueText(key), key, properties.name(), what);
        return false;
    }
    out = value;
    return true;
}

} // namespace

namespace ImageDescriptorDetail {
bool approxEqual(double a, double b)
{
    if (a == b) // also equal infinities
        return true;
    return std::abs(a - b) <= 1e-9 + 1e-6 * std::max(std::abs(a), std::abs(b));
}
} // namespace ImageDescriptorDetail

ImageDescriptor::ImageDescriptor(PixelType type, Eigen::Vector3i const& dimensions, int channels)
    : ImageDescriptor(type, dimensions.x(), dimensions.y(), dimensions.z(), channels)
{}

ImageDescriptor::ImageDescriptor(PixelType type, int width, int height, int slices, int channels)
    : pixelType(type)
    , width(width)
    , height(height)
    , slices(slices)
    , channels(channels)
{}

std::size_t ImageDescriptor::pixelCount() const
{
    return nonNegative(width) * nonNegative(height) * nonNegative(slices);
}

std::size_t ImageDescriptor::valueCount() const
{
    return pixelCount() * nonNegative(channels);
}

std::size_t ImageDescriptor::byteSize() const
{
    return valueCount() * pixelTypeSize(pixelType);
}

Eigen::Vector3d ImageDescriptor::extent() const
{
    return dimensions().cast<double>().cwiseProduct(spacing);
}

bool ImageDescriptor::isValid() const
{
    return isValidPixelType(pixelType) && width >= 1 && height >= 1 && slices >= 1 && channels >= 1 &&
           spacing.allFinite() && (spacing.array() > 0.0).all() && std::isfinite(shift) &&
           std::isfinite(scale) && scale != 0.0;
}

void ImageDescriptor::setDimensions(Eigen::Vector3i const& dimensions, int channelCount)
{
    width = dimensions.x();
    height = dimensions.y();
    slices = dimensions.z();
    channels = channelCount;
}

void ImageDescriptor::setSpacing(Eigen::Vector3d const& newSpacing, bool metric)
{
    spacing = newSpacing;
    isMetric = metric;
}

void ImageDescriptor::setShiftScale(double newShift, double newScale)
{
    shift = newShift;
    scale = newScale;
}

bool ImageDescriptor::isApprox(ImageDescriptor const& other, int flags) const
{
    using ImageDescriptorDetail::approxEqual;
    if ((flags & CompareChannels) && channels != other.channels)
        return false;
    if ((flags & ComparePixelType) && pixelType != other.pixelType)
        return false;
    if ((flags & CompareShiftScale) && !(approxEqual(shift, other.shift) && approxEqual(scale, other.scale)))
        return false;
    if ((flags & CompareDimensions) && dimensions() != other.dimensions())
        return false;
    if ((flags & CompareSpacing) && (isMetric != other.isMetric || !approxEqual(spacing, other.spacing)))
        return false;
    return true;
}

bool ImageDescriptor::isPixelBufferCompatible(ImageDescriptor const& other) const
{
    return pixelType == other.pixelType && dimensions() == other.dimensions() && channels == other.channels;
}

bool ImageDescriptor::configure(Properties const* properties)
{
    if (!properties) {
        VELMORIA_LOG_ERROR(g_category, "Cannot configure an image descriptor from null properties");
        return false;
    }
    ImageDescriptor result = *this;
    bool ok = true;

    if (properties->contains("type")) {
        std::string text = properties->paramValueText("type");
        if (auto type = parsePixelType(text)) {
            result.pixelType = *type;
        } else {
            VELMORIA_LOG_ERROR(
                g_category,
                "Invalid value '{}' for 'type' in image descriptor '{}': expected a pixel type "
                "(int8, uint8, int16, uint16, int32, uint32, float, double)",
                text, properties->name());
            ok = false;
        }
    }
    Eigen::Vector3i dims = result.dimensions();
    ok &= readKey(*properties, "dimensions", dims, "three non-negative integers",
                  [](Eigen::Vector3i const& v) { return (v.array() >= 0).all(); });
    result.width = dims.x();
    result.height = dims.y();
    result.slices = dims.z();
    ok &= readKey(*properties, "channels", result.channels, "an integer >= 1", [](int v) { return v >= 1; });
    ok &= readKey(*properties, "spacing", result.spacing, "three positive finite numbers",
                  [](Eigen::Vector3d const& v) { return v.allFinite() && (v.array() > 0.0).all(); });
    ok &= readKey(*properties, "isMetric", result.isMetric, "true or false", [](bool) { return true; });
    ok &= readKey(*properties, "shift", result.shift, "a finite number",
                  [](double v) { return std::isfinite(v); });
    ok &= readKey(*properties, "scale", result.scale, "a finite non-zero number",
                  [](double v) { return std::isfinite(v) && v != 0.0; });
    if (!ok)
        return false;
    *this = result;
    return true;
}

void ImageDescriptor::configuration(Properties* properties) const
{
    if (!properties)
        return;
    properties->setParam("type", std::string(pixelTypeName(pixelType)));
    properties->setParam("dimensions", dimensions());
    properties->setParam("channels", channels);
    properties->setParam("spacing", spacing);
    properties->setParam("isMetric", isMetric);
    properties->setParam("shift", shift);
    properties->setParam("scale", scale);
}

bool ImageDescriptor::operator==(ImageDescriptor const& other) const
{
    return pixelType == other.pixelType && width == other.width && height == other.height &&
           slices == other.slices && channels == other.channels && spacing == other.spacing &&
           isMetric == other.isMetric && shift == other.shift && scale == other.scale;
}

std::string ImageDescriptor::describe() const
{
    return fmt::format("{} {}x{}x{} {}ch spacing {} {} {}{}", pixelTypeName(pixelType), width, height, slices,
                       channels, spacing.x(), spacing.y(), spacing.z(), isMetric ? " mm" : "");
}

} // namespace Velmoria
