// ImageDescriptor and ImageDescriptorWorld: sizes, intensity mapping, the centred pixel-to-world
// convention (worked out by hand), comparison masks and the text configuration.

#include "host/core/Log.h"
#include "host/core/Properties.h"
#include "host/image/ImageDescriptorWorld.h"
#include "host/image/SharedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <functional>
#include <string>
#include <type_traits>

using namespace Velmoria;

namespace {

// uint16, 4 x 3 x 2 pixels of two channels, spacing (0.5, 1, 2), shift 1024, scale 0.5.
ImageDescriptor sample()
{
    ImageDescriptor d(PixelType::UShort, Eigen::Vector3i(4, 3, 2), 2);
    d.setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0), true);
    d.setShiftScale(1024.0, 0.5);
    return d;
}

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

// float, 4 x 3 x 2 pixels, spacing (0.5, 1, 2), placed by rotatedTranslated().
ImageDescriptorWorld volume()
{
    ImageDescriptor d(PixelType::Float, Eigen::Vector3i(4, 3, 2), 1);
    d.setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0), true);
    return ImageDescriptorWorld(d, rotatedTranslated());
}

void expectNear(Eigen::Vector3d const& actual, Eigen::Vector3d const& expected)
{
    EXPECT_LT((actual - expected).norm(), 1e-12) << actual.transpose() << " vs " << expected.transpose();
}

} // namespace

static_assert(!std::is_base_of_v<ImageDescriptor, ImageDescriptorWorld>,
              "a world descriptor must not slice into a plain one");

TEST(ImageDescriptor, SizesAndExtent)
{
    EXPECT_TRUE(ImageDescriptor().isEmpty());
    EXPECT_FALSE(ImageDescriptor().isValid());

    ImageDescriptor d = sample();
    EXPECT_EQ(d.pixelCount(), 24u);
    EXPECT_EQ(d.valueCount(), 48u);
    EXPECT_EQ(d.byteSize(), 96u);
    EXPECT_EQ(d.dimension(), 3);
    // Extent is the box around the pixel areas: dimensions times spacing.
    EXPECT_EQ(d.extent(), Eigen::Vector3d(2.0, 3.0, 4.0));
    EXPECT_TRUE(d.isValid());

    d.setDimensions(Eigen::Vector3i(7, 5, 1), 3);
    EXPECT_EQ(d.dimension(), 2);
    EXPECT_EQ(d.channels, 3);
    EXPECT_EQ(d.extent(), Eigen::Vector3d(3.5, 5.0, 2.0));

    d.setDimensions(Eigen::Vector3i(-1, 5, 1), 3);
    EXPECT_EQ(d.byteSize(), 0u);
    EXPECT_FALSE(d.isValid());

    // 8 GB and more must not overflow.
    EXPECT_EQ(ImageDescriptor(PixelType::Double, Eigen::Vector3i(512, 512, 1000), 4).byteSize(),
              8388608000ull);
    EXPECT_EQ(ImageDescriptor(PixelType::UChar, Eigen::Vector3i(2048, 2048, 2048), 1).byteSize(),
              8589934592ull);
}

TEST(ImageDescriptor, ShiftScaleConvertsBothWays)
{
    ImageDescriptor d = sample(); // original = stored / scale - shift
    EXPECT_DOUBLE_EQ(d.storageToOriginal(100.0), -824.0);
    EXPECT_DOUBLE_EQ(d.originalToStorage(-824.0), 100.0);
    EXPECT_DOUBLE_EQ(d.originalToStorage(0.0), 512.0);
}

TEST(ImageDescriptor, PixelBufferCompatibility)
{
    ImageDescriptor a = sample();
    ImageDescriptor b = a;
    b.setSpacing(Eigen::Vector3d(3, 3, 3), false);
    b.setShiftScale(0, 1);
    EXPECT_TRUE(a.isPixelBufferCompatible(b)); // geometry and intensities do not matter
    b.channels = 1;
    EXPECT_FALSE(a.isPixelBufferCompatible(b));
    b = a;
    b.pixelType = PixelType::Short; // same size, different type
    EXPECT_FALSE(a.isPixelBufferCompatible(b));
    b = a;
    b.setDimensions(Eigen::Vector3i(3, 4, 2));
    EXPECT_FALSE(a.isPixelBufferCompatible(b));
}

