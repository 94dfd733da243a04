#include "ml/operations/catalogue/NormalizationOperations.h"

#include "ml/imagemath/ImageMath.h"
#include "ml/operations/ParamException.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"
#include "host/image/HistogramDataComponent.h"
#include "host/image/Mask.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/AutoWindowing.h"
#include "host/processing/FloatConversion.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace Velmoria::ML {

namespace {

using ImageMath::Array;
using Channels = ImageMath::ChannelWiseScalar<double, -1>;

constexpr char const* kImplicitMakeFloat = "Input was not float - adding an implicit MakeFloatOperation.";
constexpr char const* kPercentileRange = "Min/max percentiles must be in [0;1]";
constexpr char const* kOutlierKeys = "Parameters 'min_outlier' or 'max_outlier' are not supported anymore";

template <class Target, class E>
void assignOrThrow(Operation const& operation, Target& target, ImageMath::ExprBaseTpl<E> const& expression)
{
    if (!target.assign(expression))
        operation.throwOperationError("Could not evaluate the normalisation formula on the input images");
}

// The set itself when it is float, else a float copy in original intensities (logged, as the
// processing list did not ask for it).
std::shared_ptr<SharedImageSet> floatInput(Operation const& operation, std::shared_ptr<SharedImageSet> sis)
{
    if (sis->pixelType() == PixelType::Float)
        return sis;
    VELMORIA_LOG_INFO(operation.logCategory(), kImplicitMakeFloat);
    std::shared_ptr<SharedImageSet> converted = ImageProcessing::createFloat(*sis, false);
    if (!converted)
        operation.throwOperationError("Could not convert the input images to float");
    return converted;
}

TypedImage<float>& floatPixels(SharedImage& frame)
{
    return static_cast<TypedImage<float>&>(*frame.mem());
}

// Smallest and largest original intensity of a float frame over all channels, counting only
// pixels whose mask byte is non-zero (all when `mask` is null); NaN is skipped. Nullopt when
// nothing was counted.
std::optional<std::pair<double, double>> originalRange(TypedImage<float> const& image,
                                                       unsigned char const* mask)
{
    ImageDescriptor const& desc = image.descriptor();
    auto const pixels = static_cast<std::int64_t>(desc.pixelCount());
    int const channels = desc.channels;
    float const* data = image.pointer();
    float lo = std::numeric_limits<float>::infinity();
    float hi = -std::numeric_limits<float>::infinity();
#pragma omp parallel for reduction(min : lo) reduction(max : hi) schedule(static)
    for (std::int64_t i = 0; i < pixels; ++i) {
        if (mask != nullptr && mask[i] == 0)
            continue;
        for (int c = 0; c < channels; ++c) {
            float const v = data[i * channels + c];
            // Comparisons with NaN are false, so NaN never becomes a bound.
            lo = v < lo ? v : lo;
            hi = v > hi ? v : hi;
        }
    }
    if (!(lo <= hi))
        return std::nullopt;
    // A negative scale swaps the order of stored and original values.
    double const a = desc.storageToOriginal(lo);
    double const b = desc.storageToOriginal(hi);
    return std::pair{std::min(a, b), std::max(a, b)};
}

// Pixels whose channel-0 value is not zero. IntensityMask keeps one closed interval, so the
// two sides of zero are two masks, joined here.
class NonZeroMask final : public Mask
{
public:
    std::unique_ptr<TypedImage<unsigned char>> createExplicitMask(SharedImage const& image) const override
    {
        double const tiny = std::numeric_limits<double>::denorm_min();
        double const big = std::numeric_limits<double>::max();
        auto below = IntensityMask(-big, -tiny).createExplicitMask(image);
        auto above = IntensityMask(tiny, big).createExplicitMask(image);
        if (!below || !above)
            return nullptr;
        unsigned char* out = below->pointer();
        unsigned char const* other = above->pointer();
        std::size_t const count = below->valueCount();
        for (std::size_t i = 0; i < count; ++i)
            out[i] = static_cast<unsigned char>(out[i] | other[i]);
        return below;
    }
    std::unique_ptr<Mask> clone() const override { return std::make_unique<NonZeroMask>(*this); }
};

// The median of `values` (reordered); the mean of the two middle values for an even count.
double medianOf(std::vector<float>& values)
{
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    double const upper = *middle;
    if (values.size() % 2 == 1)
        return upper;
    // After nth_element every value before `middle` is not above it: the lower middle value is
    // their largest.
    double const lower = *std::max_element(values.begin(), middle);
    return (lower + upper) / 2.0;
}

} // namespace

