// Smooth and HighPass against a plain (non-separable) Gaussian convolution with
// clamped borders, on every pixel type (integer input becomes float), plus
// sizes, units, geometry and configuration forms. Their messages are in
// CatalogueTest.

#include "ml/operations/catalogue/FilterOperations.h"

#include "ml/TestHelpers.h"
#include "ml/operations/CatalogueTestHelpers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

// MLTest::placedFrame's spacing.
Eigen::Vector3d const kSpacing(0.7, 1.1, 2.5);
constexpr char const* kNotFloat = "Input was not float - adding an implicit MakeFloatOperation.";

// Normalised Gaussian weights of radius ceil(3 sigma); {1} for sigma 0 or a
// one-voxel axis.
std::vector<double> weights(double sigma, int extent)
{
    if (sigma == 0.0 || extent == 1)
        return {1.0};
    int const radius = static_cast<int>(std::ceil(3.0 * sigma));
    std::vector<double> w;
    double total = 0.0;
    for (int i = -radius; i <= radius; ++i) {
        w.push_back(std::exp(-0.5 * i * i / (sigma * sigma)));
        total += w.back();
    }
    for (double& v : w)
        v /= total;
    return w;
}

// Direct 3D convolution with the product kernel, clamping samples to the border
// voxel.
std::vector<double> referenceSmooth(std::vector<double> const& x, Eigen::Vector3i const& size, int channels,
                                    Eigen::Vector3d const& sigmaVoxels)
{
    std::vector<double> const wx = weights(sigmaVoxels.x(), size.x());
    std::vector<double> const wy = weights(sigmaVoxels.y(), size.y());
    std::vector<double> const wz = weights(sigmaVoxels.z(), size.z());
    int const rx = static_cast<int>(wx.size() / 2), ry = static_cast<int>(wy.size() / 2),
              rz = static_cast<int>(wz.size() / 2);
    auto const at = [&](int px, int py, int pz, int c) {
        px = std::clamp(px, 0, size.x() - 1);
        py = std::clamp(py, 0, size.y() - 1);
        pz = std::clamp(pz, 0, size.z() - 1);
        return x[((static_cast<std::size_t>(pz) * size.y() + py) * size.x() + px) * channels + c];
    };
    std::vector<double> out(x.size());
    for (int z = 0; z < size.z(); ++z)
        for (int y = 0; y < size.y(); ++y)
            for (int xx = 0; xx < size.x(); ++xx)
                for (int c = 0; c < channels; ++c) {
                    double total = 0.0;
                    for (int k = -rz; k <= rz; ++k)
                        for (int j = -ry; j <= ry; ++j)
                            for (int i = -rx; i <= rx; ++i)
                                total += wz[k + rz] * wy[j + ry] * wx[i + rx] * at(xx + i, y + j, z + k, c);
                    out[((static_cast<std::size_t>(z) * size.y() + y) * size.x() + xx) * channels + c] =
                        total;
                }
    return out;
}

// A size and unit of Smooth and the sigma in voxels they give on placedFrame's
// spacing.
struct SmoothCase
{
    std::string name;
    Eigen::Vector3d halfKernelSize;
    bool inMm;
};

std::vector<SmoothCase> smoothCases()
{
    return {
        {"Default", Eigen::Vector3d::Ones(), false},
        {"Isotropic2", Eigen::Vector3d::Constant(2.0), false},
        {"Anisotropic", Eigen::Vector3d(1.5, 3.0, 1.0), false},
        {"Millimetres", Eigen::Vector3d(2.0, 2.0, 3.0), true},
    };
}

Eigen::Vector3d sigmaVoxels(SmoothCase const& c)
{
    Eigen::Vector3d sigma = c.halfKernelSize / 3.0;
    return c.inMm ? Eigen::Vector3d(sigma.cwiseQuotient(kSpacing)) : sigma;
}

// ---- Against the reference, every pixel type
// -------------------------------------------------

