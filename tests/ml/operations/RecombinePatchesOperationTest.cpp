// RecombinePatches: exact reconstruction from tiling patches for every pixel type, the weighted
// window, rounding of integer results, overlapping layouts of constant images, split -> recombine
// round trips, padded patches (image smaller than a patch) and the geometry of the result, the
// incremental calls, and the error texts. Patches for the recombination-only cases are cut with
// the host's cropping routine, not with the splitting code, so that both sides are checked
// independently.

#include "ml/operations/catalogue/RecombinePatchesOperation.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/operations/OperationException.h"
#include "ml/sampling/PatchFixtures.h"
#include "ml/sampling/SplitROISampler.h"

#include "host/core/Log.h"
#include "host/processing/Cropping.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <tuple>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;

namespace {

// Cuts `frame` into the boxes of `rois` (all inside the frame) and records each box.
std::shared_ptr<SharedImageSet> patchesOf(SharedImage const& frame, std::vector<RegionOfInterest> const& rois)
{
    auto set = std::make_shared<SharedImageSet>();
    std::vector<PatchInfo> infos;
    for (RegionOfInterest const& roi : rois) {
        set->add(std::shared_ptr<SharedImage>(ImageProcessing::createCropped(frame, roi.offset, roi.extent)));
        infos.push_back(PatchInfo{frame.descriptorWorld(), roi.offset, roi.extent});
    }
    set->components().add(std::make_unique<PatchesFromImageDataComponent>(std::move(infos)));
    return set;
}

// Boxes of `size` tiling `dims` without overlap (dims a multiple of size).
std::vector<RegionOfInterest> tiling(Eigen::Vector3i const& dims, Eigen::Vector3i const& size)
{
    std::vector<RegionOfInterest> rois;
    for (int z = 0; z < dims.z(); z += size.z())
        for (int y = 0; y < dims.y(); y += size.y())
            for (int x = 0; x < dims.x(); x += size.x())
                rois.push_back({Eigen::Vector3i(x, y, z), size});
    return rois;
}

void expectSameGeometry(SharedImage const& actual, ImageDescriptorWorld const& expected)
{
    EXPECT_EQ(actual.dimensions(), expected.descriptor().dimensions());
    EXPECT_TRUE(actual.spacing().isApprox(expected.descriptor().spacing));
    EXPECT_TRUE(actual.matrixToWorld().isApprox(expected.matrixToWorld()));
    // The corner voxels lie where the convention puts them in the original grid.
    Eigen::Vector3d const last =
        (expected.descriptor().dimensions() - Eigen::Vector3i::Ones()).cast<double>();
    for (Eigen::Vector3d const& p : {Eigen::Vector3d::Zero().eval(), last})
        EXPECT_LT((actual.pixelToWorld(p) - analyticWorld(expected, p)).norm(), 1e-9);
}

// Runs the incremental calls over the frames of a patch set and returns the recombined frame.
std::shared_ptr<SharedImage> recombineIncrementally(RecombinePatchesOperation& operation,
                                                    SharedImageSet const& patches,
                                                    SharedImageSet const& reference)
{
    auto const& infos = patches.components().get<PatchesFromImageDataComponent>()->patches;
    auto itemFor = [&](int k) {
        DataItem item;
        item.set("prediction", std::make_shared<SharedImageSet>(patches.getShared(k)));
        return item;
    };
    operation.setupRecombinationOutput(itemFor(0), &reference);
    for (int k = 0; k < patches.size(); ++k)
        operation.recombineSinglePatch(itemFor(k), RegionOfInterest{infos[k].offset, infos[k].size});
    DataItem result = operation.finalizeRecombinationOutput();
    return result.get<ImageElement>("prediction")->sis()->getShared(0);
}

// ---- Every pixel type ----------------------------------------------------------------------------

template <class T>
class RecombineTyped : public ::testing::Test
{};
using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(RecombineTyped, PixelTypes);

TYPED_TEST(RecombineTyped, NonOverlappingDefaultReproducesTheInputExactly)
{
    using T = TypeParam;
    Eigen::Vector3i const dims(8, 6, 4);
    auto frame = randomFrame<T>(dims, 2, 0, 120);
    frame->mem()->setShiftScale(3.0, 0.5);
    auto patches = patchesOf(*frame, tiling(dims, Eigen::Vector3i(4, 3, 2)));
    ASSERT_EQ(patches->size(), 8);

    RecombinePatchesOperation operation(RecombineMode::Default);
    auto viaSet = operation.process(patches);
    ASSERT_TRUE(viaSet);
    ASSERT_EQ(viaSet->size(), 1);
    auto viaIncrements = recombineIncrementally(operation, *patches, *setWith(frame));

    for (SharedImage const* result : {viaSet->get(0), viaIncrements.get()}) {
        ASSERT_EQ(result->pixelType(), frame->pixelType());
        EXPECT_EQ(result->channels(), 2);
        EXPECT_EQ(result->descriptor().shift, 3.0);
        EXPECT_EQ(result->descriptor().scale, 0.5);
        expectSameGeometry(*result, frame->descriptorWorld());
        EXPECT_EQ(0, std::memcmp(result->mem()->data(), frame->mem()->data(), frame->mem()->byteSize()));
    }
}

TYPED_TEST(RecombineTyped, OverlapAveragesAreRoundedNotTruncated)
{
    using T = TypeParam;
    // Two patches of 4x2x1 on a 6x2x1 image overlap in x = 2, 3. The first holds 1 there, the
    // second 2: the mean 1.5 becomes 2 for integers (a truncating cast would give 1).
    Eigen::Vector3i const dims(6, 2, 1);
    auto frame = patchTestFrame<T>(dims, 1, [](std::size_t) { return 0; });
    auto a = patchTestFrame<T>(Eigen::Vector3i(4, 2, 1), 1, [](std::size_t) { return 1; });
    auto b = patchTestFrame<T>(Eigen::Vector3i(4, 2, 1), 1, [](std::size_t) { return 2; });
    auto patches = std::make_shared<SharedImageSet>(std::vector<std::shared_ptr<SharedImage>>{a, b});
    patches->components().add(std::make_unique<PatchesFromImageDataComponent>(std::vector<PatchInfo>{
        {frame->descriptorWorld(), Eigen::Vector3i(0, 0, 0), Eigen::Vector3i(4, 2, 1)},
        {frame->descriptorWorld(), Eigen::Vector3i(2, 0, 0), Eigen::Vector3i(4, 2, 1)}}));

    auto result = RecombinePatchesOperation(RecombineMode::Default).process(patches);
    ASSERT_TRUE(result);
    SharedImage const& image = *result->get(0);
    double const overlap = std::is_floating_point_v<T> ? 1.5 : 2.0;
    for (int y = 0; y < 2; ++y) {
        EXPECT_EQ(valueOf<T>(image, 0, y, 0), T(1));
        EXPECT_EQ(valueOf<T>(image, 1, y, 0), T(1));
        EXPECT_EQ(valueOf<T>(image, 2, y, 0), static_cast<T>(overlap));
        EXPECT_EQ(valueOf<T>(image, 3, y, 0), static_cast<T>(overlap));
        EXPECT_EQ(valueOf<T>(image, 5, y, 0), T(2));
    }
}

// ---- Layout families --------------------------------------------------------------------------

struct LayoutCase
{
    Eigen::Vector3i imageSize;
    Eigen::Vector3i patchSize;
    double step;
    RecombineMode mode;
};

std::ostream& operator<<(std::ostream& os, LayoutCase const& c)
{
    return os << c.imageSize.transpose() << " / " << c.patchSize.transpose() << " step " << c.step << " "
              << recombineModeToString(c.mode);
}

class RecombineLayouts : public ::testing::TestWithParam<LayoutCase>
{};

TEST_P(RecombineLayouts, ConstantImageGivesTheConstantEverywhere)
{
    LayoutCase const& c = GetParam();
    auto frame = patchTestFrame<float>(c.imageSize, 1, [](std::size_t) { return 3.25; });
    SplitROISampler split(c.patchSize, c.step, true, false);
    auto patches = split.process(setWith(frame));
    ASSERT_TRUE(patches);
    ASSERT_GT(patches->size(), 1);

    auto result = RecombinePatchesOperation(c.mode).process(patches);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->size(), 1);
    SharedImage const& image = *result->get(0);
    expectSameGeometry(image, frame->descriptorWorld());
    auto const* values = static_cast<float const*>(image.mem()->data());
    for (std::size_t i = 0; i < image.mem()->valueCount(); ++i)
        ASSERT_NEAR(values[i], 3.25F, 3.25F * 1e-6F) << "at " << i;
}

