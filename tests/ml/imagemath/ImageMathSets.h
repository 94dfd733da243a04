#pragma once

// Small image sets for the ImageMath suites: frames of a pixel type filled from a pattern, and
// access to their typed buffers and original values.

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <Eigen/Core>
#include <functional>
#include <memory>

namespace Velmoria::ImageMathTest {

// `frames` frames of pixel type T, dimensions `dims`, `channels` channels, with shift and scale;
// stored value j (interleaved) of frame f is pattern(f, j).
template <class T>
std::shared_ptr<SharedImageSet> makeSet(Eigen::Vector3i const& dims, int frames, int channels, double shift,
                                        double scale, std::function<double(int, int)> const& pattern)
{
    ImageDescriptor desc(Utils::pixelTypeId<T>(), dims, channels);
    desc.setShiftScale(shift, scale);
    auto set = std::make_shared<SharedImageSet>();
    for (int f = 0; f < frames; ++f) {
        auto frame = std::make_shared<SharedImage>(desc);
        auto& typed = static_cast<TypedImage<T>&>(*frame->mem());
        for (std::size_t j = 0; j < typed.valueCount(); ++j)
            typed.setValue(static_cast<T>(pattern(f, static_cast<int>(j))), j);
        set->add(frame);
    }
    return set;
}

template <class T>
TypedImage<T>& typed(SharedImageSet& set, int frame = 0)
{
    return static_cast<TypedImage<T>&>(*set.mem(frame));
}

// Original value (stored / scale − shift) at pixel (x, y, z), channel c of a frame.
template <class T>
double original(SharedImageSet& set, int frame, int x, int y, int z, int c = 0)
{
    return set.get(frame)->descriptor().storageToOriginal(typed<T>(set, frame).value(x, y, z, c));
}

} // namespace Velmoria::ImageMathTest
