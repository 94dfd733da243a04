#include "host/processing/GaussianFilter.h"

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

constexpr char const* kCategory = "Host.GaussianFilter";
// Radius = ceil(kRadiusPerSigma · sigma).
constexpr double kRadiusPerSigma = 3.0;

// The accumulator type of a pixel type (see the file comment of the header).
template <class T>
using WorkType = std::conditional_t<(sizeof(T) >= 4 && !std::is_same_v<T, float>), double, float>;

// One 1D pass along `axis` with clamped borders, from src into dst (both interleaved buffers of
// the image's layout). Lines along the axis are independent and are shared among threads.
template <class W>
void convolveAxis(W const* src, W* dst, Eigen::Vector3i const& dims, int channels, int axis,
                  std::vector<W> const& kernel)
{
    std::int64_t const ch = channels;
    std::int64_t const strides[3] = {ch, ch * dims.x(), ch * dims.x() * dims.y()};
    int const a1 = axis == 0 ? 1 : 0;
    int const a2 = axis == 2 ? 1 : 2;
    std::int64_t const n = dims[axis];
    std::int64_t const stride = strides[axis];
    std::int64_t const lines = static_cast<std::int64_t>(dims[a1]) * dims[a2];
    auto const radius = static_cast<std::int64_t>(kernel.size() / 2);
    W const* k = kernel.data();

#pragma omp parallel for schedule(static)
    for (std::int64_t line = 0; line < lines; ++line) {
        std::int64_t const base = (line % dims[a1]) * strides[a1] + (line / dims[a1]) * strides[a2];
        for (std::int64_t i = 0; i < n; ++i) {
            for (std::int64_t c = 0; c < ch; ++c) {
                W sum = 0;
                for (std::int64_t j = -radius; j <= radius; ++j) {
                    std::int64_t const p = std::clamp<std::int64_t>(i + j, 0, n - 1);
                    sum += k[j + radius] * src[base + p * stride + c];
                }
                dst[base + i * stride + c] = sum;
            }
        }
    }
}

template <class T, class W>
T toPixel(W value)
{
    if constexpr (std::is_integral_v<T>) {
        W const rounded = std::nearbyint(value);
        W const lo = static_cast<W>(std::numeric_limits<T>::lowest());
        W const hi = static_cast<W>(std::numeric_limits<T>::max());
        if (!(rounded >= lo)) // also NaN, which an integer cannot hold
            return std::numeric_limits<T>::lowest();
        return rounded >= hi ? std::numeric_limits<T>::max() : static_cast<T>(rounded);
    } else {
        return static_cast<T>(value);
    }
}

} // namespace

GaussianFilter::GaussianFilter(double sigma, Unit unit)
    : GaussianFilter(Eigen::Vector3d::Constant(sigma), unit)
{}

GaussianFilter::GaussianFilter(Eigen::Vector3d const& sigma, Unit unit)
    : m_sigma(sigma)
    , m_unit(unit)
{}

GaussianFilter GaussianFilter::fromHalfKernelSize(Eigen::Vector3d const& halfKernelSize, Unit unit)
{
    return GaussianFilter(halfKernelSize / kRadiusPerSigma, unit);
}

Eigen::Vector3d GaussianFilter::sigmaInVoxels(Eigen::Vector3d const& spacing) const
{
    return m_unit == Unit::Millimetres ? Eigen::Vector3d(m_sigma.cwiseQuotient(spacing)) : m_sigma;
}

std::vector<double> GaussianFilter::kernel(double sigmaInVoxels)
{
    if (!(sigmaInVoxels > 0.0) || !std::isfinite(sigmaInVoxels))
        return {1.0};
    auto const radius = static_cast<int>(std::ceil(kRadiusPerSigma * sigmaInVoxels));
    std::vector<double> weights(static_cast<std::size_t>(2 * radius + 1));
    double sum = 0.0;
    for (int i = -radius; i <= radius; ++i) {
        double const w = std::exp(-0.5 * (i * i) / (sigmaInVoxels * sigmaInVoxels));
        weights[static_cast<std::size_t>(i + radius)] = w;
        sum += w;
    }
    for (double& w : weights)
        w /= sum;
    return weights;
}