// ---- NormalizeUniform ----------------------------------------------------------------------

NormalizeUniformOperation::NormalizeUniformOperation(float min, float max)
    : IntensityOperation("NormalizeUniform", ProcessingPolicy::EverythingButLabels)
{
    p_min.setValue(min);
    p_max.setValue(max);
}

std::shared_ptr<SharedImageSet>
NormalizeUniformOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    // New float frames in original intensities; createFloat keeps matrix, modality, mask and
    // deformation of every frame and the components of the set.
    std::shared_ptr<SharedImageSet> result = ImageProcessing::createFloat(*sis, false);
    if (!result)
        throwOperationError("Could not convert the input images to float");
    double const outMin = p_min.value();
    double const outMax = p_max.value();
    for (int i = 0; i < result->size(); ++i) {
        SharedImage& frame = *result->get(i);
        std::unique_ptr<TypedImage<unsigned char>> mask;
        if (frame.mask()) {
            mask = frame.mask()->createExplicitMask(frame);
            if (!mask)
                throwOperationError(fmt::format("The mask of image {} ({}) does not fit it", i,
                                                frame.descriptor().describe()));
        }
        auto const range = originalRange(floatPixels(frame), mask ? mask->pointer() : nullptr);
        if (!range)
            throwOperationError(
                fmt::format("Image {} has no value inside its mask to take the range from", i));
        auto const [lo, hi] = *range;
        if (hi == lo) {
            // No spread to stretch: the whole image sits at the lower end instead of 0 / 0.
            floatPixels(frame).fill(static_cast<float>(outMin));
            continue;
        }
        Array<SharedImage> img(frame);
        assignOrThrow(*this, img, (img - lo) / (hi - lo) * (outMax - outMin) + outMin);
    }
    result->components().getOrCreate<DisplayOptions2d>()->setWindowFromRange(outMin, outMax);
    return result;
}

// ---- NormalizePercentile -------------------------------------------------------------------

NormalizePercentileOperation::NormalizePercentileOperation(float minPercentile, float maxPercentile,
                                                           bool clampValues, bool ignoreZeros)
    : IntensityOperation("NormalizePercentile", ProcessingPolicy::EverythingButLabels)
{
    p_minPercentile.setValue(minPercentile);
    p_maxPercentile.setValue(maxPercentile);
    p_clampValues.setValue(clampValues);
    p_ignoreZeros.setValue(ignoreZeros);
    if (!percentilesInRange())
        throw ParamException(kPercentileRange);
}

bool NormalizePercentileOperation::percentilesInRange() const
{
    auto const inRange = [](float p) { return p >= 0.0F && p <= 1.0F; };
    return inRange(p_minPercentile.value()) && inRange(p_maxPercentile.value());
}

bool NormalizePercentileOperation::configure(Properties const& properties)
{
    if (properties.contains("min_outlier") || properties.contains("max_outlier")) {
        VELMORIA_LOG_ERROR(logCategory(), kOutlierKeys);
        return false;
    }
    if (!Operation::configure(properties))
        return false;
    if (!percentilesInRange()) {
        VELMORIA_LOG_ERROR(logCategory(), "{} (min_percentile {}, max_percentile {})", kPercentileRange,
                           p_minPercentile.value(), p_maxPercentile.value());
        return false;
    }
    return true;
}

