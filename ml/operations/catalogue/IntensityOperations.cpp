#include "ml/operations/catalogue/IntensityOperations.h"

#include "ml/imagemath/ImageMath.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/FloatConversion.h"
#include "host/processing/FrameAttributes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>

namespace Velmoria::ML {

namespace {

using ImageMath::Array;
using ImageMath::Index;

// Assigns `expression` to `target`; an operand that does not fit (ImageMath has logged why)
// stops the operation rather than leaving the set half written.
template <class Target, class E>
void assignOrThrow(Operation const& operation, Target& target, ImageMath::ExprBaseTpl<E> const& expression)
{
    if (!target.assign(expression))
        operation.throwOperationError("Could not evaluate the intensity formula on the input images");
}

// Per channel over a whole set: mean and population deviation of the original intensities.
struct ChannelMoments
{
    std::vector<double> mean;
    std::vector<double> stddev;
};

// Sums of one channel, relative to a pivot.
struct ShiftedSums
{
    double count = 0.0;
    double sum = 0.0;
    double squares = 0.0;
};

// Value of one pixel as ImageMath reads it (v / scale - shift in float), so that the background
// test sees the same numbers as the assignment afterwards.
template <bool Convert>
inline float originalOf(float v, float shift, float scale)
{
    return Convert ? v / scale - shift : v;
}

// Adds one float frame (interleaved channels) to `sums`, one ShiftedSums per channel.
template <bool Convert, bool Background>
void addFrame(float const* data, Index pixels, int channels, float shift, float scale, float bg,
              std::vector<double> const& pivot, std::vector<ShiftedSums>& sums)
{
    if (channels == 1) {
        // `omp simd` allows the reduction to be reordered, which the compiler may not do for
        // doubles by itself, so that this loop (the common case) vectorises.
        double n = 0.0, s = 0.0, s2 = 0.0;
        double const k = pivot[0];
#pragma omp parallel for simd reduction(+ : n, s, s2) schedule(static)
        for (Index i = 0; i < pixels; ++i) {
            float const x = originalOf<Convert>(data[i], shift, scale);
            double d = static_cast<double>(x) - k;
            if constexpr (Background) {
                bool const keep = x != bg;
                d = keep ? d : 0.0;
                n += keep ? 1.0 : 0.0;
            }
            s += d;
            s2 += d * d;
        }
        sums[0].count += Background ? n : static_cast<double>(pixels);
        sums[0].sum += s;
        sums[0].squares += s2;
        return;
    }
    auto const nc = static_cast<std::size_t>(channels);
#pragma omp parallel
    {
        std::vector<ShiftedSums> local(nc);
#pragma omp for schedule(static) nowait
        for (Index i = 0; i < pixels; ++i) {
            float const* pixel = data + i * channels;
            for (std::size_t c = 0; c < nc; ++c) {
                float const x = originalOf<Convert>(pixel[c], shift, scale);
                if constexpr (Background)
                    if (x == bg)
                        continue;
                double const d = static_cast<double>(x) - pivot[c];
                local[c].count += 1.0;
                local[c].sum += d;
                local[c].squares += d * d;
            }
        }
#pragma omp critical(velmoria_normalize_normal_moments)
        for (std::size_t c = 0; c < nc; ++c) {
            sums[c].count += local[c].count;
            sums[c].sum += local[c].sum;
            sums[c].squares += local[c].squares;
        }
    }
}

// One pass over the pixels for both statistics (the mean and the deviation used to take a pass
// each, through two ImageMath reductions). Sums of x and x² in double would lose the variance to
// cancellation when the mean is large against the deviation (CT values around 1000 with a spread
// of 1, say); summing d = x - K with K a value of the channel itself (its first pixel) keeps d of
// the order of the spread, and var = Σd²/n - (Σd/n)² is then exact to double rounding for any
// realistic image. Welford/Chan updates would be as stable but need a division per value, which
// costs more than the memory traffic this loop is bound by. Float frames only (the caller
// converts first).
ChannelMoments channelMoments(SharedImageSet const& sis, std::optional<float> background)
{
    auto const channels = static_cast<std::size_t>(sis.get(0)->channels());
    std::vector<ShiftedSums> sums(channels);
    std::vector<double> pivot(channels, 0.0);
    bool pivotSet = false;
    float const bg = background.value_or(0.0F);
    for (auto const& frame : sis.images()) {
        auto const& pixels = static_cast<TypedImage<float> const&>(*frame->mem());
        ImageDescriptor const& desc = pixels.descriptor();
        auto const count = static_cast<Index>(desc.pixelCount());
        if (count == 0)
            continue;
        bool const convert = desc.shift != 0.0 || desc.scale != 1.0;
        auto const shift = static_cast<float>(desc.shift);
        auto const scale = static_cast<float>(desc.scale);
        float const* data = pixels.pointer();
        if (!pivotSet) {
            for (std::size_t c = 0; c < channels; ++c) {
                auto const x =
                    static_cast<double>(convert ? originalOf<true>(data[c], shift, scale) : data[c]);
                pivot[c] = std::isfinite(x) ? x : 0.0;
            }
            pivotSet = true;
        }
        int const n = static_cast<int>(channels);
        if (background && convert)
            addFrame<true, true>(data, count, n, shift, scale, bg, pivot, sums);
        else if (background)
            addFrame<false, true>(data, count, n, shift, scale, bg, pivot, sums);
        else if (convert)
            addFrame<true, false>(data, count, n, shift, scale, bg, pivot, sums);
        else
            addFrame<false, false>(data, count, n, shift, scale, bg, pivot, sums);
    }
    ChannelMoments moments{std::vector<double>(channels, 0.0), std::vector<double>(channels, 0.0)};
    for (std::size_t c = 0; c < channels; ++c) {
        ShiftedSums const& s = sums[c];
        if (s.count <= 0.0)
            continue;
        double const meanOffset = s.sum / s.count;
        moments.mean[c] = pivot[c] + meanOffset;
        moments.stddev[c] = std::sqrt(std::max(0.0, s.squares / s.count - meanOffset * meanOffset));
    }
    return moments;
}

} // namespace

// ---- Clip ----------------------------------------------------------------------------------

ClipOperation::ClipOperation(float min, float max)
    : IntensityOperation("Clip", ProcessingPolicy::EverythingButLabels)
{
    p_min.setValue(min);
    p_max.setValue(max);
}

std::shared_ptr<SharedImageSet> ClipOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    assignOrThrow(*this, img, min(max(img, p_min.value()), p_max.value()));
    return sis;
}

