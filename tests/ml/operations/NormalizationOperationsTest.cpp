// The edge cases of the normalisation operations (their reference loops on every pixel type are in
// PixelOperationsTest): masks, percentiles, worked examples, and the statistics of NormalizeNormal
// on volumes large enough to be split between threads. Their messages are in CatalogueTest.

#include "ml/operations/catalogue/NormalizationOperations.h"

#include "ml/TestHelpers.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/ParamException.h"

#include "host/image/DisplayOptions.h"
#include "host/image/Mask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

Eigen::Vector3i const kSize(4, 3, 2);
constexpr int kChannels = 2;

std::shared_ptr<SharedImageSet> floatSet(std::vector<double> const& values, int channels = 1)
{
    auto const pixels = static_cast<int>(values.size()) / channels;
    return std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(Eigen::Vector3i(pixels, 1, 1), channels, values));
}

TEST(GammaCorrection, KeepsTheRangeOfTheImage)
{
    auto const stored = randomStored<float>(static_cast<std::size_t>(kSize.prod() * kChannels), 11);
    auto set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(kSize, kChannels, stored, kShift, kScale));
    auto const originals = originalsOf<float>(stored);
    auto const [lo, hi] = std::minmax_element(originals.begin(), originals.end());
    double const r = *hi - *lo;
    set = GammaCorrectionOperation(0.5).process(set);
    for (std::size_t i = 0; i < stored.size(); ++i)
        ASSERT_NEAR(originalAt(*set->get(0), i), r * std::pow((originals[i] - *lo) / r, 0.5) + *lo, 1e-4)
            << i;
}

// ---- NormalizeNormal statistics --------------------------------------------------------------

struct MomentsCase
{
    std::string name;
    double mean;
    double spread;
    int channels;
    bool keepBackground;
};

class NormalizeNormalStatistics : public ::testing::TestWithParam<MomentsCase>
{};

// Volumes of many slices (split between threads) with offsets large against their spread, where
// sums of x and x² would lose the deviation; compared with a two-pass reference in double.
TEST_P(NormalizeNormalStatistics, MatchATwoPassReference)
{
    MomentsCase const& c = GetParam();
    Eigen::Vector3i const size(33, 17, 29);
    auto const count = static_cast<std::size_t>(size.prod() * c.channels);
    std::mt19937 engine(3);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<double> values(count);
    for (std::size_t i = 0; i < count; ++i) {
        double const v = static_cast<float>(c.mean * (1 + static_cast<double>(i % c.channels)) +
                                            c.spread * normal(engine));
        values[i] = c.keepBackground && i % 5 == 0 ? 0.0 : v;
    }
    auto set = std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(size, c.channels, values));
    set->add(
        MLTest::placedFrame<float>(Eigen::Vector3i(5, 4, 3), c.channels,
                                   std::vector<double>(static_cast<std::size_t>(60 * c.channels), c.mean)));
    std::vector<double> all = values;
    all.insert(all.end(), static_cast<std::size_t>(60 * c.channels), c.mean);

    std::vector<double> n(c.channels, 0.0), mean(c.channels, 0.0), var(c.channels, 0.0);
    auto const counted = [&](double v) { return !c.keepBackground || v != 0.0; };
    for (std::size_t i = 0; i < all.size(); ++i)
        if (counted(all[i])) {
            n[i % c.channels] += 1;
            mean[i % c.channels] += all[i];
        }
    for (int ch = 0; ch < c.channels; ++ch)
        mean[ch] /= n[ch];
    for (std::size_t i = 0; i < all.size(); ++i)
        if (counted(all[i]))
            var[i % c.channels] += std::pow(all[i] - mean[i % c.channels], 2) / n[i % c.channels];

    set = NormalizeNormalOperation(c.keepBackground, 0.0F).process(set);
    for (std::size_t i = 0; i < all.size(); ++i) {
        SharedImage const& out = *set->get(i < count ? 0 : 1);
        std::size_t const at = i < count ? i : i - count;
        int const ch = static_cast<int>(i % c.channels);
        double const expected = counted(all[i]) ? (all[i] - mean[ch]) / std::sqrt(var[ch]) : 0.0;
        // The subtraction happens in float, as in the reference of numpy: its rounding of a
        // value of size `mean` is what limits agreement.
        double const tolerance = 1e-5 + 2.0 * std::abs(c.mean) * 1e-7 / std::sqrt(var[ch]);
        ASSERT_NEAR(storedAt(out, at), expected, tolerance) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Offsets, NormalizeNormalStatistics,
                         ::testing::Values(MomentsCase{"Centred", 0.0, 1.0, 1, false},
                                           MomentsCase{"CtLike", 1000.0, 1.0, 1, false},
                                           MomentsCase{"LargeOffset", 1.0e5, 3.0, 1, false},
                                           MomentsCase{"ThreeChannels", 500.0, 2.0, 3, false},
                                           MomentsCase{"Background", 1000.0, 4.0, 1, true},
                                           MomentsCase{"BackgroundTwoChannels", 50.0, 4.0, 2, true}),
                         [](auto const& info) { return info.param.name; });