std::shared_ptr<SharedImageSet>
NormalizePercentileOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    // Values set through setValue after construction are not checked anywhere else.
    if (!percentilesInRange())
        throwOperationError(kPercentileRange);
    if (p_minPercentile.value() == p_maxPercentile.value())
        throwOperationError(
            fmt::format("'min_percentile' and 'max_percentile' are both {}: the mapping would "
                        "divide by zero",
                        p_minPercentile.value()));
    sis = floatInput(*this, std::move(sis));
    prepareInputForDevice(*sis);
    double const minPercentile = p_minPercentile.value();
    double const maxPercentile = p_maxPercentile.value();
    NonZeroMask const nonZero;
    for (int i = 0; i < sis->size(); ++i) {
        SharedImageSet const single(sis->getShared(i));
        int const channels = single.get(0)->channels();
        std::optional<HistogramDataComponent> histogram;
        if (!p_ignoreZeros.value())
            histogram = HistogramDataComponent::compute(single, ImageProcessing::kAutoWindowBins);
        std::vector<double> lows(static_cast<std::size_t>(channels));
        std::vector<double> spans(static_cast<std::size_t>(channels));
        for (int c = 0; c < channels; ++c) {
            auto const values =
                histogram ? ImageProcessing::computeAutoWindowing(*histogram, minPercentile, maxPercentile, c)
                          : ImageProcessing::computeAutoWindowing(single, minPercentile, maxPercentile,
                                                                  &nonZero, c);
            if (!values)
                throwOperationError(
                    fmt::format("Could not compute the percentiles {} and {} of channel {} of image {}",
                                minPercentile, maxPercentile, c, i));
            VELMORIA_LOG_DEBUG(logCategory(), "minPercentileValue = {}", values->first);
            VELMORIA_LOG_DEBUG(logCategory(), "maxPercentileValue = {}", values->second);
            double span = values->second - values->first;
            if (!(span > 0.0)) {
                // A constant channel (an empty slice, a blank padding frame): dividing would make it
                // infinite, so it is only shifted.
                VELMORIA_LOG_WARNING(logCategory(),
                                     "Channel {} of image {} has the value {} at both percentiles; it is "
                                     "shifted to 0 instead of divided by 0",
                                     c, i, values->first);
                span = 1.0;
            }
            lows[static_cast<std::size_t>(c)] = values->first;
            spans[static_cast<std::size_t>(c)] = span;
        }
        Array<SharedImage> img(*sis->get(i));
        Channels const low(lows);
        Channels const span(spans);
        if (p_clampValues.value())
            assignOrThrow(*this, img, min(max((img - low) / span, 0.0), 1.0));
        else
            assignOrThrow(*this, img, (img - low) / span);
    }
    return sis;
}

// ---- NormalizeMAD --------------------------------------------------------------------------

NormalizeMADOperation::NormalizeMADOperation(std::vector<int> const& selectedChannels)
    : IntensityOperation("NormalizeMAD", ProcessingPolicy::EverythingButLabels)
{
    p_selectedChannels.setValue(selectedChannels);
}

bool NormalizeMADOperation::useGPU(SharedImageSet const*) const
{
    return false;
}

std::shared_ptr<SharedImageSet>
NormalizeMADOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (computingDevice() == ComputingDevice::ForceGPU)
        warnOperationUnexpectedBehaviour(name() +
                                         " was forced to run on GPU but is not implemented for that yet.");
    sis = floatInput(*this, std::move(sis));
    prepareInputForDevice(*sis);

    int const channels = sis->get(0)->channels();
    std::vector<int> selected = p_selectedChannels.value();
    if (selected.empty())
        for (int c = 0; c < channels; ++c)
            selected.push_back(c);
    for (int c : selected)
        if (c < 0 || c >= channels)
            throwOperationError(
                fmt::format("Selected channel {} does not exist in images of {} channels", c, channels));

    // One job per frame and selected channel; each sorts its own copy of the channel.
    int const frames = sis->size();
    auto const jobs = static_cast<std::int64_t>(frames) * static_cast<std::int64_t>(selected.size());
    std::vector<double> medians(static_cast<std::size_t>(frames * channels), 0.0);
    std::vector<double> deviations(static_cast<std::size_t>(frames * channels), 1.0);
