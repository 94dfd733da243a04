// Padding modes on a row with literal expected values (pads narrower and wider than the row,
// negative pads), every pixel type with channels, the fill value as a stored value, the world
// position of padded frames, mode names and the refusals.

#include "host/processing/Padding.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

namespace {

std::unique_ptr<TypedImage<float>> row(std::vector<float> const& values)
{
    auto image = TypedImage<float>::zeros(Eigen::Vector3i(static_cast<int>(values.size()), 1, 1));
    for (std::size_t i = 0; i < values.size(); ++i)
        image->setValue(values[i], i);
    return image;
}

struct RowCase
{
    char const* name;
    std::vector<float> input;
    PaddingMode mode;
    int low, high;
    std::vector<float> expected;

    // The name in failure output (gtest would otherwise dump the bytes, padding included).
    friend void PrintTo(RowCase const& c, std::ostream* os) { *os << c.name; }
};

class PaddingRowTest : public ::testing::TestWithParam<RowCase>
{};

TEST_P(PaddingRowTest, LiteralValues)
{
    RowCase const& c = GetParam();
    auto source = row(c.input);
    auto padded = createPadded(*source, c.mode, {c.low, 0, 0}, {c.high, 0, 0}, 9.0);
    ASSERT_TRUE(padded);
    auto const& out = static_cast<TypedImage<float> const&>(*padded);
    ASSERT_EQ(out.width(), static_cast<int>(c.expected.size()));
    EXPECT_EQ(std::vector<float>(out.pointer(), out.pointer() + out.width()), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, PaddingRowTest,
    ::testing::Values(
        RowCase{"Zero", {1, 2, 3, 4, 5}, PaddingMode::Zero, 3, 4, {9, 9, 9, 1, 2, 3, 4, 5, 9, 9, 9, 9}},
        RowCase{"Clamp", {1, 2, 3, 4, 5}, PaddingMode::Clamp, 3, 4, {1, 1, 1, 1, 2, 3, 4, 5, 5, 5, 5, 5}},
        RowCase{"Mirror", {1, 2, 3, 4, 5}, PaddingMode::Mirror, 3, 4, {4, 3, 2, 1, 2, 3, 4, 5, 4, 3, 2, 1}},
        // Wider than the row: reflects back and forth with period 2 · (3 − 1).
        RowCase{"MirrorWide", {1, 2, 3}, PaddingMode::Mirror, 5, 5, {2, 1, 2, 3, 2, 1, 2, 3, 2, 1, 2, 3, 2}},
        RowCase{"MirrorSingle", {7}, PaddingMode::Mirror, 2, 1, {7, 7, 7, 7}},
        RowCase{"ClampWide", {1, 2}, PaddingMode::Clamp, 4, 3, {1, 1, 1, 1, 1, 2, 2, 2, 2}},
        // Negative pads remove pixels; one side cropped, the other padded.
        RowCase{"CropLowPadHigh", {1, 2, 3, 4, 5}, PaddingMode::Clamp, -1, 2, {2, 3, 4, 5, 5, 5}},
        RowCase{"CropBoth", {1, 2, 3, 4, 5}, PaddingMode::Mirror, -2, -1, {3, 4}},
        RowCase{"MirrorAfterCropIsOfTheSource", {1, 2, 3, 4, 5}, PaddingMode::Mirror, 2, -3, {3, 2, 1, 2}}),
    [](auto const& info) { return std::string(info.param.name); });

template <class T>
class PaddingTypedTest : public ::testing::Test
{};
TYPED_TEST_SUITE(PaddingTypedTest, AllPixelTypes);

// A 3D two-channel frame in each mode: the source block is unchanged, the corner of the padded
// image shows what the mode says.
TYPED_TEST(PaddingTypedTest, ModesIn3D)
{
    using T = TypeParam;
    auto frame = randomFrame<T>();
    auto const& in = typed<T>(*frame);
    Eigen::Vector3i const low(2, 1, 3), high(1, 3, 2);
    for (PaddingMode mode : {PaddingMode::Zero, PaddingMode::Mirror, PaddingMode::Clamp}) {
        auto padded = createPadded(*frame->mem(), mode, low, high, 7.6);
        ASSERT_TRUE(padded);
        auto const& out = static_cast<TypedImage<T> const&>(*padded);
        EXPECT_EQ(out.dimensions(), Eigen::Vector3i(10, 10, 10));
        EXPECT_EQ(out.shift(), 3.0);
        EXPECT_EQ(out.scale(), 0.5);
        for (int z = 0; z < 5; ++z)
            for (int y = 0; y < 6; ++y)
                for (int x = 0; x < 7; ++x)
                    for (int c = 0; c < 2; ++c)
                        ASSERT_EQ(out.value(x + 2, y + 1, z + 3, c), in.value(x, y, z, c));
        for (int c = 0; c < 2; ++c) {
            // Target (0, 0, 0) is source (−2, −1, −3); target (9, 9, 9) is source (7, 8, 6).
            T const first = out.value(0, 0, 0, c);
            T const last = out.value(9, 9, 9, c);
            if (mode == PaddingMode::Zero) {
                T const fill = std::is_integral_v<T> ? T(8) : static_cast<T>(7.6);
                EXPECT_EQ(first, fill);
                EXPECT_EQ(last, fill);
            } else if (mode == PaddingMode::Clamp) {
                EXPECT_EQ(first, in.value(0, 0, 0, c));
                EXPECT_EQ(last, in.value(6, 5, 4, c));
            } else {
                EXPECT_EQ(first, in.value(2, 1, 3, c));
                EXPECT_EQ(last, in.value(5, 2, 2, c)); // 7 -> 5, 8 -> 2 (period 10), 6 -> 2
            }
        }
    }
}

TEST(PaddingValueTest, FillIsAStoredValueClampedToTheType)
{
    auto image = TypedImage<char>::zeros(Eigen::Vector3i(2, 1, 1));
    auto high = createPadded(*image, PaddingMode::Zero, {1, 0, 0}, {0, 0, 0}, 300.0);
    auto low = createPadded(*image, PaddingMode::Zero, {1, 0, 0}, {0, 0, 0}, -1e9);
    auto nan = createPadded(*image, PaddingMode::Zero, {1, 0, 0}, {0, 0, 0},
                            std::numeric_limits<double>::quiet_NaN());
    ASSERT_TRUE(high && low && nan);
    EXPECT_EQ(static_cast<TypedImage<char>&>(*high).value(0), 127);
    EXPECT_EQ(static_cast<TypedImage<char>&>(*low).value(0), -128);
    EXPECT_EQ(static_cast<TypedImage<char>&>(*nan).value(0), 0);
}

TEST(PaddingGeometryTest, PaddedFrameKeepsWorldPositions)
{
    auto frame = randomFrame<float>();
    Eigen::Vector3i const low(3, -1, 2), high(-2, 4, 0);
    auto padded = createPadded(*frame, PaddingMode::Mirror, low, high);
    ASSERT_TRUE(padded);
    EXPECT_EQ(padded->dimensions(), Eigen::Vector3i(8, 9, 7));
    EXPECT_EQ(padded->modality(), Data::Modality::CT);
    // Source pixel p is padded pixel p + low.
    for (Eigen::Vector3d const& p :
         {Eigen::Vector3d(1, 1, 0), Eigen::Vector3d(4, 5, 4), Eigen::Vector3d(2, 3, 1)})
        EXPECT_TRUE(analyticWorld(testMatrix(), frame->dimensions(), frame->spacing(), p)
                        .isApprox(analyticWorld(padded->matrixToWorld(), padded->dimensions(),
                                                frame->spacing(), p + low.cast<double>()),
                                  1e-12))
            << p.transpose();
}

TEST(PaddingModeNameTest, NamesParseAndUnknownOnesAreNamed)
{
    for (auto [text, mode] : {std::pair{"Zero", PaddingMode::Zero}, std::pair{"mirror", PaddingMode::Mirror},
                              std::pair{" CLAMP ", PaddingMode::Clamp}}) {
        EXPECT_EQ(stringToPaddingMode(text), mode) << text;
        EXPECT_EQ(stringToPaddingMode(paddingModeToString(mode)), mode) << text;
    }
    EXPECT_EQ(paddingModeToString(static_cast<PaddingMode>(5)), "Unknown");
    Log::Capture capture;
    EXPECT_FALSE(stringToPaddingMode("Reflect").has_value());
    EXPECT_TRUE(
        capture.contains("Unknown padding mode 'Reflect' (expected Zero, Mirror or Clamp)", "Host.Padding"));
}

TEST(PaddingErrorTest, RefusesWrongTargetAndEmptyResult)
{
    auto source = TypedImage<short>::zeros(Eigen::Vector3i(4, 3, 2), 2);
    auto wrongSize = TypedImage<short>::zeros(Eigen::Vector3i(5, 3, 2), 2);
    auto wrongType = TypedImage<float>::zeros(Eigen::Vector3i(6, 3, 2), 2);
    Log::Capture capture;
    EXPECT_FALSE(computePadded(*source, *wrongSize, PaddingMode::Zero, {1, 0, 0}, {1, 0, 0}, 0.0));
    EXPECT_TRUE(
        capture.contains("Padding target is [5, 3, 2] with 2 channels of int16, expected [6, 3, 2] with 2 "
                         "channels of int16 (source [4, 3, 2] padded by low [1, 0, 0] high [1, 0, 0])",
                         "Host.Padding"));
    EXPECT_FALSE(computePadded(*source, *wrongType, PaddingMode::Zero, {1, 0, 0}, {1, 0, 0}, 0.0));
    EXPECT_FALSE(computePadded(*source, *wrongType, static_cast<PaddingMode>(9), {1, 0, 0}, {1, 0, 0}, 0.0));
    EXPECT_TRUE(capture.contains("Unknown padding mode 9", "Host.Padding"));
    EXPECT_EQ(createPadded(*source, PaddingMode::Clamp, {0, -2, 0}, {0, -1, 0}), nullptr);
    EXPECT_TRUE(capture.contains(
        "Padding low [0, -2, 0] high [0, -1, 0] leaves no pixel of an image of size [4, 3, 2]",
        "Host.Padding"));
}

} // namespace
