#include "ml/operations/catalogue/RecombinePatchesOperation.h"

#include "ml/data/ImageElement.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace Velmoria::ML {

namespace {

constexpr char kName[] = "RecombinePatches";
constexpr char kStaticPrefix[] = "[RecombinePatches] ";
// Below this weight a voxel counts as not reached (float epsilon: 1 / 8388608).
constexpr float kMinWeight = 1.1920929e-7F;
// The weight window: plateau half-width and falloff width as fractions of the patch extent.
constexpr double kPlateauFraction = 0.25;
constexpr double kFalloffFraction = 1.0 / 6.0;
// Fewer slices than this run serially: thread start-up costs more than the work.
constexpr int kMinParallelSlices = 8;

[[noreturn]] void fail(std::string const& message)
{
    throw OperationException(kStaticPrefix + message);
}

// The part of a region that lies inside both the accumulator and the patch: accumulator voxels
// [begin, end) per axis; patch voxel = accumulator voxel − offset.
struct ClippedRegion
{
    Eigen::Vector3i begin;
    Eigen::Vector3i end;
    bool empty() const { return (end.array() <= begin.array()).any(); }
};

ClippedRegion clip(RegionOfInterest const& roi, Eigen::Vector3i const& imageDims)
{
    ClippedRegion r;
    r.begin = roi.offset.cwiseMax(Eigen::Vector3i::Zero());
    r.end = (roi.offset + roi.extent).cwiseMin(imageDims);
    return r;
}

// Returns false when a hit counter of Default mode was already full (255) at some voxel of the
// region: the patch is added all the same, and the caller reports the layout as unsupported
// rather than letting the counter wrap into a wrong average.
template <class T>
bool addPatch(TypedImage<T> const& patch, PatchWeightWindow const* window, Eigen::Vector3i const& offset,
              ClippedRegion const& region, float* values, void* weightsData, RecombineMode mode,
              Eigen::Vector3i const& accDims)
{
    int const channels = patch.channels();
    auto const c = static_cast<std::ptrdiff_t>(channels);
    auto const pw = static_cast<std::ptrdiff_t>(patch.width());
    auto const ph = static_cast<std::ptrdiff_t>(patch.height());
    auto const aw = static_cast<std::ptrdiff_t>(accDims.x());
    auto const ah = static_cast<std::ptrdiff_t>(accDims.y());
    T const* const source = patch.pointer();
    int const nx = region.end.x() - region.begin.x();
    int const zBegin = region.begin.z();
    int const zEnd = region.end.z();
    bool const weighted = mode == RecombineMode::Weighted;
    float const* const fx = weighted ? window->factors[0].data() : nullptr;
    float const* const fy = weighted ? window->factors[1].data() : nullptr;
    float const* const fz = weighted ? window->factors[2].data() : nullptr;
    bool counterFull = false;

#pragma omp parallel for schedule(static) if (zEnd - zBegin >= kMinParallelSlices) reduction(|| : counterFull)
    for (int z = zBegin; z < zEnd; ++z) {
        std::ptrdiff_t const pz = z - offset.z();
        for (int y = region.begin.y(); y < region.end.y(); ++y) {
            std::ptrdiff_t const py = y - offset.y();
            std::ptrdiff_t const px0 = region.begin.x() - offset.x();
            std::ptrdiff_t const accIndex = (static_cast<std::ptrdiff_t>(z) * ah + y) * aw + region.begin.x();
            T const* src = source + ((pz * ph + py) * pw + px0) * c;
            float* dst = values + accIndex * c;
            if (weighted) {
                float const* wx = fx + px0;
                float const wyz = fy[py] * fz[pz];
                float* wdst = static_cast<float*>(weightsData) + accIndex;
                if (channels == 1) {
                    for (int x = 0; x < nx; ++x) {
                        float const w = wx[x] * wyz;
                        dst[x] += static_cast<float>(src[x]) * w;
                        wdst[x] += w;
                    }
                } else {
                    for (int x = 0; x < nx; ++x) {
                        float const w = wx[x] * wyz;
                        for (std::ptrdiff_t k = 0; k < c; ++k)
                            dst[x * c + k] += static_cast<float>(src[x * c + k]) * w;
                        wdst[x] += w;
                    }
                }
            } else {
                std::uint8_t* count = static_cast<std::uint8_t*>(weightsData) + accIndex;
                for (std::ptrdiff_t i = 0; i < nx * c; ++i)
                    dst[i] += static_cast<float>(src[i]);
                bool full = false;
                for (int x = 0; x < nx; ++x) {
                    full |= count[x] == std::numeric_limits<std::uint8_t>::max();
                    count[x] = static_cast<std::uint8_t>(count[x] + 1);
                }
                counterFull = counterFull || full;
            }
        }
    }
    return !counterFull;
}

// Rounds to nearest (halves away from zero) and clamps to T's range for integer T.
template <class T>
T castBack(float value)
{
    if constexpr (std::is_integral_v<T>) {
        double const rounded = std::round(static_cast<double>(value));
        double const low = static_cast<double>(std::numeric_limits<T>::lowest());
        double const high = static_cast<double>(std::numeric_limits<T>::max());
        if (!(rounded >= low)) // NaN lands here too
            return std::isnan(rounded) ? T(0) : std::numeric_limits<T>::lowest();
        if (rounded > high)
            return std::numeric_limits<T>::max();
        return static_cast<T>(rounded);
    } else {
        return static_cast<T>(value);
    }
}

} // namespace

