// The region samplers: DefaultROISampler, CenterROISampler and RandomROISampler (where their
// regions lie, and that a seed fixes the random ones), and LabelROISampler (candidates, fairness
// between labels, regions kept inside the image, fallback, and results that do not depend on the
// number of threads).

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/sampling/CenterROISampler.h"
#include "ml/sampling/DefaultROISampler.h"
#include "ml/sampling/LabelROISampler.h"
#include "ml/sampling/RandomROISampler.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/sampling/SamplerFixtures.h"

#include "host/core/Log.h"
#include "host/core/Random.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

namespace Velmoria::ML {
namespace {

using MLTest::codedSet;
using MLTest::expectThrowWithMessage;
using MLTest::labelSet;
using MLTest::valueAt;

// ---- DefaultROISampler --------------------------------------------------------------------------

struct DivisorCase
{
    Eigen::Vector3i dims;
    int divisor;
    Eigen::Vector3i expected;
};

class DefaultSampler : public ::testing::TestWithParam<DivisorCase>
{
protected:
    void SetUp() override { ProcessingRecordComponent::installProcessingRecordHook(); }
};

TEST_P(DefaultSampler, PadsToTheNextMultipleOfTheDivisorAndRecords)
{
    DefaultROISampler sampler;
    ASSERT_TRUE(sampler.configure(Properties{{"dimension_divisor", GetParam().divisor}}));
    auto const input = codedSet(GetParam().dims);
    EXPECT_EQ(sampler.computeROI(input.get()), std::nullopt);
    auto const result = sampler.extractROI(input.get(), std::nullopt);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->get()->dimensions(), GetParam().expected);
    // A clone or a padded copy, never the input's frame, and the input keeps its size.
    EXPECT_NE(result->get(), input->get());
    EXPECT_EQ(input->get()->dimensions(), GetParam().dims);
    auto const* record = result->components().get<ProcessingRecordComponent>();
    ASSERT_NE(record, nullptr);
    ASSERT_EQ((*record)[0].size(), 1u);
    EXPECT_EQ((*record)[0][0].name, "DefaultROISampler");
    // Padding is centred and keeps the world position of the image's first voxel.
    Eigen::Vector3i const low = (GetParam().expected - GetParam().dims) / 2;
    EXPECT_EQ(valueAt<float>(*result, low.x(), low.y(), low.z()), 0.f);
    EXPECT_TRUE(
        result->get()->pixelToWorld(low.cast<double>()).isApprox(input->get()->pixelToWorld({0, 0, 0})));
}

INSTANTIATE_TEST_SUITE_P(Cases, DefaultSampler,
                         ::testing::Values(DivisorCase{{30, 17, 1}, 16, {32, 32, 1}},
                                           DivisorCase{{32, 16, 1}, 16, {32, 16, 1}},
                                           DivisorCase{{5, 6, 7}, 4, {8, 8, 8}},
                                           DivisorCase{{5, 6, 7}, 1, {5, 6, 7}}));

TEST(SimpleSamplerErrors, EmptyImageBadDivisorAndFlatImageWithDeepRegion)
{
    DefaultROISampler padder;
    CenterROISampler centre({8, 8, 2});
    RandomROISampler random;
    auto const flat = codedSet({64, 64, 1});
    std::pair<std::function<void()>, std::string> const cases[] = {
        {[&] { padder.extractROI(nullptr, std::nullopt); }, "Got empty image."},
        {[&] { centre.computeROI(nullptr); }, "Got empty image."},
        {[&] { random.computeROI(nullptr); }, "Got empty image."},
        {[&] { centre.extractROI(flat.get(), std::nullopt); },
         "ROI size 8x8x2 is invalid for image of size 64x64x1"},
    };
    for (auto const& [action, message] : cases)
        expectThrowWithMessage<ImageSamplersException>(action, message);
    Log::Capture capture;
    EXPECT_FALSE(padder.configure(Properties{{"dimension_divisor", 0}}));
    EXPECT_TRUE(capture.containsFragment("dimension_divisor"));
}

TEST(DefaultSamplerItem, ClampsByDefault)
{
    DataItem item;
    item.set("image", codedSet({3, 2, 1}));
    DefaultROISampler sampler(4);
    sampler.process(item);
    auto const& result = *item.get<ImageElement>("image")->sis();
    ASSERT_EQ(result.get()->dimensions(), Eigen::Vector3i(4, 4, 1));
    // low = (0, 1): row 0 repeats the image's row 0, column 3 its column 2.
    EXPECT_EQ(valueAt<float>(result, 0, 0, 0), 0.f);
    EXPECT_EQ(valueAt<float>(result, 3, 3, 0), 2.f + 100.f);
}

// ---- CenterROISampler ---------------------------------------------------------------------------

struct CenterCase
{
    Eigen::Vector3i dims;
    Eigen::Vector3i roiSize;
    Eigen::Vector3i offset;
    Eigen::Vector3i extent;
};

class CenterSampler : public ::testing::TestWithParam<CenterCase>
{};

TEST_P(CenterSampler, CentresTheRegion)
{
    CenterROISampler sampler(GetParam().roiSize);
    auto const input = codedSet(GetParam().dims);
    auto const roi = sampler.computeROI(input.get());
    ASSERT_TRUE(roi.has_value());
    EXPECT_EQ(roi->offset, GetParam().offset);
    EXPECT_EQ(roi->extent, GetParam().extent);
    auto const result = sampler.extractROI(input.get(), roi);
    EXPECT_EQ(result->get()->dimensions(), GetParam().extent);
}

INSTANTIATE_TEST_SUITE_P(Cases, CenterSampler,
                         ::testing::Values(CenterCase{{10, 9, 8}, {4, 4, 4}, {3, 2, 2}, {4, 4, 4}},
                                           CenterCase{{10, 9, 8}, {-1, 3, -1}, {0, 3, 0}, {10, 3, 8}},
                                           // Larger than the image on x: padded, offset 0 there.
                                           CenterCase{{10, 9, 8}, {16, 5, 8}, {0, 2, 0}, {16, 5, 8}},
                                           CenterCase{{64, 64, 1}, {8, 8, 1}, {28, 28, 0}, {8, 8, 1}}));

// ---- RandomROISampler ---------------------------------------------------------------------------

std::vector<RegionOfInterest> drawRegions(RandomROISampler& sampler, SharedImageSet const& image, int count)
{
    std::vector<RegionOfInterest> regions;
    for (int i = 0; i < count; ++i)
        regions.push_back(*sampler.computeROI(&image));
    return regions;
}

class RandomSampler : public ::testing::TestWithParam<std::tuple<Eigen::Vector3i, Eigen::Vector3i>>
{
protected:
    Eigen::Vector3i dims() const { return std::get<0>(GetParam()); }
    Eigen::Vector3i roiSize() const { return std::get<1>(GetParam()); }
};

TEST_P(RandomSampler, ASeedGivesTheSameRegionsEveryRun)
{
    auto const input = codedSet(dims());
    RandomROISampler first(roiSize());
    RandomROISampler second(roiSize());
    ASSERT_TRUE(first.configure(Properties{{"seed", 1234}}));
    ASSERT_TRUE(second.configure(Properties{{"seed", 1234}}));
    auto const a = drawRegions(first, *input, 20);
    EXPECT_EQ(a, drawRegions(second, *input, 20));
    first.seedRandomEngine(1234);
    EXPECT_EQ(a, drawRegions(first, *input, 20));
    second.seedRandomEngine(99);
    EXPECT_NE(a, drawRegions(second, *input, 20));
}

TEST_P(RandomSampler, DrawsZThenYThenXWithInclusiveBounds)
{
    auto const input = codedSet(dims());
    Eigen::Vector3i const size = ImageROISampler::preprocessRoiSize(roiSize(), dims());
    Eigen::Vector3i const padded = dims().cwiseMax(size);
    RandomROISampler sampler(roiSize());
    sampler.seedRandomEngine(7);
    Random::Generator reference(7);
    for (int i = 0; i < 50; ++i) {
        auto const roi = sampler.computeROI(input.get());
        ASSERT_TRUE(roi.has_value());
        int const z = reference.getUniformInteger<int>(0, padded.z() - size.z());
        int const y = reference.getUniformInteger<int>(0, padded.y() - size.y());
        int const x = reference.getUniformInteger<int>(0, padded.x() - size.x());
        EXPECT_EQ(roi->offset, Eigen::Vector3i(x, y, z));
        EXPECT_EQ(roi->extent, size);
        EXPECT_TRUE((roi->offset.array() >= 0).all());
        EXPECT_TRUE(((roi->offset + size).array() <= padded.array()).all());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RandomSampler,
    ::testing::Values(std::make_tuple(Eigen::Vector3i(10, 9, 8), Eigen::Vector3i(4, 3, 2)),
                      std::make_tuple(Eigen::Vector3i(12, 7, 1), Eigen::Vector3i(5, -1, 1)),
                      std::make_tuple(Eigen::Vector3i(6, 6, 6), Eigen::Vector3i(9, 2, -1))));

// ---- LabelROISampler ----------------------------------------------------------------------------

using Marks = std::vector<std::pair<Eigen::Vector3i, int>>;

std::unique_ptr<LabelROISampler> makeSampler(Properties const& properties)
{
    auto sampler = std::make_unique<LabelROISampler>();
    EXPECT_TRUE(sampler->configure(properties));
    return sampler;
}

// A block of label `value` covering [from, to] (inclusive).
void addBlock(Marks& marks, Eigen::Vector3i from, Eigen::Vector3i to, int value)
{
    for (int z = from.z(); z <= to.z(); ++z)
        for (int y = from.y(); y <= to.y(); ++y)
            for (int x = from.x(); x <= to.x(); ++x)
                marks.push_back({{x, y, z}, value});
}

// ---- Where the region lies ----------------------------------------------------------------------

struct SingleVoxelCase
{
    std::string name;
    Eigen::Vector3i dims;
    Eigen::Vector3i voxel;
    Eigen::Vector3i roiSize;
    Eigen::Vector3i offset;
};

class LabelRegion : public ::testing::TestWithParam<SingleVoxelCase>
{};

TEST_P(LabelRegion, IsCentredOnTheOnlyCandidateAndStaysInside)
{
    auto const labels = labelSet(GetParam().dims, {{GetParam().voxel, 3}});
    auto sampler = makeSampler(
        Properties{{"roi_size", GetParam().roiSize}, {"labels_values", std::vector<int>{3}}, {"seed", 1}});
    auto const roi = sampler->computeROI(labels.get());
    ASSERT_TRUE(roi.has_value());
    EXPECT_EQ(roi->offset, GetParam().offset);
    // The cut region holds the label voxel.
    auto const cut = sampler->extractROI(labels.get(), roi);
    ASSERT_EQ(cut->get()->dimensions(), GetParam().roiSize);
    Eigen::Vector3i const low = (GetParam().dims.cwiseMax(GetParam().roiSize) - GetParam().dims) / 2;
    Eigen::Vector3i const inside = GetParam().voxel + low - roi->offset;
    EXPECT_EQ(valueAt<unsigned char>(*cut, inside.x(), inside.y(), inside.z()), 3);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, LabelRegion,
    ::testing::Values(SingleVoxelCase{"Centre", {20, 20, 20}, {10, 9, 8}, {4, 5, 6}, {8, 7, 5}},
                      SingleVoxelCase{"LowCorner", {20, 20, 20}, {0, 0, 0}, {6, 6, 6}, {0, 0, 0}},
                      SingleVoxelCase{"HighCorner", {20, 16, 12}, {19, 15, 11}, {6, 6, 6}, {14, 10, 6}},
                      SingleVoxelCase{"FlatHighCorner", {30, 20, 1}, {29, 19, 0}, {8, 8, 1}, {22, 12, 0}},
                      // Larger than the image on x: searched in the zero-padded grid (2 voxels low).
                      SingleVoxelCase{"PaddedAxis", {6, 20, 1}, {5, 3, 0}, {10, 4, 1}, {0, 1, 0}}),
    [](auto const& info) { return info.param.name; });

// ---- No candidate, fallback ---------------------------------------------------------------------

TEST(LabelSamplerNoCandidate, GivesNoRegionOrARandomOneWithFallback)
{
    auto const labels = labelSet({12, 10, 8}, {{{1, 1, 1}, 2}});
    auto sampler = makeSampler(
        Properties{{"roi_size", Eigen::Vector3i(4, 4, 4)}, {"labels_values", std::vector<int>{5}}});
    EXPECT_EQ(sampler->computeROI(labels.get()), std::nullopt);

    Properties withFallback{{"roi_size", Eigen::Vector3i(4, 4, 4)},
                            {"labels_values", std::vector<int>{5}},
                            {"fallback_to_random", true},
                            {"seed", 11}};
    auto first = makeSampler(withFallback);
    auto second = makeSampler(withFallback);
    std::vector<RegionOfInterest> a;
    std::vector<RegionOfInterest> b;
    for (int i = 0; i < 10; ++i) {
        auto const roi = first->computeROI(labels.get());
        ASSERT_TRUE(roi.has_value());
        EXPECT_EQ(roi->extent, Eigen::Vector3i(4, 4, 4));
        a.push_back(*roi);
        b.push_back(*second->computeROI(labels.get()));
    }
    EXPECT_EQ(a, b);
    // seedRandomEngine reaches the fallback too.
    first->seedRandomEngine(11);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(*first->computeROI(labels.get()), a[static_cast<std::size_t>(i)]);
}

TEST(LabelSamplerNoCandidate, AnItemWithoutTheLabelsBecomesEmpty)
{
    DataItem item;
    item.set("image", codedSet({8, 8, 4}));
    item.set("label", labelSet({8, 8, 4}, {}));
    item.get("label")->tagAsTarget();
    auto sampler = makeSampler(
        Properties{{"roi_size", Eigen::Vector3i(4, 4, 2)}, {"labels_values", std::vector<int>{1}}});
    Log::Capture capture;
    sampler->process(item);
    EXPECT_TRUE(item.get<ImageElement>("image")->sis()->empty());
    EXPECT_TRUE(item.get<ImageElement>("label")->sis()->empty());
}

TEST(LabelSamplerItem, TheImageIsCutAroundTheLabelsVoxel)
{
    DataItem item;
    item.set("image", codedSet({16, 16, 8}));
    item.set("label", labelSet({16, 16, 8}, {{{12, 3, 5}, 1}}));
    item.get("label")->tagAsTarget();
    auto sampler = makeSampler(
        Properties{{"roi_size", Eigen::Vector3i(4, 4, 2)}, {"labels_values", std::vector<int>{1}}});
    sampler->process(item);
    auto const& image = *item.get<ImageElement>("image")->sis();
    ASSERT_EQ(image.get()->dimensions(), Eigen::Vector3i(4, 4, 2));
    // offset = voxel − size / 2 = (10, 1, 4)
    EXPECT_EQ(valueAt<float>(image, 0, 0, 0), 10 + 100 * 1 + 10000 * 4);
    EXPECT_EQ(valueAt<unsigned char>(*item.get<ImageElement>("label")->sis(), 2, 2, 1), 1);
}

// ---- Errors -------------------------------------------------------------------------------------

TEST(LabelSamplerErrors, RefusesWhatIsNoUnsignedCharLabelMap)
{
    LabelROISampler sampler;
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROI(nullptr); },
                                                   "Got empty image in computeROI.");
    auto const image = codedSet({4, 4, 4});
    expectThrowWithMessage<ImageSamplersException>(
        [&] { sampler.computeROI(image.get()); },
        "Input image to be used as Label has no Modality::LABEL set. You can set itusing "
        "SetLabelModalityOperation in your processing pipeline.");
    image->setModality(Data::Modality::Label);
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROI(image.get()); },
                                                   "Labels must be unsigned char in LabelROISampler.");
}