TEST(ImageDescriptor, ApproxToleranceIsRelativeWithAbsoluteFloor)
{
    using ImageDescriptorDetail::approxEqual;
    EXPECT_TRUE(approxEqual(1000.0, 1000.0005));
    EXPECT_FALSE(approxEqual(1000.0, 1000.01));
    EXPECT_TRUE(approxEqual(0.0, 1e-10));
    EXPECT_FALSE(approxEqual(0.0, 1e-7));
    EXPECT_TRUE(approxEqual(-0.0, 0.0));
    EXPECT_FALSE(approxEqual(std::nan(""), std::nan("")));

    ImageDescriptor a = sample();
    ImageDescriptor b = a;
    b.spacing.x() += 1e-9;
    EXPECT_TRUE(a.isApprox(b));
    EXPECT_FALSE(a == b);
    b.spacing.x() = 0.5001;
    EXPECT_FALSE(a.isApprox(b));
    EXPECT_TRUE(a.isApprox(b, ImageDescriptor::CompareAll & ~ImageDescriptor::CompareSpacing));
}

// ---------------------------------------------------------------------------------------------
// Geometry, with expected positions worked out by hand: the centre index is (1.5, 1, 0.5).

namespace {

struct PixelWorld
{
    Eigen::Vector3d pixel;
    Eigen::Vector3d image; // (p - centre) * spacing
    Eigen::Vector3d world; // R * image + (10, 20, 30), R: (x, y, z) -> (-y, x, z)
};

class ImageDescriptorWorldGeometry : public ::testing::TestWithParam<PixelWorld>
{};

} // namespace

TEST_P(ImageDescriptorWorldGeometry, PixelToImageAndWorld)
{
    auto const& row = GetParam();
    ImageDescriptorWorld const w = volume();
    expectNear(w.pixelToImage(row.pixel), row.image);
    expectNear(w.imageToPixel(row.image), row.pixel);
    expectNear(w.pixelToWorld(row.pixel), row.world);
    expectNear(w.worldToPixel(row.world), row.pixel);
    expectNear((w.pixelToWorldMatrix() * row.pixel.homogeneous()).hnormalized(), row.world);
    expectNear((w.worldToPixelMatrix() * row.world.homogeneous()).hnormalized(), row.pixel);

    // A frame with this descriptor and matrix places its pixels alike.
    SharedImage frame(w.descriptor());
    frame.setMatrixToWorld(w.matrixToWorld());
    expectNear(frame.pixelToWorld(row.pixel), row.world);
    expectNear(frame.worldToPixel(row.world), row.pixel);
    expectNear((frame.pixelToWorldMatrix() * row.pixel.homogeneous()).hnormalized(), row.world);
    expectNear((frame.worldToPixelMatrix() * row.world.homogeneous()).hnormalized(), row.pixel);
}

INSTANTIATE_TEST_SUITE_P(
    Corners, ImageDescriptorWorldGeometry,
    ::testing::Values(PixelWorld{{0, 0, 0}, {-0.75, -1, -1}, {11, 19.25, 29}}, //
                      PixelWorld{{3, 2, 1}, {0.75, 1, 1}, {9, 20.75, 31}},     //
                      PixelWorld{{3, 0, 0}, {0.75, -1, -1}, {11, 20.75, 29}},  //
                      PixelWorld{{1.5, 1, 0.5}, {0, 0, 0}, {10, 20, 30}},      // the centre of the volume
                      PixelWorld{
                          {-0.5, -0.5, -0.5}, {-1, -1.5, -2}, {11.5, 19, 28}})); // outer corner of the box

TEST(ImageDescriptorWorld, TwoDimensionalImageHasNoZOffset)
{
    ImageDescriptor d(PixelType::UChar, Eigen::Vector3i(5, 4, 1), 1);
    d.setSpacing(Eigen::Vector3d(1, 2, 3), true);
    ImageDescriptorWorld w(d);
    expectNear(w.pixelToWorld({0, 0, 0}), {-2, -3, 0});
    expectNear(w.pixelToWorld({4, 3, 0}), {2, 3, 0});
    expectNear(w.pixelToWorld({0, 0, 1}), {-2, -3, 3}); // one slice out is one z-spacing away
    expectNear(w.worldToPixel({2, 3, 0}), {4, 3, 0});
}

