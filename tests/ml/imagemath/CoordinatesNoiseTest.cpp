// Coordinates and Noise: nodes whose value depends on the pixel's position. Coordinates are
// compared with the frame's own geometry (pixelToWorld, spacing, dimensions); noise with its
// distribution and with itself across seeds, frames, blocks and thread counts.

#include "ml/imagemath/ImageMath.h"
#include "tests/ml/TestHelpers.h"
#include "tests/ml/imagemath/ImageMathSets.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageMath;
using namespace Velmoria::ImageMathTest;

namespace {

using Vec = Eigen::Vector3i;

// The coordinate of pixel p of `frame` by the definition of each type, from the frame's own
// geometry.
Eigen::Vector3d expectedCoordinate(SharedImage const& frame, CoordinateType type, Eigen::Vector3d const& p)
{
    Eigen::Vector3d const dims = frame.dimensions().cast<double>();
    switch (type) {
    case CoordinateType::Pixel:
        return p;
    case CoordinateType::Normalized:
        return ((p.array() + 0.5) / dims.array()).matrix();
    case CoordinateType::Image:
        return ((p.array() - (dims.array() - 1.0) / 2.0) * frame.spacing().array()).matrix();
    case CoordinateType::World:
        return frame.pixelToWorld(p);
    }
    return {};
}

class CoordinatesByType : public ::testing::TestWithParam<CoordinateType>
{
protected:
    // Two frames of different size, spacing and placement.
    CoordinatesByType()
    {
        set.add(MLTest::placedFrame<short>(Vec(5, 4, 3), 1, {}));
        auto second = MLTest::placedFrame<short>(Vec(3, 6, 2), 1, {});
        second->setSpacing(Eigen::Vector3d(2.0, 0.5, 1.5), true);
        Eigen::Matrix4d moved = second->matrixToWorld();
        moved.topRightCorner<3, 1>() += Eigen::Vector3d(10.0, -3.0, 0.25);
        second->setMatrixToWorld(moved);
        set.add(second);
    }
    SharedImageSet set;
};

TEST_P(CoordinatesByType, EveryFrameGivesItsOwnGeometry)
{
    CoordinateType const type = GetParam();
    auto result = evaluateIntoImage(makeCoordinates(set, type));
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->size(), 2);
    for (int f = 0; f < 2; ++f) {
        SharedImage const& frame = *set.get(f);
        ASSERT_EQ(result->get(f)->dimensions(), frame.dimensions());
        ASSERT_EQ(result->get(f)->channels(), 3);
        ASSERT_EQ(result->get(f)->pixelType(), PixelType::Float);
        auto const& values = typed<float>(*result, f);
        for (int z = 0; z < frame.slices(); ++z)
            for (int y = 0; y < frame.height(); ++y)
                for (int x = 0; x < frame.width(); ++x) {
                    Eigen::Vector3d const expected =
                        expectedCoordinate(frame, type, Eigen::Vector3d(x, y, z));
                    for (int c = 0; c < 3; ++c)
                        ASSERT_NEAR(values.value(x, y, z, c), expected[c],
                                    1e-4 * (1.0 + std::fabs(expected[c])))
                            << coordinateTypeName(type) << " frame " << f << " at " << x << y << z << " axis "
                            << c;
                }
    }
}

TEST_P(CoordinatesByType, BlockKeepsTheFullImagesCoordinates)
{
    CoordinateType const type = GetParam();
    SharedImage& frame = *set.get(0);
    auto small = makeSet<float>(Vec(2, 2, 1), 1, 3, 0.0, 1.0, [](int, int) { return 0; });
    Vec const offset(3, 1, 2);
    ASSERT_TRUE(
        Array<SharedImageSet>(*small).assign(makeCoordinates(frame, type).block(offset, Vec(2, 2, 1))));
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 2; ++x) {
            Eigen::Vector3d const expected =
                expectedCoordinate(frame, type, (Vec(x, y, 0) + offset).cast<double>());
            for (int c = 0; c < 3; ++c)
                EXPECT_NEAR(typed<float>(*small).value(x, y, 0, c), expected[c],
                            1e-4 * (1.0 + std::fabs(expected[c])));
        }
}

INSTANTIATE_TEST_SUITE_P(AllTypes, CoordinatesByType,
                         ::testing::Values(CoordinateType::Pixel, CoordinateType::Normalized,
                                           CoordinateType::Image, CoordinateType::World),
                         [](auto const& info) { return std::string(coordinateTypeName(info.param)); });