#pragma omp parallel for schedule(dynamic)
    for (std::int64_t job = 0; job < jobs; ++job) {
        auto const frame = static_cast<int>(job / static_cast<std::int64_t>(selected.size()));
        int const c = selected[static_cast<std::size_t>(job % static_cast<std::int64_t>(selected.size()))];
        auto const& pixels = static_cast<TypedImage<float> const&>(*sis->get(frame)->mem());
        ImageDescriptor const& desc = pixels.descriptor();
        std::size_t const count = desc.pixelCount();
        std::vector<float> values(count);
        for (std::size_t p = 0; p < count; ++p)
            values[p] = static_cast<float>(desc.storageToOriginal(pixels.pointer()[p * channels + c]));
        auto const slot = static_cast<std::size_t>(frame * channels + c);
        if (count == 0)
            continue;
        double const median = medianOf(values);
        for (float& v : values)
            v = static_cast<float>(std::abs(v - median));
        medians[slot] = median;
        deviations[slot] = medianOf(values);
    }

    bool const fixMedian = p_fixMedian.value();
    for (int f = 0; f < frames; ++f) {
        auto const first = medians.begin() + static_cast<std::ptrdiff_t>(f * channels);
        std::vector<double> const median(first, first + channels);
        auto const firstDeviation = deviations.begin() + static_cast<std::ptrdiff_t>(f * channels);
        std::vector<double> const mad(firstDeviation, firstDeviation + channels);
        std::vector<double> offset(static_cast<std::size_t>(channels), 0.0);
        if (fixMedian)
            for (int c : selected)
                offset[static_cast<std::size_t>(c)] = median[static_cast<std::size_t>(c)];
        Array<SharedImage> img(*sis->get(f));
        // Unselected channels have median 0, MAD 1 and offset 0: they keep their values.
        assignOrThrow(*this, img, divideIfNotZero(img - Channels(median), Channels(mad)) + Channels(offset));
    }

    Array<SharedImageSet> all(*sis);
    std::vector<double> const lo = reduceMin(all).eval();
    std::vector<double> const hi = reduceMax(all).eval();
    if (!lo.empty() && !hi.empty() && lo[0] <= hi[0])
        sis->components().getOrCreate<DisplayOptions2d>()->setWindowFromRange(lo[0], hi[0]);
    return sis;
}

// ---- GammaCorrection -----------------------------------------------------------------------

GammaCorrectionOperation::GammaCorrectionOperation(double gamma)
    : IntensityOperation("GammaCorrection", ProcessingPolicy::EverythingButLabels)
{
    p_gamma.setValue(gamma);
}

std::shared_ptr<SharedImageSet>
GammaCorrectionOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->pixelType() != PixelType::Float)
        throwOperationError("Input image must be float");
    prepareInputForDevice(*sis);
    double const gamma = p_gamma.value();
    for (int i = 0; i < sis->size(); ++i) {
        SharedImage& frame = *sis->get(i);
        auto const range = originalRange(floatPixels(frame), nullptr);
        if (!range || range->first == range->second)
            continue; // all NaN or constant: nothing to bend
        double const lo = range->first;
        double const r = range->second - lo;
        auto const gammaOf = [lo, r, gamma](auto x) {
            using V = decltype(x);
            // Rounding of stored values may put x a hair below lo; pow of a negative base with a
            // fractional exponent would be NaN.
            V const base = std::max((x - static_cast<V>(lo)) / static_cast<V>(r), V(0));
            return static_cast<V>(r) * std::pow(base, static_cast<V>(gamma)) + static_cast<V>(lo);
        };
        // The exponent takes the operand's GLSL type, since pow() needs both of the same type.
        int const channels = frame.channels();
        std::string const type = channels == 1 ? "float" : fmt::format("vec{}", channels);
        auto const glsl = [lo, r, gamma, type] {
            return fmt::format("{} * pow(({{}}-({}))/{}, {}({})) + ({})", r, lo, r, type, gamma, lo);
        };
        Array<SharedImage> img(frame);
        assignOrThrow(*this, img, unaryLambda(img, gammaOf, glsl));
    }
    return sis;
}

} // namespace Velmoria::ML
