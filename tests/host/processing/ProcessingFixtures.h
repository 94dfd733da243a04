#pragma once

// Test images for the processing routines: frames of every pixel type with non-trivial spacing,
// placement, shift and scale and pseudo-random values, so that a routine that forgets the
// intensity mapping or drops geometry fails; the centred-pixel formula written out
// independently of the descriptor classes; a table row for refused input.

#include "host/core/Log.h"
#include "host/image/Deformation.h"
#include "host/image/Mask.h"
#include "host/image/SharedImage.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <functional>
#include <memory>
#include <ostream>
#include <random>
#include <type_traits>

namespace Velmoria::ProcessingTest {

using AllPixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;

struct FrameSpec
{
    Eigen::Vector3i size{7, 6, 5};
    int channels = 2;
    Eigen::Vector3d spacing{0.5, 1.25, 2.0};
    double shift = 3.0;
    double scale = 0.5;
    unsigned seed = 7;
};

// A rotation and translation that make world positions differ from pixel positions.
inline Eigen::Matrix4d testMatrix()
{
    Eigen::Affine3d t = Eigen::Translation3d(10.0, -20.0, 5.0) *
                        Eigen::AngleAxisd(0.3, Eigen::Vector3d(1.0, 2.0, 3.0).normalized());
    return t.matrix();
}

// Values spread over a range every type can hold (0..100 for unsigned types, -50..50 else;
// fractions for float types).
template <class T>
std::shared_ptr<SharedImage> randomFrame(FrameSpec const& spec = {})
{
    auto pixels = TypedImage<T>::zeros(spec.size, spec.channels);
    std::mt19937 engine(spec.seed);
    std::uniform_real_distribution<double> dist(std::is_signed_v<T> ? -50.0 : 0.0,
                                                std::is_signed_v<T> ? 50.0 : 100.0);
    for (std::size_t i = 0; i < pixels->valueCount(); ++i) {
        double const v = dist(engine);
        pixels->setValue(static_cast<T>(std::is_integral_v<T> ? std::round(v) : v), i);
    }
    pixels->setSpacing(spec.spacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->mem()->setShiftScale(spec.shift, spec.scale);
    frame->setMatrixToWorld(testMatrix());
    frame->setModality(Data::Modality::CT);
    frame->setMask(std::make_shared<ExplicitMask>(spec.size));
    frame->setDeformation(std::make_shared<ConstantDeformation>(Eigen::Vector3d(1.0, 0.0, -2.0)));
    return frame;
}

template <class T>
TypedImage<T> const& typed(SharedImage const& frame)
{
    return static_cast<TypedImage<T> const&>(*frame.mem());
}

// M · [(p − (dim − 1) / 2) ∘ spacing, 1], the world position of pixel p.
inline Eigen::Vector3d analyticWorld(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                                     Eigen::Vector3d const& spacing, Eigen::Vector3d const& p)
{
    Eigen::Vector4d image;
    for (int a = 0; a < 3; ++a)
        image[a] = (p[a] - (dims[a] - 1) / 2.0) * spacing[a];
    image[3] = 1.0;
    return (m * image).head<3>();
}

// Same matrix, spacing, dimensions, modality, mask and deformation; a voxel lands at the same
// world position.
inline void expectSameGeometry(SharedImage const& a, SharedImage const& b)
{
    EXPECT_TRUE(a.matrixToWorld().isApprox(b.matrixToWorld()));
    EXPECT_EQ(a.spacing(), b.spacing());
    EXPECT_EQ(a.dimensions(), b.dimensions());
    EXPECT_EQ(a.modality(), b.modality());
    EXPECT_EQ(a.mask(), b.mask());
    EXPECT_EQ(a.deformation(), b.deformation());
    Eigen::Vector3d const voxel(1.0, 2.0, 3.0);
    EXPECT_TRUE(a.pixelToWorld(voxel).isApprox(b.pixelToWorld(voxel)));
}

// A way to set up an algorithm that it must refuse, and the exact message it must log.
template <class Algorithm, class... Extra>
struct Refusal
{
    char const* name;
    std::function<void(Algorithm&, Extra&...)> setup;
    char const* message;

    // The name in failure output (gtest would otherwise dump the bytes, padding included).
    friend void PrintTo(Refusal const& c, std::ostream* os) { *os << c.name; }
};

// Runs `compute()` and expects the InvalidInput status and `message` in category `category`.
template <class Algorithm>
void expectRefused(Algorithm& algorithm, char const* message, char const* category)
{
    Log::Capture capture;
    algorithm.compute();
    EXPECT_EQ(algorithm.status(), Algorithm::InvalidInput);
    EXPECT_TRUE(capture.contains(message, category)) << ::testing::PrintToString(capture.messages());
}

} // namespace Velmoria::ProcessingTest
