#include "ml/operations/catalogue/ChannelOperations.h"

#include "ml/imagemath/ImageMath.h"

#include "host/image/DisplayOptions.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/FrameAttributes.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Velmoria::ML {

namespace {

using ImageMath::Array;

// Where the softmax maximum starts: the smallest positive double, so that a pixel whose values
// are all negative subtracts (almost) nothing.
constexpr double kSoftmaxMaxFloor = std::numeric_limits<double>::min();

// Softmax over the `channels` values at `p`, in place, original intensities from stored ones
// through shift/scale (identity for most frames). No allocation: channels may be many (a
// segmentation network with 20 classes), so values are read twice instead of being kept.
void softmaxPixel(float* p, int channels, double shift, double scale)
{
    double trueMax = -std::numeric_limits<double>::infinity();
    for (int c = 0; c < channels; ++c)
        trueMax = std::max(trueMax, static_cast<double>(p[c]) / scale - shift);
    double m = std::max(kSoftmaxMaxFloor, trueMax);
    double total = 0.0;
    for (int c = 0; c < channels; ++c)
        total += std::exp(static_cast<double>(p[c]) / scale - shift - m);
    if (!(total > 0.0)) {
        // Every exponential underflowed (all values far below m): the true maximum gives the
        // same softmax without dividing 0 by 0.
        m = trueMax;
        total = 0.0;
        for (int c = 0; c < channels; ++c)
            total += std::exp(static_cast<double>(p[c]) / scale - shift - m);
    }
    for (int c = 0; c < channels; ++c)
        p[c] = static_cast<float>(std::exp(static_cast<double>(p[c]) / scale - shift - m) / total);
}

template <class Target, class E>
void assignOrThrow(Operation const& operation, Target& target, ImageMath::ExprBaseTpl<E> const& expression)
{
    if (!target.assign(expression))
        operation.throwOperationError("Could not evaluate the channel formula on the input images");
}

} // namespace

// ---- Softmax -------------------------------------------------------------------------------

SoftmaxOperation::SoftmaxOperation()
    : Operation("Softmax", ProcessingPolicy::Everything)
{}

std::shared_ptr<SharedImageSet> SoftmaxOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    if (sis->pixelType() != PixelType::Float)
        throwOperationError("Input image is not float");
    int const channels = sis->get(0)->channels();
    if (computingDevice() == ComputingDevice::ForceGPU && channels > kMaxGpuChannels)
        throwOperationError("Cannot force run on GPU with image channels > 4");

    prepareInputForDevice(*sis);
    for (std::shared_ptr<SharedImage> const& frame : sis->images()) {
        auto& pixels = static_cast<TypedImage<float>&>(*frame->mem());
        ImageDescriptor const& desc = pixels.descriptor();
        auto const count = static_cast<std::int64_t>(desc.pixelCount());
        int const c = desc.channels;
        double const shift = desc.shift;
        double const scale = desc.scale;
        float* const data = pixels.pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t i = 0; i < count; ++i)
            softmaxPixel(data + i * c, c, shift, scale);
        pixels.setShiftScale(0.0, 1.0);
    }
    return sis;
}

// ---- ConvertToGray -------------------------------------------------------------------------

ConvertToGrayOperation::ConvertToGrayOperation()
    : Operation("ConvertToGray", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet>
ConvertToGrayOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    int const channels = sis->get(0)->channels();
    if (channels == 1)
        return sis;
    prepareInputForDevice(*sis);

    std::vector<std::shared_ptr<SharedImage>> frames;
    frames.reserve(static_cast<std::size_t>(sis->size()));
    visitPixelType(*sis->pixelType(), [&](auto tag) {
        using T = decltype(tag);
        for (std::shared_ptr<SharedImage> const& frame : sis->images()) {
            ImageDescriptor descriptor = frame->descriptor();
            descriptor.channels = 1;
            auto pixels = TypedImage<T>::create(descriptor);
            if (!pixels)
                throwOperationError(
                    fmt::format("Could not allocate a grey image of {}", descriptor.describe()));
            frames.push_back(ImageProcessing::makeFrameLike(*frame, std::move(pixels)));
        }
        SharedImageSet grey(frames);
        // Both normalised: stored values in, stored values out (see the header).
        Array<SharedImageSet> target(grey, true);
        Array<SharedImageSet> source(*sis, true);
        auto const mean = channelSum(source) / static_cast<double>(channels);
        if constexpr (std::is_floating_point_v<T>) {
            assignOrThrow(*this, target, mean);
        } else {
            auto const roundHalfAway = [](auto v) { return std::round(v); };
            auto const glsl = [] { return std::string("round({})"); };
            assignOrThrow(*this, target, unaryLambda(mean, roundHalfAway, glsl));
        }
    });
    if (!sis->replaceAll(std::move(frames)))
        throwOperationError("Could not replace the frames by their grey images");
    return sis;
}

// ---- BakePhotometricInterpretation ---------------------------------------------------------

BakePhotometricInterpretationOperation::BakePhotometricInterpretationOperation()
    : Operation("BakePhotometricInterpretation", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet>
BakePhotometricInterpretationOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    for (std::shared_ptr<SharedImage> const& frame : sis->images())
        if (frame->channels() != 1)
            throwOperationError(
                "BakePhotometricInterpretationOperation can't be applied to multichannel images");

    auto* display2d = sis->components().get<DisplayOptions2d>();
    auto* display3d = sis->components().get<DisplayOptions3d>();
    if (display2d && display3d && display2d->p_invert.value() != display3d->p_invert.value())
        throwOperationError("DisplayOptions2d and displayOptions3D have different invert values");
    bool const inverted =
        (display2d && display2d->p_invert.value()) || (display3d && display3d->p_invert.value());
    if (!inverted)
        return sis;

    prepareInputForDevice(*sis);
    // lo and hi are the set's range in original intensities (frames may differ in shift and
    // scale). Per frame, hi - x + lo in stored terms is K - v with K = (hi + lo + 2 shift) scale,
    // so the frame is written as K - v on stored values: exact for integer frames (K is rounded
    // once, where float arithmetic left it a hair off an integer) and never outside the range.
    Array<SharedImageSet> originals(*sis);
    double const lo = reduceMin(originals).eval().at(0);
    double const hi = reduceMax(originals).eval().at(0);
    bool const integer = isIntegerPixelType(*sis->pixelType());
    for (std::shared_ptr<SharedImage> const& frame : sis->images()) {
        ImageDescriptor const& desc = frame->descriptor();
        double k = (hi + lo + 2.0 * desc.shift) * desc.scale;
        if (integer)
            k = std::round(k);
        Array<SharedImage> stored(*frame, true);
        assignOrThrow(*this, stored, k - stored);
    }
    if (display2d)
        display2d->p_invert.setValue(false);
    if (display3d)
        display3d->p_invert.setValue(false);
    return sis;
}

} // namespace Velmoria::ML
