// Channel and label operations (Softmax, ConvertToGray, BakePhotometricInterpretation, ArgMax,
// OneHot) against plain reference loops, on the pixel types each accepts (stored with a shift and
// scale where that matters), with ties, NaN, round trips and geometry. ConvertToGray on every pixel
// type is in PixelOperationsTest, the messages are in CatalogueTest.

#include "ml/operations/catalogue/ChannelOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/catalogue/LabelOperations.h"

#include "host/image/Deformation.h"
#include "host/image/DisplayOptions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

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

TEST(ConvertToGray, OnePixelTakesTheVectorPathAndRounds)
{
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
    auto set = floatSet({1, 4, 10}, 1);
    auto const frame = set->getShared(0);
    set->components().getOrCreate<DisplayOptions2d>()->p_invert.setValue(false);
    set = BakePhotometricInterpretationOperation().process(set);
    EXPECT_EQ(set->getShared(0), frame);
    EXPECT_EQ(storedAt(*set->get(0), 1), 4.0);

    set = floatSet({1, 4, 10}, 1);
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
    auto set = floatSet({-1, -2, -1000, -1001}, 2);
    set = SoftmaxOperation().process(set);
    double const a = 1.0 / (1.0 + std::exp(-1.0));
    EXPECT_NEAR(storedAt(*set->get(0), 0), a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 1), 1.0 - a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 2), a, 1e-6);
    EXPECT_NEAR(storedAt(*set->get(0), 3), 1.0 - a, 1e-6);
}

TEST(Softmax, ForcedOnGpuWithFourChannelsStillComputes)
{
    auto set = floatSet({0, 0, 0, 0}, 4);
    SoftmaxOperation softmax;
    softmax.setComputingDevice(ComputingDevice::ForceGPU);
    set = softmax.process(set);
    for (std::size_t c = 0; c < 4; ++c)
        EXPECT_FLOAT_EQ(static_cast<float>(storedAt(*set->get(0), c)), 0.25F);
}

TEST(Softmax, ProcessesImagesLabelsAndVectorsOfAnItem)
{
    DataItem item;
    item.set("image", floatSet({0, 0, 1, 1}, 2));
    item.set("label", floatSet({0, 0, 1, 1}, 2));
    item.get("label")->tagAsTarget();
    item.set("scores", floatSet({3, 3}, 2));
    SoftmaxOperation().process(item);
    for (char const* field : {"image", "label", "scores"})
        EXPECT_FLOAT_EQ(static_cast<float>(storedAt(*item.get<SISBasedElement>(field)->sis()->get(0), 0)),
                        0.5F)
            << field;
}

} // namespace

namespace {

// A frame of `channels` channels holding `stored` (interleaved) values, placed and spaced.
template <class T>
std::shared_ptr<SharedImage> frameOf(Eigen::Vector3i const& size, int channels,
                                     std::vector<double> const& stored, double shift = 0.0,
                                     double scale = 1.0)
{
    auto frame = MLTest::placedFrame<T>(size, channels, stored, shift, scale);
    frame->setDeformation(std::make_shared<ConstantDeformation>(Eigen::Vector3d(0.0, 1.0, 0.0)));
    return frame;
}

template <class T>
TypedImage<T> const& typed(SharedImage const& frame)
{
    return static_cast<TypedImage<T> const&>(*frame.mem());
}

void expectSameWorld(SharedImage const& before, SharedImage const& after)
{
    EXPECT_EQ(after.dimensions(), before.dimensions());
    EXPECT_EQ(after.spacing(), before.spacing());
    EXPECT_EQ(after.deformation(), before.deformation());
    for (Eigen::Vector3d const& voxel : {Eigen::Vector3d(0, 0, 0), Eigen::Vector3d(2, 1, 1)})
        EXPECT_TRUE(after.pixelToWorld(voxel).isApprox(before.pixelToWorld(voxel)));
}

} // namespace

template <class T>
class LabelOperationsTest : public ::testing::Test
{};
TYPED_TEST_SUITE(LabelOperationsTest, AllPixelTypes);

TYPED_TEST(LabelOperationsTest, ArgMaxMatchesAReferenceLoop)
{
    Eigen::Vector3i const size(5, 4, 3);
    int const channels = 4;
    std::mt19937 engine(11);
    std::uniform_int_distribution<int> dist(0, 9); // few values: many ties
    std::vector<double> stored(static_cast<std::size_t>(size.prod() * channels));
    for (double& v : stored)
        v = dist(engine);
    // Scale 2 and shift 5: original = stored / 2 - 5, the same order as the stored values.
    auto set = std::make_shared<SharedImageSet>(frameOf<TypeParam>(size, channels, stored, 5.0, 2.0));
    auto const before = set->getShared(0);
    ArgMaxOperation argMax;
    set = argMax.process(set);
    SharedImage const& out = *set->get(0);
    ASSERT_EQ(out.pixelType(), PixelType::UChar);
    ASSERT_EQ(out.channels(), 1);
    EXPECT_EQ(set->modality(), Data::Modality::Label);
    EXPECT_EQ(out.modality(), Data::Modality::Label);
    for (int p = 0; p < size.prod(); ++p) {
        int best = 0;
        for (int c = 1; c < channels; ++c)
            if (stored[static_cast<std::size_t>(p * channels + c)] >
                stored[static_cast<std::size_t>(p * channels + best)])
                best = c;
        ASSERT_EQ(typed<unsigned char>(out).value(static_cast<std::size_t>(p)), best) << "pixel " << p;
    }
    expectSameWorld(*before, out);
}

