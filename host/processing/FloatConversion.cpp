#include "host/processing/FloatConversion.h"

#include "host/core/Log.h"
#include "host/image/TypedImage.h"
#include "host/processing/FrameAttributes.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace Velmoria::ImageProcessing {

namespace {

constexpr char const* kCategory = "Host.ImageProcessing";

// The affine map value = stored · factor + offset that a frame needs, so that the pixel loop
// is one multiply-add whatever the options.
struct Affine
{
    double factor = 1.0;
    double offset = 0.0;
};

template <class T>
Affine floatMapping(TypedImage<T> const& in, bool normalize)
{
    ImageDescriptor const& d = in.descriptor();
    if (!normalize)
        return {1.0 / d.scale, -d.shift}; // storageToOriginal
    if constexpr (std::is_integral_v<T>) {
        double const lo = static_cast<double>(std::numeric_limits<T>::lowest());
        double const hi = static_cast<double>(std::numeric_limits<T>::max());
        return {1.0 / (hi - lo), -lo / (hi - lo)};
    } else {
        T lo{};
        T hi{};
        if (!in.getRange(lo, hi))
            return {0.0, 0.0}; // empty or only NaN: nothing to map (NaN stays NaN below)
        double const oLo = d.storageToOriginal(static_cast<double>(lo));
        double const oHi = d.storageToOriginal(static_cast<double>(hi));
        double const a = std::min(oLo, oHi);
        double const b = std::max(oLo, oHi);
        if (!(b > a))
            return {0.0, 0.0}; // constant image
        // original = stored / scale − shift, then (original − a) / (b − a).
        return {1.0 / (d.scale * (b - a)), (-d.shift - a) / (b - a)};
    }
}

} // namespace

std::unique_ptr<SharedImage> createFloat(SharedImage const& image, bool normalize)
{
    MemImage const* mem = image.mem();
    ImageDescriptor descriptor = mem->descriptor();
    descriptor.pixelType = PixelType::Float;
    descriptor.shift = 0.0;
    descriptor.scale = 1.0;
    auto out = TypedImage<float>::create(descriptor);
    if (!out) {
        VELMORIA_LOG_ERROR(kCategory, "createFloat: could not allocate a float image of {}",
                           descriptor.describe());
        return nullptr;
    }
    float* dst = out->pointer();
    auto const count = static_cast<std::int64_t>(mem->valueCount());
    visitPixelType(mem->type(), [&](auto tag) {
        using T = decltype(tag);
        auto const& in = static_cast<TypedImage<T> const&>(*mem);
        Affine const map = floatMapping(in, normalize);
        T const* src = in.pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i) {
            double const v = static_cast<double>(src[i]);
            // NaN · 0 is NaN, so an all-NaN float image keeps its NaN.
            dst[i] = static_cast<float>(v * map.factor + map.offset);
        }
    });
    return makeFrameLike(image, std::move(out));
}

std::unique_ptr<SharedImageSet> createFloat(SharedImageSet const& images, bool normalize)
{
    std::vector<std::shared_ptr<SharedImage>> frames;
    frames.reserve(static_cast<std::size_t>(images.size()));
    for (auto const& frame : images.images()) {
        auto converted = createFloat(*frame, normalize);
        if (!converted)
            return nullptr;
        frames.push_back(std::move(converted));
    }
    // A clone sharing the frames keeps every set-level attribute; then the frames are swapped.
    auto result = images.clone(SharedImageSet::CloneOption::ShareFrames);
    if (!result->replaceAll(std::move(frames)))
        return nullptr;
    return result;
}

} // namespace Velmoria::ImageProcessing
