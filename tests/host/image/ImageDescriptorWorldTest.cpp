#include "host/image/ImageDescriptorWorld.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <string>
#include <type_traits>

using namespace Velmoria;

namespace {

// 90° about z (x -> y, y -> -x) and a translation of (10, 20, 30) mm.
Eigen::Matrix4d rotatedTranslated()
{
    Eigen::Matrix4d m;
    m << 0, -1, 0, 10, //
        1, 0, 0, 20,   //
        0, 0, 1, 30,   //
        0, 0, 0, 1;
    return m;
}

// float, 4 x 3 x 2 pixels, spacing (0.5, 1, 2).
ImageDescriptorWorld volume()
{
    ImageDescriptor d(PixelType::Float, Eigen::Vector3i(4, 3, 2), 1);
    d.setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0), true);
    return ImageDescriptorWorld(d, rotatedTranslated());
}

void expectNear(Eigen::Vector3d const& actual, Eigen::Vector3d const& expected)
{
    EXPECT_NEAR(actual.x(), expected.x(), 1e-12) << actual.transpose();
    EXPECT_NEAR(actual.y(), expected.y(), 1e-12) << actual.transpose();
    EXPECT_NEAR(actual.z(), expected.z(), 1e-12) << actual.transpose();
}

} // namespace

static_assert(!std::is_base_of_v<ImageDescriptor, ImageDescriptorWorld>,
              "a world descriptor must not slice into a plain one");

// ---------------------------------------------------------------------------------------------
// Geometry, with expected positions worked out by hand: the centre index is (1.5, 1, 0.5).

struct PixelWorld
{
    Eigen::Vector3d pixel;
    Eigen::Vector3d image; // (p - centre) * spacing
    Eigen::Vector3d world; // R * image + (10, 20, 30), R: (x, y, z) -> (-y, x, z)
};

class ImageDescriptorWorldGeometry : public ::testing::TestWithParam<PixelWorld>
{};

TEST_P(ImageDescriptorWorldGeometry, PixelToImageAndWorld)
{
    auto const& row = GetParam();
    ImageDescriptorWorld const w = volume();
    expectNear(w.pixelToImage(row.pixel), row.image);
    expectNear(w.imageToPixel(row.image), row.pixel);
    expectNear(w.pixelToWorld(row.pixel), row.world);
    expectNear(w.worldToPixel(row.world), row.pixel);
    Eigen::Vector4d const h = w.pixelToWorldMatrix() * row.pixel.homogeneous();
    expectNear(h.head<3>(), row.world);
    EXPECT_NEAR(h.w(), 1.0, 1e-15);
    Eigen::Vector4d const back = w.worldToPixelMatrix() * row.world.homogeneous();
    expectNear(back.head<3>(), row.pixel);
}

INSTANTIATE_TEST_SUITE_P(
    Corners, ImageDescriptorWorldGeometry,
    ::testing::Values(PixelWorld{{0, 0, 0}, {-0.75, -1, -1}, {11, 19.25, 29}}, //
                      PixelWorld{{3, 2, 1}, {0.75, 1, 1}, {9, 20.75, 31}},     //
                      PixelWorld{{3, 0, 0}, {0.75, -1, -1}, {11, 20.75, 29}},  //
                      PixelWorld{{0, 2, 1}, {-0.75, 1, 1}, {9, 19.25, 31}},    //
                      PixelWorld{{1.5, 1, 0.5}, {0, 0, 0}, {10, 20, 30}},      // the centre of the volume
                      PixelWorld{
                          {-0.5, -0.5, -0.5}, {-1, -1.5, -2}, {11.5, 19, 28}})); // outer corner of the box

TEST(ImageDescriptorWorld, TwoDimensionalImageHasNoZOffset)
{
    ImageDescriptor d(PixelType::UChar, Eigen::Vector3i(5, 4, 1), 1);
    d.setSpacing(Eigen::Vector3d(1, 2, 3), true);
    ImageDescriptorWorld w(d);
    EXPECT_EQ(d.dimension(), 2);
    expectNear(w.pixelToWorld({0, 0, 0}), {-2, -3, 0});
    expectNear(w.pixelToWorld({4, 3, 0}), {2, 3, 0});
    expectNear(w.pixelToWorld({2, 1.5, 0}), {0, 0, 0});
    expectNear(w.pixelToWorld({0, 0, 1}), {-2, -3, 3}); // one slice out is one z-spacing away
    expectNear(w.worldToPixel({2, 3, 0}), {4, 3, 0});
}

