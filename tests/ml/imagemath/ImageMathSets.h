#pragma once

// Small image sets for the ImageMath suites: frames of a pixel type filled from a pattern, and
// access to their typed buffers and original values.

#include "ml/imagemath/ImageMath.h"

#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <string>

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

// Original value number j (interleaved) of a frame.
template <class T>
double originalAt(SharedImageSet& set, int frame, std::size_t j)
{
    return set.get(frame)->descriptor().storageToOriginal(typed<T>(set, frame).value(j));
}

// Expects stored value j of every frame f of `target` to be reference(f, j) stored with the
// target's shift and scale: exact for integer types, to 1e-5 relative for floating point ones.
template <class T>
void expectStored(SharedImageSet& target, std::function<double(int, std::size_t)> const& reference,
                  std::string const& what)
{
    for (int f = 0; f < target.size(); ++f) {
        ImageDescriptor const& desc = target.get(f)->descriptor();
        for (std::size_t j = 0; j < desc.valueCount(); ++j) {
            T const expected = ImageMath::Detail::saturateCast<T>(desc.originalToStorage(reference(f, j)));
            T const actual = typed<T>(target, f).value(j);
            if constexpr (std::is_floating_point_v<T>)
                ASSERT_NEAR(actual, expected, 1e-5 * std::max(1.0, std::fabs(double(expected))))
                    << what << " frame " << f << " value " << j;
            else
                ASSERT_EQ(actual, expected) << what << " frame " << f << " value " << j;
        }
    }
}

} // namespace Velmoria::ImageMathTest
