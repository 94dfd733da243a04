#include "host/processing/ImageResamplingAlgorithm.h"

#include "host/core/Log.h"
#include "host/image/TypedImage.h"
#include "host/processing/GaussianFilter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.ImageResamplingAlgorithm";
// Slack on the border rule, in source pixels: target centres that lie exactly on the border of
// the source area must not fall outside because of rounding in the matrix product.
constexpr double kBorderTolerance = 1e-4;
// Dimensions beyond this per axis are a unit mistake (a spacing in metres), not a request.
constexpr double kMaxDimension = 1 << 20;

std::string text(Eigen::Vector3d const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

std::string text(Eigen::Vector3i const& v)
{
    return fmt::format("[{}, {}, {}]", v.x(), v.y(), v.z());
}

// "[a b c d, e f g h, ...]", the text form of matrices in configurations.
std::string text(Eigen::Matrix4d const& m)
{
    std::string result = "[";
    for (int r = 0; r < 4; ++r)
        result += fmt::format("{}{} {} {} {}", r ? ", " : "", m(r, 0), m(r, 1), m(r, 2), m(r, 3));
    return result + "]";
}

// Accumulator of a pixel type: float for the small types and float, double for 32-bit integers
// (a float cannot hold every int32) and double.
template <class T>
using WorkType = std::conditional_t<(sizeof(T) >= 4 && !std::is_same_v<T, float>), double, float>;

template <class T, class W>
inline T toPixel(W value)
{
    if constexpr (std::is_integral_v<T>) {
        W const rounded = std::nearbyint(value);
        if (!(rounded >= static_cast<W>(std::numeric_limits<T>::lowest())))
            return std::numeric_limits<T>::lowest();
        return rounded >= static_cast<W>(std::numeric_limits<T>::max()) ? std::numeric_limits<T>::max()
                                                                        : static_cast<T>(rounded);
    } else {
        return static_cast<T>(value);
    }
}

// The target columns [first, last) of a row whose source positions start + x · step lie
// strictly inside (lo, hi) on every axis, so that the fast loop needs neither bounds checks nor
// clamping. The interval is solved per axis and then checked against the very expression the
// loop evaluates, so rounding can never let a column in that the check would refuse.
struct Span
{
    std::int64_t first = 0;
    std::int64_t last = 0;
};

inline bool strictlyInside(Eigen::Vector3d const& start, Eigen::Vector3d const& step, double x,
                           Eigen::Vector3d const& lo, Eigen::Vector3d const& hi)
{
    for (int a = 0; a < 3; ++a) {
        double const p = start[a] + x * step[a];
        if (!(p > lo[a] && p < hi[a]))
            return false;
    }
    return true;
}

inline Span insideSpan(Eigen::Vector3d const& start, Eigen::Vector3d const& step, std::int64_t width,
                       Eigen::Vector3d const& lo, Eigen::Vector3d const& hi)
{
    double first = 0.0;
    double last = static_cast<double>(width - 1);
    for (int a = 0; a < 3; ++a) {
        if (step[a] == 0.0) {
            if (!(start[a] > lo[a] && start[a] < hi[a]))
                return {};
            continue;
        }
        double const t0 = (lo[a] - start[a]) / step[a];
        double const t1 = (hi[a] - start[a]) / step[a];
        first = std::max(first, std::min(t0, t1));
        last = std::min(last, std::max(t0, t1));
    }
    if (!(first <= last))
        return {};
    auto a = static_cast<std::int64_t>(std::ceil(first));
    auto b = static_cast<std::int64_t>(std::floor(last));
    while (a <= b && !strictlyInside(start, step, static_cast<double>(a), lo, hi))
        ++a;
    while (b >= a && !strictlyInside(start, step, static_cast<double>(b), lo, hi))
        --b;
    return a <= b ? Span{a, b + 1} : Span{};
}

// One frame: out(q) = interpolate(in, map · q) for every target pixel q. `Linear` picks the
// interpolation, `Planar` the 2D case (one source slice: no interpolation along z). Each row has
// a span of columns strictly inside the source, sampled without checks; the columns around it
// take the checked path that applies the border rule.
template <class T, bool Linear, bool Planar>
void resampleKernel(TypedImage<T> const& source, TypedImage<T>& target, Eigen::Matrix4d const& map)
{
    using W = WorkType<T>;
    std::int64_t const sx = source.width();
    std::int64_t const sy = source.height();
    std::int64_t const sz = source.slices();
    std::int64_t const tw = target.width();
    std::int64_t const th = target.height();
    std::int64_t const ch = source.channels();
    std::int64_t const rows = th * target.slices();
    Eigen::Vector3d const maxIndex(static_cast<double>(sx - 1), static_cast<double>(sy - 1),
                                   static_cast<double>(sz - 1));
    Eigen::Vector3d const borderLo = Eigen::Vector3d::Constant(-0.5 - kBorderTolerance);
    Eigen::Vector3d const borderHi = maxIndex + Eigen::Vector3d::Constant(0.5 + kBorderTolerance);
    // The fast span: linear needs the upper neighbour (p < max); nearest any clamped position.
    // An axis of one pixel (always the z axis of a planar source) has no open interior, so its
    // limits are widened to the border: the position is clamped to 0 there anyway.
    Eigen::Vector3d fastLo = Linear ? Eigen::Vector3d::Zero() : Eigen::Vector3d::Constant(-0.5);
    Eigen::Vector3d fastHi = Linear ? maxIndex : maxIndex + Eigen::Vector3d::Constant(0.5);
    for (int a = 0; a < 3; ++a)
        if (maxIndex[a] == 0.0) {
            fastLo[a] = borderLo[a];
            fastHi[a] = borderHi[a];
        }
    Eigen::Vector3d const step = map.col(0).head<3>();
    std::int64_t const strideY = sx * ch;
    std::int64_t const strideZ = sy * sx * ch;
    T const* src = source.pointer();
    T* dst = target.pointer();

    // Samples at a position already clamped to [0, max]; dx, dy, dz are the offsets of the upper
    // neighbours (0 on the last pixel of an axis, where the weight is 0 anyway).
    // `channels` is the run-time count, or std::integral_constant 1 for the common single
    // channel, whose loop the compiler then removes.
    auto sample = [&](double px, double py, double pz, std::int64_t dx, std::int64_t dy, std::int64_t dz,
                      T* out, auto channels) {
        std::int64_t const ch = channels;
        if constexpr (!Linear) {
            std::int64_t const ix = static_cast<std::int64_t>(px + 0.5);
            std::int64_t const iy = static_cast<std::int64_t>(py + 0.5);
            std::int64_t const iz = Planar ? 0 : static_cast<std::int64_t>(pz + 0.5);
            T const* in = src + iz * strideZ + iy * strideY + ix * ch;
            for (std::int64_t c = 0; c < ch; ++c)
                out[c] = in[c];
        } else {
            std::int64_t const x0 = static_cast<std::int64_t>(px);
            std::int64_t const y0 = static_cast<std::int64_t>(py);
            W const fx = static_cast<W>(px - static_cast<double>(x0));
            W const fy = static_cast<W>(py - static_cast<double>(y0));
            if constexpr (Planar) {
                T const* in = src + y0 * strideY + x0 * ch;
                for (std::int64_t c = 0; c < ch; ++c) {
                    W const v00 = static_cast<W>(in[c]);
                    W const v10 = static_cast<W>(in[c + dx]);
                    W const v01 = static_cast<W>(in[c + dy]);
                    W const v11 = static_cast<W>(in[c + dx + dy]);
                    W const a = v00 + fx * (v10 - v00);
                    W const b = v01 + fx * (v11 - v01);
                    out[c] = toPixel<T>(a + fy * (b - a));
                }
            } else {
                std::int64_t const z0 = static_cast<std::int64_t>(pz);
                W const fz = static_cast<W>(pz - static_cast<double>(z0));
                T const* in = src + z0 * strideZ + y0 * strideY + x0 * ch;
                for (std::int64_t c = 0; c < ch; ++c) {
                    W const v000 = static_cast<W>(in[c]);
                    W const v100 = static_cast<W>(in[c + dx]);
                    W const v010 = static_cast<W>(in[c + dy]);
                    W const v110 = static_cast<W>(in[c + dx + dy]);
                    W const v001 = static_cast<W>(in[c + dz]);
                    W const v101 = static_cast<W>(in[c + dx + dz]);
                    W const v011 = static_cast<W>(in[c + dy + dz]);
                    W const v111 = static_cast<W>(in[c + dx + dy + dz]);
                    W const a0 = v000 + fx * (v100 - v000);
                    W const b0 = v010 + fx * (v110 - v010);
                    W const a1 = v001 + fx * (v101 - v001);
                    W const b1 = v011 + fx * (v111 - v011);
                    W const c0 = a0 + fy * (b0 - a0);
                    W const c1 = a1 + fy * (b1 - a1);
                    out[c] = toPixel<T>(c0 + fz * (c1 - c0));
                }
            }
        }
    };

    // The border rule: zero outside the source area, else clamp to the outermost centres.
    auto sampleChecked = [&](Eigen::Vector3d const& start, std::int64_t x, T* out) {
        double const xd = static_cast<double>(x);
        double px = start.x() + xd * step.x();
        double py = start.y() + xd * step.y();
        double pz = start.z() + xd * step.z();
        // Written so that NaN positions count as outside.
        if (!(px >= borderLo.x() && px <= borderHi.x() && py >= borderLo.y() && py <= borderHi.y() &&
              pz >= borderLo.z() && pz <= borderHi.z())) {
            for (std::int64_t c = 0; c < ch; ++c)
                out[c] = T(0);
            return;
        }
        px = std::clamp(px, 0.0, maxIndex.x());
        py = std::clamp(py, 0.0, maxIndex.y());
        pz = std::clamp(pz, 0.0, maxIndex.z());
        std::int64_t const dx = static_cast<std::int64_t>(px) < sx - 1 ? ch : 0;
        std::int64_t const dy = static_cast<std::int64_t>(py) < sy - 1 ? strideY : 0;
        std::int64_t const dz = static_cast<std::int64_t>(pz) < sz - 1 ? strideZ : 0;
        sample(px, py, pz, dx, dy, dz, out, ch);
    };

#pragma omp parallel for schedule(static)
    for (std::int64_t row = 0; row < rows; ++row) {
        double const y = static_cast<double>(row % th);
        double const z = static_cast<double>(row / th);
        Eigen::Vector3d const start = (map.col(1) * y + map.col(2) * z + map.col(3)).head<3>();
        T* out = dst + row * tw * ch;
        Span const span = insideSpan(start, step, tw, fastLo, fastHi);
        std::int64_t x = 0;
        for (; x < span.first; ++x)
            sampleChecked(start, x, out + x * ch);
        // Inside: every upper neighbour exists (single-pixel axes aside, whose offset is 0).
        std::int64_t const dx = sx > 1 ? ch : 0;
        std::int64_t const dy = sy > 1 ? strideY : 0;
        std::int64_t const dz = sz > 1 ? strideZ : 0;
        auto fast = [&](auto channels) {
            for (; x < span.last; ++x) {
                double const xd = static_cast<double>(x);
                double const px = start.x() + xd * step.x();
                double const py = start.y() + xd * step.y();
                double const pz = Planar || sz == 1 ? 0.0 : start.z() + xd * step.z();
                if constexpr (Linear)
                    sample(px, py, pz, dx, dy, dz, out + x * ch, channels);
                else // nearest rounds; keep the rounded index inside for positions in (max, max + 0.5)
                    sample(std::min(px, maxIndex.x()), std::min(py, maxIndex.y()), std::min(pz, maxIndex.z()),
                           0, 0, 0, out + x * ch, channels);
            }
        };
        if (ch == 1)
            fast(std::integral_constant<std::int64_t, 1>());
        else
            fast(ch);
        for (; x < tw; ++x)
            sampleChecked(start, x, out + x * ch);
    }
}

template <class T>
void resampleTyped(TypedImage<T> const& source, TypedImage<T>& target, Eigen::Matrix4d const& map,
                   ImageResamplingAlgorithm::InterpolationMode mode)
{
    bool const planar = source.slices() == 1;
    if (mode == ImageResamplingAlgorithm::InterpolationMode::Linear) {
        if (planar)
            resampleKernel<T, true, true>(source, target, map);
        else
            resampleKernel<T, true, false>(source, target, map);
    } else {
        if (planar)
            resampleKernel<T, false, true>(source, target, map);
        else
            resampleKernel<T, false, false>(source, target, map);
    }
}

bool isUsableMatrix(Eigen::Matrix4d const& m)
{
    if (!m.allFinite())
        return false;
    if (m.row(3) != Eigen::RowVector4d(0.0, 0.0, 0.0, 1.0))
        return false;
    double const det = m.topLeftCorner<3, 3>().determinant();
    double const size = m.topLeftCorner<3, 3>().cwiseAbs().maxCoeff();
    return std::isfinite(det) && std::abs(det) > 1e-12 * size * size * size;
}

} // namespace

