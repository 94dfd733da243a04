// Channel operations (Softmax, ConvertToGray, BakePhotometricInterpretation) against plain
// reference loops, on the pixel types each accepts (stored with a shift and scale where that
// matters). ConvertToGray on every pixel type is in PixelOperationsTest, the messages are in
// CatalogueTest.

#include "ml/operations/catalogue/ChannelOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/operations/CatalogueTestHelpers.h"

#include "host/image/DisplayOptions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

std::shared_ptr<SharedImageSet> floatSet(Eigen::Vector3i const& size, int channels,
                                         std::vector<double> const& v)
{
    return std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(size, channels, v));
}

// Softmax of one pixel, computed the textbook way with the true maximum.
std::vector<double> referenceSoftmax(std::vector<double> const& x)
{
    double const m = *std::max_element(x.begin(), x.end());
    std::vector<double> e(x.size());
    double total = 0.0;
    for (std::size_t c = 0; c < x.size(); ++c)
        total += e[c] = std::exp(x[c] - m);
    for (double& v : e)
        v /= total;
    return e;
}

template <class T>
class ChannelOperationsTyped : public ::testing::Test
{};
TYPED_TEST_SUITE(ChannelOperationsTyped, AllPixelTypes);

TEST(ConvertToGray, RoundsIntegerAveragesToTheNearestValue)
{
    // (1 + 2) / 2 = 1.5 -> 2 and (0 + 0 + 1) / 3 -> 0; truncation would give 1 and 0.
    auto two = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<unsigned char>(Eigen::Vector3i(2, 1, 1), 2, {1, 2, 250, 255}));
    two = ConvertToGrayOperation().process(two);
    EXPECT_EQ(storedAt(*two->get(0), 0), 2.0);
    EXPECT_EQ(storedAt(*two->get(0), 1), 253.0);
    // One pixel: the vector path.
    auto three =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<short>(Eigen::Vector3i(1, 1, 1), 3, {0, 0, 1}));
    three = ConvertToGrayOperation().process(three);
    EXPECT_EQ(storedAt(*three->get(0), 0), 0.0);
}

TYPED_TEST(ChannelOperationsTyped, BakeWritesTheInversionIntoTheValuesOnceAndClearsTheFlag)
{
    Eigen::Vector3i const size(5, 3, 2);
    auto const count = static_cast<std::size_t>(size.prod());
    // Even values in the first frame (stored as 2 (x + 3)) and halved ones in the second (stored
    // as x + 3) keep every result representable in 8-bit types and integral in original terms.
    auto stored0 = randomStored<TypeParam>(count, 3);
    auto stored1 = randomStored<TypeParam>(count, 4);
    for (double& v : stored0)
        v = 2.0 * std::floor(v / 2.0);
    for (double& v : stored1)
        v = std::floor(v / 2.0);
    std::shared_ptr<SharedImageSet> set =
        std::make_shared<SharedImageSet>(MLTest::placedFrame<TypeParam>(size, 1, stored0, kShift, kScale));
    // The second frame has its own storage, so the range must be taken in original intensities.
    set->add(MLTest::placedFrame<TypeParam>(size, 1, stored1, 3.0, 1.0));
    set->components().getOrCreate<DisplayOptions2d>()->p_invert.setValue(true);
    set->components().getOrCreate<DisplayOptions3d>()->p_invert.setValue(true);

    std::vector<double> originals = originalsOf<TypeParam>(stored0);
    for (double v : originalsOf<TypeParam>(stored1, 3.0, 1.0))
        originals.push_back(v);
    double const lo = *std::min_element(originals.begin(), originals.end());
    double const hi = *std::max_element(originals.begin(), originals.end());

    BakePhotometricInterpretationOperation bake;
    set = bake.process(set);
    EXPECT_FALSE(set->components().get<DisplayOptions2d>()->p_invert.value());
    EXPECT_FALSE(set->components().get<DisplayOptions3d>()->p_invert.value());
    for (int pass = 0; pass < 2; ++pass) {
        SCOPED_TRACE(pass == 0 ? "baked" : "baked again: the flag is cleared, nothing changes");
        for (std::size_t i = 0; i < originals.size(); ++i) {
            SharedImage const& frame = *set->get(static_cast<int>(i / count));
            ASSERT_DOUBLE_EQ(originalAt(frame, i % count), hi - originals[i] + lo) << i;
        }
        set = bake.process(set);
    }
}