TEST(ImageDescriptorWorld, MatrixFromWorldIsTheInverse)
{
    ImageDescriptorWorld w = volume();
    Eigen::Matrix4d const product = w.matrixFromWorld() * w.matrixToWorld();
    EXPECT_TRUE(product.isApprox(Eigen::Matrix4d::Identity(), 1e-14));
    ImageDescriptorWorld other(w.descriptor());
    other.setMatrixFromWorld(w.matrixFromWorld());
    EXPECT_TRUE(other.matrixToWorld().isApprox(rotatedTranslated(), 1e-14));
}

TEST(ImageDescriptorWorld, CentredCoordinatesKeepTheCentreWhenResized)
{
    // Padding one pixel on every side keeps the world position of every old pixel, shifted by
    // one index, with the same matrix.
    ImageDescriptorWorld w = volume();
    ImageDescriptorWorld padded = w;
    padded.descriptor().setDimensions(Eigen::Vector3i(6, 5, 4));
    for (Eigen::Vector3d p : {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(3, 2, 1), Eigen::Vector3d(1, 2, 0)})
        expectNear(padded.pixelToWorld(p + Eigen::Vector3d::Ones()), w.pixelToWorld(p));
}

// ---------------------------------------------------------------------------------------------
// isApprox: pairs of descriptors that differ in exactly one property, against each mask.

namespace {

enum class Change
{
    None,
    Orientation,
    Channels,
    PixelType,
    ShiftScale,
    Dimensions,
    Position,
    Spacing,
    MetricFlag,
    TinySpacing, // within tolerance
    TinyRotation,
};

ImageDescriptorWorld changed(Change change)
{
    ImageDescriptorWorld w = volume();
    ImageDescriptor& d = w.descriptor();
    Eigen::Matrix4d m = w.matrixToWorld();
    switch (change) {
    case Change::None:
        break;
    case Change::Orientation:
        m.topLeftCorner<3, 3>() = Eigen::Matrix3d::Identity();
        break;
    case Change::Channels:
        d.channels = 3;
        break;
    case Change::PixelType:
        d.pixelType = PixelType::Double;
        break;
    case Change::ShiftScale:
        d.setShiftScale(0.0, 2.0);
        break;
    case Change::Dimensions:
        d.setDimensions(Eigen::Vector3i(4, 3, 3));
        break;
    case Change::Position:
        m(2, 3) = 30.5;
        break;
    case Change::Spacing:
        d.spacing.z() = 2.5;
        break;
    case Change::MetricFlag:
        d.isMetric = false;
        break;
    case Change::TinySpacing:
        d.spacing.y() = 1.0 + 1e-10;
        break;
    case Change::TinyRotation:
        m(0, 0) = 1e-12;
        break;
    }
    w.setMatrixToWorld(m);
    return w;
}

struct ApproxRow
{
    Change change;
    int mask;
    bool expectedWorld;
    bool expectedPlain; // comparing only the plain descriptors
};

class ImageDescriptorApprox : public ::testing::TestWithParam<ApproxRow>
{};

} // namespace

TEST_P(ImageDescriptorApprox, MatchesTable)
{
    auto const& row = GetParam();
    ImageDescriptorWorld const a = volume();
    ImageDescriptorWorld const b = changed(row.change);
    EXPECT_EQ(a.isApprox(b, row.mask), row.expectedWorld);
    EXPECT_EQ(b.isApprox(a, row.mask), row.expectedWorld);
    EXPECT_EQ(a.descriptor().isApprox(b.descriptor(), row.mask), row.expectedPlain);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Masks, ImageDescriptorApprox, ::testing::Values(
    // single bits
    ApproxRow{Change::Orientation, 1, false, true},   ApproxRow{Change::Orientation, 126, true, true},
    ApproxRow{Change::Channels, 2, false, false},     ApproxRow{Change::Channels, 125, true, true},
    ApproxRow{Change::PixelType, 4, false, false},    ApproxRow{Change::PixelType, 123, true, true},
    ApproxRow{Change::ShiftScale, 8, false, false},   ApproxRow{Change::ShiftScale, 119, true, true},
    ApproxRow{Change::Dimensions, 16, false, false},  ApproxRow{Change::Dimensions, 111, true, true},
    ApproxRow{Change::Position, 32, false, true},     ApproxRow{Change::Position, 95, true, true},
    ApproxRow{Change::Spacing, 64, false, false},     ApproxRow{Change::Spacing, 63, true, true},
    ApproxRow{Change::MetricFlag, 64, false, false},  ApproxRow{Change::None, 127, true, true},
    // 64: same spacing
    ApproxRow{Change::Channels, 64, true, true},      ApproxRow{Change::Orientation, 64, true, true},
    // 79: spacing, shift/scale, pixel type, channels, orientation
    ApproxRow{Change::Orientation, 79, false, true},  ApproxRow{Change::ShiftScale, 79, false, false},
    ApproxRow{Change::PixelType, 79, false, false},   ApproxRow{Change::Channels, 79, false, false},
    ApproxRow{Change::Dimensions, 79, true, true},    ApproxRow{Change::Position, 79, true, true},
    ApproxRow{Change::Spacing, 79, false, false},
    // 81: dimensions, spacing, orientation
    ApproxRow{Change::Channels, 81, true, true},      ApproxRow{Change::PixelType, 81, true, true},
    ApproxRow{Change::Position, 81, true, true},      ApproxRow{Change::Dimensions, 81, false, false},
    ApproxRow{Change::Orientation, 81, false, true},  ApproxRow{Change::Spacing, 81, false, false},
    // 113: the same grid in the world
    ApproxRow{Change::Position, 113, false, true},    ApproxRow{Change::Orientation, 113, false, true},
    ApproxRow{Change::Dimensions, 113, false, false}, ApproxRow{Change::ShiftScale, 113, true, true},
    ApproxRow{Change::Channels, 113, true, true},     ApproxRow{Change::MetricFlag, 113, false, false},
    // within tolerance
    ApproxRow{Change::TinySpacing, 127, true, true},  ApproxRow{Change::TinyRotation, 127, true, true}));