// ---- RecombineMode ----------------------------------------------------------------------------

std::string recombineModeToString(RecombineMode mode)
{
    switch (mode) {
    case RecombineMode::Default:
        return "Default";
    case RecombineMode::Weighted:
        return "Weighted";
    }
    return std::to_string(static_cast<int>(mode));
}

RecombineMode stringToRecombineMode(std::string const& text)
{
    std::string const name = String::toLowerCopy(String::trimView(text));
    if (name == "default" || name == "0")
        return RecombineMode::Default;
    if (name == "weighted" || name == "1")
        return RecombineMode::Weighted;
    throw std::runtime_error("Unknown recombine mode '" + text + "', supported are ['Default', 'Weighted']");
}

// ---- PatchWeightWindow --------------------------------------------------------------------------

PatchWeightWindow PatchWeightWindow::forPatch(ImageDescriptor const& patch)
{
    PatchWeightWindow window;
    window.dimensions = patch.dimensions();
    window.spacing = patch.spacing;
    Eigen::Vector3d const extent = patch.extent();
    for (int axis = 0; axis < 3; ++axis) {
        int const n = std::max(window.dimensions[axis], 0);
        double const plateau = extent[axis] * kPlateauFraction;
        double const falloff = extent[axis] * kFalloffFraction;
        std::vector<float>& f = window.factors[static_cast<std::size_t>(axis)];
        f.resize(static_cast<std::size_t>(n));
        for (int i = 0; i < n; ++i) {
            // Distance of the voxel centre from the patch centre, millimetres; 0 on an axis of
            // one voxel, whose factor is therefore 1.
            double const d = std::abs((i - n * 0.5 + 0.5) * window.spacing[axis]);
            double const t = (d - plateau) / falloff;
            f[static_cast<std::size_t>(i)] = d <= plateau ? 1.0F : static_cast<float>(std::exp(-t * t));
        }
    }
    return window;
}

bool PatchWeightWindow::fits(ImageDescriptor const& patch) const
{
    return dimensions == patch.dimensions() && spacing == patch.spacing;
}

float PatchWeightWindow::at(int x, int y, int z) const
{
    float const wyz = factors[1][static_cast<std::size_t>(y)] * factors[2][static_cast<std::size_t>(z)];
    return factors[0][static_cast<std::size_t>(x)] * wyz;
}

// ---- RecombinePatchesOperation ----------------------------------------------------------------------

RecombinePatchesOperation::RecombinePatchesOperation(RecombineMode mode, ComputingDevice device)
    : Operation(kName, ProcessingPolicy::Everything)
    , p_mode("mode", RecombineMode::Default, this, ParamRequired::No, recombineModeToString,
             stringToRecombineMode, {"Default", "Weighted"})
{
    p_mode.setValue(mode);
    setComputingDevice(device);
}