TEST(ImageDescriptorWorld, MatrixFromWorldIsTheInverseAndResizingKeepsTheCentre)
{
    ImageDescriptorWorld w = volume();
    EXPECT_TRUE((w.matrixFromWorld() * w.matrixToWorld()).isApprox(Eigen::Matrix4d::Identity(), 1e-14));
    ImageDescriptorWorld other(w.descriptor());
    other.setMatrixFromWorld(w.matrixFromWorld());
    EXPECT_TRUE(other.matrixToWorld().isApprox(rotatedTranslated(), 1e-14));

    // Padding one pixel on every side keeps the world position of every old pixel, shifted by
    // one index, with the same matrix.
    ImageDescriptorWorld padded = w;
    padded.descriptor().setDimensions(Eigen::Vector3i(6, 5, 4));
    for (Eigen::Vector3d p : {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(3, 2, 1), Eigen::Vector3d(1, 2, 0)})
        expectNear(padded.pixelToWorld(p + Eigen::Vector3d::Ones()), w.pixelToWorld(p));
}

// ---------------------------------------------------------------------------------------------
// isApprox: descriptors that differ in one property, against every mask. A difference shows
// exactly when the mask holds one of the bits that detect it.

namespace {

struct ApproxRow
{
    char const* name;
    std::function<void(ImageDescriptor&, Eigen::Matrix4d&)> change;
    int worldBits; // the mask bits that detect the change between world descriptors
    int plainBits; // ... between the plain descriptors (which have no matrix)
};

class ImageDescriptorApprox : public ::testing::TestWithParam<ApproxRow>
{};

} // namespace

TEST_P(ImageDescriptorApprox, DifferenceShowsUnderTheMaskBitsThatDetectIt)
{
    auto const& row = GetParam();
    ImageDescriptorWorld const a = volume();
    ImageDescriptorWorld b = volume();
    Eigen::Matrix4d m = b.matrixToWorld();
    row.change(b.descriptor(), m);
    b.setMatrixToWorld(m);
    for (int mask = 0; mask <= ImageDescriptor::CompareAll; ++mask) {
        SCOPED_TRACE("mask " + std::to_string(mask));
        EXPECT_EQ(a.isApprox(b, mask), (mask & row.worldBits) == 0);
        EXPECT_EQ(b.isApprox(a, mask), (mask & row.worldBits) == 0);
        EXPECT_EQ(a.descriptor().isApprox(b.descriptor(), mask), (mask & row.plainBits) == 0);
    }
    // Spatial compatibility ignores pixel type, channels and intensities.
    int const spatial =
        ImageDescriptor::CompareAll & ~(ImageDescriptor::CompareChannels | ImageDescriptor::ComparePixelType |
                                        ImageDescriptor::CompareShiftScale);
    EXPECT_EQ(a.isSpatiallyCompatible(b), (row.worldBits & spatial) == 0);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Changes, ImageDescriptorApprox, ::testing::Values(
    ApproxRow{"None", [](auto&, auto&) {}, 0, 0},
    ApproxRow{"Orientation", [](auto&, auto& m) { m.template topLeftCorner<3, 3>().setIdentity(); }, 1, 0},
    ApproxRow{"Channels", [](auto& d, auto&) { d.channels = 3; }, 2, 2},
    ApproxRow{"PixelType", [](auto& d, auto&) { d.pixelType = PixelType::Double; }, 4, 4},
    ApproxRow{"ShiftScale", [](auto& d, auto&) { d.setShiftScale(0.0, 2.0); }, 8, 8},
    ApproxRow{"Dimensions", [](auto& d, auto&) { d.setDimensions(Eigen::Vector3i(4, 3, 3)); }, 16, 16},
    ApproxRow{"Position", [](auto&, auto& m) { m(2, 3) = 30.5; }, 32, 0},
    ApproxRow{"Spacing", [](auto& d, auto&) { d.spacing.z() = 2.5; }, 64, 64},
    ApproxRow{"MetricFlag", [](auto& d, auto&) { d.isMetric = false; }, 64, 64},
    ApproxRow{"TinySpacing", [](auto& d, auto&) { d.spacing.y() = 1.0 + 1e-10; }, 0, 0},
    ApproxRow{"TinyRotation", [](auto&, auto& m) { m(0, 0) = 1e-12; }, 0, 0}),
    [](auto const& info) { return std::string(info.param.name); });
// clang-format on

// ---------------------------------------------------------------------------------------------
// Configuration