// ---- NormalizePercentile -------------------------------------------------------------------

TEST(NormalizePercentile, RangeIsCheckedWhenBuiltAndWhenProcessing)
{
    EXPECT_THROW(NormalizePercentileOperation(-0.5F, 1.0F), ParamException);
    EXPECT_THROW(NormalizePercentileOperation(0.0F, 2.0F), ParamException);
    NormalizePercentileOperation operation;
    operation.p_maxPercentile.setValue(1.25F);
    auto set = floatSet({1, 2, 3});
    EXPECT_EQ(errorOf(operation, set), "[ML.NormalizePercentile] Min/max percentiles must be in [0;1]");
    EXPECT_EQ(storedAt(*set->get(0), 2), 3.0) << "nothing was written";
}

TEST(NormalizePercentile, LogsTheImplicitConversionAndThePercentileValues)
{
    auto set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<short>(Eigen::Vector3i(5, 1, 1), 1, {10, 20, 30, 40, 50}, kShift, kScale));
    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    Log::Capture capture;
    set = NormalizePercentileOperation().process(set);
    Log::g_globalLevel = level;
    EXPECT_TRUE(capture.contains("Input was not float - adding an implicit MakeFloatOperation.",
                                 "ML.NormalizePercentile"));
    EXPECT_TRUE(capture.contains("minPercentileValue = 2", "ML.NormalizePercentile"));
    EXPECT_TRUE(capture.contains("maxPercentileValue = 22", "ML.NormalizePercentile"));
    EXPECT_EQ(storedAt(*set->get(0), 2), 0.5);
}

TEST(NormalizePercentile, IgnoreZerosLeavesZerosOutOfThePercentilesOnBothSides)
{
    std::vector<double> const values = {0, -4, 0, 0, 6, 0, 2, 0};
    auto withZeros = NormalizePercentileOperation(0.0F, 1.0F).process(floatSet(values));
    auto ignoring = NormalizePercentileOperation(0.0F, 1.0F, false, true).process(floatSet(values));
    for (std::size_t i = 0; i < values.size(); ++i) {
        // Range [-4, 6] either way: zeros lie inside it and are mapped, not skipped.
        EXPECT_NEAR(storedAt(*withZeros->get(0), i), (values[i] + 4.0) / 10.0, 1e-6) << i;
        EXPECT_NEAR(storedAt(*ignoring->get(0), i), (values[i] + 4.0) / 10.0, 1e-6) << i;
    }
    // Only positive values besides zeros: the lower end is the smallest of them, not 0.
    std::vector<double> const positive = {0, 0, 0, 10, 12, 14, 0, 20};
    auto set = NormalizePercentileOperation(0.0F, 1.0F, false, true).process(floatSet(positive));
    for (std::size_t i = 0; i < positive.size(); ++i)
        EXPECT_NEAR(storedAt(*set->get(0), i), (positive[i] - 10.0) / 10.0, 1e-6) << i;
}