namespace ImageProcessing {

std::unique_ptr<SharedImage> resampleFrame(SharedImage const& frame, ImageDescriptorWorld const& target,
                                           ImageResamplingAlgorithm::InterpolationMode mode)
{
    if (!frame.mem()) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot resample a frame without CPU pixels");
        return nullptr;
    }
    if (!isUsableMatrix(frame.matrixToWorld())) {
        VELMORIA_LOG_ERROR(kCategory,
                           "Cannot resample a frame whose matrix {} is not an invertible affine map",
                           text(frame.matrixToWorld()));
        return nullptr;
    }
    ImageDescriptor descriptor = frame.descriptor();
    descriptor.setDimensions(target.descriptor().dimensions());
    descriptor.spacing = target.descriptor().spacing;
    if (!descriptor.isValid() || !isUsableMatrix(target.matrixToWorld())) {
        VELMORIA_LOG_ERROR(kCategory, "Invalid target grid: {} with matrix {}", descriptor.describe(),
                           text(target.matrixToWorld()));
        return nullptr;
    }
    ImageDescriptorWorld const grid(descriptor, target.matrixToWorld());
    std::unique_ptr<MemImage> pixels;
    if (grid.isApprox(frame.descriptorWorld(),
                      ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                          ImageDescriptor::CompareOrientation | ImageDescriptor::ComparePosition)) {
        // The same grid: copy, so that no interpolation rounding touches the values.
        pixels = frame.mem()->cloneMem();
        pixels->setSpacing(descriptor.spacing, descriptor.isMetric);
    } else {
        pixels = MemImage::create(descriptor);
        if (!pixels)
            return nullptr;
        Eigen::Matrix4d const map = frame.worldToPixelMatrix() * grid.pixelToWorldMatrix();
        visitPixelType(descriptor.pixelType, [&](auto tag) {
            using T = decltype(tag);
            resampleTyped(static_cast<TypedImage<T> const&>(*frame.mem()),
                          static_cast<TypedImage<T>&>(*pixels), map, mode);
        });
    }
    auto result = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    result->setMatrixToWorld(target.matrixToWorld());
    result->setModality(frame.modality());
    result->setDeformation(frame.deformation());
    return result;
}

} // namespace ImageProcessing