bool GaussianFilter::kernelsFor(SharedImage const& image, std::vector<double> (&kernels)[3]) const
{
    Eigen::Vector3d const sigma = sigmaInVoxels(image.spacing());
    for (int axis = 0; axis < 3; ++axis) {
        double const s = sigma[axis];
        if (!std::isfinite(s) || s < 0.0) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Invalid sigma {} ({} voxels) on axis {}; it must be finite and >= 0",
                               m_sigma[axis], s, axis);
            return false;
        }
        if (std::ceil(kRadiusPerSigma * s) > kMaxRadius) {
            VELMORIA_LOG_ERROR(
                kCategory, "Kernel radius of {} voxels on axis {} (sigma {} voxels) exceeds the limit of {}",
                std::ceil(kRadiusPerSigma * s), axis, s, kMaxRadius);
            return false;
        }
        // An axis of one voxel is left alone: with clamped borders it would not change anyway.
        kernels[axis] = image.dimensions()[axis] > 1 ? kernel(s) : std::vector<double>{1.0};
    }
    return true;
}

void GaussianFilter::smooth(MemImage const& in, MemImage& out, std::vector<double> const (&kernels)[3]) const
{
    auto const count = static_cast<std::int64_t>(in.valueCount());
    visitPixelType(in.type(), [&](auto tag) {
        using T = decltype(tag);
        using W = WorkType<T>;
        T const* src = static_cast<TypedImage<T> const&>(in).pointer();
        T* dst = static_cast<TypedImage<T>&>(out).pointer();
        // Two work buffers, ping-ponged between passes; allocated once per image.
        std::vector<W> a(static_cast<std::size_t>(count));
        std::vector<W> b(static_cast<std::size_t>(count));
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i)
            a[static_cast<std::size_t>(i)] = static_cast<W>(src[i]);
        for (int axis = 0; axis < 3; ++axis) {
            if (kernels[axis].size() <= 1)
                continue;
            std::vector<W> const k(kernels[axis].begin(), kernels[axis].end());
            convolveAxis(a.data(), b.data(), in.dimensions(), in.channels(), axis, k);
            a.swap(b);
        }
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i)
            dst[i] = toPixel<T>(a[static_cast<std::size_t>(i)]);
    });
}

std::unique_ptr<SharedImage> GaussianFilter::apply(SharedImage const& image) const
{
    std::vector<double> kernels[3];
    if (!kernelsFor(image, kernels))
        return nullptr;
    auto out = MemImage::create(image.descriptor());
    if (!out) {
        VELMORIA_LOG_ERROR(kCategory, "Could not allocate the smoothed image of {}",
                           image.descriptor().describe());
        return nullptr;
    }
    smooth(*image.mem(), *out, kernels);
    return makeFrameLike(image, std::move(out));
}

std::unique_ptr<SharedImageSet> GaussianFilter::apply(SharedImageSet const& images) const
{
    std::vector<std::shared_ptr<SharedImage>> frames;
    for (auto const& frame : images.images()) {
        auto smoothed = apply(*frame);
        if (!smoothed)
            return nullptr;
        frames.push_back(std::move(smoothed));
    }
    auto result = images.clone(SharedImageSet::CloneOption::ShareFrames);
    if (!result->replaceAll(std::move(frames)))
        return nullptr;
    return result;
}

bool GaussianFilter::applyInPlace(SharedImage& image) const
{
    std::vector<double> kernels[3];
    if (!kernelsFor(image, kernels))
        return false;
    // smooth() reads all of the input into its work buffer before it writes, so in and out
    // may be the same image.
    smooth(*image.mem(), *image.mem(), kernels);
    image.setDirtyGl();
    return true;
}

bool GaussianFilter::applyInPlace(SharedImageSet& images) const
{
    // Check every frame first so that a refused size changes nothing.
    std::vector<double> kernels[3];
    for (auto const& frame : images.images())
        if (!kernelsFor(*frame, kernels))
            return false;
    for (auto const& frame : images.images())
        applyInPlace(*frame);
    return true;
}

} // namespace Velmoria::ImageProcessing