TEST(NormalizePercentile, ClampValuesBoundsTheResultAndEqualPercentilesDivideByZero)
{
    std::vector<double> ramp(100);
    for (std::size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = static_cast<double>(i);
    auto open = NormalizePercentileOperation(0.25F, 0.75F, false).process(floatSet(ramp));
    auto clamped = NormalizePercentileOperation(0.25F, 0.75F, true).process(floatSet(ramp));
    EXPECT_LT(storedAt(*open->get(0), 0), -0.4);
    EXPECT_GT(storedAt(*open->get(0), 99), 1.4);
    for (std::size_t i = 0; i < ramp.size(); ++i) {
        double const o = storedAt(*open->get(0), i);
        EXPECT_EQ(storedAt(*clamped->get(0), i), std::min(std::max(o, 0.0), 1.0)) << i;
    }
    // The quartiles of 0..99 lie within a histogram bin (99/1024) of 24.75 and 74.25.
    EXPECT_NEAR(storedAt(*open->get(0), 50), (50.0 - 24.75) / 49.5, 0.01);

    auto equal = NormalizePercentileOperation(0.5F, 0.5F).process(floatSet({1, 2, 3}));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_FALSE(std::isfinite(storedAt(*equal->get(0), i))) << "no guard, by design: " << i;
}

// ---- NormalizeUniform with masks and windows -------------------------------------------------

TEST(NormalizeUniform, MaskedImagesTakeTheRangeFromInsideTheMaskAndKeepIt)
{
    std::vector<double> const values = {-100, 2, 4, 6, 500, 10};
    auto set = floatSet(values);
    auto maskImage = TypedImage<unsigned char>::zeros(Eigen::Vector3i(6, 1, 1), 1);
    for (std::size_t i = 1; i <= 3; ++i)
        maskImage->setValue(1, i);
    auto const mask =
        std::make_shared<ExplicitMask>(std::shared_ptr<TypedImage<unsigned char>>(std::move(maskImage)));
    set->get(0)->setMask(mask);
    auto const result = NormalizeUniformOperation(0.0F, 1.0F).process(set);
    ASSERT_NE(result, set) << "a new set of float frames";
    EXPECT_EQ(result->get(0)->mask(), mask);
    std::vector<double> const expected = {-25.5, 0, 0.5, 1, 124.5, 2};
    for (std::size_t i = 0; i < values.size(); ++i)
        EXPECT_NEAR(storedAt(*result->get(0), i), expected[i], 1e-5) << i;
    auto const* window = result->components().get<DisplayOptions2d>();
    ASSERT_NE(window, nullptr);
    EXPECT_NEAR(window->greyValue(0.0), 0.0, 1e-12);
    EXPECT_NEAR(window->greyValue(1.0), 1.0, 1e-12);
    EXPECT_EQ(storedAt(*set->get(0), 0), -100.0) << "the input is not written";
}

TEST(NormalizeUniform, ConstantImageGoesToTheLowerEnd)
{
    auto set = NormalizeUniformOperation(-1.0F, 1.0F).process(floatSet({4, 4, 4}));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(storedAt(*set->get(0), i), -1.0) << i;
}

// ---- NormalizeMAD on known vectors -----------------------------------------------------------

struct MadCase
{
    std::string name;
    std::vector<double> values;
    int channels;
    std::vector<int> selected;
    bool fixMedian;
    std::vector<double> expected;
};

class NormalizeMADKnown : public ::testing::TestWithParam<MadCase>
{};

TEST_P(NormalizeMADKnown, GivesTheWorkedResult)
{
    MadCase const& c = GetParam();
    NormalizeMADOperation operation(c.selected);
    operation.p_fixMedian.setValue(c.fixMedian);
    auto set = operation.process(floatSet(c.values, c.channels));
    for (std::size_t i = 0; i < c.expected.size(); ++i)
        EXPECT_NEAR(storedAt(*set->get(0), i), c.expected[i], 1e-6) << i;
    auto const [lo, hi] = std::minmax_element(c.expected.begin(), c.expected.end());
    if (c.channels == 1 && *hi > *lo) {
        auto const* window = set->components().get<DisplayOptions2d>();
        ASSERT_NE(window, nullptr);
        EXPECT_NEAR(window->greyValue(*lo), 0.0, 1e-9);
        EXPECT_NEAR(window->greyValue(*hi), 1.0, 1e-9);
    }
}

INSTANTIATE_TEST_SUITE_P(Vectors, NormalizeMADKnown,
                         ::testing::Values(
                             // median 6, deviations {4, 2, 0, 2, 194}: MAD 2.
                             MadCase{"Odd", {2, 4, 6, 8, 200}, 1, {}, false, {-2, -1, 0, 1, 97}},
                             MadCase{"FixMedian", {2, 4, 6, 8, 200}, 1, {}, true, {4, 5, 6, 7, 103}},
                             // median 2.5, deviations {1.5, 0.5, 0.5, 1.5}: MAD 1.
                             MadCase{"Even", {4, 1, 3, 2}, 1, {}, false, {1.5, -1.5, 0.5, -0.5}},
                             MadCase{"ZeroMad", {5, 5, 5, 9}, 1, {}, false, {0, 0, 0, 0}},
                             // Channel 0 is not selected and keeps its values.
                             MadCase{
                                 "SelectedChannel", {7, 2, 8, 4, 9, 6}, 2, {1}, false, {7, -1, 8, 0, 9, 1}}),
                         [](auto const& info) { return info.param.name; });

TEST(NormalizeMAD, WarnsWhenForcedToTheGpuAndRunsOnTheCpu)
{
    NormalizeMADOperation forced;
    forced.setComputingDevice(ComputingDevice::ForceGPU);
    Log::Capture capture;
    auto const set = forced.process(floatSet({1, 2, 3}));
    EXPECT_TRUE(capture.contains("NormalizeMAD was forced to run on GPU but is not implemented for that yet.",
                                 "ML.NormalizeMAD"));
    EXPECT_NEAR(storedAt(*set->get(0), 0), -1.0, 1e-6) << "it still ran, on the CPU";
}

} // namespace
