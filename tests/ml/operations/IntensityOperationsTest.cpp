// Intensity operations against plain reference loops on every pixel type (stored with a shift
// and scale, compared in original intensities), plus their keys and edge cases. Their messages
// are in CatalogueTest.

#include "ml/operations/catalogue/IntensityOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/CatalogueTestHelpers.h"

#include "host/image/DisplayOptions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

// What a target of type T stores for the original value r: (r + shift) * scale, saturated and
// truncated for integers.
template <class T>
double expectedStored(double r, double shift, double scale)
{
    double const v = (r + shift) * scale;
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<double>(static_cast<T>(v));
    else
        return static_cast<double>(static_cast<T>(
            std::clamp(v, double(std::numeric_limits<T>::lowest()), double(std::numeric_limits<T>::max()))));
}

// An operation and its formula on one original value of channel c.
struct Case
{
    std::string name;
    std::function<std::unique_ptr<Operation>()> make;
    std::function<double(double, int)> reference;
};

std::vector<Case> inPlaceCases()
{
    return {
        {"Clip", [] { return std::make_unique<ClipOperation>(-20.0F, 15.0F); },
         [](double x, int) { return std::min(std::max(x, -20.0), 15.0); }},
        {"ClipMinAboveMax", [] { return std::make_unique<ClipOperation>(10.0F, 5.0F); },
         [](double, int) { return 5.0; }},
        {"LinearIntensityMapping",
         [] { return std::make_unique<LinearIntensityMappingOperation>(-1.5, 4.0); },
         [](double x, int) { return -1.5 * x + 4.0; }},
        {"Invert", [] { return std::make_unique<InvertOperation>(); }, [](double x, int) { return -x; }},
        {"Threshold", [] { return std::make_unique<ThresholdOperation>(10.5); },
         [](double x, int) { return x > 10.5 ? 1.0 : 0.0; }},
        {"AdjustShiftScaleScalar",
         [] { return std::make_unique<AdjustShiftScaleOperation>(std::vector{7.0}, std::vector{0.5}); },
         [](double x, int) { return (x + 7.0) / 0.5; }},
        {"AdjustShiftScalePerChannel",
         [] {
             return std::make_unique<AdjustShiftScaleOperation>(std::vector{2.0, -1.0},
                                                                std::vector{0.5, 4.0});
         },
         [](double x, int c) { return c == 0 ? (x + 2.0) / 0.5 : (x - 1.0) / 4.0; }},
    };
}

} // namespace

template <class T>
class IntensityOperationsTest : public ::testing::Test
{};
TYPED_TEST_SUITE(IntensityOperationsTest, AllPixelTypes);

TYPED_TEST(IntensityOperationsTest, InPlaceOperationsMatchAReferenceLoop)
{
    Eigen::Vector3i const size(4, 3, 2);
    int const channels = 2;
    auto const count = static_cast<std::size_t>(size.prod() * channels);
    for (Case const& c : inPlaceCases()) {
        SCOPED_TRACE(c.name);
        auto const stored0 = randomStored<TypeParam>(count, 5);
        auto const stored1 = randomStored<TypeParam>(count, 6);
        auto set = std::make_shared<SharedImageSet>(
            MLTest::placedFrame<TypeParam>(size, channels, stored0, kShift, kScale));
        set->add(MLTest::placedFrame<TypeParam>(size, channels, stored1, kShift, kScale));
        auto const matrix = set->get(1)->matrixToWorld();
        set = c.make()->process(set);
        ASSERT_EQ(set->size(), 2);
        for (int f = 0; f < 2; ++f) {
            SharedImage const& out = *set->get(f);
            ASSERT_EQ(out.pixelType(), set->get(0)->pixelType());
            EXPECT_EQ(out.descriptor().shift, kShift);
            EXPECT_EQ(out.descriptor().scale, kScale);
            EXPECT_TRUE(out.matrixToWorld().isApprox(matrix));
            auto const x = originalsOf<TypeParam>(f == 0 ? stored0 : stored1);
            for (std::size_t i = 0; i < count; ++i) {
                double const expected = expectedStored<TypeParam>(
                    c.reference(x[i], static_cast<int>(i) % channels), kShift, kScale);
                ASSERT_NEAR(storedAt(out, i), expected, std::abs(expected) * 1e-6)
                    << "frame " << f << " value " << i;
            }
        }
    }
}

