// createFloat: original intensities, normalisation by the type's range, geometry kept.

#include "host/processing/FloatConversion.h"

#include "ProcessingFixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

template <class T>
class FloatConversionTest : public ::testing::Test
{};
TYPED_TEST_SUITE(FloatConversionTest, AllPixelTypes);

TYPED_TEST(FloatConversionTest, GivesOriginalIntensitiesWithUnitShiftScale)
{
    auto const frame = randomFrame<TypeParam>();
    auto const result = createFloat(*frame);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->pixelType(), PixelType::Float);
    EXPECT_EQ(result->channels(), frame->channels());
    EXPECT_EQ(result->descriptor().shift, 0.0);
    EXPECT_EQ(result->descriptor().scale, 1.0);
    auto const& in = typed<TypeParam>(*frame);
    auto const& out = typed<float>(*result);
    for (std::size_t i = 0; i < in.valueCount(); ++i) {
        float const expected = static_cast<float>(static_cast<double>(in.value(i)) / 0.5 - 3.0);
        ASSERT_FLOAT_EQ(out.value(i), expected) << "value " << i;
    }
    expectSameGeometry(*frame, *result);
}

TYPED_TEST(FloatConversionTest, NormalizeMapsIntoUnitRange)
{
    auto const frame = randomFrame<TypeParam>();
    auto const result = createFloat(*frame, true);
    ASSERT_NE(result, nullptr);
    auto const& in = typed<TypeParam>(*frame);
    auto const& out = typed<float>(*result);
    // Reference: the type's range for integers, the image's own range for floating point.
    double lo = std::numeric_limits<TypeParam>::lowest();
    double hi = std::numeric_limits<TypeParam>::max();
    auto const original = [&](std::size_t i) { return static_cast<double>(in.value(i)) / 0.5 - 3.0; };
    if constexpr (std::is_floating_point_v<TypeParam>) {
        lo = std::numeric_limits<double>::infinity();
        hi = -lo;
        for (std::size_t i = 0; i < in.valueCount(); ++i) {
            lo = std::min(lo, original(i));
            hi = std::max(hi, original(i));
        }
    }
    for (std::size_t i = 0; i < in.valueCount(); ++i) {
        double const v = std::is_floating_point_v<TypeParam> ? original(i) : static_cast<double>(in.value(i));
        ASSERT_NEAR(out.value(i), (v - lo) / (hi - lo), 1e-6) << "value " << i;
        ASSERT_GE(out.value(i), 0.0F);
        ASSERT_LE(out.value(i), 1.0F);
    }
    expectSameGeometry(*frame, *result);
}

TEST(FloatConversion, NormalizeReachesBothEndsOfAnIntegerTypeKeepsNanAndGivesZeroForAConstantImage)
{
    auto pixels = TypedImage<short>::zeros(Eigen::Vector3i(3, 1, 1), 1);
    pixels->setValue(std::numeric_limits<short>::lowest(), 0);
    pixels->setValue(std::numeric_limits<short>::max(), 2);
    pixels->setShiftScale(100.0, 2.0); // must not matter
    auto const result = createFloat(SharedImage(std::shared_ptr<Image>(std::move(pixels))), true);
    ASSERT_NE(result, nullptr);
    EXPECT_FLOAT_EQ(typed<float>(*result).value(0), 0.0F);
    EXPECT_NEAR(typed<float>(*result).value(1), 32768.0 / 65535.0, 1e-6);
    EXPECT_FLOAT_EQ(typed<float>(*result).value(2), 1.0F);

    auto constant = TypedImage<double>::zeros(Eigen::Vector3i(3, 1, 1), 1);
    constant->fill(4.0);
    constant->setValue(std::nan(""), 1);
    auto const normalized = createFloat(SharedImage(std::shared_ptr<Image>(std::move(constant))), true);
    ASSERT_NE(normalized, nullptr);
    EXPECT_EQ(typed<float>(*normalized).value(0), 0.0F);
    EXPECT_TRUE(std::isnan(typed<float>(*normalized).value(1)));
}

TEST(FloatConversion, SetKeepsItsAttributesAndSharesNoPixels)
{
    SharedImageSet set;
    set.add(randomFrame<unsigned short>());
    set.add(randomFrame<unsigned short>());
    set.setName("ct");
    set.setTimestamp(1, 2.5);
    set.properties().setParam("origin", std::string("scanner"));
    auto const result = createFloat(set);
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->size(), 2);
    EXPECT_EQ(result->name(), "ct");
    EXPECT_EQ(result->timestamp(1), 2.5);
    EXPECT_EQ(result->properties(), set.properties());
    EXPECT_EQ(result->pixelType(), PixelType::Float);
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(result->get(i), set.get(i));
        expectSameGeometry(*set.get(i), *result->get(i));
        EXPECT_FLOAT_EQ(typed<float>(*result->get(i)).value(5),
                        static_cast<float>(typed<unsigned short>(*set.get(i)).value(5) / 0.5 - 3.0));
    }
    EXPECT_EQ(set.pixelType(), PixelType::UShort); // the input is left alone
}