// ---- LinearIntensityMapping ----------------------------------------------------------------

LinearIntensityMappingOperation::LinearIntensityMappingOperation(double factor, double bias)
    : IntensityOperation("LinearIntensityMapping", ProcessingPolicy::EverythingButLabels)
{
    p_factor.setValue(factor);
    p_bias.setValue(bias);
}

bool LinearIntensityMappingOperation::doesNotModifyInput() const
{
    return p_factor.value() == 1.0 && p_bias.value() == 0.0;
}

std::shared_ptr<SharedImageSet>
LinearIntensityMappingOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    assignOrThrow(*this, img, p_factor.value() * img + p_bias.value());
    return sis;
}

// ---- Invert --------------------------------------------------------------------------------

InvertOperation::InvertOperation()
    : IntensityOperation("Invert", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet> InvertOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    assignOrThrow(*this, img, -img);
    // The ramp follows the values, so a viewer shows the inverted image with the same contrast.
    if (auto* display2d = sis->components().get<DisplayOptions2d>())
        display2d->p_level.setValue(-display2d->p_level.value());
    if (auto* display3d = sis->components().get<DisplayOptions3d>())
        display3d->p_level.setValue(-display3d->p_level.value());
    return sis;
}

// ---- Threshold -----------------------------------------------------------------------------