std::shared_ptr<SharedImage>
RecombinePatchesOperation::createAccumulator(ImageDescriptorWorld const& geometry, int channels,
                                             PixelType type)
{
    ImageDescriptor descriptor(type, geometry.descriptor().dimensions(), channels);
    descriptor.setSpacing(geometry.descriptor().spacing, geometry.descriptor().isMetric);
    std::unique_ptr<MemImage> pixels = MemImage::zeros(descriptor);
    if (!pixels)
        fail(fmt::format("Could not allocate a recombination image of {}", descriptor.describe()));
    auto image = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    image->setMatrixToWorld(geometry.matrixToWorld());
    return image;
}

std::shared_ptr<SharedImage>
RecombinePatchesOperation::createWeightAccumulator(ImageDescriptorWorld const& geometry, RecombineMode mode)
{
    return createAccumulator(geometry, 1,
                             mode == RecombineMode::Weighted ? PixelType::Float : PixelType::UChar);
}

void RecombinePatchesOperation::recombineSinglePatch(SharedImage const& patch,
                                                     PatchWeightWindow const* window,
                                                     RegionOfInterest const& roi, SharedImage& recombination,
                                                     SharedImage& weights, RecombineMode mode)
{
    Eigen::Vector3i const patchDims = patch.dimensions();
    Eigen::Vector3i const accDims = recombination.dimensions();
    if (patchDims != roi.extent)
        fail(fmt::format("Cannot write patch image of size [{}, {}, {}] into ROI of size [{}, {}, {}]",
                         patchDims.x(), patchDims.y(), patchDims.z(), roi.extent.x(), roi.extent.y(),
                         roi.extent.z()));
    ClippedRegion const region = clip(roi, accDims);
    if (region.empty())
        fail(fmt::format("Patch region at offset [{}, {}, {}] of size [{}, {}, {}] lies outside the "
                         "recombination image of size [{}, {}, {}]",
                         roi.offset.x(), roi.offset.y(), roi.offset.z(), roi.extent.x(), roi.extent.y(),
                         roi.extent.z(), accDims.x(), accDims.y(), accDims.z()));
    int const grid = ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                     ImageDescriptor::CompareOrientation | ImageDescriptor::ComparePosition;
    if (!recombination.descriptorWorld().isApprox(weights.descriptorWorld(), grid) || weights.channels() != 1)
        fail("recombinationImage and recombinationWeights must have comparable descriptors.");
    if (!patch.descriptor().isApprox(recombination.descriptor(),
                                     ImageDescriptor::CompareChannels | ImageDescriptor::CompareSpacing))
        fail("patchImage and recombinationImage must have same channels and spacing.");
    if (recombination.pixelType() != PixelType::Float)
        fail("recombinationImage must be of pixel type float.");
    PixelType const expectedWeightType =
        mode == RecombineMode::Weighted ? PixelType::Float : PixelType::UChar;
    if (weights.pixelType() != expectedWeightType)
        fail(fmt::format("recombinationWeights must be of pixel type {} in RecombineMode::{}.",
                         pixelTypeName(expectedWeightType), recombineModeToString(mode)));
    if (mode == RecombineMode::Weighted) {
        if (!window)
            fail("patchWeight must be specified in RecombineMode::Weighted.");
        if (!window->fits(patch.descriptor()))
            fail("patchWeight was made for another patch size or spacing.");
    }

    auto* values = static_cast<float*>(recombination.mem()->data());
    void* weightData = weights.mem()->data();
    bool const counted = visitPixelType(patch.pixelType(), [&](auto tag) {
        using T = decltype(tag);
        return addPatch(static_cast<TypedImage<T> const&>(*patch.mem()), window, roi.offset, region, values,
                        weightData, mode, accDims);
    });
    recombination.setDirtyGl();
    weights.setDirtyGl();
    if (!counted)
        fail("More than 255 patches overlap at one voxel, which the 8-bit hit counter of "
             "RecombineMode::Default cannot count; use RecombineMode::Weighted or a larger patch step.");
}