template <class T>
class FilterOperationsTest : public ::testing::Test
{};
TYPED_TEST_SUITE(FilterOperationsTest, AllPixelTypes);

TYPED_TEST(FilterOperationsTest, SmoothMatchesTheReferenceConvolution)
{
    Eigen::Vector3i const size(7, 6, 4);
    int const channels = 2;
    auto const stored = randomStored<TypeParam>(static_cast<std::size_t>(size.prod() * channels), 17);
    auto const x = originalsOf<TypeParam>(stored);
    for (SmoothCase const& c : smoothCases()) {
        SCOPED_TRACE(c.name);
        std::shared_ptr<SharedImageSet> set = std::make_shared<SharedImageSet>(
            MLTest::placedFrame<TypeParam>(size, channels, stored, kShift, kScale));
        auto const before = set->getShared(0);
        Log::Capture capture;
        set = SmoothOperation(c.halfKernelSize, c.inMm).process(set);
        EXPECT_EQ(capture.contains(kNotFloat, "ML.Smooth"), (!std::is_same_v<TypeParam, float>));
        SharedImage const& out = *set->get(0);
        ASSERT_EQ(out.pixelType(), PixelType::Float);
        EXPECT_EQ(out.spacing(), before->spacing());
        EXPECT_TRUE(out.matrixToWorld().isApprox(before->matrixToWorld()));
        auto const expected = referenceSmooth(x, size, channels, sigmaVoxels(c));
        for (std::size_t i = 0; i < expected.size(); ++i)
            ASSERT_NEAR(originalAt(out, i), expected[i], 1e-4 * (1.0 + std::abs(expected[i]))) << i;
    }
}

TYPED_TEST(FilterOperationsTest, HighPassIsTheInputLessItsSmoothing)
{
    Eigen::Vector3i const size(6, 5, 3);
    int const channels = 3;
    auto const stored = randomStored<TypeParam>(static_cast<std::size_t>(size.prod() * channels), 23);
    auto const x = originalsOf<TypeParam>(stored);
    for (int h : {1, 2}) {
        SCOPED_TRACE(h);
        std::shared_ptr<SharedImageSet> set = std::make_shared<SharedImageSet>(
            MLTest::placedFrame<TypeParam>(size, channels, stored, kShift, kScale));
        set = HighPassOperation(h).process(set);
        SharedImage const& out = *set->get(0);
        ASSERT_EQ(out.pixelType(), PixelType::Float);
        EXPECT_TRUE(out.matrixToWorld().isApprox(MLTest::placedFrameMatrix()));
        auto const smooth = referenceSmooth(x, size, channels, Eigen::Vector3d::Constant(h / 3.0));
        for (std::size_t i = 0; i < x.size(); ++i)
            ASSERT_NEAR(originalAt(out, i), x[i] - smooth[i], 1e-4 * (1.0 + std::abs(x[i]))) << i;
    }
}

// ---- Constant images
// ---------------------------------------------------------------------------

struct ConstantCase
{
    std::string name;
    Eigen::Vector3i size;
    int channels;
};

class FilterOfConstantImage : public ::testing::TestWithParam<ConstantCase>
{};