TYPED_TEST(LabelOperationsTest, OneHotMatchesAReferenceLoop)
{
    Eigen::Vector3i const size(4, 3, 2);
    std::vector<double> originals(static_cast<std::size_t>(size.prod()));
    for (std::size_t i = 0; i < originals.size(); ++i)
        originals[i] = static_cast<double>((i * 7) % 4);
    // Stored = (original + 2) · 2: every type holds 4..10.
    std::vector<double> stored;
    for (double o : originals)
        stored.push_back((o + 2.0) * 2.0);
    auto set = std::make_shared<SharedImageSet>(frameOf<TypeParam>(size, 1, stored, 2.0, 2.0));
    auto const before = set->getShared(0);
    OneHotOperation oneHot(5);
    set = oneHot.process(set);
    SharedImage const& out = *set->get(0);
    ASSERT_EQ(out.pixelType(), PixelType::Float);
    ASSERT_EQ(out.channels(), 5);
    EXPECT_EQ(set->modality(), Data::Modality::Probability);
    auto const& values = typed<float>(out);
    for (std::size_t p = 0; p < originals.size(); ++p)
        for (int c = 0; c < 5; ++c)
            ASSERT_EQ(values.value(p * 5 + static_cast<std::size_t>(c)), c == originals[p] ? 1.0F : 0.0F)
                << "pixel " << p << " channel " << c;
    expectSameWorld(*before, out);
}

TEST(ArgMax, TiesGoToTheFirstChannelAndNanNeverWins)
{
    double const nan = std::nan("");
    // Pixels of three channels.
    std::vector<double> const stored = {5,   5, 1,   1, 5,  5,  nan, 1,   2,  nan, nan,
                                        nan, 3, nan, 3, -2, -1, -1,  nan, -7, nan};
    std::vector<int> const expected = {0, 1, 2, 0, 0, 1, 1};
    for (auto const& frame : {frameOf<float>(Eigen::Vector3i(7, 1, 1), 3, stored),
                              frameOf<double>(Eigen::Vector3i(7, 1, 1), 3, stored)}) {
        auto set = std::make_shared<SharedImageSet>(frame);
        set = ArgMaxOperation().process(set);
        for (std::size_t p = 0; p < expected.size(); ++p)
            EXPECT_EQ(typed<unsigned char>(*set->get(0)).value(p), expected[p]) << "pixel " << p;
    }
}

TEST(ArgMax, ComparesOriginalIntensities)
{
    // (A one-pixel set: this also runs the vector path.)
    // A negative scale reverses the order of the stored values.
    auto set =
        std::make_shared<SharedImageSet>(frameOf<short>(Eigen::Vector3i(1, 1, 1), 3, {1, 3, 2}, 0.0, -1.0));
    set = ArgMaxOperation().process(set);
    EXPECT_EQ(typed<unsigned char>(*set->get(0)).value(0), 0);
}

TEST(ArgMax, IndexesUpTo255Channels)
{
    std::vector<double> last(255, 0.0);
    last[254] = 1.0;
    auto fits = std::make_shared<SharedImageSet>(frameOf<float>(Eigen::Vector3i(1, 1, 1), 255, last));
    fits = ArgMaxOperation().process(fits);
    EXPECT_EQ(typed<unsigned char>(*fits->get(0)).value(0), 254);
}

TEST(LabelOperations, OneHotOfArgMaxGivesAOneHotInputBack)
{
    Eigen::Vector3i const size(6, 5, 4);
    int const classes = 4;
    std::mt19937 engine(3);
    std::vector<double> stored(static_cast<std::size_t>(size.prod() * classes), 0.0);
    for (int p = 0; p < size.prod(); ++p)
        stored[static_cast<std::size_t>(p * classes + static_cast<int>(engine() % classes))] = 1.0;
    auto set = std::make_shared<SharedImageSet>(frameOf<float>(size, classes, stored));
    set->add(frameOf<float>(size, classes, stored));
    auto const before = set->getShared(1);
    set = ArgMaxOperation().process(set);
    OneHotOperation oneHot;
    ASSERT_TRUE(oneHot.configure(Properties{{"num_classes", 4}}));
    set = oneHot.process(set);
    ASSERT_EQ(set->size(), 2);
    for (int f = 0; f < 2; ++f) {
        auto const& values = typed<float>(*set->get(f));
        ASSERT_EQ(values.channels(), classes);
        for (std::size_t i = 0; i < stored.size(); ++i)
            ASSERT_EQ(values.value(i), static_cast<float>(stored[i])) << "frame " << f << " value " << i;
    }
    expectSameWorld(*before, *set->get(1));
}