TEST(BakePhotometric, PassesANonInvertedImageThroughAndHonoursAnOnlyThreeDimensionalFlag)
{
    auto set = floatSet(Eigen::Vector3i(3, 1, 1), 1, {1, 4, 10});
    auto const frame = set->getShared(0);
    set->components().getOrCreate<DisplayOptions2d>()->p_invert.setValue(false);
    set = BakePhotometricInterpretationOperation().process(set);
    EXPECT_EQ(set->getShared(0), frame);
    EXPECT_EQ(storedAt(*set->get(0), 1), 4.0);

    set = floatSet(Eigen::Vector3i(3, 1, 1), 1, {1, 4, 10});
    set->components().getOrCreate<DisplayOptions3d>()->p_invert.setValue(true);
    set = BakePhotometricInterpretationOperation().process(set);
    EXPECT_EQ(storedAt(*set->get(0), 0), 10.0);
    EXPECT_EQ(storedAt(*set->get(0), 1), 7.0);
    EXPECT_EQ(storedAt(*set->get(0), 2), 1.0);
    EXPECT_FALSE(set->components().get<DisplayOptions3d>()->p_invert.value());
}

// ---- Softmax -----------------------------------------------------------------------------------

class SoftmaxChannels : public ::testing::TestWithParam<int>
{};

TEST_P(SoftmaxChannels, MatchesTheReferenceAndSumsToOne)
{
    int const channels = GetParam();
    Eigen::Vector3i const size(3, 4, 2);
    auto const pixels = static_cast<std::size_t>(size.prod());
    std::mt19937 engine(static_cast<unsigned>(channels));
    std::uniform_real_distribution<double> dist(-8.0, 8.0);
    std::vector<double> stored(pixels * channels);
    for (double& v : stored)
        v = dist(engine);
    // One pixel all negative, one with a huge spread.
    for (int c = 0; c < channels; ++c) {
        stored[c] = -3.0 - c;
        stored[channels + c] = c == 0 ? 80.0 : -80.0;
    }
    // Stored with shift and scale: softmax works on original intensities.
    auto set = std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(size, channels, stored, 0.5, 4.0));
    set = SoftmaxOperation().process(set);
    SharedImage const& out = *set->get(0);
    EXPECT_EQ(out.descriptor().shift, 0.0);
    EXPECT_EQ(out.descriptor().scale, 1.0);
    for (std::size_t p = 0; p < pixels; ++p) {
        std::vector<double> x(static_cast<std::size_t>(channels));
        for (int c = 0; c < channels; ++c)
            x[c] = static_cast<double>(static_cast<float>(stored[p * channels + c])) / 4.0 - 0.5;
        auto const expected = referenceSoftmax(x);
        double total = 0.0;
        for (int c = 0; c < channels; ++c) {
            double const actual = storedAt(out, p * channels + c);
            ASSERT_NEAR(actual, expected[c], 1e-6) << "pixel " << p << " channel " << c;
            total += actual;
        }
        ASSERT_NEAR(total, 1.0, 1e-5) << "pixel " << p;
    }
}

INSTANTIATE_TEST_SUITE_P(Counts, SoftmaxChannels, ::testing::Values(1, 2, 3, 4, 5, 12));

TEST(Softmax, AllNegativePixelsUseTheFloorAsMaximumAndNeverGiveNaN)
{
    // -1 and -2: exp(-1) / (exp(-1) + exp(-2)) whatever the maximum subtracted.
    // -1000 and -1001: with the floor as maximum both exponentials underflow; the result must
    // still be the softmax of the pixel, not 0/0.
    auto set = floatSet(Eigen::Vector3i(2, 1, 1), 2, {-1, -2, -1000, -1001});
    set = SoftmaxOperation().process(set);
    double const a = 1.0 / (1.0 + std::exp(-1.0));
    EXPECT_NEAR(storedAt(*set->get(0), 0), a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 1), 1.0 - a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 2), a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 3), 1.0 - a, 1e-6);
}

TEST(Softmax, ForcedOnGpuWithFourChannelsStillComputes)
{
    auto set = floatSet(Eigen::Vector3i(1, 1, 1), 4, {0, 0, 0, 0});
    SoftmaxOperation softmax;
    softmax.setComputingDevice(ComputingDevice::ForceGPU);
    set = softmax.process(set);
    for (std::size_t c = 0; c < 4; ++c)
        EXPECT_FLOAT_EQ(static_cast<float>(storedAt(*set->get(0), c)), 0.25F);
}

TEST(Softmax, ProcessesImagesLabelsAndVectorsOfAnItem)
{
    DataItem item;
    item.set("image", floatSet(Eigen::Vector3i(2, 1, 1), 2, {0, 0, 1, 1}));
    item.set("label", floatSet(Eigen::Vector3i(2, 1, 1), 2, {0, 0, 1, 1}));
    item.get("label")->tagAsTarget();
    item.set("scores", floatSet(Eigen::Vector3i(1, 1, 1), 2, {3, 3}));
    SoftmaxOperation().process(item);
    for (char const* field : {"image", "label", "scores"})
        EXPECT_FLOAT_EQ(static_cast<float>(storedAt(*item.get<SISBasedElement>(field)->sis()->get(0), 0)),
                        0.5F)
            << field;
}

} // namespace
