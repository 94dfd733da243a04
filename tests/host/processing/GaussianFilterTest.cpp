// GaussianFilter against a direct 3D convolution with clamped borders, with the properties that
// users rely on: mm and voxels agree, a single slice is not smoothed across, geometry is kept.

#include "host/processing/GaussianFilter.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

namespace {

// The Gaussian weights written out independently of the filter's own kernel().
std::vector<double> referenceKernel(double sigma)
{
    if (sigma <= 0.0)
        return {1.0};
    int const radius = static_cast<int>(std::ceil(3.0 * sigma));
    std::vector<double> w;
    double sum = 0.0;
    for (int i = -radius; i <= radius; ++i) {
        w.push_back(std::exp(-(i * i) / (2.0 * sigma * sigma)));
        sum += w.back();
    }
    for (double& x : w)
        x /= sum;
    return w;
}

// Direct (non-separable) convolution with clamped borders, in double.
template <class T>
std::vector<double> referenceSmooth(TypedImage<T> const& in, Eigen::Vector3d const& sigmaVoxels)
{
    std::vector<double> k[3];
    for (int a = 0; a < 3; ++a)
        k[a] = in.dimensions()[a] > 1 ? referenceKernel(sigmaVoxels[a]) : std::vector<double>{1.0};
    int const r[3] = {static_cast<int>(k[0].size() / 2), static_cast<int>(k[1].size() / 2),
                      static_cast<int>(k[2].size() / 2)};
    std::vector<double> out(in.valueCount());
    for (int z = 0; z < in.slices(); ++z)
        for (int y = 0; y < in.height(); ++y)
            for (int x = 0; x < in.width(); ++x)
                for (int c = 0; c < in.channels(); ++c) {
                    double sum = 0.0;
                    for (int dz = -r[2]; dz <= r[2]; ++dz)
                        for (int dy = -r[1]; dy <= r[1]; ++dy)
                            for (int dx = -r[0]; dx <= r[0]; ++dx) {
                                int const sx = std::clamp(x + dx, 0, in.width() - 1);
                                int const sy = std::clamp(y + dy, 0, in.height() - 1);
                                int const sz = std::clamp(z + dz, 0, in.slices() - 1);
                                sum += k[0][dx + r[0]] * k[1][dy + r[1]] * k[2][dz + r[2]] *
                                       static_cast<double>(in.value(sx, sy, sz, c));
                            }
                    out[in.index(x, y, z, c)] = sum;
                }
    return out;
}

} // namespace

template <class T>
class GaussianFilterTest : public ::testing::Test
{};
TYPED_TEST_SUITE(GaussianFilterTest, AllPixelTypes);

TYPED_TEST(GaussianFilterTest, MatchesDirectConvolution)
{
    auto const frame = randomFrame<TypeParam>();
    Eigen::Vector3d const sigma(1.0, 0.6, 0.4);
    auto const result = GaussianFilter(sigma).apply(*frame);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->pixelType(), frame->pixelType());
    EXPECT_TRUE(result->descriptor().isApprox(frame->descriptor()));
    auto const expected = referenceSmooth(typed<TypeParam>(*frame), sigma);
    auto const& out = typed<TypeParam>(*result);
    // Integers are rounded from a float sum; floats differ by the float sum's rounding only.
    double const tolerance = std::is_integral_v<TypeParam> ? 0.5 + 1e-3 : 1e-4;
    for (std::size_t i = 0; i < out.valueCount(); ++i)
        ASSERT_NEAR(static_cast<double>(out.value(i)), expected[i], tolerance) << "value " << i;
    expectSameGeometry(*frame, *result);

    // In place gives the same values.
    ASSERT_TRUE(GaussianFilter(sigma).applyInPlace(*frame));
    EXPECT_TRUE(frame->isGlDirty());
    for (std::size_t i = 0; i < out.valueCount(); ++i)
        ASSERT_EQ(typed<TypeParam>(*frame).value(i), out.value(i)) << "value " << i;
}

TEST(GaussianFilter, KernelSizeFollowsSigmaAndHalfKernelSize)
{
    EXPECT_EQ(GaussianFilter::kernel(1.0).size(), 7U);
    EXPECT_EQ(GaussianFilter::kernel(0.4).size(), 5U);
    EXPECT_EQ(GaussianFilter::kernel(0.0), std::vector<double>{1.0});
    auto const filter = GaussianFilter::fromHalfKernelSize(Eigen::Vector3d(3.0, 6.0, 1.0));
    EXPECT_EQ(GaussianFilter::kernel(filter.sigma().x()).size(), 7U);
    EXPECT_EQ(GaussianFilter::kernel(filter.sigma().y()).size(), 13U);
    EXPECT_EQ(GaussianFilter::kernel(filter.sigma().z()).size(), 3U);
    EXPECT_FALSE(filter.isIsotropic());
}

