#include "host/processing/AutoWindowing.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"
#include "host/image/TypedImage.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

namespace Velmoria::ImageProcessing {

namespace {

constexpr char const* kCategory = "Host.AutoWindowing";

bool checkPercentiles(double minPercentile, double maxPercentile)
{
    auto const inRange = [](double p) { return p >= 0.0 && p <= 1.0; }; // false for NaN
    if (!inRange(minPercentile) || !inRange(maxPercentile)) {
        VELMORIA_LOG_ERROR(kCategory, "Percentiles must lie in [0, 1], got min {} and max {}", minPercentile,
                           maxPercentile);
        return false;
    }
    if (minPercentile > maxPercentile) {
        VELMORIA_LOG_ERROR(kCategory, "The min percentile {} is above the max percentile {}", minPercentile,
                           maxPercentile);
        return false;
    }
    return true;
}

// The pixels of `frame` inside `mask`, all channels, in original intensities, as a one-row
// double image: the histogram then counts exactly the unmasked pixels. Null when the mask does
// not fit (logged by the mask).
std::unique_ptr<SharedImage> maskedValues(SharedImage const& frame, Mask const& mask)
{
    auto inside = mask.createExplicitMask(frame);
    if (!inside)
        return nullptr;
    unsigned char const* flags = inside->pointer();
    auto const pixels = static_cast<std::int64_t>(frame.descriptor().pixelCount());
    int const channels = frame.channels();
    // Prefix positions of the inside pixels, so that the copy below runs in parallel.
    std::vector<std::int64_t> position(static_cast<std::size_t>(pixels));
    std::int64_t kept = 0;
    for (std::int64_t i = 0; i < pixels; ++i) {
        position[static_cast<std::size_t>(i)] = kept;
        kept += flags[i] != 0 ? 1 : 0;
    }
    auto values = TypedImage<double>::create(
        Eigen::Vector3i(static_cast<int>(std::max<std::int64_t>(kept, 1)), 1, 1), channels);
    if (!values)
        return nullptr;
    double* out = values->pointer();
    if (kept == 0)
        std::fill(out, out + channels, std::nan("")); // nothing inside: counted as no value
    ImageDescriptor const& d = frame.descriptor();
    visitPixelType(frame.pixelType(), [&](auto tag) {
        using T = decltype(tag);
        T const* in = static_cast<TypedImage<T> const&>(*frame.mem()).pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < pixels; ++i) {
            if (flags[i] == 0)
                continue;
            for (int c = 0; c < channels; ++c)
                out[position[static_cast<std::size_t>(i)] * channels + c] =
                    d.storageToOriginal(static_cast<double>(in[i * channels + c]));
        }
    });
    return std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(values)));
}

} // namespace

std::optional<std::pair<double, double>> computeAutoWindowing(HistogramDataComponent const& histogram,
                                                              double minPercentile, double maxPercentile,
                                                              int channel)
{
    if (!checkPercentiles(minPercentile, maxPercentile))
        return std::nullopt;
    if (channel < 0 || channel >= static_cast<int>(histogram.histograms().size())) {
        VELMORIA_LOG_ERROR(kCategory, "No histogram for channel {}; there are {}", channel,
                           histogram.histograms().size());
        return std::nullopt;
    }
    double const lo = histogram.percentile(channel, minPercentile);
    double const hi = histogram.percentile(channel, maxPercentile);
    if (std::isnan(lo) || std::isnan(hi)) {
        VELMORIA_LOG_ERROR(kCategory, "The histogram of channel {} counts no value", channel);
        return std::nullopt;
    }
    return std::pair{lo, hi};
}

std::optional<std::pair<double, double>> computeAutoWindowing(SharedImageSet const& images,
                                                              double minPercentile, double maxPercentile,
                                                              Mask const* mask, int channel)
{
    if (!checkPercentiles(minPercentile, maxPercentile))
        return std::nullopt;
    if (images.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot compute a window for the empty set '{}'", images.name());
        return std::nullopt;
    }
    if (!mask)
        return computeAutoWindowing(HistogramDataComponent::compute(images, kAutoWindowBins), minPercentile,
                                    maxPercentile, channel);
    SharedImageSet inside;
    for (auto const& frame : images.images()) {
        auto values = maskedValues(*frame, *mask);
        if (!values) {
            VELMORIA_LOG_ERROR(kCategory, "The mask does not fit a frame of the set '{}'", images.name());
            return std::nullopt;
        }
        inside.add(std::shared_ptr<SharedImage>(std::move(values)));
    }
    return computeAutoWindowing(HistogramDataComponent::compute(inside, kAutoWindowBins), minPercentile,
                                maxPercentile, channel);
}

bool autoWindow(SharedImageSet& images, double minPercentile, double maxPercentile)
{
    auto const range = computeAutoWindowing(images, minPercentile, maxPercentile);
    if (!range)
        return false;
    auto const [lo, hi] = *range;
    images.components().getOrCreate<DisplayOptions2d>()->setWindowFromRange(lo, hi);
    auto* options3d = images.components().getOrCreate<DisplayOptions3d>();
    options3d->p_window.setValue(hi - lo);
    options3d->p_level.setValue((lo + hi) / 2.0);
    return true;
}

} // namespace Velmoria::ImageProcessing
