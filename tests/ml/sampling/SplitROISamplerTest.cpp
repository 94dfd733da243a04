// SplitROISampler and SplitIntoPatches: the patch layout (origins per axis, region order), the
// step checks, flat axes, padded patches of images smaller than a patch, the patch records, world
// positions of patch voxels against the convention, items with several elements, and the owner
// operation's configuration.

#include "ml/sampling/SplitROISampler.h"

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/VectorElement.h"
#include "ml/data/components/PatchesFromImageDataComponent.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/operations/OperationException.h"
#include "ml/operations/catalogue/SplitIntoPatchesOperation.h"
#include "ml/plugin/Registrations.h"
#include "ml/sampling/ImageSamplersException.h"
#include "ml/sampling/PatchFixtures.h"

#include "host/core/Log.h"
#include "host/processing/Padding.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::MLTest;
using ImageProcessing::PaddingMode;

namespace {

// ---- Origins along one axis -------------------------------------------------------------------

struct AxisCase
{
    int length;
    int size;
    double stepFraction;
    std::vector<int> origins;
};

class SplitAxisLayout : public ::testing::TestWithParam<AxisCase>
{};

TEST_P(SplitAxisLayout, OriginsAreSpreadEvenlyFromZeroToTheEnd)
{
    AxisCase const& c = GetParam();
    SCOPED_TRACE("length " + std::to_string(c.length) + " patch " + std::to_string(c.size));
    EXPECT_EQ(patchOrigins(c.length, c.size, c.size * c.stepFraction), c.origins);

    // The same along each axis of an image through computeROIs.
    for (int axis = 0; axis < 3; ++axis) {
        Eigen::Vector3i dims(4, 4, 4), size(4, 4, 4);
        dims[axis] = c.length;
        size[axis] = c.size;
        SplitROISampler sampler(size, c.stepFraction, true, true);
        auto const rois = sampler.computeROIs(setWith(randomFrame<float>(dims, 1, 0, 1)).get());
        ASSERT_EQ(rois.size(), c.origins.size());
        for (std::size_t k = 0; k < rois.size(); ++k) {
            EXPECT_EQ(rois[k].offset[axis], c.origins[k]);
            EXPECT_EQ(rois[k].extent, size);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Axes, SplitAxisLayout,
    ::testing::Values(AxisCase{100, 32, 0.8, {0, 23, 45, 68}}, // span 68, step 25.6, spacing 22.67
                      AxisCase{64, 64, 0.8, {0}},              // exactly one patch
                      AxisCase{20, 32, 0.8, {0}},              // smaller than the patch: padded
                      AxisCase{128, 32, 1.0, {0, 32, 64, 96}}, // no overlap, multiples of the size
                      AxisCase{9, 4, 1.0, {0, 3, 5}},          // spacing 2.5: halves away from zero
                      AxisCase{10, 4, 0.5, {0, 2, 4, 6}},      // the step is reached exactly
                      AxisCase{33, 10, 0.3, {0, 3, 6, 9, 12, 14, 17, 20, 23}})); // 11.5 -> 12

TEST(SplitLayout, RegionsRunWithXOutermostAndZInnermost)
{
    SplitROISampler sampler(Eigen::Vector3i(4, 4, 4), 1.0, true, true);
    auto const rois =
        sampler.computeROIs(setWith(randomFrame<float>(Eigen::Vector3i(8, 8, 8), 1, 0, 1)).get());
    std::vector<Eigen::Vector3i> offsets;
    for (auto const& roi : rois)
        offsets.push_back(roi.offset);
    std::vector<Eigen::Vector3i> const expected = {{0, 0, 0}, {0, 0, 4}, {0, 4, 0}, {0, 4, 4},
                                                   {4, 0, 0}, {4, 0, 4}, {4, 4, 0}, {4, 4, 4}};
    EXPECT_EQ(offsets, expected);
}

TEST(SplitLayout, FlatAxisKeepsPatchesFlatUnlessDimensionChangeIsAllowed)
{
    auto image = setWith(randomFrame<float>(Eigen::Vector3i(100, 70, 1), 1, 0, 9));
    SplitROISampler flat(Eigen::Vector3i(64, 64, 64), 0.8, true, false);
    auto const flatRois = flat.computeROIs(image.get());
    ASSERT_EQ(flatRois.size(), 4U); // x: 0, 36; y: 0, 6
    EXPECT_EQ(flatRois.front().extent, Eigen::Vector3i(64, 64, 1));
    auto flatPatches = flat.process(image);
    ASSERT_TRUE(flatPatches);
    EXPECT_EQ(flatPatches->get(0)->dimensions(), Eigen::Vector3i(64, 64, 1));

    SplitROISampler deep(Eigen::Vector3i(64, 64, 64), 0.8, true, true);
    // A single-slice image only takes regions one slice deep.
    expectThrowWithMessage<ImageSamplersException>([&] { deep.computeROIs(image.get()); },
                                                   "ROI size 64x64x64 is invalid for image of size 100x70x1");
    auto volume = setWith(randomFrame<float>(Eigen::Vector3i(100, 70, 2), 1, 0, 9));
    auto deepPatches = deep.process(volume);
    ASSERT_TRUE(deepPatches);
    EXPECT_EQ(deepPatches->get(0)->dimensions(), Eigen::Vector3i(64, 64, 64));
}

// ---- Checks ------------------------------------------------------------------------------------

TEST(SplitChecks, StepOutsideZeroToOneFailsAtConstructionAndInConfigure)
{
    for (double step : {0.0, -0.5, 1.5, std::numeric_limits<double>::quiet_NaN()}) {
        SCOPED_TRACE(step);
        expectThrowWithMessage<OperationException>(
            [&] { SplitROISampler sampler(step); },
            "[ML.SplitROISampler] `patch_step_size` value must be in range (0, 1].");
        SplitROISampler sampler;
        Log::Capture capture;
        Properties properties;
        properties.setParam("patch_step_size", step);
        EXPECT_FALSE(sampler.configure(properties));
        EXPECT_FALSE(capture.records().empty());
        SplitIntoPatchesOperation split;
        EXPECT_FALSE(split.configure(properties));
    }
}

TEST(SplitChecks, NonPositivePatchSizeFailsAndEmptyInputIsNamed)
{
    auto image = setWith(randomFrame<float>(Eigen::Vector3i(8, 8, 8), 1, 0, 9));
    SplitROISampler sampler(Eigen::Vector3i(0, 4, 4), 0.8, true, true);
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROIs(image.get()); },
                                                   "ROI size 0x4x4 must be positive.");
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROIs(nullptr); }, "Got empty image.");
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.extractROI(nullptr, std::nullopt); },
                                                   "ML.SplitROISampler.extractROI: Got empty image.");
    expectThrowWithMessage<ImageSamplersException>(
        [&] { sampler.extractROI(image.get(), RegionOfInterest{}); },
        "ML.SplitROISampler.extractROI: Got empty ROI. Did you forget to call computeROI?");
}