std::unique_ptr<SharedImage> RecombinePatchesOperation::normalizeAndCastBack(SharedImage& recombination,
                                                                             SharedImage const& weights,
                                                                             PixelType type, double shift,
                                                                             double scale, RecombineMode mode)
{
    int const grid = ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                     ImageDescriptor::CompareOrientation;
    if (!recombination.descriptorWorld().isApprox(weights.descriptorWorld(), grid) ||
        recombination.pixelType() != PixelType::Float)
        fail("recombination images and weights have incompatible descriptors.");

    auto const pixels = static_cast<std::ptrdiff_t>(recombination.descriptor().pixelCount());
    auto const channels = static_cast<std::ptrdiff_t>(recombination.channels());
    auto* values = static_cast<float*>(recombination.mem()->data());
    std::ptrdiff_t uncovered = 0;
    if (mode == RecombineMode::Weighted) {
        if (weights.pixelType() != PixelType::Float)
            fail("recombination images and weights have incompatible descriptors.");
        auto const* w = static_cast<float const*>(weights.mem()->data());
#pragma omp parallel for schedule(static)
        for (std::ptrdiff_t i = 0; i < pixels; ++i) {
            float const factor = w[i] < kMinWeight ? 1.0F / kMinWeight : 1.0F / w[i];
            for (std::ptrdiff_t k = 0; k < channels; ++k)
                values[i * channels + k] *= factor;
        }
    } else {
        if (weights.pixelType() != PixelType::UChar)
            fail("recombination images and weights have incompatible descriptors.");
        auto const* count = static_cast<std::uint8_t const*>(weights.mem()->data());
#pragma omp parallel for schedule(static) reduction(+ : uncovered)
        for (std::ptrdiff_t i = 0; i < pixels; ++i) {
            // An uncovered voxel would be 0 / 0; it stays 0 and is reported below.
            float const factor = count[i] == 0 ? 0.0F : 1.0F / static_cast<float>(count[i]);
            uncovered += count[i] == 0 ? 1 : 0;
            for (std::ptrdiff_t k = 0; k < channels; ++k)
                values[i * channels + k] *= factor;
        }
    }
    if (uncovered > 0)
        VELMORIA_LOG_WARNING(std::string("ML.") + kName,
                             "{} of {} voxels were covered by no patch and are set to 0", uncovered, pixels);
    recombination.setDirtyGl();

    std::unique_ptr<SharedImage> result;
    if (type == PixelType::Float) {
        result = std::make_unique<SharedImage>(std::shared_ptr<Image>(recombination.sharedMem()));
    } else {
        ImageDescriptor descriptor = recombination.descriptor();
        descriptor.pixelType = type;
        std::unique_ptr<MemImage> target = MemImage::create(descriptor);
        if (!target)
            fail(fmt::format("Could not allocate the recombined image of {}", descriptor.describe()));
        auto const count = static_cast<std::ptrdiff_t>(descriptor.valueCount());
        visitPixelType(type, [&](auto tag) {
            using T = decltype(tag);
            T* out = static_cast<TypedImage<T>&>(*target).pointer();
#pragma omp parallel for schedule(static)
            for (std::ptrdiff_t i = 0; i < count; ++i)
                out[i] = castBack<T>(values[i]);
        });
        result = std::make_unique<SharedImage>(std::shared_ptr<Image>(std::move(target)));
    }
    result->mem()->setShiftScale(shift, scale);
    result->setMatrixToWorld(recombination.matrixToWorld());
    result->setModality(recombination.modality());
    return result;
}