// clang-format on

TEST(ImageDescriptorWorld, SpatialCompatibilityIgnoresTypeChannelsAndIntensities)
{
    ImageDescriptorWorld const a = volume();
    EXPECT_TRUE(a.isSpatiallyCompatible(changed(Change::Channels)));
    EXPECT_TRUE(a.isSpatiallyCompatible(changed(Change::PixelType)));
    EXPECT_TRUE(a.isSpatiallyCompatible(changed(Change::ShiftScale)));
    EXPECT_FALSE(a.isSpatiallyCompatible(changed(Change::Position)));
    EXPECT_FALSE(a.isSpatiallyCompatible(changed(Change::Orientation)));
    EXPECT_FALSE(a.isSpatiallyCompatible(changed(Change::Dimensions)));
    EXPECT_FALSE(a.isSpatiallyCompatible(changed(Change::Spacing)));
}

// ---------------------------------------------------------------------------------------------
// Configuration

TEST(ImageDescriptorWorldConfiguration, RoundTrip)
{
    ImageDescriptorWorld w = volume();
    Eigen::Matrix4d m = w.matrixToWorld();
    m(0, 3) = 0.1;
    m(1, 3) = -1.0 / 3.0;
    w.setMatrixToWorld(m);
    w.descriptor().setShiftScale(-0.25, 3.0);

    Properties p("image");
    w.configuration(&p);
    EXPECT_EQ(p.paramValueText("matrixToWorld"),
              "[0 -1 0 0.1, 1 0 0 -0.3333333333333333, 0 0 1 30, 0 0 0 1]");
    ImageDescriptorWorld read;
    ASSERT_TRUE(read.configure(&p));
    EXPECT_EQ(read, w);
}

TEST(ImageDescriptorWorldConfiguration, BadMatrixFailsWithoutChange)
{
    for (char const* text :
         {"1 2 3", "[1 0 0 0, 0 1 0 0, 0 0 1 0, 0 0 1 1]", "[0 0 0 0, 0 1 0 0, 0 0 1 0, 0 0 0 1]",
          "[1 0 0 nan, 0 1 0 0, 0 0 1 0, 0 0 0 1]"}) {
        ImageDescriptorWorld w = volume();
        ImageDescriptorWorld const before = w;
        Properties p("image");
        p.setParam("matrixToWorld", std::string(text));
        p.setParam("channels", std::string("4"));
        Log::Capture capture;
        EXPECT_FALSE(w.configure(&p)) << text;
        EXPECT_EQ(w, before) << text;
        EXPECT_TRUE(capture.contains(std::string("Invalid value '") + text +
                                         "' for 'matrixToWorld' in image descriptor 'image': expected an "
                                         "invertible affine 4x4 matrix",
                                     "Host.ImageDescriptorWorld"))
            << text;
    }
}

TEST(ImageDescriptorWorldConfiguration, BadDescriptorKeyKeepsMatrix)
{
    ImageDescriptorWorld w = volume();
    Properties p("image");
    p.setParam("matrixToWorld", Eigen::Matrix4d::Identity().eval());
    p.setParam("spacing", std::string("1 1"));
    Log::Capture capture;
    EXPECT_FALSE(w.configure(&p));
    EXPECT_EQ(w.matrixToWorld(), rotatedTranslated());
    EXPECT_FALSE(w.configure(nullptr));
}