TYPED_TEST(IntensityOperationsTest, ThresholdToUbyteMakesByteFramesOfTheSameGeometry)
{
    Eigen::Vector3i const size(3, 3, 2);
    auto const stored = randomStored<TypeParam>(static_cast<std::size_t>(size.prod()), 9);
    auto set =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<TypeParam>(size, 1, stored, kShift, kScale));
    auto const before = set->getShared(0);
    set = ThresholdOperation(4.0, true).process(set);
    SharedImage const& out = *set->get(0);
    ASSERT_EQ(out.pixelType(), PixelType::UChar);
    EXPECT_EQ(out.descriptor().shift, 0.0);
    EXPECT_EQ(out.descriptor().scale, 1.0);
    EXPECT_EQ(out.spacing(), before->spacing());
    EXPECT_TRUE(
        out.pixelToWorld(Eigen::Vector3d(2, 1, 1)).isApprox(before->pixelToWorld(Eigen::Vector3d(2, 1, 1))));
    auto const x = originalsOf<TypeParam>(stored);
    for (std::size_t i = 0; i < stored.size(); ++i)
        ASSERT_EQ(storedAt(out, i), x[i] > 4.0 ? 1.0 : 0.0) << i;
}

TYPED_TEST(IntensityOperationsTest, MakeFloatGivesOriginalIntensitiesAndKeepsTheInput)
{
    Eigen::Vector3i const size(3, 2, 2);
    auto const stored = randomStored<TypeParam>(static_cast<std::size_t>(size.prod() * 3), 3);
    auto const input =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<TypeParam>(size, 3, stored, kShift, kScale));
    MakeFloatOperation makeFloat;
    EXPECT_TRUE(makeFloat.doesNotModifyInput());
    auto const result = makeFloat.process(input);
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->get(0)->pixelType(), PixelType::Float);
    if constexpr (std::is_same_v<TypeParam, float>)
        EXPECT_EQ(result->get(0), input->get(0)) << "a float input is returned as it is";
    else
        EXPECT_EQ(input->get(0)->pixelType(), Utils::pixelTypeId<TypeParam>()) << "the input is unchanged";
    auto const x = originalsOf<TypeParam>(stored);
    for (std::size_t i = 0; i < stored.size(); ++i)
        ASSERT_FLOAT_EQ(static_cast<float>(originalAt(*result->get(0), i)), static_cast<float>(x[i])) << i;
}

TYPED_TEST(IntensityOperationsTest, NormalizeNormalUsesTheStatisticsOfTheWholeSet)
{
    Eigen::Vector3i const size(4, 3, 1);
    auto const count = static_cast<std::size_t>(size.prod() * 2);
    auto const stored0 = randomStored<TypeParam>(count, 21);
    auto const stored1 = randomStored<TypeParam>(count, 22);
    auto set =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<TypeParam>(size, 2, stored0, kShift, kScale));
    set->add(MLTest::placedFrame<TypeParam>(size, 2, stored1, kShift, kScale));
    std::vector<double> originals = originalsOf<TypeParam>(stored0);
    for (double v : originalsOf<TypeParam>(stored1))
        originals.push_back(v);
    double mean[2] = {0, 0}, var[2] = {0, 0};
    for (std::size_t i = 0; i < originals.size(); ++i)
        mean[i % 2] += originals[i] / (originals.size() / 2);
    for (std::size_t i = 0; i < originals.size(); ++i)
        var[i % 2] += std::pow(originals[i] - mean[i % 2], 2) / (originals.size() / 2);

    Log::Capture capture;
    set = NormalizeNormalOperation().process(set);
    bool const logged = capture.contains("Input was not float - adding an implicit MakeFloatOperation.",
                                         "ML.NormalizeNormal");
    EXPECT_EQ(logged, (!std::is_same_v<TypeParam, float>));
    ASSERT_EQ(set->get(0)->pixelType(), PixelType::Float);
    for (std::size_t i = 0; i < originals.size(); ++i) {
        double const expected = (originals[i] - mean[i % 2]) / std::sqrt(var[i % 2]);
        ASSERT_NEAR(originalAt(*set->get(static_cast<int>(i / count)), i % count), expected, 1e-4) << i;
    }
}

TEST(NormalizeNormal, ConstantChannelGivesZeroAndBackgroundIsKept)
{
    // Channel 0 constant; channel 1 holds background (0) and 2, 4, 6.
    std::vector<double> const stored = {5, 0, 5, 2, 5, 4, 5, 6};
    auto set =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(Eigen::Vector3i(4, 1, 1), 2, stored));
    set = NormalizeNormalOperation(true, 0.0F).process(set);
    double const s = std::sqrt(8.0 / 3.0);
    std::vector<double> const expected = {0, 0, 0, -2 / s, 0, 0, 0, 2 / s};
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_NEAR(storedAt(*set->get(0), i), expected[i], 1e-5) << i;

    auto constant =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(Eigen::Vector3i(3, 1, 1), 1, {7, 7, 7}));
    constant = NormalizeNormalOperation().process(constant);
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(storedAt(*constant->get(0), i), 0.0) << "no division by zero";
}