// ---- Candidates and fairness --------------------------------------------------------------------

TEST(LabelSamplerCandidates, BoundariesOnlyKeepsVoxelsWithADifferingNeighbour)
{
    Marks marks;
    addBlock(marks, {2, 2, 2}, {4, 4, 4}, 1); // a 3x3x3 cube: only its centre is interior
    auto const labels = labelSet({8, 8, 8}, marks);
    auto const all = LabelROISampler::gatherCandidates(*labels->get(), {1}, false);
    auto const boundary = LabelROISampler::gatherCandidates(*labels->get(), {1}, true);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].size(), 27u);
    EXPECT_EQ(boundary[0].size(), 26u);
    std::size_t const centre = 3 + 8 * (3 + 8 * 3);
    EXPECT_EQ(std::count(boundary[0].begin(), boundary[0].end(), centre), 0);
    EXPECT_TRUE(std::is_sorted(all[0].begin(), all[0].end()));
}

TEST(LabelSamplerCandidates, SmallAndLargeLabelsArePickedEquallyOften)
{
    Marks marks;
    addBlock(marks, {0, 0, 0}, {19, 19, 3}, 1); // 1600 voxels
    marks.push_back({{25, 25, 5}, 2});          // 1 voxel
    auto const labels = labelSet({30, 30, 8}, marks);
    auto sampler = makeSampler(Properties{
        {"roi_size", Eigen::Vector3i(1, 1, 1)}, {"labels_values", std::vector<int>{1, 2}}, {"seed", 21}});
    int small = 0;
    int const draws = 2000;
    for (int i = 0; i < draws; ++i)
        if (sampler->computeROI(labels.get())->offset == Eigen::Vector3i(25, 25, 5))
            ++small;
    // Binomial(2000, 0.5): the standard deviation is about 22; a size-weighted choice would give ~1.
    EXPECT_GT(small, 850);
    EXPECT_LT(small, 1150);
}

