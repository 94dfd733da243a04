#pragma once

// Helpers shared by the tests of the pixel-value operations (intensity, normalisation, channel
// and filter families): every pixel type, a non-trivial shift/scale, random stored values, and
// reading a frame back in stored or original intensities.

#include "ml/operations/Operation.h"
#include "ml/operations/OperationException.h"

#include "host/image/PixelType.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace Velmoria::ML::PixelOperationTests {

using AllPixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;

// Stored = (original + shift) * scale: frames in the tests carry this, so that a formula applied
// to stored instead of original values shows.
constexpr double kShift = 3.0;
constexpr double kScale = 2.0;

// Stored values that fit every pixel type (negative ones only for signed types), reproducible.
template <class T>
std::vector<double> randomStored(std::size_t count, unsigned seed)
{
    std::mt19937 engine(seed);
    std::uniform_int_distribution<int> dist(std::is_signed_v<T> ? -60 : 0, 120);
    std::vector<double> values(count);
    for (double& v : values)
        v = dist(engine);
    return values;
}

inline double storedAt(SharedImage const& frame, std::size_t i)
{
    double v = 0.0;
    visitPixelType(frame.pixelType(), [&](auto tag) {
        v = static_cast<double>(static_cast<TypedImage<decltype(tag)> const&>(*frame.mem()).value(i));
    });
    return v;
}

inline double originalAt(SharedImage const& frame, std::size_t i)
{
    return frame.descriptor().storageToOriginal(storedAt(frame, i));
}

// The message of the OperationException that processing `set` raises, or "no error".
inline std::string errorOf(Operation& operation, std::shared_ptr<SharedImageSet> const& set)
{
    try {
        operation.process(set);
    } catch (OperationException const& e) {
        return e.what();
    }
    return "no error";
}

} // namespace Velmoria::ML::PixelOperationTests