TEST(Coordinates, ForceTheCpuAndRefuseMisfits)
{
    auto set = makeSet<float>(Vec(4, 3, 2), 1, 3, 0.0, 1.0, [](int, int) { return 0; });
    auto grey = makeSet<float>(Vec(4, 3, 2), 1, 1, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> img(*set);
    EXPECT_EQ(img.deviceStrategy(), DeviceStrategy::Any);
    EXPECT_EQ((img + makeCoordinates(*set, CoordinateType::Normalized)).deviceStrategy(),
              DeviceStrategy::CpuOnly);
    EXPECT_EQ(makeCoordinates(*set, CoordinateType::Pixel).numChannels(), 3);

    Log::Capture capture;
    EXPECT_FALSE(Array<SharedImageSet>(*grey).assign(makeCoordinates(*set, CoordinateType::Pixel)));
    EXPECT_TRUE(
        capture.containsFragment("coordinates are 4x3x2 with 3 channels, target is 4x3x2 with 1 channels"));
    EXPECT_FALSE(img.assign(makeCoordinates(*set, static_cast<CoordinateType>(7))));
    EXPECT_TRUE(capture.containsFragment("coordinate type 7 is not one of 0 (pixel) to 3 (world)"));
    SharedImageSet empty;
    EXPECT_EQ(makeCoordinates(empty, CoordinateType::Pixel).numImgs(), 0);
    EXPECT_FALSE(makeCoordinates(empty, CoordinateType::Pixel).imgDesc().has_value());
}

// Noise ---------------------------------------------------------------------------------------

std::vector<float> noiseValues(SharedImageSet const& shape, NoiseType type, float a, float b, int seed)
{
    auto result = evaluateIntoImage(makeNoise(shape, type, a, b, seed));
    EXPECT_NE(result, nullptr);
    std::vector<float> values;
    if (result == nullptr)
        return values;
    for (int f = 0; f < result->size(); ++f) {
        auto const& frame = typed<float>(*result, f);
        values.insert(values.end(), frame.pointer(), frame.pointer() + frame.valueCount());
    }
    return values;
}

struct NoiseCase
{
    const char* name;
    NoiseType type;
    float a;
    float b;
    double mean;
    double stddev;
};

class NoiseDistribution : public ::testing::TestWithParam<NoiseCase>
{
protected:
    // 64 x 32 x 8 pixels, two channels, two frames: 65536 values.
    std::shared_ptr<SharedImageSet> shape =
        makeSet<short>(Vec(64, 32, 8), 2, 2, 0.0, 1.0, [](int, int) { return 0; });
};

TEST_P(NoiseDistribution, MomentsMatchTheDistribution)
{
    NoiseCase const& param = GetParam();
    std::vector<float> const values = noiseValues(*shape, param.type, param.a, param.b, 1234);
    ASSERT_EQ(values.size(), 65536u);
    double sum = 0.0, squares = 0.0;
    int withinOneSigma = 0;
    for (float v : values) {
        sum += v;
        squares += double(v) * v;
        withinOneSigma += std::fabs(v - param.mean) <= param.stddev;
        if (param.type == NoiseType::Uniform) {
            ASSERT_GE(v, std::min(param.a, param.b));
            ASSERT_LT(v, std::max(param.a, param.b));
        }
    }
    double const n = double(values.size());
    double const mean = sum / n;
    double const stddev = std::sqrt(squares / n - mean * mean);
    // Five standard errors of the mean; 2 % on the standard deviation.
    EXPECT_NEAR(mean, param.mean, 5.0 * param.stddev / std::sqrt(n));
    EXPECT_NEAR(stddev, param.stddev, 0.02 * param.stddev);
    // Share within one sigma: 0.5774 for a uniform, 0.6827 for a normal distribution.
    double const share = param.type == NoiseType::Uniform ? 1.0 / std::sqrt(3.0) : 0.6827;
    EXPECT_NEAR(withinOneSigma / n, share, 0.01);
}

INSTANTIATE_TEST_SUITE_P(
    Types, NoiseDistribution,
    ::testing::Values(NoiseCase{"uniform", NoiseType::Uniform, -2.0f, 5.0f, 1.5, 7.0 / std::sqrt(12.0)},
                      NoiseCase{"uniformReversed", NoiseType::Uniform, 1.0f, 0.0f, 0.5,
                                1.0 / std::sqrt(12.0)},
                      NoiseCase{"gaussian", NoiseType::Gaussian, 3.0f, 0.5f, 3.0, 0.5},
                      NoiseCase{"standardNormal", NoiseType::Gaussian, 0.0f, 1.0f, 0.0, 1.0}),
    [](auto const& info) { return std::string(info.param.name); });

class NoiseDeterminism : public ::testing::Test
{
protected:
    std::shared_ptr<SharedImageSet> shape =
        makeSet<float>(Vec(9, 7, 5), 2, 2, 0.0, 1.0, [](int, int) { return 0; });

    static int countEqual(std::vector<float> const& a, std::vector<float> const& b)
    {
        int equal = 0;
        for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
            equal += a[i] == b[i];
        return equal;
    }
};

TEST_F(NoiseDeterminism, SameSeedSameValuesOnAnyThreadCount)
{
    for (NoiseType type : {NoiseType::Uniform, NoiseType::Gaussian}) {
        auto const first = noiseValues(*shape, type, 0.0f, 1.0f, 7);
        EXPECT_EQ(noiseValues(*shape, type, 0.0f, 1.0f, 7), first);
        EXPECT_LT(countEqual(noiseValues(*shape, type, 0.0f, 1.0f, 8), first), 3);
        EXPECT_LT(countEqual(noiseValues(*shape, type, 0.0f, 1.0f, -7), first), 3);
    }
    // Frames and channels draw different values.
    auto const values = noiseValues(*shape, NoiseType::Uniform, 0.0f, 1.0f, 7);
    std::size_t const half = values.size() / 2;
    EXPECT_LT(countEqual(std::vector<float>(values.begin(), values.begin() + long(half)),
                         std::vector<float>(values.begin() + long(half), values.end())),
              3);
    int sameChannels = 0;
    for (std::size_t i = 0; i + 1 < values.size(); i += 2)
        sameChannels += values[i] == values[i + 1];
    EXPECT_LT(sameChannels, 3);

    // Nor does the thread count change anything.
    int const threads = omp_get_max_threads();
    omp_set_num_threads(2);
    auto const gaussian = noiseValues(*shape, NoiseType::Gaussian, 2.0f, 3.0f, 99);
    for (int count : {1, 3}) {
        omp_set_num_threads(count);
        EXPECT_EQ(noiseValues(*shape, NoiseType::Gaussian, 2.0f, 3.0f, 99), gaussian) << count << " threads";
    }
    omp_set_num_threads(threads);
}

TEST_F(NoiseDeterminism, InAFormulaAndABlock)
{
    // Noise added to an image with shift and scale equals the image plus the noise alone.
    auto image = makeSet<double>(Vec(9, 7, 5), 2, 2, 1.0, 4.0, [](int f, int j) { return j + 100 * f; });
    auto const noise = noiseValues(*shape, NoiseType::Gaussian, 0.0f, 2.0f, 5);
    Array<SharedImageSet> img(*image);
    ASSERT_TRUE(img.assign(img + makeNoise(*shape, NoiseType::Gaussian, 0.0f, 2.0f, 5)));
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < 630; ++j) {
            double const before = double(j + 100 * f) / 4.0 - 1.0;
            ASSERT_NEAR(image->get(f)->descriptor().storageToOriginal(typed<double>(*image, f).value(j)),
                        before + noise[std::size_t(f) * 630 + j], 1e-5);
        }
    // A block of the noise is the same block of the whole noise image.
    auto small = makeSet<float>(Vec(3, 2, 2), 2, 2, 0.0, 1.0, [](int, int) { return 0; });
    Vec const offset(4, 5, 2);
    ASSERT_TRUE(Array<SharedImageSet>(*small).assign(
        makeNoise(*shape, NoiseType::Gaussian, 0.0f, 2.0f, 5).block(offset, Vec(3, 2, 2))));
    for (int f = 0; f < 2; ++f)
        for (int z = 0; z < 2; ++z)
            for (int y = 0; y < 2; ++y)
                for (int x = 0; x < 3; ++x)
                    for (int c = 0; c < 2; ++c) {
                        std::size_t const j = std::size_t(
                            (((z + offset.z()) * 7 + y + offset.y()) * 9 + x + offset.x()) * 2 + c);
                        ASSERT_EQ(typed<float>(*small, f).value(x, y, z, c), noise[std::size_t(f) * 630 + j]);
                    }
}

