#include "host/algorithm/AlgorithmUtils.h"

#include "host/algorithm/Algorithm.h"
#include "host/core/Log.h"
#include "host/core/Platform.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <new>

namespace Velmoria::AlgorithmUtils {

bool execute(Algorithm& algorithm, Progress* progress)
{
    if (progress)
        algorithm.setProgress(progress);
    algorithm.setStatus(Algorithm::Unknown);
    try {
        algorithm.compute();
        if (algorithm.status() == Algorithm::Unknown)
            algorithm.setStatus(Algorithm::Success);
    } catch (std::bad_alloc const&) {
        algorithm.setStatus(Algorithm::OutOfMemory);
        VELMORIA_LOG_ERROR("Host.AlgorithmUtils", "Algorithm {} ran out of memory",
                           Platform::demangleTypeName(typeid(algorithm)));
    } catch (std::exception const& e) {
        algorithm.setStatus(Algorithm::Error);
        VELMORIA_LOG_ERROR("Host.AlgorithmUtils", "Algorithm {} failed: {}",
                           Platform::demangleTypeName(typeid(algorithm)), e.what());
    } catch (...) {
        algorithm.setStatus(Algorithm::Error);
        VELMORIA_LOG_ERROR("Host.AlgorithmUtils", "Algorithm {} failed: unknown exception",
                           Platform::demangleTypeName(typeid(algorithm)));
    }
    return algorithm.status() == Algorithm::Success;
}

namespace {

constexpr char const* kCategory = "Host.AlgorithmUtils";

// Channels [first, first + count) of `frame` as a frame of their own, with the same geometry.
std::shared_ptr<SharedImage> extractChannels(SharedImage const& frame, int first, int count)
{
    ImageDescriptor descriptor = frame.descriptor();
    descriptor.channels = count;
    auto part = MemImage::create(descriptor);
    MemImage const& source = *frame.mem();
    visitPixelType(source.type(), [&](auto tag) {
        using T = decltype(tag);
        T const* in = static_cast<TypedImage<T> const&>(source).pointer();
        T* out = static_cast<TypedImage<T>&>(*part).pointer();
        int const channels = source.channels();
        auto const pixels = static_cast<std::int64_t>(descriptor.pixelCount());
#pragma omp parallel for schedule(static)
        for (std::int64_t p = 0; p < pixels; ++p)
            for (int c = 0; c < count; ++c)
                out[p * count + c] = in[p * channels + first + c];
    });
    auto result = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(part)));
    result->setMatrixToWorld(frame.matrixToWorld());
    result->setModality(frame.modality());
    result->setMask(frame.mask());
    result->setDeformation(frame.deformation());
    return result;
}

// The channels of `parts` side by side in one frame; null when their sizes or types differ.
std::shared_ptr<SharedImage> weaveChannels(std::vector<SharedImage const*> const& parts)
{
    ImageDescriptor descriptor = parts.front()->descriptor();
    int total = 0;
    for (SharedImage const* part : parts) {
        if (part->dimensions() != parts.front()->dimensions() ||
            part->pixelType() != parts.front()->pixelType())
            return nullptr;
        total += part->channels();
    }
    descriptor.channels = total;
    auto woven = MemImage::create(descriptor);
    visitPixelType(descriptor.pixelType, [&](auto tag) {
        using T = decltype(tag);
        T* out = static_cast<TypedImage<T>&>(*woven).pointer();
        auto const pixels = static_cast<std::int64_t>(descriptor.pixelCount());
        int offset = 0;
        for (SharedImage const* part : parts) {
            T const* in = static_cast<TypedImage<T> const&>(*part->mem()).pointer();
            int const count = part->channels();
#pragma omp parallel for schedule(static)
            for (std::int64_t p = 0; p < pixels; ++p)
                for (int c = 0; c < count; ++c)
                    out[p * total + offset + c] = in[p * count + c];
            offset += count;
        }
    });
    auto result = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(woven)));
    result->setMatrixToWorld(parts.front()->matrixToWorld());
    result->setModality(parts.front()->modality());
    result->setMask(parts.front()->mask());
    result->setDeformation(parts.front()->deformation());
    return result;
}

} // namespace

bool executeBatchedChannels(SharedImageSet& images, std::function<bool(SharedImageSet&)> const& step,
                            int maxChannels)
{
    maxChannels = std::max(maxChannels, 1);
    int widest = 0;
    for (auto const& frame : images.images())
        widest = std::max(widest, frame->channels());
    if (widest <= maxChannels)
        return step(images);

    std::vector<std::shared_ptr<SharedImage>> results;
    for (int f = 0; f < images.size(); ++f) {
        SharedImage const& frame = *images.get(f);
        std::vector<std::unique_ptr<SharedImageSet>> groups;
        for (int first = 0; first < frame.channels(); first += maxChannels) {
            auto group = images.clone(SharedImageSet::CloneOption::NoFrames);
            group->add(extractChannels(frame, first, std::min(maxChannels, frame.channels() - first)));
            if (!step(*group) || group->size() != 1) {
                VELMORIA_LOG_ERROR(kCategory, "Processing channels {} to {} of frame {} of '{}' failed",
                                   first, std::min(first + maxChannels, frame.channels()) - 1, f,
                                   images.name());
                return false;
            }
            groups.push_back(std::move(group));
        }
        std::vector<SharedImage const*> parts;
        for (auto const& group : groups)
            parts.push_back(group->get(0));
        auto woven = weaveChannels(parts);
        if (!woven) {
            VELMORIA_LOG_ERROR(
                kCategory, "The channel groups of frame {} of '{}' came back with different sizes or types",
                f, images.name());
            return false;
        }
        results.push_back(std::move(woven));
    }
    return images.replaceAll(std::move(results));
}

} // namespace Velmoria::AlgorithmUtils