TEST_P(RecombineLayouts, SplitThenRecombineReproducesARandomImage)
{
    LayoutCase const& c = GetParam();
    auto frame = patchTestFrame<float>(c.imageSize, 2, [engine = std::mt19937(11)](std::size_t) mutable {
        return std::uniform_real_distribution<float>(-50.0F, 50.0F)(engine);
    });
    SplitROISampler split(c.patchSize, c.step, true, false);
    auto patches = split.process(setWith(frame));
    ASSERT_TRUE(patches);

    RecombinePatchesOperation operation(c.mode);
    auto viaSet = operation.process(patches);
    ASSERT_TRUE(viaSet);
    auto viaIncrements = recombineIncrementally(operation, *patches, *setWith(frame));
    for (SharedImage const* image : {viaSet->get(0), viaIncrements.get()}) {
        expectSameGeometry(*image, frame->descriptorWorld());
        auto const* got = static_cast<float const*>(image->mem()->data());
        auto const* want = static_cast<float const*>(frame->mem()->data());
        for (std::size_t i = 0; i < frame->mem()->valueCount(); ++i)
            ASSERT_NEAR(got[i], want[i], 1e-4F) << "at " << i;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, RecombineLayouts,
    ::testing::Values(LayoutCase{{20, 17, 9}, {8, 8, 4}, 0.5, RecombineMode::Default},
                      LayoutCase{{20, 17, 9}, {8, 8, 4}, 0.5, RecombineMode::Weighted},
                      LayoutCase{{33, 12, 1}, {10, 10, 10}, 0.8, RecombineMode::Weighted},
                      LayoutCase{{33, 12, 1}, {10, 10, 10}, 0.3, RecombineMode::Default},
                      LayoutCase{{16, 16, 16}, {7, 5, 9}, 0.7, RecombineMode::Weighted}));

// ---- Weighted window ------------------------------------------------------------------------

TEST(RecombineWeighted, WindowIsOneInTheCentreAndFallsOffLikeAGaussian)
{
    ImageDescriptor patch(PixelType::Float, Eigen::Vector3i(12, 8, 1));
    patch.spacing = Eigen::Vector3d(0.5, 2.0, 1.0);
    PatchWeightWindow const window = PatchWeightWindow::forPatch(patch);
    ASSERT_EQ(window.factors[0].size(), 12U);
    // x: extent 6 mm, plateau 1.5 mm, falloff 1 mm. Voxel 0's centre is 2.75 mm from the centre.
    EXPECT_FLOAT_EQ(window.factors[0][0], static_cast<float>(std::exp(-std::pow((2.75 - 1.5) / 1.0, 2))));
    EXPECT_FLOAT_EQ(window.factors[0][5], 1.0F);
    EXPECT_FLOAT_EQ(window.factors[0][0], window.factors[0][11]); // symmetric
    // y: extent 16 mm, plateau 4 mm, falloff 16/6 mm; voxel 0 lies 7 mm out.
    EXPECT_FLOAT_EQ(window.factors[1][0],
                    static_cast<float>(std::exp(-std::pow((7.0 - 4.0) / (16.0 / 6.0), 2))));
    // A flat axis weighs 1.
    EXPECT_FLOAT_EQ(window.factors[2][0], 1.0F);
    EXPECT_FLOAT_EQ(window.at(0, 0, 0), window.factors[0][0] * window.factors[1][0]);
}

// ---- Padded patches ---------------------------------------------------------------------------

class RecombinePadded
    : public ::testing::TestWithParam<std::tuple<RecombineMode, ImageProcessing::PaddingMode>>
{};

TEST_P(RecombinePadded, ImageSmallerThanThePatchComesBackInItsOwnSizeAndPlace)
{
    auto const [mode, padding] = GetParam();
    // Smaller than the patch on x and z, larger on y (origins 0, 7, 14): 3 patches, each padded
    // on x and z.
    Eigen::Vector3i const dims(5, 30, 3);
    auto frame = randomFrame<short>(dims, 1, -300, 300);
    SplitROISampler split(Eigen::Vector3i(8, 16, 4), 0.8, true, true);
    split.setPaddingMode(padding);
    auto patches = split.process(setWith(frame));
    ASSERT_TRUE(patches);
    ASSERT_EQ(patches->size(), 3);
    EXPECT_EQ(patches->get(0)->dimensions(), Eigen::Vector3i(8, 16, 4));

    RecombinePatchesOperation operation(mode);
    auto viaSet = operation.process(patches);
    ASSERT_TRUE(viaSet);
    auto viaIncrements = recombineIncrementally(operation, *patches, *setWith(frame));
    for (SharedImage const* image : {viaSet->get(0), viaIncrements.get()}) {
        ASSERT_EQ(image->pixelType(), PixelType::Short);
        expectSameGeometry(*image, frame->descriptorWorld());
        EXPECT_EQ(0, std::memcmp(image->mem()->data(), frame->mem()->data(), frame->mem()->byteSize()));
    }
}

TEST_P(RecombinePadded, SinglePaddedPatchIsCutBackWhileAWholeImageStaysAsItIs)
{
    auto const [mode, padding] = GetParam();
    auto frame = randomFrame<float>(Eigen::Vector3i(6, 5, 1), 1, 0, 9);
    SplitROISampler split(Eigen::Vector3i(10, 10, 1), 0.8, true, true);
    split.setPaddingMode(padding);
    auto padded = split.process(setWith(frame));
    ASSERT_EQ(padded->size(), 1);
    RecombinePatchesOperation operation(mode);
    auto result = operation.process(padded);
    ASSERT_TRUE(result);
    expectSameGeometry(*result->get(0), frame->descriptorWorld());

    auto whole = patchesOf(*frame, {{Eigen::Vector3i::Zero(), frame->dimensions()}});
    EXPECT_EQ(operation.process(whole), whole);
}

INSTANTIATE_TEST_SUITE_P(Modes, RecombinePadded,
                         ::testing::Combine(::testing::Values(RecombineMode::Default,
                                                              RecombineMode::Weighted),
                                            ::testing::Values(ImageProcessing::PaddingMode::Zero,
                                                              ImageProcessing::PaddingMode::Mirror,
                                                              ImageProcessing::PaddingMode::Clamp)));

// ---- Sets of several originals, mode names, misuse ---------------------------------------------

TEST(RecombineSets, TwoOriginalsGiveTwoFramesInOrderOfFirstAppearance)
{
    auto first = patchTestFrame<float>(Eigen::Vector3i(4, 4, 1), 1, [](std::size_t i) { return i; });
    auto second = patchTestFrame<float>(Eigen::Vector3i(6, 2, 1), 1, [](std::size_t i) { return 100 + i; });
    Eigen::Matrix4d moved = second->matrixToWorld();
    moved(0, 3) += 40.0;
    second->setMatrixToWorld(moved);
    auto a = patchesOf(*first, tiling(first->dimensions(), Eigen::Vector3i(2, 4, 1)));
    auto b = patchesOf(*second, tiling(second->dimensions(), Eigen::Vector3i(3, 2, 1)));
    // Interleave: second's patch first, so that the output order follows first appearance.
    auto mixed = std::make_shared<SharedImageSet>();
    auto const& ia = a->components().get<PatchesFromImageDataComponent>()->patches;
    auto const& ib = b->components().get<PatchesFromImageDataComponent>()->patches;
    mixed->add(b->getShared(0));
    mixed->add(a->getShared(0));
    mixed->add(b->getShared(1));
    mixed->add(a->getShared(1));
    mixed->components().add(
        std::make_unique<PatchesFromImageDataComponent>(std::vector<PatchInfo>{ib[0], ia[0], ib[1], ia[1]}));

    auto result = RecombinePatchesOperation().process(mixed);
    ASSERT_TRUE(result);
    ASSERT_EQ(result->size(), 2);
    expectSameGeometry(*result->get(0), second->descriptorWorld());
    expectSameGeometry(*result->get(1), first->descriptorWorld());
    EXPECT_EQ(0,
              std::memcmp(result->get(0)->mem()->data(), second->mem()->data(), second->mem()->byteSize()));
    EXPECT_EQ(0, std::memcmp(result->get(1)->mem()->data(), first->mem()->data(), first->mem()->byteSize()));
    EXPECT_FALSE(result->components().get<PatchesFromImageDataComponent>());
}

TEST(RecombineModeNames, ReadsNamesInAnyCaseAndNumbers)
{
    EXPECT_EQ(stringToRecombineMode(" WEIGHTED "), RecombineMode::Weighted);
    EXPECT_EQ(stringToRecombineMode("0"), RecombineMode::Default);
    RecombinePatchesOperation operation;
    ASSERT_TRUE(operation.configure(Properties{{"mode", "weighted"}}));
    EXPECT_EQ(operation.p_mode.value(), RecombineMode::Weighted);
}

class RecombineMisuse : public ::testing::Test
{
protected:
    std::shared_ptr<SharedImage> frame = randomFrame<float>(Eigen::Vector3i(8, 8, 2), 1, 0, 5);
    RecombinePatchesOperation operation{RecombineMode::Weighted};

    DataItem itemWith(std::shared_ptr<SharedImage> image, std::string const& key = "prediction")
    {
        DataItem item;
        item.set(key, setWith(std::move(image)));
        return item;
    }
};

TEST_F(RecombineMisuse, IncrementalCallsOutOfOrderOrWithOtherKeysOrShapesAreRefused)
{
    expectThrowContaining<OperationException>([&] { operation.finalizeRecombinationOutput(); },
                                              "[ML.RecombinePatches] Recombination image not yet "
                                              "initialized. Did you call `setupRecombinationOutput`");
    RegionOfInterest const all{Eigen::Vector3i::Zero(), frame->dimensions()};
    expectThrowContaining<OperationException>([&] { operation.recombineSinglePatch(itemWith(frame), all); },
                                              "before calling `recombineSinglePatch`?");

    operation.setupRecombinationOutput(itemWith(frame), setWith(frame).get());
    expectThrowContaining<OperationException>(
        [&] { operation.recombineSinglePatch(itemWith(frame, "other"), all); },
        "[ML.RecombinePatches] The internal recombination item doesn't contain the key `other`.");
    DataItem two;
    two.set("prediction",
            std::make_shared<SharedImageSet>(std::vector<std::shared_ptr<SharedImage>>{frame, frame}));
    expectThrowContaining<OperationException>(
        [&] { operation.recombineSinglePatch(two, all); },
        "Can recombine only a single image at a time, found 2 images in element `prediction`");
    expectThrowContaining<OperationException>(
        [&] {
            operation.recombineSinglePatch(itemWith(frame),
                                           {Eigen::Vector3i::Zero(), Eigen::Vector3i(4, 4, 2)});
        },
        "Element `prediction`: [RecombinePatches] Cannot write patch image of size [8, 8, 2] into ROI of "
        "size "
        "[4, 4, 2]");
    expectThrowContaining<OperationException>(
        [&] {
            operation.recombineSinglePatch(itemWith(frame), {Eigen::Vector3i(8, 0, 0), frame->dimensions()});
        },
        "Patch region at offset [8, 0, 0] of size [8, 8, 2] lies outside the recombination image of size [8, "
        "8, "
        "2]");
    // After the failures the run still completes with what was added before (nothing): zeros.
    DataItem result = operation.finalizeRecombinationOutput();
    EXPECT_EQ(static_cast<float const*>(result.get<ImageElement>("prediction")->sis()->mem(0)->data())[0],
              0.0F);

    auto bare = std::make_shared<SharedImageSet>(std::vector<std::shared_ptr<SharedImage>>{frame, frame});
    expectThrowContaining<OperationException>(
        [&] { operation.process(bare); },
        "[ML.RecombinePatches] Cannot recombine input images without PatchesFromImageDataComponent");
    bare->components().add(std::make_unique<PatchesFromImageDataComponent>(
        std::vector<PatchInfo>{{frame->descriptorWorld(), Eigen::Vector3i::Zero(), frame->dimensions()}}));
    expectThrowContaining<OperationException>(
        [&] { operation.process(bare); },
        "Number of patch infos doesn't match the number of patches (1 infos for 2 patches)");
}

TEST_F(RecombineMisuse, StaticWorkerChecksWindowGridsAndTheHitCounter)
{
    auto values = RecombinePatchesOperation::createAccumulator(frame->descriptorWorld(), 1);
    RegionOfInterest const all{Eigen::Vector3i::Zero(), frame->dimensions()};
    auto add = [&](PatchWeightWindow const* window, SharedImage& weights, RecombineMode mode) {
        RecombinePatchesOperation::recombineSinglePatch(*frame, window, all, *values, weights, mode);
    };
    auto weights =
        RecombinePatchesOperation::createWeightAccumulator(frame->descriptorWorld(), RecombineMode::Weighted);
    auto counter =
        RecombinePatchesOperation::createWeightAccumulator(frame->descriptorWorld(), RecombineMode::Default);
    auto otherGrid = RecombinePatchesOperation::createWeightAccumulator(
        ImageDescriptorWorld(ImageDescriptor(PixelType::Float, Eigen::Vector3i(8, 8, 3))),
        RecombineMode::Default);
    PatchWeightWindow const window = PatchWeightWindow::forPatch(frame->descriptor());
    expectThrowContaining<OperationException>([&] { add(nullptr, *weights, RecombineMode::Weighted); },
                                              "patchWeight must be specified in RecombineMode::Weighted.");
    expectThrowContaining<OperationException>(
        [&] { add(&window, *counter, RecombineMode::Weighted); },
        "recombinationWeights must be of pixel type float in RecombineMode::Weighted.");
    expectThrowContaining<OperationException>(
        [&] { add(nullptr, *otherGrid, RecombineMode::Default); },
        "[RecombinePatches] recombinationImage and recombinationWeights must have comparable descriptors.");

    for (int hit = 0; hit < 255; ++hit)
        add(nullptr, *counter, RecombineMode::Default);
    expectThrowContaining<OperationException>(
        [&] { add(nullptr, *counter, RecombineMode::Default); },
        "[RecombinePatches] More than 255 patches overlap at one voxel, which the 8-bit hit counter of "
        "RecombineMode::Default cannot count");
}

TEST_F(RecombineMisuse, UncoveredVoxelsAreZeroAndReported)
{
    RecombinePatchesOperation plain(RecombineMode::Default);
    auto half = patchesOf(*frame, {{Eigen::Vector3i::Zero(), Eigen::Vector3i(4, 8, 2)}});
    Log::Capture capture;
    auto image = recombineIncrementally(plain, *half, *setWith(frame));
    EXPECT_TRUE(capture.contains("64 of 128 voxels were covered by no patch and are set to 0",
                                 "ML.RecombinePatches"));
    EXPECT_EQ(valueOf<float>(*image, 6, 3, 1), 0.0F);
    EXPECT_EQ(valueOf<float>(*image, 1, 3, 1), valueOf<float>(*frame, 1, 3, 1));
}

} // namespace