ThresholdOperation::ThresholdOperation(double value, bool toUbyte)
    : IntensityOperation("Threshold", ProcessingPolicy::EverythingButLabels)
{
    p_value.setValue(value);
    p_toUbyte.setValue(toUbyte);
}

std::shared_ptr<SharedImageSet> ThresholdOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    double const value = p_value.value();
    if (!p_toUbyte.value()) {
        Array<SharedImageSet> img(*sis);
        assignOrThrow(*this, img, img > value);
        return sis;
    }

    // New unsigned 8-bit frames of the old geometry; the source is read in its own type.
    auto bytes = std::make_shared<SharedImageSet>();
    std::vector<std::shared_ptr<SharedImage>> frames;
    for (auto const& frame : sis->images()) {
        ImageDescriptor descriptor = frame->descriptor();
        descriptor.pixelType = PixelType::UChar;
        descriptor.shift = 0.0;
        descriptor.scale = 1.0;
        auto pixels = TypedImage<unsigned char>::create(descriptor);
        if (!pixels)
            throwOperationError(fmt::format("Could not allocate a byte image of {}", descriptor.describe()));
        frames.push_back(ImageProcessing::makeFrameLike(*frame, std::move(pixels)));
        bytes->add(frames.back());
    }
    visitPixelType(*sis->pixelType(), [&](auto tag) {
        using T = decltype(tag);
        Array<SharedImageSet> target(*bytes);
        Array<SharedImageSet, T> source(*sis);
        assignOrThrow(*this, target, source > value);
    });
    if (!sis->replaceAll(std::move(frames)))
        throwOperationError("Could not replace the frames by their thresholded images");
    return sis;
}

// ---- MakeFloat -----------------------------------------------------------------------------

MakeFloatOperation::MakeFloatOperation()
    : IntensityOperation("MakeFloat", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet> MakeFloatOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->pixelType() == PixelType::Float)
        return sis;
    // A new set (the input stays as it is, see doesNotModifyInput) in original intensities.
    std::shared_ptr<SharedImageSet> result = ImageProcessing::createFloat(*sis, false);
    if (!result)
        throwOperationError("Could not convert the input images to float");
    return result;
}

// ---- NormalizeNormal -----------------------------------------------------------------------

NormalizeNormalOperation::NormalizeNormalOperation(bool keepBackground, float backgroundValue)
    : IntensityOperation("NormalizeNormal", ProcessingPolicy::EverythingButLabels)
{
    p_keepBackground.setValue(keepBackground);
    p_backgroundValue.setValue(backgroundValue);
}

std::shared_ptr<SharedImageSet>
NormalizeNormalOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->pixelType() != PixelType::Float) {
        VELMORIA_LOG_INFO(logCategory(), "Input was not float - adding an implicit MakeFloatOperation.");
        sis = ImageProcessing::createFloat(*sis, false);
        if (!sis)
            throwOperationError("Could not convert the input images to float");
    }
    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    using Channels = ImageMath::ChannelWiseScalar<double, -1>;

    std::optional<float> background;
    if (p_keepBackground.value())
        background = p_backgroundValue.value();
    ChannelMoments const moments = channelMoments(*sis, background);
    Channels const meanValues(moments.mean);
    Channels const stddevValues(moments.stddev);
    if (!background) {
        // divideIfNotZero by a channel-wise constant, with the division hoisted out of the pixel
        // loop: a reciprocal of 0 for a zero deviation gives the same 0, and the loop multiplies
        // (a division per value costs more than the memory traffic of this pass).
        std::vector<double> inverse(moments.stddev.size(), 0.0);
        for (std::size_t c = 0; c < inverse.size(); ++c)
            inverse[c] = moments.stddev[c] > 0.0 ? 1.0 / moments.stddev[c] : 0.0;
        assignOrThrow(*this, img, (img - meanValues) * Channels(inverse));
        return sis;
    }

    // Background pixels neither enter the statistics nor change.
    float const bg = *background;
    auto const foreground = notEqual(img, bg);
    assignOrThrow(*this, img,
                  foreground * divideIfNotZero(img - meanValues, stddevValues) + (1.0F - foreground) * bg);
    return sis;
}

