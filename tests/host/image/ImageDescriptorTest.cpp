#include "host/image/ImageDescriptor.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>

using namespace Velmoria;

namespace {

ImageDescriptor sample()
{
    ImageDescriptor d(PixelType::UShort, Eigen::Vector3i(4, 3, 2), 2);
    d.setSpacing(Eigen::Vector3d(0.5, 1.0, 2.0), true);
    d.setShiftScale(1024.0, 0.5);
    return d;
}

} // namespace

TEST(ImageDescriptor, DefaultIsEmptyFloat)
{
    ImageDescriptor d;
    EXPECT_EQ(d.pixelType, PixelType::Float);
    EXPECT_EQ(d.dimensions(), Eigen::Vector3i(0, 0, 0));
    EXPECT_EQ(d.channels, 1);
    EXPECT_EQ(d.byteSize(), 0u);
    EXPECT_TRUE(d.isEmpty());
    EXPECT_FALSE(d.isValid());
    EXPECT_EQ(d.storageToOriginal(3.0), 3.0);
}

TEST(ImageDescriptor, SizesAndExtent)
{
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
}

TEST(ImageDescriptor, ByteSizeOfLargeVolumeDoesNotOverflow)
{
    ImageDescriptor d(PixelType::Double, Eigen::Vector3i(512, 512, 1000), 4);
    EXPECT_EQ(d.byteSize(), 8388608000ull);
    ImageDescriptor big(PixelType::UChar, Eigen::Vector3i(2048, 2048, 2048), 1);
    EXPECT_EQ(big.byteSize(), 8589934592ull);
}

TEST(ImageDescriptor, ShiftScaleConvertsBothWays)
{
    ImageDescriptor d = sample(); // shift 1024, scale 0.5
    // original = stored / scale - shift
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
// Configuration

TEST(ImageDescriptorConfiguration, RoundTripKeepsEveryField)
{
    ImageDescriptor d = sample();
    d.spacing = Eigen::Vector3d(0.1, 1.0 / 3.0, 2.5);
    d.isMetric = false;
    Properties p("descriptor");
    d.configuration(&p);
    EXPECT_EQ(p.paramValueText("type"), "uint16");
    EXPECT_EQ(p.paramValueText("dimensions"), "4 3 2");
    EXPECT_EQ(p.paramValueText("shift"), "1024");

    ImageDescriptor read;
    ASSERT_TRUE(read.configure(&p));
    EXPECT_EQ(read, d);
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

TEST_P(ImageDescriptorBadConfiguration, FailsWithoutChangeAndNamesKeyAndValue)
{
    ImageDescriptor d = sample();
    ImageDescriptor const before = d;
    Properties p("descriptor");
    p.setParam("channels", std::string("5")); // a good key does not get applied either
    p.setParam(GetParam().key, std::string(GetParam().text));
    Log::Capture capture;
    bool ok = true;
    EXPECT_NO_THROW(ok = d.configure(&p));
    EXPECT_FALSE(ok);
    EXPECT_EQ(d, before);
    EXPECT_TRUE(capture.containsFragment(std::string("Invalid value '") + GetParam().text + "' for '" +
                                         GetParam().key + "' in image descriptor 'descriptor'"));
}

INSTANTIATE_TEST_SUITE_P(Table, ImageDescriptorBadConfiguration,
                         ::testing::Values(BadKey{"type", "int64"}, BadKey{"type", ""},
                                           BadKey{"dimensions", "4 3"}, BadKey{"dimensions", "4 -3 2"},
                                           BadKey{"dimensions", "4 3.5 2"}, BadKey{"channels", "0"},
                                           BadKey{"channels", "two"}, BadKey{"spacing", "1 0 1"},
                                           BadKey{"spacing", "1 nan 1"}, BadKey{"isMetric", "maybe"},
                                           BadKey{"shift", "inf"}, BadKey{"scale", "0"}));

TEST(ImageDescriptorConfiguration, NullPropertiesFail)
{
    ImageDescriptor d;
    Log::Capture capture;
    EXPECT_FALSE(d.configure(nullptr));
    EXPECT_TRUE(capture.contains("Cannot configure an image descriptor from null properties",
                                 "Host.ImageDescriptor"));
}

TEST(ImageDescriptorConfiguration, ExactLogLine)
{
    ImageDescriptor d;
    Properties p("input");
    p.setParam("channels", std::string("-2"));
    Log::Capture capture;
    EXPECT_FALSE(d.configure(&p));
    EXPECT_TRUE(capture.contains("Invalid value '-2' for 'channels' in image descriptor 'input': expected an "
                                 "integer >= 1",
                                 "Host.ImageDescriptor"));
}
