#pragma once

// Helpers shared by the tests of the operation catalogue: every pixel type, a non-trivial
// shift/scale, random stored values, reading a frame back in stored or original intensities, an
// obliquely placed grid with the world positions of its pixels computed from the convention
// (pixel p at (p - (dim - 1) / 2) * spacing in image millimetres, then matrixToWorld) rather than
// by the code under test, and the message of a failed run.

#include "ml/TestHelpers.h"
#include "ml/operations/Operation.h"
#include "ml/operations/OperationException.h"

#include "host/core/Log.h"
#include "host/image/PixelType.h"
#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

namespace Velmoria::ML::CatalogueTests {

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

// The original intensities of `stored` once held by a T with the given shift and scale.
template <class T>
std::vector<double> originalsOf(std::vector<double> const& stored, double shift = kShift,
                                double scale = kScale)
{
    std::vector<double> x;
    for (double v : stored)
        x.push_back(static_cast<double>(static_cast<T>(v)) / scale - shift);
    return x;
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

// The stored value of channel `channel` at pixel p.
inline double valueAt(SharedImage const& frame, Eigen::Vector3i const& p, int channel = 0)
{
    Eigen::Vector3i const d = frame.dimensions();
    auto const pixel = (static_cast<std::size_t>(p.z()) * d.y() + p.y()) * d.x() + p.x();
    return storedAt(frame, pixel * frame.channels() + channel);
}

// One placed float frame holding `values` (interleaved channels); a row of pixels unless a size is given.
inline std::shared_ptr<SharedImageSet> floatSet(std::vector<double> const& values, int channels = 1,
                                                Eigen::Vector3i size = Eigen::Vector3i::Zero())
{
    if (size.isZero())
        size = Eigen::Vector3i(static_cast<int>(values.size()) / channels, 1, 1);
    return std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(size, channels, values));
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

// The messages logged in `category`, in order.
inline std::vector<std::string> messagesOf(Log::Capture const& capture, std::string const& category)
{
    std::vector<std::string> out;
    for (auto const& record : capture.records())
        if (record.category == category)
            out.push_back(record.message);
    return out;
}

inline bool sameBytes(SharedImage const& a, SharedImage const& b)
{
    return a.mem()->byteSize() == b.mem()->byteSize() &&
           std::memcmp(a.mem()->data(), b.mem()->data(), a.mem()->byteSize()) == 0;
}

template <class F>
void forEachPixel(Eigen::Vector3i const& dims, F&& f)
{
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                f(Eigen::Vector3i(x, y, z));
}

// ---- An oblique grid -----------------------------------------------------------------------------

inline Eigen::Vector3d const kObliqueSpacing(0.7, 1.3, 2.5);

// Turned about an oblique axis and moved, so that every image axis mixes into every world axis.
inline Eigen::Matrix4d obliqueMatrix(double shiftX = 0.0)
{
    Eigen::Affine3d const t = Eigen::Translation3d(-4.0 + shiftX, 7.5, 12.0) *
                              Eigen::AngleAxisd(0.6, Eigen::Vector3d(1.0, 2.0, 3.0).normalized());
    return t.matrix();
}

// A frame of T on obliqueMatrix() whose value at pixel (x, y, z), channel c is value(x, y, z, c).
template <class T, class Function>
std::shared_ptr<SharedImage> obliqueFrame(Eigen::Vector3i const& dims, int channels, Function value,
                                          Eigen::Vector3d const& spacing = kObliqueSpacing)
{
    auto pixels = TypedImage<T>::zeros(dims, channels);
    std::size_t i = 0;
    forEachPixel(dims, [&](Eigen::Vector3i const& p) {
        for (int c = 0; c < channels; ++c)
            pixels->setValue(static_cast<T>(value(p.x(), p.y(), p.z(), c)), i++);
    });
    pixels->setSpacing(spacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(obliqueMatrix());
    return frame;
}

// A float frame on the oblique grid whose value at pixel i, channel c is 10 * i + c + 1 (never 0),
// moved by shiftX along x.
inline std::shared_ptr<SharedImage> rampFrame(Eigen::Vector3i const& dims, int channels = 1,
                                              double shiftX = 0.0)
{
    auto frame = obliqueFrame<float>(dims, channels, [&](int x, int y, int z, int c) {
        return 10.0 * ((z * dims.y() + y) * dims.x() + x) + c + 1;
    });
    frame->setMatrixToWorld(obliqueMatrix(shiftX));
    return frame;
}

// `frames` ramp frames of `dims`, frame i moved by 50 i mm.
inline std::shared_ptr<SharedImageSet> rampSet(Eigen::Vector3i const& dims, int frames = 1, int channels = 1)
{
    auto set = std::make_shared<SharedImageSet>();
    for (int i = 0; i < frames; ++i)
        set->add(rampFrame(dims, channels, 50.0 * i));
    return set;
}

// The convention: where pixel p of a grid lies in the world ...
inline Eigen::Vector3d conventionWorld(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                                       Eigen::Vector3d const& spacing, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const image =
        (p - (dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0).cwiseProduct(spacing);
    return (m * image.homogeneous()).head<3>();
}

inline Eigen::Vector3d conventionWorld(SharedImage const& frame, Eigen::Vector3d const& p)
{
    return conventionWorld(frame.matrixToWorld(), frame.dimensions(), frame.spacing(), p);
}

// ... and its inverse: the (fractional) pixel of a grid at world point w.
inline Eigen::Vector3d conventionPixel(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                                       Eigen::Vector3d const& spacing, Eigen::Vector3d const& w)
{
    Eigen::Vector3d const image = (m.inverse() * w.homogeneous()).head<3>();
    return image.cwiseQuotient(spacing) + (dims.cast<double>() - Eigen::Vector3d::Ones()) / 2.0;
}

} // namespace Velmoria::ML::CatalogueTests
