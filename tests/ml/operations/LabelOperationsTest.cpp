// ArgMax and OneHot: every input pixel type, ties, NaN, round trips, geometry and messages.

#include "ml/operations/catalogue/LabelOperations.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/operations/OperationException.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Log.h"
#include "host/image/Deformation.h"
#include "host/image/TypedImage.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <random>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

using AllPixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;

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

std::string errorOf(Operation& operation, std::shared_ptr<SharedImageSet> const& set)
{
    try {
        operation.process(set);
    } catch (OperationException const& e) {
        return e.what();
    }
    return "no error";
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

TEST(ArgMax, RefusesMoreChannelsThanAByteCanIndex)
{
    auto set = std::make_shared<SharedImageSet>(frameOf<float>(Eigen::Vector3i(2, 1, 1), 256, {}));
    ArgMaxOperation argMax;
    EXPECT_EQ(errorOf(argMax, set),
              "[ML.ArgMax] Cannot compute the arg max of 256 channels: at most 255 fit an 8-bit "
              "label");
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
    ASSERT_TRUE(oneHot.configure([] {
        Properties p;
        p.setParam("num_classes", 4);
        return p;
    }()));
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

struct OneHotErrorCase
{
    std::vector<double> stored;
    double shift;
    int numClasses;
    int channels;
    std::string message;
};

class OneHotErrors : public ::testing::TestWithParam<OneHotErrorCase>
{};

TEST_P(OneHotErrors, NameTheValueAtFault)
{
    auto const& c = GetParam();
    auto set = std::make_shared<SharedImageSet>(
        frameOf<float>(Eigen::Vector3i(3, 2, 1), c.channels, c.stored, c.shift, 1.0));
    OneHotOperation oneHot(c.numClasses);
    EXPECT_EQ(errorOf(oneHot, set), c.message);
    EXPECT_EQ(set->get(0)->pixelType(), PixelType::Float);
    EXPECT_EQ(set->get(0)->channels(), c.channels) << "nothing changed";
}

INSTANTIATE_TEST_SUITE_P(
    Values, OneHotErrors,
    ::testing::Values(
        OneHotErrorCase{
            {0, 1, 2, 3, 1, 0},
            0.0,
            3,
            1,
            "[ML.OneHot] Label value 3 at pixel (0, 1, 0) is not a class of 'num_classes' 3: labels must "
            "be whole numbers in [0, 3)"},
        OneHotErrorCase{
            {0, 1, 2, 0, 0, 0},
            1.0,
            3,
            1,
            "[ML.OneHot] Label value -1 at pixel (0, 0, 0) is not a class of 'num_classes' 3: labels "
            "must be whole numbers in [0, 3)"},
        OneHotErrorCase{
            {0, 1.5, 2, 0, 0, 0},
            0.0,
            3,
            1,
            "[ML.OneHot] Label value 1.5 at pixel (1, 0, 0) is not a class of 'num_classes' 3: labels "
            "must be whole numbers in [0, 3)"},
        OneHotErrorCase{
            {0, 0, 0, 0, 0, std::nan("")},
            0.0,
            3,
            1,
            "[ML.OneHot] Label value nan at pixel (2, 1, 0) is not a class of 'num_classes' 3: labels "
            "must be whole numbers in [0, 3)"},
        OneHotErrorCase{{}, 0.0, 0, 1, "[ML.OneHot] 'num_classes' must be at least 1, got 0"},
        OneHotErrorCase{{}, 0.0, 2, 2, "[ML.OneHot] Input must be a one-channel label map, got 2 channels"}));

TEST(OneHot, NumClassesIsRequired)
{
    OneHotOperation oneHot;
    Log::Capture capture;
    EXPECT_FALSE(oneHot.configure(Properties()));
    EXPECT_TRUE(capture.contains("Missing required configure parameter 'num_classes'", "ML.OneHot"));
}

TEST(LabelOperations, PoliciesSelectPredictionsAndTargets)
{
    DataItem item;
    auto const scores =
        std::make_shared<SharedImageSet>(frameOf<float>(Eigen::Vector3i(2, 1, 1), 2, {0, 1, 1, 0}));
    auto const label =
        std::make_shared<SharedImageSet>(frameOf<unsigned char>(Eigen::Vector3i(2, 1, 1), 1, {1, 0}));
    item.set("prediction", scores);
    item.set("label", label);
    item.get("label")->tagAsTarget();

    ArgMaxOperation().process(item);
    auto const prediction = dynamic_cast<ImageElement*>(item.get("prediction"))->sis();
    auto const target = dynamic_cast<ImageElement*>(item.get("label"))->sis();
    EXPECT_EQ(prediction->get(0)->pixelType(), PixelType::UChar);
    EXPECT_EQ(target->get(0)->pixelType(), PixelType::UChar);
    EXPECT_EQ(target->modality(), Data::Modality::Unknown) << "the target was left alone";

    OneHotOperation(2).process(item);
    auto const predictionAfter = dynamic_cast<ImageElement*>(item.get("prediction"))->sis();
    auto const targetAfter = dynamic_cast<ImageElement*>(item.get("label"))->sis();
    EXPECT_EQ(predictionAfter->get(0)->channels(), 1) << "the prediction was left alone";
    ASSERT_EQ(targetAfter->get(0)->channels(), 2);
    EXPECT_EQ(typed<float>(*targetAfter->get(0)).value(0), 0.0F);
    EXPECT_EQ(typed<float>(*targetAfter->get(0)).value(1), 1.0F);
    EXPECT_EQ(typed<float>(*targetAfter->get(0)).value(2), 1.0F);
}

TEST(LabelOperations, AreCreatedByNameFromAProcessingList)
{
    registerOperations();
    Properties properties;
    properties.setParam("num_classes", 6);
    auto const oneHot = Operation::createFromFactories({"OneHot", properties, Phase::Always});
    ASSERT_NE(oneHot, nullptr);
    EXPECT_EQ(dynamic_cast<OneHotOperation&>(*oneHot).p_numClasses.value(), 6);
    EXPECT_EQ(oneHot->processingPolicy(), Operation::ProcessingPolicy::OnlyLabels);
    auto const argMax = Operation::createFromFactories({"ArgMax", Properties(), Phase::Always});
    ASSERT_NE(argMax, nullptr);
    EXPECT_EQ(argMax->processingPolicy(), Operation::ProcessingPolicy::EverythingButLabels);
}