TEST(GaussianFilter, MillimetresEqualVoxelsThroughSpacing)
{
    Eigen::Vector3d const spacing(0.5, 1.0, 2.0);
    auto const frame = randomFrame<float>({Eigen::Vector3i(11, 9, 7), 1, spacing, 0.0, 1.0, 3});
    auto const inMm =
        GaussianFilter(Eigen::Vector3d(1.0, 1.0, 2.0), GaussianFilter::Unit::Millimetres).apply(*frame);
    auto const inVoxels = GaussianFilter(Eigen::Vector3d(2.0, 1.0, 1.0)).apply(*frame);
    ASSERT_NE(inMm, nullptr);
    ASSERT_NE(inVoxels, nullptr);
    auto const& a = typed<float>(*inMm);
    auto const& b = typed<float>(*inVoxels);
    for (std::size_t i = 0; i < a.valueCount(); ++i)
        ASSERT_EQ(a.value(i), b.value(i)) << "value " << i;
    // And the anisotropy matters: an isotropic 1 mm filter gives something else.
    auto const isotropic = GaussianFilter(1.0, GaussianFilter::Unit::Millimetres).apply(*frame);
    EXPECT_NE(typed<float>(*isotropic).value(40), a.value(40));
}

TEST(GaussianFilter, TwoDimensionalImageIsNotSmoothedAlongZ)
{
    auto const frame =
        randomFrame<float>({Eigen::Vector3i(8, 6, 1), 2, Eigen::Vector3d(1.0, 1.0, 0.1), 0.0, 1.0, 5});
    // 2 mm along z is 20 voxels: it must not matter, nor be refused, for a single slice.
    auto const result = GaussianFilter(2.0, GaussianFilter::Unit::Millimetres).apply(*frame);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->slices(), 1);
    auto const expected = referenceSmooth(typed<float>(*frame), Eigen::Vector3d(2.0, 2.0, 0.0));
    for (std::size_t i = 0; i < expected.size(); ++i)
        ASSERT_NEAR(typed<float>(*result).value(i), expected[i], 1e-4);
}

TEST(GaussianFilter, SetOverloadsSmoothEveryFrameAndKeepTheSet)
{
    SharedImageSet set;
    set.add(randomFrame<short>());
    set.add(randomFrame<short>({Eigen::Vector3i(7, 6, 5), 2, Eigen::Vector3d(0.5, 1.25, 2.0), 3.0, 0.5, 99}));
    set.setName("mr");
    GaussianFilter const filter(0.8);
    auto const copy = filter.apply(set);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->name(), "mr");
    ASSERT_TRUE(filter.applyInPlace(set));
    for (int f = 0; f < 2; ++f) {
        expectSameGeometry(*set.get(f), *copy->get(f));
        auto const& a = typed<short>(*set.get(f));
        auto const& b = typed<short>(*copy->get(f));
        for (std::size_t i = 0; i < a.valueCount(); ++i)
            ASSERT_EQ(a.value(i), b.value(i));
    }
}

TEST(GaussianFilter, RefusedSizesChangeNothing)
{
    auto const frame = randomFrame<float>();
    auto const before = typed<float>(*frame).value(10);
    {
        Log::Capture capture;
        EXPECT_EQ(GaussianFilter(Eigen::Vector3d(1.0, -1.0, 1.0)).apply(*frame), nullptr);
        EXPECT_TRUE(capture.contains("Invalid sigma -1 (-1 voxels) on axis 1; it must be finite and >= 0",
                                     "Host.GaussianFilter"));
    }
    {
        Log::Capture capture;
        // 1000 mm on 0.5 mm voxels: radius 6000 voxels.
        EXPECT_FALSE(GaussianFilter(1000.0, GaussianFilter::Unit::Millimetres).applyInPlace(*frame));
        EXPECT_TRUE(
            capture.contains("Kernel radius of 6000 voxels on axis 0 (sigma 2000 voxels) exceeds the limit "
                             "of 1024",
                             "Host.GaussianFilter"));
    }
    SharedImageSet set(frame);
    {
        Log::Capture capture;
        EXPECT_FALSE(GaussianFilter(std::nan("")).applyInPlace(set));
        EXPECT_TRUE(capture.containsFragment("Invalid sigma nan"));
    }
    EXPECT_EQ(typed<float>(*frame).value(10), before);
}