std::shared_ptr<SharedImageSet>
RecombinePatchesOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    auto const* component = sis->components().get<PatchesFromImageDataComponent>();
    // One frame that is its whole original is an image already: nothing is pasted, and it comes
    // back as it is. A single patch that was padded (its box reaches outside its original) is
    // recombined, which cuts the padding off again.
    if (sis->size() == 1) {
        if (!component || component->patches.size() != 1)
            return sis;
        PatchInfo const& only = component->patches.front();
        if (only.offset.isZero() && only.size == only.originalDescriptorWorld.descriptor().dimensions())
            return sis;
    }
    if (!component)
        throwOperationError(
            "Cannot recombine input images without PatchesFromImageDataComponent, specifying the "
            "location of each patch in the original image. This operation is typically the "
            "inverse of SplitIntoPatchesOperation.");
    if (component->patches.size() != static_cast<std::size_t>(sis->size()))
        throwOperationError(fmt::format("Number of patch infos doesn't match the number of patches ({} infos "
                                        "for {} patches)",
                                        component->patches.size(), sis->size()));
    prepareInputForDevice(*sis);

    // Group the patches by original image, in order of first appearance.
    int const sameGrid = ImageDescriptor::CompareDimensions | ImageDescriptor::CompareSpacing |
                         ImageDescriptor::CompareOrientation | ImageDescriptor::ComparePosition;
    std::vector<std::vector<int>> groups;
    for (int k = 0; k < sis->size(); ++k) {
        ImageDescriptorWorld const& original =
            component->patches[static_cast<std::size_t>(k)].originalDescriptorWorld;
        auto group = std::find_if(groups.begin(), groups.end(), [&](std::vector<int> const& g) {
            return component->patches[static_cast<std::size_t>(g.front())].originalDescriptorWorld.isApprox(
                original, sameGrid);
        });
        if (group == groups.end())
            groups.push_back({k});
        else
            group->push_back(k);
    }

    std::shared_ptr<SharedImageSet> output = sis->clone(SharedImageSet::CloneOption::NoFrames);
    output->components().remove<PatchesFromImageDataComponent>();
    RecombineMode const mode = p_mode.value();
    std::optional<PatchWeightWindow> window;
    for (std::vector<int> const& group : groups) {
        SharedImage const& first = *sis->get(group.front());
        ImageDescriptorWorld const& geometry =
            component->patches[static_cast<std::size_t>(group.front())].originalDescriptorWorld;
        std::shared_ptr<SharedImage> values = createAccumulator(geometry, first.channels());
        std::shared_ptr<SharedImage> weights = createWeightAccumulator(geometry, mode);
        for (int k : group) {
            SharedImage const& patch = *sis->get(k);
            PatchInfo const& info = component->patches[static_cast<std::size_t>(k)];
            if (mode == RecombineMode::Weighted && (!window || !window->fits(patch.descriptor())))
                window = PatchWeightWindow::forPatch(patch.descriptor());
            try {
                recombineSinglePatch(patch, window ? &*window : nullptr,
                                     RegionOfInterest{info.offset, info.size}, *values, *weights, mode);
            } catch (OperationException const& e) {
                throwOperationError(fmt::format("Patch {}: {}", k, e.what()));
            }
        }
        std::unique_ptr<SharedImage> result = normalizeAndCastBack(
            *values, *weights, first.pixelType(), first.descriptor().shift, first.descriptor().scale, mode);
        result->setModality(first.modality());
        output->add(std::shared_ptr<SharedImage>(std::move(result)));
    }
    return output;
}

// ---- Incremental recombination ----------------------------------------------------------------------

RecombinePatchesOperation::Accumulation* RecombinePatchesOperation::findAccumulation(std::string const& key)
{
    auto it = std::find_if(m_accumulations.begin(), m_accumulations.end(),
                           [&](Accumulation const& a) { return a.key == key; });
    return it == m_accumulations.end() ? nullptr : &*it;
}

PatchWeightWindow const& RecombinePatchesOperation::windowFor(ImageDescriptor const& patch)
{
    if (!m_window || !m_window->fits(patch))
        m_window = PatchWeightWindow::forPatch(patch);
    return *m_window;
}

