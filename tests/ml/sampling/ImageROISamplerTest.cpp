// The base of the samplers: region checks, extraction with geometry and padding, and the item
// walk that cuts every image at one region.

#include "ml/sampling/ImageROISampler.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/sampling/SamplerFixtures.h"

#include "host/core/Log.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace Velmoria::ML {
namespace {

using MLTest::analyticWorld;
using MLTest::codedSet;
using MLTest::expectThrowWithMessage;
using MLTest::labelSet;
using MLTest::valueAt;
using Mode = ImageProcessing::PaddingMode;

// A sampler that cuts wherever it is told; counts how often it was asked.
class FixedROISampler : public ImageROISampler
{
public:
    explicit FixedROISampler(std::optional<RegionOfInterest> region, bool label = false)
        : ImageROISampler("FixedROISampler", Mode::Clamp)
        , m_region(region)
        , m_label(label)
    {}
    std::optional<RegionOfInterest> computeROI(SharedImageSet const*) const override
    {
        ++calls;
        return m_region;
    }
    bool requiresLabel() const override { return m_label; }
    mutable int calls = 0;

private:
    std::optional<RegionOfInterest> m_region;
    bool m_label;
};

RegionOfInterest region(Eigen::Vector3i offset, Eigen::Vector3i extent)
{
    return RegionOfInterest{offset, extent};
}

// ---- Static helpers -----------------------------------------------------------------------------

TEST(ImageROISamplerHelpers, MinusOneStandsForTheAxisLength)
{
    // {roi, dims, expected}; only −1 is replaced, other negatives are refused later.
    Eigen::Vector3i const cases[][3] = {{{-1, -1, -1}, {30, 17, 4}, {30, 17, 4}},
                                        {{8, -1, 1}, {30, 17, 1}, {8, 17, 1}},
                                        {{8, 9, 3}, {30, 17, 4}, {8, 9, 3}},
                                        {{-2, 4, 1}, {30, 17, 1}, {-2, 4, 1}}};
    for (auto const& [roi, dims, expected] : cases)
        EXPECT_EQ(ImageROISampler::preprocessRoiSize(roi, dims), expected);
}

TEST(ImageROISamplerHelpers, RegionsThatCannotBeCutAreRefused)
{
    struct Case
    {
        Eigen::Vector3i dims;
        Eigen::Vector3i roi;
        std::string message; // empty: accepted
    };
    Case const cases[] = {
        {{64, 64, 1}, {8, 8, 2}, "ROI size 8x8x2 is invalid for image of size 64x64x1"},
        // The dimensionality check comes first.
        {{64, 64, 1}, {0, 8, 2}, "ROI size 0x8x2 is invalid for image of size 64x64x1"},
        {{64, 64, 1}, {0, 8, 1}, "ROI size 0x8x1 must be positive."},
        {{8, 8, 8}, {4, -3, 2}, "ROI size 4x-3x2 must be positive."},
        {{8, 8, 8}, {20, 20, 20}, ""},
        {{64, 64, 1}, {8, 8, 1}, ""},
    };
    for (Case const& c : cases) {
        auto const set = codedSet(c.dims);
        auto const check = [&] { ImageROISampler::checkRoiSize(set.get(), c.roi); };
        if (c.message.empty())
            EXPECT_NO_THROW(check());
        else
            expectThrowWithMessage<ImageSamplersException>(check, c.message);
    }
}

TEST(ImageROISamplerHelpers, PaddingNeverCutsLongAxesAndCroppingStaysInside)
{
    auto const set = codedSet({7, 6, 5});
    EXPECT_EQ(ImageROISampler::padImageToDimensions(nullptr, {9, 9, 9}, Mode::Zero), nullptr);
    EXPECT_EQ(ImageROISampler::padImageToDimensions(set.get(), {7, 2, 5}, Mode::Zero), nullptr);
    auto const padded = ImageROISampler::padImageToDimensions(set.get(), {9, 2, 5}, Mode::Zero);
    ASSERT_NE(padded, nullptr);
    EXPECT_EQ(padded->get()->dimensions(), Eigen::Vector3i(9, 6, 5));
    EXPECT_EQ(ImageROISampler::cropImage(nullptr, region({0, 0, 0}, {1, 1, 1}), ComputingDevice::ForceCPU),
              nullptr);
    // Cropping outside the image is refused.
    Log::Capture capture;
    EXPECT_THROW(
        ImageROISampler::cropImage(set.get(), region({5, 0, 0}, {3, 2, 2}), ComputingDevice::ForceCPU),
        ImageSamplersException);
}

// ---- Extraction: pixels and geometry ------------------------------------------------------------

struct ExtractCase
{
    std::string name;
    Eigen::Vector3i offset;
    Eigen::Vector3i extent;
    Mode mode;
};

// Source index shown by a padded position (reference written from the definitions of the modes).
int reference(int p, int n, Mode mode)
{
    if (p >= 0 && p < n)
        return p;
    if (mode == Mode::Zero)
        return -1;
    if (mode == Mode::Clamp)
        return std::clamp(p, 0, n - 1);
    if (n == 1)
        return 0;
    int const period = 2 * (n - 1);
    int q = ((p % period) + period) % period;
    return q < n ? q : period - q;
}

class ExtractROI : public ::testing::TestWithParam<ExtractCase>
{};

TEST_P(ExtractROI, KeepsEveryVoxelsWorldPositionAndValue)
{
    Eigen::Vector3i const dims(7, 6, 5);
    auto const input = codedSet(dims);

    FixedROISampler sampler(std::nullopt);
    sampler.setPaddingMode(GetParam().mode);
    auto const result = sampler.extractROI(input.get(), region(GetParam().offset, GetParam().extent));
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->size(), 1);
    EXPECT_EQ(result->get()->dimensions(), GetParam().extent);