TEST(ImageDescriptorConfiguration, RoundTripKeepsEveryField)
{
    ImageDescriptorWorld w = volume();
    w.descriptor() = sample();
    w.descriptor().spacing = Eigen::Vector3d(0.1, 1.0 / 3.0, 2.5);
    w.descriptor().isMetric = false;
    Eigen::Matrix4d m = w.matrixToWorld();
    m(0, 3) = 0.1;
    m(1, 3) = -1.0 / 3.0;
    w.setMatrixToWorld(m);

    Properties p("image");
    w.configuration(&p);
    EXPECT_EQ(p.paramValueText("type"), "uint16");
    EXPECT_EQ(p.paramValueText("dimensions"), "4 3 2");
    EXPECT_EQ(p.paramValueText("shift"), "1024");
    EXPECT_EQ(p.paramValueText("matrixToWorld"),
              "[0 -1 0 0.1, 1 0 0 -0.3333333333333333, 0 0 1 30, 0 0 0 1]");
    ImageDescriptorWorld read;
    ASSERT_TRUE(read.configure(&p));
    EXPECT_EQ(read, w);
    ImageDescriptor plain;
    ASSERT_TRUE(plain.configure(&p));
    EXPECT_EQ(plain, w.descriptor());
}

TEST(ImageDescriptorConfiguration, MissingKeysKeepValuesAndAliasesRead)
{
    ImageDescriptor d = sample();
    Properties p("descriptor");
    p.setParam("type", std::string("unsigned char"));
    p.setParam("channels", std::string("3"));
    ASSERT_TRUE(d.configure(&p));
    EXPECT_EQ(d.pixelType, PixelType::UChar);
    EXPECT_EQ(d.channels, 3);
    EXPECT_EQ(d.dimensions(), Eigen::Vector3i(4, 3, 2));
    EXPECT_EQ(d.scale, 0.5);

    Log::Capture capture;
    EXPECT_FALSE(d.configure(nullptr));
    EXPECT_FALSE(ImageDescriptorWorld().configure(nullptr));
    EXPECT_EQ(capture.count("Cannot configure an image descriptor from null properties"), 2);
}

namespace {

struct BadKey
{
    char const* key;
    char const* text;
};

class ImageDescriptorBadConfiguration : public ::testing::TestWithParam<BadKey>
{};

} // namespace

// A bad key fails the whole configuration, keeps the descriptor as it was (a good key in the same
// properties is not applied either) and names key and value.
TEST_P(ImageDescriptorBadConfiguration, FailsWithoutChangeAndNamesKeyAndValue)
{
    ImageDescriptorWorld w = volume();
    w.descriptor() = sample();
    ImageDescriptorWorld const before = w;
    Properties p("descriptor");
    p.setParam("channels", std::string("5"));
    p.setParam(GetParam().key, std::string(GetParam().text));
    Log::Capture capture;
    bool ok = true;
    EXPECT_NO_THROW(ok = w.configure(&p));
    EXPECT_FALSE(ok);
    EXPECT_EQ(w, before);
    EXPECT_TRUE(capture.containsFragment(std::string("Invalid value '") + GetParam().text + "' for '" +
                                         GetParam().key + "' in image descriptor 'descriptor': expected "));

    ImageDescriptor plain = sample();
    if (std::string(GetParam().key) != "matrixToWorld") {
        EXPECT_FALSE(plain.configure(&p));
        EXPECT_EQ(plain, sample());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, ImageDescriptorBadConfiguration,
    ::testing::Values(BadKey{"type", "int64"}, BadKey{"type", ""}, BadKey{"dimensions", "4 3"},
                      BadKey{"dimensions", "4 -3 2"}, BadKey{"dimensions", "4 3.5 2"},
                      BadKey{"channels", "0"}, BadKey{"channels", "two"}, BadKey{"spacing", "1 0 1"},
                      BadKey{"spacing", "1 nan 1"}, BadKey{"isMetric", "maybe"}, BadKey{"shift", "inf"},
                      BadKey{"scale", "0"}, BadKey{"matrixToWorld", "1 2 3"},
                      BadKey{"matrixToWorld", "[1 0 0 0, 0 1 0 0, 0 0 1 0, 0 0 1 1]"},
                      BadKey{"matrixToWorld", "[0 0 0 0, 0 1 0 0, 0 0 1 0, 0 0 0 1]"},
                      BadKey{"matrixToWorld", "[1 0 0 nan, 0 1 0 0, 0 0 1 0, 0 0 0 1]"}));