class LabelSamplerThreads : public ::testing::TestWithParam<bool>
{};

TEST_P(LabelSamplerThreads, ResultsDoNotDependOnTheThreadCount)
{
    Marks marks;
    for (int i = 0; i < 300; ++i)
        marks.push_back({{(i * 37) % 40, (i * 11) % 90, (i * 7) % 12}, 1 + i % 3});
    addBlock(marks, {5, 50, 2}, {15, 70, 6}, 2);
    auto const labels = labelSet({40, 90, 12}, marks);
    Properties const properties{{"roi_size", Eigen::Vector3i(6, 6, 4)},
                                {"labels_values", std::vector<int>{3, 1, 2}},
                                {"sample_boundaries_only", GetParam()},
                                {"seed", 4}};

    int const saved = omp_get_max_threads();
    auto run = [&](int threads) {
        omp_set_num_threads(threads);
        auto sampler = makeSampler(properties);
        std::vector<RegionOfInterest> regions;
        for (int i = 0; i < 30; ++i)
            regions.push_back(*sampler->computeROI(labels.get()));
        auto lists = LabelROISampler::gatherCandidates(*labels->get(), {3, 1, 2}, GetParam());
        return std::make_pair(regions, lists);
    };
    auto const one = run(1);
    auto const two = run(2);
    auto const four = run(4);
    omp_set_num_threads(saved);
    EXPECT_EQ(one.first, two.first);
    EXPECT_EQ(one.first, four.first);
    EXPECT_EQ(one.second, two.second);
    EXPECT_EQ(one.second, four.second);
}

INSTANTIATE_TEST_SUITE_P(BoundariesOnly, LabelSamplerThreads, ::testing::Bool());

} // namespace
} // namespace Velmoria::ML