ImageResamplingAlgorithm::ImageResamplingAlgorithm(SharedImageSet const* input)
    : m_input(input)
{}

ImageResamplingAlgorithm::~ImageResamplingAlgorithm() = default;

void ImageResamplingAlgorithm::setTargetSpacing(Eigen::Vector3d const& spacing)
{
    m_targetSpacing = spacing;
    m_gridTarget = GridTarget::Spacing;
}

void ImageResamplingAlgorithm::setTargetDimensions(Eigen::Vector3i const& dimensions)
{
    m_targetDimensions = dimensions;
    m_gridTarget = GridTarget::Dimensions;
}

void ImageResamplingAlgorithm::setTargetDescriptorWorlds(std::vector<ImageDescriptorWorld> targets)
{
    m_targets = std::move(targets);
}

ImageResamplingAlgorithm::InterpolationMode ImageResamplingAlgorithm::interpolation() const
{
    return p_interpolation.value() == static_cast<int>(InterpolationMode::Nearest)
               ? InterpolationMode::Nearest
               : InterpolationMode::Linear;
}

bool ImageResamplingAlgorithm::targetFor(SharedImage const& frame, int index,
                                         ImageDescriptorWorld& target) const
{
    ImageDescriptor descriptor = frame.descriptor();
    Eigen::Vector3d const extent = descriptor.extent();
    Eigen::Vector3i const dims = descriptor.dimensions();
    if (!m_targets.empty()) {
        if (m_targets.size() != 1 &&
            m_targets.size() != static_cast<std::size_t>(m_input ? m_input->size() : 0)) {
            VELMORIA_LOG_ERROR(kCategory, "{} target grids given for {} frames (expected 1 or one per frame)",
                               m_targets.size(), m_input ? m_input->size() : 0);
            return false;
        }
        ImageDescriptorWorld const& given =
            m_targets[m_targets.size() == 1 ? 0 : static_cast<std::size_t>(index)];
        descriptor.setDimensions(given.descriptor().dimensions());
        descriptor.setSpacing(given.descriptor().spacing, given.descriptor().isMetric);
        if (!descriptor.isValid() || !isUsableMatrix(given.matrixToWorld())) {
            VELMORIA_LOG_ERROR(
                kCategory,
                "Target grid of frame {} is invalid: dimensions {}, spacing {}, matrix {} (needs "
                "positive sizes and spacing and an invertible affine matrix)",
                index, text(given.descriptor().dimensions()), text(given.descriptor().spacing),
                text(given.matrixToWorld()));
            return false;
        }
        target = ImageDescriptorWorld(descriptor, given.matrixToWorld());
        return true;
    }
    switch (m_gridTarget) {
    case GridTarget::None:
        VELMORIA_LOG_ERROR(kCategory, "No target set: call setTargetSpacing, setTargetDimensions or "
                                      "setTargetDescriptorWorlds before compute");
        return false;
    case GridTarget::Spacing: {
        if (!m_targetSpacing.allFinite() || (m_targetSpacing.array() <= 0.0).any()) {
            VELMORIA_LOG_ERROR(kCategory, "Target spacing {} must be positive and finite",
                               text(m_targetSpacing));
            return false;
        }
        Eigen::Vector3i newDims;
        Eigen::Vector3d newSpacing;
        for (int axis = 0; axis < 3; ++axis) {
            if (dims[axis] == 1) {
                newDims[axis] = 1;
                newSpacing[axis] = descriptor.spacing[axis];
                continue;
            }
            double const count = std::round(extent[axis] / m_targetSpacing[axis]);
            if (!(count <= kMaxDimension)) {
                VELMORIA_LOG_ERROR(kCategory,
                                   "Target spacing {} gives more than {} pixels along axis {} of frame {}",
                                   text(m_targetSpacing), kMaxDimension, axis, index);
                return false;
            }
            newDims[axis] = std::max(1, static_cast<int>(count));
            newSpacing[axis] = preserveExtent() ? extent[axis] / newDims[axis] : m_targetSpacing[axis];
        }
        descriptor.setDimensions(newDims);
        descriptor.spacing = newSpacing;
        break;
    }
    case GridTarget::Dimensions:
        if ((m_targetDimensions.array() < 1).any() ||
            (m_targetDimensions.cast<double>().array() > kMaxDimension).any()) {
            VELMORIA_LOG_ERROR(kCategory, "Target dimensions {} must lie between 1 and {}",
                               text(m_targetDimensions), kMaxDimension);
            return false;
        }
        descriptor.setDimensions(m_targetDimensions);
        descriptor.spacing = extent.cwiseQuotient(m_targetDimensions.cast<double>());
        break;
    }
    target = ImageDescriptorWorld(descriptor, frame.matrixToWorld());
    return true;
}