void RecombinePatchesOperation::setupRecombinationOutput(DataItem const& item,
                                                         SharedImageSet const* reference)
{
    m_accumulations.clear();
    m_layout.clear();
    m_shell.reset();
    m_finalized = false;
    m_runMode = p_mode.value();
    if (!reference || reference->empty())
        throwOperationError(
            "Cannot set up the recombination without a reference image (null or empty image set)");
    ImageDescriptorWorld const geometry = reference->get()->descriptorWorld();

    for (auto const& [key, element] : item.elements()) {
        auto const* image = dynamic_cast<ImageElement const*>(element.get());
        if (!image) {
            m_layout.emplace_back(
                key, std::shared_ptr<DataElement>(element->clone(DataElement::CloneOptions::Deep)));
            continue;
        }
        std::shared_ptr<SharedImageSet> const patches = image->sis();
        if (!patches || patches->empty())
            throwOperationError(
                fmt::format("Element `{}` holds no image to take the recombination's pixel type from", key));
        SharedImage const& patch = *patches->get();
        Accumulation accumulation;
        accumulation.key = key;
        accumulation.pixelType = patch.pixelType();
        accumulation.shift = patch.descriptor().shift;
        accumulation.scale = patch.descriptor().scale;
        accumulation.values = createAccumulator(geometry, patch.channels());
        accumulation.weights = createWeightAccumulator(geometry, m_runMode);
        accumulation.values->setModality(patch.modality());
        accumulation.emptyResultSet = reference->clone(SharedImageSet::CloneOption::NoFrames);
        m_accumulations.push_back(std::move(accumulation));
        m_layout.emplace_back(key, nullptr);
    }
    m_shell.emplace(item.clone(DataElement::CloneOptions::Shell));
}

void RecombinePatchesOperation::recombineSinglePatch(DataItem const& item, RegionOfInterest const& roi)
{
    if (!m_shell)
        throwOperationError(
            "Recombination image not yet initialized. Did you call `setupRecombinationOutput` before "
            "calling `recombineSinglePatch`?");
    if (m_finalized)
        throwOperationError(
            "Recombination was already finalized. Call `setupRecombinationOutput` to start a new one.");
    for (auto const& [key, element] : item.elements()) {
        auto const* image = dynamic_cast<ImageElement const*>(element.get());
        if (!image)
            continue;
        Accumulation* accumulation = findAccumulation(key);
        if (!accumulation)
            throwOperationError(fmt::format(
                "The internal recombination item doesn't contain the key `{}`. Please make sure that the "
                "DataItem "
                "you used in `setupRecombinationOutput` contains the same keys as the DataItem given to "
                "`recombineSinglePatch`.",
                key));
        std::shared_ptr<SharedImageSet> const patches = image->sis();
        int const count = patches ? patches->size() : 0;
        if (count != 1)
            throwOperationError(fmt::format(
                "Can recombine only a single image at a time, found {} images in element `{}`", count, key));
        SharedImage const& patch = *patches->get(0);
        PatchWeightWindow const* window =
            m_runMode == RecombineMode::Weighted ? &windowFor(patch.descriptor()) : nullptr;
        try {
            recombineSinglePatch(patch, window, roi, *accumulation->values, *accumulation->weights,
                                 m_runMode);
        } catch (OperationException const& e) {
            throwOperationError(fmt::format("Element `{}`: {}", key, e.what()));
        }
    }
}

DataItem RecombinePatchesOperation::finalizeRecombinationOutput()
{
    if (!m_shell)
        throwOperationError(
            "Recombination image not yet initialized. Did you call `setupRecombinationOutput` before?");
    if (m_finalized)
        throwOperationError(
            "Recombination was already finalized. Call `setupRecombinationOutput` to start a new one.");
    DataItem result = m_shell->clone(DataElement::CloneOptions::Shell);
    for (auto& [key, other] : m_layout) {
        if (other) {
            result.set(key, other);
            continue;
        }
        Accumulation* accumulation = findAccumulation(key);
        std::unique_ptr<SharedImage> image =
            normalizeAndCastBack(*accumulation->values, *accumulation->weights, accumulation->pixelType,
                                 accumulation->shift, accumulation->scale, m_runMode);
        accumulation->emptyResultSet->add(std::shared_ptr<SharedImage>(std::move(image)));
        result.set(key, accumulation->emptyResultSet);
        // The accumulators are spent (the float one may now be the result itself): free them.
        accumulation->values.reset();
        accumulation->weights.reset();
    }
    m_finalized = true;
    return result;
}

} // namespace Velmoria::ML
