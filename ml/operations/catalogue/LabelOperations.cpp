#include "ml/operations/catalogue/LabelOperations.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/processing/FrameAttributes.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

namespace Velmoria::ML {

ArgMaxOperation::ArgMaxOperation()
    : Operation("ArgMax", ProcessingPolicy::EverythingButLabels)
{}

std::shared_ptr<SharedImageSet> ArgMaxOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    for (auto const& frame : sis->images())
        if (frame->channels() > kMaxChannels)
            throwOperationError(
                fmt::format("Cannot compute the arg max of {} channels: at most {} fit an 8-bit label",
                            frame->channels(), kMaxChannels));

    std::vector<std::shared_ptr<SharedImage>> frames;
    for (auto const& frame : sis->images()) {
        ImageDescriptor descriptor = frame->descriptor();
        descriptor.pixelType = PixelType::UChar;
        descriptor.channels = 1;
        descriptor.shift = 0.0;
        descriptor.scale = 1.0;
        auto labels = TypedImage<unsigned char>::create(descriptor);
        if (!labels)
            throwOperationError(fmt::format("Could not allocate a label map of {}", descriptor.describe()));
        unsigned char* out = labels->pointer();
        auto const pixels = static_cast<std::int64_t>(descriptor.pixelCount());
        int const channels = frame->channels();
        ImageDescriptor const& d = frame->descriptor();
        visitPixelType(frame->pixelType(), [&](auto tag) {
            using T = decltype(tag);
            T const* in = static_cast<TypedImage<T> const&>(*frame->mem()).pointer();
#pragma omp parallel for schedule(static)
            for (std::int64_t p = 0; p < pixels; ++p) {
                T const* values = in + p * channels;
                int best = 0;
                double bestValue = std::numeric_limits<double>::quiet_NaN();
                for (int c = 0; c < channels; ++c) {
                    double const v = d.storageToOriginal(static_cast<double>(values[c]));
                    // Strictly greater: the first of equal channels stays. NaN compares false
                    // both ways, so it never replaces a value and is replaced by any.
                    if (v > bestValue || (std::isnan(bestValue) && !std::isnan(v))) {
                        best = c;
                        bestValue = v;
                    }
                }
                out[p] = static_cast<unsigned char>(best);
            }
        });
        frames.push_back(ImageProcessing::makeFrameLike(*frame, std::move(labels)));
    }
    if (!sis->replaceAll(std::move(frames)))
        throwOperationError("Could not replace the frames by their label maps");
    sis->setModality(Data::Modality::Label);
    return sis;
}

OneHotOperation::OneHotOperation(int numClasses)
    : Operation("OneHot", ProcessingPolicy::OnlyLabels)
{
    p_numClasses.setValue(numClasses);
}

std::shared_ptr<SharedImageSet> OneHotOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    if (inputIsEmptyOrNull(sis.get()))
        return sis;
    int const classes = p_numClasses.value();
    if (classes < 1)
        throwOperationError(fmt::format("'num_classes' must be at least 1, got {}", classes));
    for (auto const& frame : sis->images())
        if (frame->channels() != 1)
            throwOperationError(
                fmt::format("Input must be a one-channel label map, got {} channels", frame->channels()));

    std::vector<std::shared_ptr<SharedImage>> frames;
    for (auto const& frame : sis->images()) {
        auto const pixels = static_cast<std::int64_t>(frame->descriptor().pixelCount());
        ImageDescriptor const& d = frame->descriptor();
        // First pass: the class of every pixel, and the first pixel whose label is not a class.
        std::vector<int> labels(static_cast<std::size_t>(pixels));
        std::int64_t firstBad = pixels;
        double badValue = 0.0;
        visitPixelType(frame->pixelType(), [&](auto tag) {
            using T = decltype(tag);
            T const* in = static_cast<TypedImage<T> const&>(*frame->mem()).pointer();
#pragma omp parallel for schedule(static) reduction(min : firstBad)
            for (std::int64_t p = 0; p < pixels; ++p) {
                double const v = d.storageToOriginal(static_cast<double>(in[p]));
                // Written as "in range" so that NaN is out of range.
                bool const valid = v >= 0.0 && v < classes && v == std::floor(v);
                labels[static_cast<std::size_t>(p)] = valid ? static_cast<int>(v) : -1;
                if (!valid && p < firstBad)
                    firstBad = p;
            }
            if (firstBad < pixels)
                badValue = d.storageToOriginal(static_cast<double>(in[firstBad]));
        });
        if (firstBad < pixels) {
            auto const w = static_cast<std::int64_t>(frame->width());
            auto const h = static_cast<std::int64_t>(frame->height());
            throwOperationError(fmt::format(
                "Label value {} at pixel ({}, {}, {}) is not a class of 'num_classes' {}: "
                "labels must be whole numbers in [0, {})",
                badValue, firstBad % w, (firstBad / w) % h, firstBad / (w * h), classes, classes));
        }

        ImageDescriptor descriptor = d;
        descriptor.pixelType = PixelType::Float;
        descriptor.channels = classes;
        descriptor.shift = 0.0;
        descriptor.scale = 1.0;
        auto encoded = TypedImage<float>::zeros(descriptor);
        if (!encoded)
            throwOperationError(fmt::format("Could not allocate a one-hot map of {}", descriptor.describe()));
        float* out = encoded->pointer();
#pragma omp parallel for schedule(static)
        for (std::int64_t p = 0; p < pixels; ++p)
            out[p * classes + labels[static_cast<std::size_t>(p)]] = 1.0F;
        frames.push_back(ImageProcessing::makeFrameLike(*frame, std::move(encoded)));
    }
    if (!sis->replaceAll(std::move(frames)))
        throwOperationError("Could not replace the frames by their one-hot maps");
    sis->setModality(Data::Modality::Probability);
    return sis;
}

} // namespace Velmoria::ML
