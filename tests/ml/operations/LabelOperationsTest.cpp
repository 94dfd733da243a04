// ArgMax and OneHot: every input pixel type, ties, NaN, round trips and geometry. Their messages
// are in CatalogueTest.

#include "ml/operations/catalogue/LabelOperations.h"

#include "ml/TestHelpers.h"
#include "ml/operations/CatalogueTestHelpers.h"

#include "host/image/Deformation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

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