    // Padding is centred: the padded grid starts `low` voxels before the image.
    Eigen::Vector3i const padded = dims.cwiseMax(GetParam().extent);
    Eigen::Vector3i const low = (padded - dims) / 2;
    for (int z = 0; z < GetParam().extent.z(); ++z)
        for (int y = 0; y < GetParam().extent.y(); ++y)
            for (int x = 0; x < GetParam().extent.x(); ++x) {
                Eigen::Vector3i const q(x, y, z);
                Eigen::Vector3i const p = q + GetParam().offset - low;
                Eigen::Vector3d const expectedWorld =
                    analyticWorld(input->get()->descriptorWorld(), p.cast<double>());
                Eigen::Vector3d const world = result->get()->pixelToWorld(q.cast<double>());
                EXPECT_NEAR((world - expectedWorld).norm(), 0.0, 1e-9) << "voxel " << q.transpose();

                int const sx = reference(p.x(), dims.x(), GetParam().mode);
                int const sy = reference(p.y(), dims.y(), GetParam().mode);
                int const sz = reference(p.z(), dims.z(), GetParam().mode);
                float const expected = (sx < 0 || sy < 0 || sz < 0) ? 0.f : float(sx + 100 * sy + 10000 * sz);
                EXPECT_EQ(valueAt<float>(*result, x, y, z), expected) << "voxel " << q.transpose();
            }
}

INSTANTIATE_TEST_SUITE_P(
    Regions, ExtractROI,
    ::testing::Values(ExtractCase{"Inside", {2, 1, 1}, {3, 4, 2}, Mode::Clamp},
                      ExtractCase{"WholeImage", {0, 0, 0}, {7, 6, 5}, Mode::Zero},
                      ExtractCase{"WiderThanImageClamp", {0, 1, 0}, {11, 3, 5}, Mode::Clamp},
                      ExtractCase{"WiderThanImageZero", {0, 0, 2}, {10, 6, 3}, Mode::Zero},
                      ExtractCase{"LargerEverywhereMirror", {0, 0, 0}, {12, 9, 8}, Mode::Mirror},
                      ExtractCase{"LargerEverywhereZero", {0, 0, 0}, {9, 8, 7}, Mode::Zero}),
    [](auto const& info) { return info.param.name; });

TEST(ExtractROIErrors, NullImageZeroExtentAndMissingRegion)
{
    FixedROISampler sampler(std::nullopt);
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.extractROI(nullptr, std::nullopt); },
                                                   "ML.FixedROISampler.extractROI: Got empty image.");
    auto const set = codedSet({7, 6, 5});
    expectThrowWithMessage<ImageSamplersException>(
        [&] {
            sampler.extractROI(set.get(), region({0, 0, 0}, {3, 0, 2}));
        },
        "ML.FixedROISampler.extractROI: Got empty ROI. Did you forget to call computeROI?");

    Log::Capture capture;
    auto const empty = sampler.extractROI(set.get(), std::nullopt);
    ASSERT_NE(empty, nullptr);
    EXPECT_TRUE(empty->empty());
    EXPECT_EQ(sampler.calls, 1);
    EXPECT_TRUE(
        capture.contains("extractROI function received an empty ROI - will return an empty SharedImageSet",
                         "ML.FixedROISampler"));
}

// ---- Padding modes ------------------------------------------------------------------------------

TEST(SamplerPaddingModes, LabelModeFollowsPaddingModeUntilItIsGiven)
{
    FixedROISampler sampler(std::nullopt);
    EXPECT_EQ(sampler.labelPaddingMode(), Mode::Clamp);
    ASSERT_TRUE(sampler.configure(Properties{{"padding_mode", "zero"}}));
    EXPECT_EQ(sampler.paddingMode(), Mode::Zero);
    EXPECT_EQ(sampler.labelPaddingMode(), Mode::Zero);
    ASSERT_TRUE(sampler.configure(Properties{{"label_padding_mode", "Mirror"}}));
    ASSERT_TRUE(sampler.configure(Properties{{"padding_mode", "2"}}));
    EXPECT_EQ(sampler.paddingMode(), Mode::Clamp);
    EXPECT_EQ(sampler.labelPaddingMode(), Mode::Mirror);

    Log::Capture capture;
    EXPECT_FALSE(sampler.configure(Properties{{"padding_mode", "wrap"}}));
}

// ---- The item -----------------------------------------------------------------------------------

