#include "host/image/HistogramDataComponent.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>

namespace Velmoria {

namespace {

// Calls f(values, count, channels, descriptor) with the typed buffer of every frame.
template <class F>
void forEachFrame(SharedImageSet const& images, F&& f)
{
    for (auto const& frame : images.images()) {
        MemImage const* mem = frame->mem();
        visitPixelType(mem->type(), [&](auto tag) {
            using T = decltype(tag);
            f(static_cast<TypedImage<T> const&>(*mem).pointer(),
              static_cast<std::int64_t>(mem->descriptor().pixelCount()), mem->channels(), mem->descriptor());
        });
    }
}

} // namespace

double HistogramDataComponent::Histogram::total() const
{
    return std::accumulate(counts.begin(), counts.end(), 0.0);
}

HistogramDataComponent HistogramDataComponent::compute(SharedImageSet const& images, int bins)
{
    HistogramDataComponent result;
    if (images.empty() || bins < 1)
        return result;
    int const channels = images.get(0)->channels();
    result.m_histograms.resize(static_cast<std::size_t>(channels));

    for (int c = 0; c < channels; ++c) {
        double lo = std::numeric_limits<double>::infinity();
        double hi = -std::numeric_limits<double>::infinity();
        forEachFrame(images,
                     [&](auto const* values, std::int64_t count, int stride, ImageDescriptor const& d) {
                         if (c >= stride)
                             return;
#pragma omp parallel for reduction(min : lo) reduction(max : hi) schedule(static)
                         for (std::int64_t i = 0; i < count; ++i) {
                             double v = d.storageToOriginal(static_cast<double>(values[i * stride + c]));
                             if (std::isnan(v))
                                 continue;
                             lo = std::min(lo, v);
                             hi = std::max(hi, v);
                         }
                     });
        Histogram& histogram = result.m_histograms[static_cast<std::size_t>(c)];
        histogram.counts.assign(static_cast<std::size_t>(bins), 0.0);
        if (lo > hi)
            continue; // only NaN
        histogram.min = lo;
        histogram.max = hi;
        double const width = hi > lo ? (hi - lo) / bins : 1.0;

        forEachFrame(
            images, [&](auto const* values, std::int64_t count, int stride, ImageDescriptor const& d) {
                if (c >= stride)
                    return;
                // One private histogram per thread, added up at the end: no atomics in the loop.
                std::vector<std::vector<double>> partial(
                    static_cast<std::size_t>(omp_get_max_threads()),
                    std::vector<double>(static_cast<std::size_t>(bins), 0.0));
#pragma omp parallel
                {
                    auto& local = partial[static_cast<std::size_t>(omp_get_thread_num())];
#pragma omp for schedule(static)
                    for (std::int64_t i = 0; i < count; ++i) {
                        double v = d.storageToOriginal(static_cast<double>(values[i * stride + c]));
                        if (std::isnan(v))
                            continue;
                        auto bin = static_cast<int>((v - lo) / width);
                        local[static_cast<std::size_t>(std::clamp(bin, 0, bins - 1))] += 1.0;
                    }
                }
                for (auto const& local : partial)
                    for (int b = 0; b < bins; ++b)
                        histogram.counts[static_cast<std::size_t>(b)] += local[static_cast<std::size_t>(b)];
            });
    }
    return result;
}

double HistogramDataComponent::percentile(int channel, double fraction) const
{
    if (channel < 0 || channel >= static_cast<int>(m_histograms.size()))
        return std::numeric_limits<double>::quiet_NaN();
    Histogram const& h = m_histograms[static_cast<std::size_t>(channel)];
    double const total = h.total();
    if (total <= 0.0)
        return std::numeric_limits<double>::quiet_NaN();
    double const target = std::clamp(fraction, 0.0, 1.0) * total;
    double const width = (h.max - h.min) / static_cast<double>(h.counts.size());
    double seen = 0.0;
    for (std::size_t b = 0; b < h.counts.size(); ++b) {
        if (seen + h.counts[b] >= target && h.counts[b] > 0.0)
            return h.min + width * (static_cast<double>(b) + (target - seen) / h.counts[b]);
        seen += h.counts[b];
    }
    return h.max;
}

} // namespace Velmoria