// ---- AdjustShiftScale ----------------------------------------------------------------------

AdjustShiftScaleOperation::AdjustShiftScaleOperation(std::vector<double> shift, std::vector<double> scale)
    : IntensityOperation("AdjustShiftScale", ProcessingPolicy::EverythingButLabels)
{
    p_shift.setValue(std::move(shift));
    p_scale.setValue(std::move(scale));
}

std::shared_ptr<SharedImageSet>
AdjustShiftScaleOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    std::vector<double> const shift = p_shift.value();
    std::vector<double> const scale = p_scale.value();
    if (shift.size() != scale.size())
        throwOperationError("the size of 'shift' and 'scale' must be equal");
    if (shift.empty() || shift.size() > static_cast<std::size_t>(kMaxValues))
        throwOperationError("the size of 'shift' and 'scale' must be between 1 and 4");
    auto const channels = static_cast<std::size_t>(sis->get(0)->channels());
    if (shift.size() != 1 && shift.size() != channels)
        throwOperationError("the size of 'shift' must be 1 or match the image channels");
    if (scale.size() != 1 && scale.size() != channels)
        throwOperationError("the size of 'scale' must be 1 or match the image channels");
    for (std::size_t c = 0; c < scale.size(); ++c)
        if (scale[c] == 0.0 || !std::isfinite(scale[c]) || !std::isfinite(shift[c]))
            throwOperationError(
                fmt::format("'shift' {} and 'scale' {} (entry {}) would make the image {}: the "
                            "scale divides and must be finite and not 0",
                            shift[c], scale[c], c, scale[c] == 0.0 ? "infinite" : "not a number"));

    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    if (shift.size() == 1) {
        assignOrThrow(*this, img, (img + shift[0]) / scale[0]);
    } else {
        using Channels = ImageMath::ChannelWiseScalar<double, -1>;
        assignOrThrow(*this, img, (img + Channels(shift)) / Channels(scale));
    }
    return sis;
}

// ---- Sigmoid and Tanh ----------------------------------------------------------------------

SigmoidOperation::SigmoidOperation(float scale)
    : IntensityOperation("Sigmoid", ProcessingPolicy::EverythingButLabels)
{
    p_scale.setValue(scale);
}

std::shared_ptr<SharedImageSet> SigmoidOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    float const scale = p_scale.value();
    Array<SharedImageSet> img(*sis);
    auto const sigmoid = [scale](auto x) {
        using V = decltype(x);
        return V(1) / (V(1) + std::exp(-static_cast<V>(scale) * x));
    };
    // "{{}}" leaves the operand's slot for ImgOps::fillSlots.
    auto const glsl = [scale] { return fmt::format("1.0f / (1.0f + exp(-{} * ({{}})))", scale); };
    assignOrThrow(*this, img, unaryLambda(img, sigmoid, glsl));
    sis->components().getOrCreate<DisplayOptions2d>()->setWindowFromRange(0.0, 1.0);
    return sis;
}

TanhOperation::TanhOperation(float scale)
    : IntensityOperation("Tanh", ProcessingPolicy::EverythingButLabels)
{
    p_scale.setValue(scale);
}

std::shared_ptr<SharedImageSet> TanhOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    prepareInputForDevice(*sis);
    Array<SharedImageSet> img(*sis);
    auto const tanhOf = [](auto x) { return std::tanh(x); };
    auto const glsl = [] { return std::string("tanh({})"); };
    assignOrThrow(*this, img, unaryLambda(img * p_scale.value(), tanhOf, glsl));
    sis->components().getOrCreate<DisplayOptions2d>()->setWindowFromRange(-1.0, 1.0);
    return sis;
}

} // namespace Velmoria::ML