class SamplerItem : public ::testing::Test
{
protected:
    void SetUp() override { ProcessingRecordComponent::installProcessingRecordHook(); }

    // An image, a second image whose values are shifted by 0.5, and a target label map of 7s.
    DataItem makeItem(Eigen::Vector3i const& dims)
    {
        DataItem item;
        item.set("image", codedSet(dims));
        auto second = codedSet(dims);
        auto* pixels = static_cast<TypedImage<float>*>(second->get()->mem());
        for (std::size_t i = 0; i < pixels->valueCount(); ++i)
            pixels->setValue(pixels->value(i) + 0.5f, i);
        item.set("second", second);
        auto label = labelSet(dims, {});
        static_cast<TypedImage<unsigned char>*>(label->get()->mem())->fill(7);
        item.set("label", label);
        item.get("label")->tagAsTarget();
        return item;
    }

    static SharedImageSet const& sisOf(DataItem& item, std::string const& field)
    {
        return *item.get<ImageElement>(field)->sis();
    }
};

TEST_F(SamplerItem, EveryImageIsCutAtTheSameRegionComputedOnceAndRecorded)
{
    DataItem item = makeItem({7, 6, 5});
    FixedROISampler sampler(region({2, 1, 3}, {4, 3, 2}));
    sampler.process(item);
    EXPECT_EQ(sampler.calls, 1);
    for (std::string const field : {"image", "second", "label"})
        EXPECT_EQ(sisOf(item, field).get()->dimensions(), Eigen::Vector3i(4, 3, 2)) << field;
    EXPECT_EQ(valueAt<float>(sisOf(item, "image"), 0, 0, 0), 2 + 100 * 1 + 10000 * 3);
    EXPECT_EQ(valueAt<float>(sisOf(item, "second"), 3, 2, 1), 5 + 100 * 3 + 10000 * 4 + 0.5f);
    // Image and label stay on one grid.
    EXPECT_TRUE(
        sisOf(item, "image").get()->matrixToWorld().isApprox(sisOf(item, "label").get()->matrixToWorld()));
    EXPECT_EQ(valueAt<unsigned char>(sisOf(item, "label"), 3, 2, 1), 7);
    // The sampler is recorded once on every element.
    for (std::string const field : {"image", "label"}) {
        auto const* record = sisOf(item, field).components().get<ProcessingRecordComponent>();
        ASSERT_NE(record, nullptr) << field;
        ASSERT_EQ(record->frameCount(), 1u);
        ASSERT_EQ((*record)[0].size(), 1u) << field;
        EXPECT_EQ((*record)[0][0].name, "FixedROISampler");
    }
}

TEST_F(SamplerItem, TargetsArePaddedWithTheLabelMode)
{
    DataItem item = makeItem({3, 3, 3});
    FixedROISampler sampler(region({0, 0, 0}, {5, 3, 3}));
    sampler.setLabelPaddingMode(Mode::Zero);
    sampler.process(item);
    // Column 0 is padding: the image repeats its edge, the label map is filled with 0.
    EXPECT_EQ(valueAt<float>(sisOf(item, "image"), 0, 1, 1), 0 + 100 + 10000);
    EXPECT_EQ(valueAt<unsigned char>(sisOf(item, "label"), 0, 1, 1), 0);
    EXPECT_EQ(valueAt<unsigned char>(sisOf(item, "label"), 1, 1, 1), 7);
}

TEST_F(SamplerItem, ALabelSamplerDecidesFromTheTargetOnly)
{
    DataItem item = makeItem({7, 6, 5});
    FixedROISampler sampler(std::nullopt, /*label=*/true);
    Log::Capture capture;
    sampler.process(item);
    // Computed once from the label map; no region means every image becomes empty.
    EXPECT_EQ(sampler.calls, 1);
    EXPECT_TRUE(sisOf(item, "image").empty());
    EXPECT_TRUE(sisOf(item, "label").empty());
}

TEST_F(SamplerItem, ABatchAboveOneIsRefused)
{
    DataItem item;
    auto set = codedSet({4, 4, 1});
    set->add(codedSet({4, 4, 1})->getShared());
    item.set("image", set);
    FixedROISampler sampler(region({0, 0, 0}, {2, 2, 1}));
    expectThrowWithMessage<OperationException>(
        [&] { sampler.process(item); },
        "[ML.FixedROISampler] Samplers only work for single-frame image sets, please split the data item "
        "beforehand.");
    EXPECT_EQ(sampler.calls, 0);
}

TEST_F(SamplerItem, TheInputSetIsNotChanged)
{
    auto input = codedSet({7, 6, 5});
    FixedROISampler sampler(region({1, 1, 1}, {2, 2, 2}));
    auto output = sampler.process(input);
    ASSERT_NE(output, nullptr);
    EXPECT_EQ(input->get()->dimensions(), Eigen::Vector3i(7, 6, 5));
    EXPECT_EQ(output->get()->dimensions(), Eigen::Vector3i(2, 2, 2));
    EXPECT_EQ(valueAt<float>(*output, 0, 0, 0), 1 + 100 + 10000);
}

} // namespace
} // namespace Velmoria::ML