TEST(Noise, ForcesTheCpuAndRefusesBadParameters)
{
    auto set = makeSet<float>(Vec(4, 3, 2), 1, 1, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> img(*set);
    EXPECT_EQ((img * makeNoise(*set, NoiseType::Uniform, 0.0f, 1.0f, 1)).deviceStrategy(),
              DeviceStrategy::CpuOnly);
    EXPECT_EQ(makeNoise(*set, NoiseType::Uniform, 0.0f, 1.0f, 1).imgDesc()->pixelType, PixelType::Float);

    Log::Capture capture;
    EXPECT_FALSE(img.assign(makeNoise(*set, NoiseType::Gaussian, 0.0f, -1.0f, 1)));
    EXPECT_TRUE(
        capture.contains("Cannot assign expression to frame 0 (float 4x3x2 1ch spacing 1 1 1 mm): gaussian "
                         "noise needs a finite mean and stddev >= 0, got mean 0 stddev -1",
                         "ML.ImageMath"));
    EXPECT_FALSE(img.assign(makeNoise(*set, NoiseType::Uniform, 0.0f, INFINITY, 1)));
    EXPECT_TRUE(capture.containsFragment("uniform noise needs finite bounds, got 0 and inf"));
    EXPECT_FALSE(img.assign(makeNoise(*set, static_cast<NoiseType>(5), 0.0f, 1.0f, 1)));
    EXPECT_TRUE(capture.containsFragment("noise type 5 is not 0 (uniform) or 1 (gaussian)"));
    auto rgb = makeSet<float>(Vec(4, 3, 2), 1, 3, 0.0, 1.0, [](int, int) { return 0; });
    EXPECT_FALSE(img.assign(makeNoise(*rgb, NoiseType::Uniform, 0.0f, 1.0f, 1)));
    EXPECT_TRUE(capture.containsFragment("noise is 4x3x2 with 3 channels, target is 4x3x2 with 1 channels"));
    for (std::size_t j = 0; j < typed<float>(*set).valueCount(); ++j)
        ASSERT_EQ(typed<float>(*set).value(j), 0.0f);
}

} // namespace