TEST(Invert, NegatesTheDisplayLevelAndTwiceRestoresEverything)
{
    std::vector<double> const stored = {-3, 0, 2.5, 9};
    auto set =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(Eigen::Vector3i(4, 1, 1), 1, stored));
    set->components().getOrCreate<DisplayOptions2d>()->p_level.setValue(40.0);
    set->components().getOrCreate<DisplayOptions3d>()->p_level.setValue(-7.0);
    set = InvertOperation().process(set);
    EXPECT_EQ(set->components().get<DisplayOptions2d>()->p_level.value(), -40.0);
    EXPECT_EQ(set->components().get<DisplayOptions3d>()->p_level.value(), 7.0);
    EXPECT_EQ(storedAt(*set->get(0), 0), 3.0);
    set = InvertOperation().process(set);
    EXPECT_EQ(set->components().get<DisplayOptions2d>()->p_level.value(), 40.0);
    EXPECT_EQ(set->components().get<DisplayOptions3d>()->p_level.value(), -7.0);
    for (std::size_t i = 0; i < stored.size(); ++i)
        EXPECT_EQ(storedAt(*set->get(0), i), stored[i]);
}

TEST(Threshold, ValueItselfGivesZeroAndTheOldKeyStillWorks)
{
    ThresholdOperation threshold;
    Log::Capture capture;
    Properties p;
    p.setParam("threshold", 2.0);
    ASSERT_TRUE(threshold.configure(p));
    EXPECT_EQ(threshold.p_value.value(), 2.0);
    EXPECT_TRUE(capture.contains("Using deprecated parameter 'threshold'. Please use: 'value' instead.",
                                 "ML.Threshold"));
    auto set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(Eigen::Vector3i(3, 1, 1), 1, {1.5, 2.0, 2.5}));
    set = threshold.process(set);
    EXPECT_EQ(storedAt(*set->get(0), 0), 0.0);
    EXPECT_EQ(storedAt(*set->get(0), 1), 0.0);
    EXPECT_EQ(storedAt(*set->get(0), 2), 1.0);
}

TEST(SigmoidAndTanh, MatchTheirFormulasAndSetTheWindow)
{
    std::vector<double> const stored = {-2, -0.5, 0, 0.25, 3};
    auto sigmoid =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(Eigen::Vector3i(5, 1, 1), 1, stored));
    auto tanh =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(Eigen::Vector3i(5, 1, 1), 1, stored));
    sigmoid = SigmoidOperation(1.5F).process(sigmoid);
    tanh = TanhOperation(0.7F).process(tanh);
    for (std::size_t i = 0; i < stored.size(); ++i) {
        EXPECT_NEAR(storedAt(*sigmoid->get(0), i), 1.0 / (1.0 + std::exp(-1.5 * stored[i])), 1e-6);
        EXPECT_NEAR(storedAt(*tanh->get(0), i), std::tanh(0.7 * stored[i]), 1e-6);
    }
    EXPECT_NEAR(sigmoid->components().get<DisplayOptions2d>()->greyValue(0.5), 0.5, 1e-12);
    EXPECT_NEAR(tanh->components().get<DisplayOptions2d>()->greyValue(0.0), 0.5, 1e-12);
    EXPECT_NEAR(tanh->components().get<DisplayOptions2d>()->greyValue(1.0), 1.0, 1e-12);
}

TEST(IntensityOperations, TakeVectorElementsLikeImages)
{
    // A vector element (one pixel per frame) is processed like an image, channel by channel.
    DataItem item;
    item.set("scores", std::make_shared<SharedImageSet>(
                           MLTest::placedFrame<float>(Eigen::Vector3i(1, 1, 1), 3, {-2, 0.5, 4})));
    ASSERT_NE(dynamic_cast<VectorElement*>(item.get("scores")), nullptr);
    AdjustShiftScaleOperation(std::vector{1.0, 2.0, 3.0}, std::vector{2.0, 5.0, 7.0}).process(item);
    SharedImage const& scores = *item.get<VectorElement>("scores")->sis()->get(0);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 0)), -0.5F);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 1)), 0.5F);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 2)), 1.0F);
    // Only the identity mapping leaves its input as it is.
    EXPECT_FALSE(LinearIntensityMappingOperation(2.0, 0.0).doesNotModifyInput());
    EXPECT_FALSE(LinearIntensityMappingOperation(1.0, -1.0).doesNotModifyInput());
}
