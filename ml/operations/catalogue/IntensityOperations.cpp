#include "ml/operations/catalogue/IntensityOperations.h"

#include "ml/imagemath/ImageMath.h"

#include "host/core/Log.h"
#include "host/image/DisplayOptions.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/FloatConversion.h"
#include "host/processing/FrameAttributes.h"

#include <fmt/format.h>

#include <cmath>
#include <string>

namespace Velmoria::ML {

namespace {

using ImageMath::Array;

// Assigns `expression` to `target`; an operand that does not fit (ImageMath has logged why)
// stops the operation rather than leaving the set half written.
template <class Target, class E>
void assignOrThrow(Operation const& operation, Target& target, ImageMath::ExprBaseTpl<E> const& expression)
{
    if (!target.assign(expression))
        operation.throwOperationError("Could not evaluate the intensity formula on the input images");
}

// One value per channel from sums over the whole set.
std::vector<double> divided(std::vector<double> const& sums, std::vector<double> const& counts)
{
    std::vector<double> result(sums.size(), 0.0);
    for (std::size_t c = 0; c < sums.size() && c < counts.size(); ++c)
        result[c] = counts[c] > 0.0 ? sums[c] / counts[c] : 0.0;
    return result;
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

    if (!p_keepBackground.value()) {
        // Frames of a set may differ in size, so the count is summed frame by frame.
        double pixels = 0.0;
        for (auto const& frame : sis->images())
            pixels += static_cast<double>(frame->descriptor().pixelCount());
        std::vector<double> const count(static_cast<std::size_t>(sis->get(0)->channels()), pixels);
        std::vector<double> const mean = divided(sum(img).eval(), count);
        Channels const meanValues(mean);
        std::vector<double> stddev = divided(sum(pow2(img - meanValues)).eval(), count);
        for (double& s : stddev)
            s = std::sqrt(s);
        assignOrThrow(*this, img, divideIfNotZero(img - meanValues, Channels(stddev)));
        return sis;
    }

    // Background pixels neither enter the statistics nor change.
    float const bg = p_backgroundValue.value();
    auto const foreground = notEqual(img, bg);
    std::vector<double> const count = sum(foreground).eval();
    std::vector<double> const mean = divided(sum(foreground * img).eval(), count);
    Channels const meanValues(mean);
    std::vector<double> stddev = divided(sum(foreground * pow2(img - meanValues)).eval(), count);
    for (double& s : stddev)
        s = std::sqrt(s);
    assignOrThrow(*this, img,
                  foreground * divideIfNotZero(img - meanValues, Channels(stddev)) +
                      (1.0F - foreground) * bg);
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