// ---- Patches: contents, records, geometry ---------------------------------------------------------

class SplitPatches : public ::testing::TestWithParam<PaddingMode>
{};

TEST_P(SplitPatches, PatchVoxelsLieAtTheirOriginalWorldPositionsAndShowTheirPixels)
{
    // 6 x 20 x 3: shorter than the patch on x and z, so those axes are padded (low = 1 on x and
    // z), longer on y.
    Eigen::Vector3i const dims(6, 20, 3);
    auto frame = randomFrame<int>(dims, 2, -99, 99);
    SplitROISampler sampler(Eigen::Vector3i(8, 8, 5), 0.8, true, true);
    sampler.setPaddingMode(GetParam());
    auto patches = sampler.process(setWith(frame));
    ASSERT_TRUE(patches);
    auto const* records = patches->components().get<PatchesFromImageDataComponent>();
    ASSERT_TRUE(records);
    ASSERT_EQ(records->patches.size(), static_cast<std::size_t>(patches->size()));
    ASSERT_EQ(patches->size(), 3); // y origins 0, 6, 12

    ImageDescriptorWorld const original = frame->descriptorWorld();
    for (int k = 0; k < patches->size(); ++k) {
        SharedImage const& patch = *patches->get(k);
        PatchInfo const& info = records->patches[static_cast<std::size_t>(k)];
        EXPECT_TRUE(info.originalDescriptorWorld == original);
        EXPECT_EQ(info.offset, Eigen::Vector3i(-1, 6 * k, -1));
        EXPECT_EQ(info.size, Eigen::Vector3i(8, 8, 5));
        for (int z = 0; z < 5; ++z)
            for (int y = 0; y < 8; y += 3)
                for (int x = 0; x < 8; ++x) {
                    Eigen::Vector3i const q(x, y, z);
                    Eigen::Vector3i const p = q + info.offset;
                    EXPECT_LT(
                        (patch.pixelToWorld(q.cast<double>()) - analyticWorld(original, p.cast<double>()))
                            .norm(),
                        1e-9);
                    int const sx = ImageProcessing::paddedSourceIndex(p.x(), dims.x(), GetParam());
                    int const sz = ImageProcessing::paddedSourceIndex(p.z(), dims.z(), GetParam());
                    for (int c = 0; c < 2; ++c) {
                        int const expected = sx < 0 || sz < 0 ? 0 : valueOf<int>(*frame, sx, p.y(), sz, c);
                        ASSERT_EQ(valueOf<int>(patch, x, y, z, c), expected) << q.transpose() << " c " << c;
                    }
                }
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, SplitPatches,
                         ::testing::Values(PaddingMode::Zero, PaddingMode::Mirror, PaddingMode::Clamp));

TEST(SplitPatchesRecords, OnePatchPerFrameWithTheSamplerRecorded)
{
    auto image = setWith(randomFrame<float>(Eigen::Vector3i(12, 12, 1), 1, 0, 9));
    SplitROISampler sampler(Eigen::Vector2i(8, 8), 0.5, true, true);
    auto patches = sampler.process(image);
    ASSERT_EQ(patches->size(), 4);
    auto const* record = patches->components().get<ProcessingRecordComponent>();
    ASSERT_TRUE(record);
    ASSERT_EQ(record->frameCount(), 4U);
    EXPECT_EQ((*record)[3].back().name, "SplitROISampler");
    // The input keeps its single frame and has no patch record.
    EXPECT_EQ(image->size(), 1);
    EXPECT_FALSE(image->components().get<PatchesFromImageDataComponent>());
}

TEST(SplitPatchesRecords, OnePatchModeIsReproducibleForASeed)
{
    auto image = setWith(randomFrame<float>(Eigen::Vector3i(40, 40, 1), 1, 0, 9));
    auto draw = [&](unsigned seed) {
        SplitROISampler sampler(Eigen::Vector2i(8, 8), 0.8, false, true);
        sampler.seedRandomEngine(seed);
        std::vector<Eigen::Vector3i> offsets;
        for (int i = 0; i < 6; ++i) {
            auto patch = sampler.process(image);
            offsets.push_back(patch->components().get<PatchesFromImageDataComponent>()->patches.at(0).offset);
            EXPECT_EQ(patch->size(), 1);
        }
        return offsets;
    };
    auto const first = draw(5);
    EXPECT_EQ(first, draw(5));
    // Six draws from 36 regions that all agree would mean the generator is not used.
    EXPECT_NE(std::count(first.begin(), first.end(), first.front()), 6);
}

// ---- Items -----------------------------------------------------------------------------------------

class SplitItems : public ::testing::Test
{
protected:
    std::shared_ptr<SharedImage> frame = randomFrame<float>(Eigen::Vector3i(16, 12, 1), 1, 0, 9);

    DataItem itemWithLabel(Eigen::Vector3i const& labelDims)
    {
        DataItem item;
        item.set("image", setWith(frame));
        auto label = setWith(randomFrame<unsigned char>(labelDims, 1, 0, 2));
        item.set("label", label);
        item.get("label")->tagAsTarget();
        return item;
    }
};

TEST_F(SplitItems, ImageAndLabelAreCutAlikeAndVectorsFollowTheBatch)
{
    DataItem item = itemWithLabel(frame->dimensions());
    item.set("vector", std::make_shared<SharedImageSet>(patchTestFrame<float>(
                           Eigen::Vector3i(1, 1, 1), 3, [](std::size_t i) { return 10.0 + i; })));
    SplitROISampler sampler(Eigen::Vector2i(8, 8), 0.8, true, true);
    sampler.process(item);
    auto const images = item.get<ImageElement>("image")->sis();
    auto const labels = item.get<ImageElement>("label")->sis();
    ASSERT_EQ(images->size(), 6); // x: 0, 4, 8; y: 0, 4
    ASSERT_EQ(labels->size(), 6);
    EXPECT_EQ(images->components().get<PatchesFromImageDataComponent>()->patches.at(4).offset,
              labels->components().get<PatchesFromImageDataComponent>()->patches.at(4).offset);
    ASSERT_EQ(item.batchSize(), std::optional<std::size_t>(6));
    auto const vectors = item.get<VectorElement>("vector")->sis();
    ASSERT_EQ(vectors->size(), 6);
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(valueOf<float>(*vectors->get(k), 0, 0, 0, 2), 12.0F);
}

TEST_F(SplitItems, IncompatibleGridsFailOnlyWhenAllPatchesAreCut)
{
    DataItem all = itemWithLabel(Eigen::Vector3i(16, 10, 1));
    SplitROISampler every(Eigen::Vector2i(8, 8), 0.8, true, true);
    expectThrowWithMessage<ImageSamplersException>(
        [&] { every.process(all); }, "Input item contains image elements with spatially incompatible images");

    // One region for all: the label is larger here, so that every region of the image fits it.
    DataItem one = itemWithLabel(Eigen::Vector3i(20, 14, 1));
    SplitROISampler single(Eigen::Vector2i(8, 8), 0.8, false, true);
    single.process(one);
    EXPECT_EQ(one.get<ImageElement>("image")->sis()->get(0)->dimensions(), Eigen::Vector3i(8, 8, 1));
    EXPECT_EQ(one.get<ImageElement>("label")->sis()->get(0)->dimensions(), Eigen::Vector3i(8, 8, 1));
}

TEST_F(SplitItems, SampleFromROILeavesTheInputAndClonesOtherElements)
{
    DataItem item = itemWithLabel(frame->dimensions());
    SplitIntoPatchesOperation split(Eigen::Vector3i(8, 8, 1), 0.8);
    auto const rois = split.computeROIs(item.get<ImageElement>("image")->sis().get());
    ASSERT_EQ(rois.size(), 6U);
    DataItem patch = split.sampleFromROI(item, rois[5]);
    EXPECT_EQ(item.get<ImageElement>("image")->sis()->get(0)->dimensions(), frame->dimensions());
    auto const cut = patch.get<ImageElement>("image")->sis();
    ASSERT_EQ(cut->size(), 1);
    EXPECT_EQ(cut->get(0)->dimensions(), Eigen::Vector3i(8, 8, 1));
    EXPECT_EQ(valueOf<float>(*cut->get(0), 0, 0, 0), valueOf<float>(*frame, 8, 4, 0));
    EXPECT_TRUE(patch.get("label")->isTarget());
}

TEST_F(SplitItems, WrongBatchesAreRefused)
{
    DataItem item;
    item.set("image",
             std::make_shared<SharedImageSet>(std::vector<std::shared_ptr<SharedImage>>{frame, frame}));
    SplitROISampler sampler(Eigen::Vector2i(8, 8), 0.8, true, true);
    expectThrowWithMessage<ImageSamplersException>(
        [&] { sampler.process(item); },
        "Samplers only work for single-frame image sets, please split the data item beforehand.");
}

// ---- SplitIntoPatches -----------------------------------------------------------------------------

TEST(SplitIntoPatches, KeysReachTheSamplerUnderItsOwnNames)
{
    SplitIntoPatchesOperation split;
    Properties properties;
    properties.setParam("patch_size", Eigen::Vector3i(8, 6, 1));
    properties.setParam("patch_step_size", 0.5);
    properties.setParam("padding_mode", "Zero");
    ASSERT_TRUE(split.configure(properties));
    EXPECT_EQ(split.sampler().p_roiSize.value(), Eigen::Vector3i(8, 6, 1));
    // Every patch (step 0.5 of 6), padded with zeros where the image is smaller than the patch.
    auto frame = patchTestFrame<float>(Eigen::Vector3i(4, 12, 1), 1, [](std::size_t) { return 5.0; });
    auto patches = split.process(setWith(frame));
    ASSERT_TRUE(patches);
    ASSERT_EQ(patches->size(), 3); // y: 0, 3, 6
    EXPECT_EQ(valueOf<float>(*patches->get(0), 0, 0, 0), 0.0F);
    EXPECT_EQ(valueOf<float>(*patches->get(0), 2, 0, 0), 5.0F);
}

TEST(SplitIntoPatches, RegisteredUnderTheirNames)
{
    static bool const registered = (registerOperations(), true);
    ASSERT_TRUE(registered);
    auto split = Operation::createFromFactories(
        {"SplitIntoPatches", Properties{{"patch_size", "4 4 1"}, {"patch_step_size", "1"}}, Phase::Always});
    ASSERT_TRUE(split);
    auto patches = split->process(setWith(randomFrame<float>(Eigen::Vector3i(8, 8, 1), 1, 0, 9)));
    ASSERT_TRUE(patches);
    EXPECT_EQ(patches->size(), 4);
    auto sampler = Operation::createFromFactories(
        {"SplitROISampler", Properties{{"roi_size", "4 4 1"}, {"extract_all_patches", "true"}},
         Phase::Always});
    ASSERT_TRUE(sampler);
    // Step 0.8 of 4 is 3.2: origins 0, 2, 4 per axis.
    EXPECT_EQ(sampler->process(setWith(randomFrame<float>(Eigen::Vector3i(8, 8, 1), 1, 0, 9)))->size(), 9);
}

} // namespace
