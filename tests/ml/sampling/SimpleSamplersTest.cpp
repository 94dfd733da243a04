// DefaultROISampler, CenterROISampler and RandomROISampler: where their regions lie, and that a
// seed fixes the random ones.

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/ProcessingRecordComponent.h"
#include "ml/sampling/CenterROISampler.h"
#include "ml/sampling/DefaultROISampler.h"
#include "ml/sampling/RandomROISampler.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/sampling/SamplerFixtures.h"

#include "host/core/Log.h"
#include "host/core/Random.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace Velmoria::ML {
namespace {

using MLTest::codedSet;
using MLTest::expectThrowWithMessage;
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

TEST(DefaultSamplerErrors, NullImageAndBadDivisor)
{
    DefaultROISampler sampler;
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.extractROI(nullptr, std::nullopt); },
                                                   "Got empty image.");
    Log::Capture capture;
    EXPECT_FALSE(sampler.configure(Properties{{"dimension_divisor", 0}}));
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

TEST(CenterSamplerErrors, EmptyImageAndFlatImageWithDeepRegion)
{
    CenterROISampler sampler({8, 8, 2});
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROI(nullptr); }, "Got empty image.");
    auto const flat = codedSet({64, 64, 1});
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.extractROI(flat.get(), std::nullopt); },
                                                   "ROI size 8x8x2 is invalid for image of size 64x64x1");
}

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

TEST_P(RandomSampler, ReachesBothEndsOfEveryAxis)
{
    auto const input = codedSet(dims());
    Eigen::Vector3i const size = ImageROISampler::preprocessRoiSize(roiSize(), dims());
    Eigen::Vector3i const last = dims().cwiseMax(size) - size;
    RandomROISampler sampler(roiSize());
    sampler.seedRandomEngine(3);
    Eigen::Vector3i lowest = Eigen::Vector3i::Constant(1 << 20);
    Eigen::Vector3i highest = Eigen::Vector3i::Constant(-1);
    for (auto const& roi : drawRegions(sampler, *input, 400)) {
        lowest = lowest.cwiseMin(roi.offset);
        highest = highest.cwiseMax(roi.offset);
    }
    EXPECT_EQ(lowest, Eigen::Vector3i::Zero());
    EXPECT_EQ(highest, last);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, RandomSampler,
    ::testing::Values(std::make_tuple(Eigen::Vector3i(10, 9, 8), Eigen::Vector3i(4, 3, 2)),
                      std::make_tuple(Eigen::Vector3i(12, 7, 1), Eigen::Vector3i(5, -1, 1)),
                      std::make_tuple(Eigen::Vector3i(6, 6, 6), Eigen::Vector3i(9, 2, -1))));

TEST(RandomSamplerItem, TwoImagesOfAnItemAreCutAtTheSameRandomRegion)
{
    RandomROISampler sampler({3, 3, 2});
    sampler.seedRandomEngine(5);
    for (int run = 0; run < 10; ++run) {
        DataItem item;
        item.set("a", codedSet({9, 8, 7}));
        item.set("b", codedSet({9, 8, 7}));
        sampler.process(item);
        auto const& a = *item.get<ImageElement>("a")->sis();
        auto const& b = *item.get<ImageElement>("b")->sis();
        EXPECT_EQ(valueAt<float>(a, 0, 0, 0), valueAt<float>(b, 0, 0, 0));
        EXPECT_TRUE(a.get()->matrixToWorld().isApprox(b.get()->matrixToWorld()));
    }
}

TEST(RandomSamplerErrors, EmptyImage)
{
    RandomROISampler sampler;
    expectThrowWithMessage<ImageSamplersException>([&] { sampler.computeROI(nullptr); }, "Got empty image.");
}

} // namespace
} // namespace Velmoria::ML