TEST_P(FilterOfConstantImage, SmoothKeepsItAndHighPassGivesZero)
{
    ConstantCase const& c = GetParam();
    auto const count = static_cast<std::size_t>(c.size.prod() * c.channels);
    std::vector<double> values(count);
    for (std::size_t i = 0; i < count; ++i)
        values[i] = 5.25 + static_cast<double>(i % static_cast<std::size_t>(c.channels)); // per channel
    auto smoothed = std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(c.size, c.channels, values));
    auto const frame = smoothed->getShared(0);
    smoothed = SmoothOperation(Eigen::Vector3d(2.0, 1.0, 2.0)).process(smoothed);
    EXPECT_EQ(smoothed->getShared(0), frame) << "a float image is smoothed in place";
    EXPECT_TRUE(frame->isGlDirty()) << "the GPU copy is marked stale";
    auto highPass = std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(c.size, c.channels, values));
    highPass = HighPassOperation(2).process(highPass);
    // Corners, edges and interior alike.
    for (std::size_t i = 0; i < count; ++i) {
        ASSERT_NEAR(storedAt(*smoothed->get(0), i), values[i], 1e-5) << i;
        ASSERT_NEAR(storedAt(*highPass->get(0), i), 0.0, 1e-5) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, FilterOfConstantImage,
                         ::testing::Values(ConstantCase{"Volume", Eigen::Vector3i(6, 5, 4), 1},
                                           ConstantCase{"Slice", Eigen::Vector3i(7, 5, 1), 3},
                                           ConstantCase{"Line", Eigen::Vector3i(9, 1, 1), 4}),
                         [](auto const& info) { return info.param.name; });

TEST(Smooth, ReadsOneTwoOrThreeNumbers)
{
    struct Form
    {
        char const* text;
        Eigen::Vector3d expected;
    };
    for (Form const& c :
         {Form{"2.5", Eigen::Vector3d::Constant(2.5)}, Form{"2 3", {2, 3, 7}}, Form{"1 2 3", {1, 2, 3}}}) {
        SmoothOperation smooth(Eigen::Vector3d(9, 9, 7));
        Log::Capture capture;
        ASSERT_TRUE(
            smooth.configure(Properties{{"half_kernel_size", c.text}, {"kernel_size_in_mm", "true"}}));
        EXPECT_EQ(smooth.p_halfKernelSize.value(), c.expected) << c.text;
        EXPECT_TRUE(smooth.p_kernelSizeInMm.value());
        EXPECT_FALSE(capture.containsFragment("was specified but not used"));
    }
}

// Sizes up to the extent of the image are accepted; larger ones are refused
// (see CatalogueTest).
TEST(Smooth, SizesUpToTheImageAreAccepted)
{
    // 6 x 5 x 4 voxels of 0.7 x 1.1 x 2.5 mm: radii of 6, 5 and 4 voxels are the
    // extents exactly.
    for (bool const inMm : {false, true}) {
        auto const set = std::make_shared<SharedImageSet>(
            MLTest::placedFrame<float>(Eigen::Vector3i(6, 5, 4), 1, std::vector<double>(120, 0.0)));
        static_cast<TypedImage<float>&>(*set->get(0)->mem()).setValue(1.0F, std::size_t{0});
        SmoothOperation smooth(inMm ? Eigen::Vector3d(4, 5, 8) : Eigen::Vector3d(5, 4, 3), inMm);
        EXPECT_EQ(errorOf(smooth, set), "no error") << inMm;
        EXPECT_LT(storedAt(*set->get(0), 0), 1.0) << "the peak was smoothed";
    }
    // A two-dimensional image ignores the size along z.
    auto flat = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(Eigen::Vector3i(4, 4, 1), 1, std::vector<double>(16, 2.0)));
    flat = SmoothOperation(Eigen::Vector3d(1, 1, 50)).process(flat);
    EXPECT_NEAR(storedAt(*flat->get(0), 5), 2.0, 1e-6);
}

TEST(HighPass, ForcedOnTheCpuWarnsAndStillComputes)
{
    auto const set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(Eigen::Vector3i(3, 3, 1), 1, std::vector<double>(9, 1.0)));
    HighPassOperation forced;
    forced.setComputingDevice(ComputingDevice::ForceCPU);
    Log::Capture capture;
    ASSERT_NE(forced.process(set), nullptr);
    EXPECT_TRUE(capture.contains("HighPass was forced to run on CPU but is not implemented for that yet.",
                                 "ML.HighPass"));
    EXPECT_NEAR(storedAt(*set->get(0), 4), 0.0, 1e-6);
}

} // namespace