bool ImageResamplingAlgorithm::fail(int status)
{
    m_output.reset();
    setStatus(status);
    return false;
}

void ImageResamplingAlgorithm::compute()
{
    m_output.reset();
    if (!m_input || m_input->empty()) {
        VELMORIA_LOG_ERROR(kCategory, "{}", m_input ? "The input set has no frames" : "No input set");
        fail(InvalidInput);
        return;
    }
    int const mode = p_interpolation.value();
    if (mode != static_cast<int>(InterpolationMode::Nearest) &&
        mode != static_cast<int>(InterpolationMode::Linear)) {
        VELMORIA_LOG_ERROR(kCategory, "Unknown interpolation {} (0 Nearest, 1 Linear)", mode);
        fail(InvalidInput);
        return;
    }

    std::vector<ImageDescriptorWorld> targets(static_cast<std::size_t>(m_input->size()));
    for (int i = 0; i < m_input->size(); ++i) {
        SharedImage const* frame = m_input->get(i);
        if (!frame || !frame->mem()) {
            VELMORIA_LOG_ERROR(kCategory, "Frame {} of '{}' has no CPU pixels", i, m_input->name());
            fail(InvalidInput);
            return;
        }
        if (!isUsableMatrix(frame->matrixToWorld())) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Frame {} of '{}' has the matrix {}, which is not an invertible affine map", i,
                               m_input->name(), text(frame->matrixToWorld()));
            fail(InvalidInput);
            return;
        }
        if (!targetFor(*frame, i, targets[static_cast<std::size_t>(i)])) {
            fail(InvalidInput);
            return;
        }
    }

    std::vector<std::shared_ptr<SharedImage>> frames;
    for (int i = 0; i < m_input->size(); ++i) {
        SharedImage const& frame = *m_input->get(i);
        ImageDescriptorWorld const& target = targets[static_cast<std::size_t>(i)];
        std::unique_ptr<SharedImage> smoothed;
        if (reduceAliasing()) {
            // scikit-image's rule: sigma = (factor − 1) / 2 source pixels for a coarsening factor.
            Eigen::Vector3d sigma = Eigen::Vector3d::Zero();
            for (int axis = 0; axis < 3; ++axis) {
                double const factor = target.descriptor().spacing[axis] / frame.spacing()[axis];
                if (frame.dimensions()[axis] > 1 && factor > 1.0)
                    sigma[axis] = (factor - 1.0) / 2.0;
            }
            if ((sigma.array() > 0.0).any()) {
                smoothed = ImageProcessing::GaussianFilter(sigma).apply(frame);
                if (!smoothed) {
                    VELMORIA_LOG_ERROR(kCategory,
                                       "Could not smooth frame {} before resampling (sigma {} pixels)", i,
                                       text(sigma));
                    fail(InvalidInput);
                    return;
                }
            }
        }
        auto result = ImageProcessing::resampleFrame(smoothed ? *smoothed : frame, target, interpolation());
        if (!result) {
            VELMORIA_LOG_ERROR(kCategory, "Could not allocate the resampled frame {}: {}", i,
                               target.descriptor().describe());
            fail(OutOfMemory);
            return;
        }
        frames.push_back(std::move(result));
    }

    // Sharing the frames first keeps the set's and each frame's components, timestamps and
    // selection; replaceAll then swaps the frames in.
    auto output = m_input->clone(SharedImageSet::CloneOption::ShareFrames);
    if (!output->replaceAll(std::move(frames))) {
        fail(Error);
        return;
    }
    m_output = std::move(output);
    setStatus(Success);
}

OwningDataList ImageResamplingAlgorithm::takeOutput()
{
    OwningDataList list;
    if (m_output)
        list.add(std::move(m_output));
    return list;
}

std::unique_ptr<SharedImageSet> ImageResamplingAlgorithm::takeOutputSet()
{
    return std::move(m_output);
}

} // namespace Velmoria
