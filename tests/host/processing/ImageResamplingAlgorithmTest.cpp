// ImageResamplingAlgorithm: exact copies onto the same grid, linear ramps reproduced exactly
// inside the image (also onto a grid turned by 20 degrees), nearest samples of the nearest centre, the
// target grid rules (spacing, preserved extent, dimensions, 2D) checked against the centred-pixel
// formula written out here, the border rule, and the refusals with their messages.

#include "host/processing/ImageResamplingAlgorithm.h"

#include "ProcessingFixtures.h"

#include "host/core/Log.h"
#include "host/core/Properties.h"

#include <gtest/gtest.h>

#include <Eigen/Geometry>
#include <cmath>
#include <cstring>

using namespace Velmoria;
using namespace Velmoria::ImageProcessing;
using namespace Velmoria::ProcessingTest;

namespace {

using Mode = ImageResamplingAlgorithm::InterpolationMode;

// The continuous pixel index of a world point (M rigid or affine), the inverse of analyticWorld.
Eigen::Vector3d analyticPixel(Eigen::Matrix4d const& m, Eigen::Vector3i const& dims,
                              Eigen::Vector3d const& spacing, Eigen::Vector3d const& world)
{
    Eigen::Vector3d const image = m.topLeftCorner<3, 3>().inverse() * (world - m.topRightCorner<3, 1>());
    Eigen::Vector3d p;
    for (int a = 0; a < 3; ++a)
        p[a] = image[a] / spacing[a] + (dims[a] - 1) / 2.0;
    return p;
}

std::unique_ptr<SharedImageSet> run(ImageResamplingAlgorithm& algorithm, SharedImageSet const& input)
{
    algorithm.setInput(&input);
    algorithm.compute();
    return algorithm.takeOutputSet();
}

// A frame whose stored values follow ramp(x, y, z, c) = (c + 1) · (2x + 3y − z) + 20 + 30c.
template <class T>
std::shared_ptr<SharedImage> rampFrame(Eigen::Vector3i const& dims, int channels = 1)
{
    auto pixels = TypedImage<T>::zeros(dims, channels);
    for (int z = 0; z < dims.z(); ++z)
        for (int y = 0; y < dims.y(); ++y)
            for (int x = 0; x < dims.x(); ++x)
                for (int c = 0; c < channels; ++c)
                    pixels->setValue(static_cast<T>((c + 1) * (2 * x + 3 * y - z) + 20 + 30 * c), x, y, z, c);
    pixels->setSpacing(Eigen::Vector3d(0.8, 1.1, 1.5), true);
    pixels->setShiftScale(2.0, 4.0);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(testMatrix());
    return frame;
}

double ramp(Eigen::Vector3d const& p, int c)
{
    return (c + 1) * (2 * p.x() + 3 * p.y() - p.z()) + 20 + 30 * c;
}

// A grid over the same centre, turned by 20 degrees about the image z axis.
Eigen::Matrix4d turnedMatrix(Eigen::Matrix4d const& m)
{
    Eigen::Matrix4d turn = Eigen::Matrix4d::Identity();
    turn.topLeftCorner<3, 3>() =
        Eigen::AngleAxisd(20.0 * M_PI / 180.0, Eigen::Vector3d::UnitZ()).toRotationMatrix();
    return m * turn;
}

template <class T>
class ResamplingTypedTest : public ::testing::Test
{};
TYPED_TEST_SUITE(ResamplingTypedTest, AllPixelTypes);

// The same grid gives an exact copy. Halving the spacing of a ramp in a linear interpolation:
// every new pixel lies inside the source or within half a pixel of its edge, where the edge
// value is replicated.
TYPED_TEST(ResamplingTypedTest, SameGridIsExactAndLinearRampWithinRounding)
{
    using T = TypeParam;
    SharedImageSet input(rampFrame<T>({5, 4, 3}, 2));
    for (Mode mode : {Mode::Nearest, Mode::Linear}) {
        ImageResamplingAlgorithm algorithm;
        algorithm.setInterpolation(mode);
        algorithm.setTargetSpacing(input.get(0)->spacing());
        auto output = run(algorithm, input);
        ASSERT_EQ(algorithm.status(), Algorithm::Success);
        ASSERT_EQ(output->size(), 1);
        EXPECT_EQ(output->get(0)->descriptor(), input.get(0)->descriptor());
        EXPECT_TRUE(output->get(0)->matrixToWorld().isApprox(testMatrix()));
        EXPECT_EQ(std::memcmp(output->mem(0)->data(), input.mem(0)->data(), input.mem(0)->byteSize()), 0);
    }

    ImageResamplingAlgorithm algorithm;
    algorithm.setTargetDimensions({10, 8, 6});
    auto output = run(algorithm, input);
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    SharedImage const& out = *output->get(0);
    EXPECT_EQ(out.pixelType(), input.get(0)->pixelType());
    EXPECT_EQ(out.descriptor().shift, 2.0);
    EXPECT_EQ(out.descriptor().scale, 4.0);
    EXPECT_TRUE(out.spacing().isApprox(Eigen::Vector3d(0.4, 0.55, 0.75)));
    // Integers round to the nearest value: ties (x.5) may go either way.
    double const tolerance = std::is_integral_v<T> ? 0.5 + 1e-9 : 1e-4;
    for (int z = 0; z < 6; ++z)
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 10; ++x) {
                Eigen::Vector3d const world =
                    analyticWorld(testMatrix(), {10, 8, 6}, out.spacing(), Eigen::Vector3d(x, y, z));
                Eigen::Vector3d p = analyticPixel(testMatrix(), {5, 4, 3}, {0.8, 1.1, 1.5}, world);
                p = p.cwiseMax(Eigen::Vector3d::Zero()).cwiseMin(Eigen::Vector3d(4, 3, 2));
                for (int c = 0; c < 2; ++c)
                    ASSERT_NEAR(static_cast<double>(typed<T>(out).value(x, y, z, c)), ramp(p, c), tolerance)
                        << x << " " << y << " " << z << " " << c;
            }
}

// Onto a grid turned by 20 degrees with another spacing: a trilinear sample of a linear ramp is
// exact wherever the sample lies between source pixel centres; pixels whose centre is more than
// half a pixel outside the source are 0; nearest samples the nearest centre.
TEST(ResamplingTurnedGridTest, RampExactInsideAndZeroOutside)
{
    SharedImageSet input(rampFrame<float>({12, 10, 8}));
    Eigen::Vector3i const dims(14, 12, 9);
    Eigen::Vector3d const spacing(0.7, 0.9, 1.3);
    ImageDescriptorWorld target(ImageDescriptor(PixelType::Float, dims), turnedMatrix(testMatrix()));
    target.descriptor().spacing = spacing;
    for (Mode mode : {Mode::Linear, Mode::Nearest}) {
        ImageResamplingAlgorithm algorithm;
        algorithm.setInterpolation(mode);
        algorithm.setTargetDescriptorWorlds({target});
        auto output = run(algorithm, input);
        ASSERT_EQ(algorithm.status(), Algorithm::Success);
        SharedImage const& out = *output->get(0);
        EXPECT_TRUE(out.matrixToWorld().isApprox(turnedMatrix(testMatrix())));
        EXPECT_EQ(out.dimensions(), dims);
        auto const& pixels = typed<float>(out);
        int inside = 0, outside = 0;
        for (int z = 0; z < dims.z(); ++z)
            for (int y = 0; y < dims.y(); ++y)
                for (int x = 0; x < dims.x(); ++x) {
                    Eigen::Vector3d const world =
                        analyticWorld(target.matrixToWorld(), dims, spacing, {1.0 * x, 1.0 * y, 1.0 * z});
                    Eigen::Vector3d const p =
                        analyticPixel(testMatrix(), {12, 10, 8}, {0.8, 1.1, 1.5}, world);
                    double const v = pixels.value(x, y, z);
                    if ((p.array() >= 0.0).all() && (p.array() <= Eigen::Array3d(11, 9, 7)).all()) {
                        ++inside;
                        Eigen::Vector3d const expected =
                            mode == Mode::Linear ? p : Eigen::Vector3d(p.array().round());
                        if (mode == Mode::Nearest &&
                            ((p.array() - p.array().floor() - 0.5).abs() < 1e-6).any())
                            continue; // a tie: either neighbour is right
                        ASSERT_NEAR(v, ramp(expected, 0), 1e-3) << x << " " << y << " " << z;
                    } else if ((p.array() < -0.51).any() ||
                               (p.array() > Eigen::Array3d(11.51, 9.51, 7.51)).any()) {
                        ++outside;
                        ASSERT_EQ(v, 0.0f) << x << " " << y << " " << z;
                    }
                }
        EXPECT_GT(inside, 300);
        EXPECT_GT(outside, 50);
    }
}

// The world positions of the new grid's pixels follow from the kept matrix (centre kept).
struct SpacingCase
{
    Eigen::Vector3i dims;
    Eigen::Vector3d spacing, target;
    bool preserve;
    Eigen::Vector3i expectedDims;
    Eigen::Vector3d expectedSpacing;
};

// Test names in failure output (gtest would otherwise dump the bytes, padding included).
void PrintTo(SpacingCase const& c, std::ostream* os)
{
    *os << "target " << c.target.transpose() << (c.preserve ? ", extent kept" : "");
}

class ResamplingSpacingTest : public ::testing::TestWithParam<SpacingCase>
{};

TEST_P(ResamplingSpacingTest, DimensionsSpacingAndCentre)
{
    SpacingCase const& c = GetParam();
    auto pixels = TypedImage<short>::zeros(c.dims, 1);
    pixels->setSpacing(c.spacing, true);
    auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels)));
    frame->setMatrixToWorld(testMatrix());
    SharedImageSet input(frame);
    ImageResamplingAlgorithm algorithm;
    algorithm.setTargetSpacing(c.target);
    Properties properties;
    properties.setParam("preserveExtent", c.preserve ? "true" : "false");
    algorithm.configure(&properties);
    auto output = run(algorithm, input);
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    SharedImage const& out = *output->get(0);
    EXPECT_EQ(out.dimensions(), c.expectedDims);
    EXPECT_TRUE(out.spacing().isApprox(c.expectedSpacing, 1e-12)) << out.spacing().transpose();
    // The centre of the old and the new grid is the same world point: the matrix stays.
    EXPECT_TRUE(out.matrixToWorld().isApprox(testMatrix(), 1e-12));
}

INSTANTIATE_TEST_SUITE_P(
    Targets, ResamplingSpacingTest,
    ::testing::Values(
        // extent 10 / 3 = 3.33 -> 3 pixels of 3 mm, or of 10/3 mm with the extent kept.
        SpacingCase{{10, 6, 4}, {1, 1, 1}, {3, 1, 2}, false, {3, 6, 2}, {3, 1, 2}},
        SpacingCase{{10, 6, 4}, {1, 1, 1}, {3, 1, 2}, true, {3, 6, 2}, {10.0 / 3.0, 1, 2}},
        // 25 · 0.6 / 1.5 = 10 exactly; 7 · 2 / 0.5 = 28; round half up: 5 · 1 / 2 = 2.5 -> 3.
        SpacingCase{{25, 7, 5}, {0.6, 2, 1}, {1.5, 0.5, 2}, false, {10, 28, 3}, {1.5, 0.5, 2}},
        SpacingCase{{25, 7, 5}, {0.6, 2, 1}, {1.5, 0.5, 2}, true, {10, 28, 3}, {1.5, 0.5, 5.0 / 3.0}},
        // A 2D image stays 2D with its z spacing, whatever the target says.
        SpacingCase{{8, 8, 1}, {1, 1, 4}, {2, 2, 1}, false, {4, 4, 1}, {2, 2, 4}},
        // A target coarser than the extent still leaves one pixel.
        SpacingCase{{4, 4, 4}, {1, 1, 1}, {100, 1, 1}, false, {1, 4, 4}, {100, 1, 1}}));

TEST(ResamplingDimensionsTest, ExtentKeptAndPlanarSourceInterpolatedBilinearly)
{
    // 2D ramp of 4 x 3 onto 7 x 5: spacing extent / dims, values bilinear within the slice.
    SharedImageSet input(rampFrame<double>({4, 3, 1}));
    ImageResamplingAlgorithm algorithm;
    algorithm.setTargetDimensions({7, 5, 1});
    auto output = run(algorithm, input);
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    SharedImage const& out = *output->get(0);
    EXPECT_TRUE(out.spacing().isApprox(Eigen::Vector3d(0.8 * 4 / 7, 1.1 * 3 / 5, 1.5)));
    auto const& pixels = typed<double>(out);
    // New pixel (x, y) lies at source pixel ((x + 0.5) · 4 / 7 − 0.5, (y + 0.5) · 3 / 5 − 0.5),
    // clamped to the outermost centres (edge replicated over the outer half pixel).
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            Eigen::Vector3d p(std::clamp((x + 0.5) * 4 / 7 - 0.5, 0.0, 3.0),
                              std::clamp((y + 0.5) * 3 / 5 - 0.5, 0.0, 2.0), 0);
            EXPECT_NEAR(pixels.value(x, y, 0), ramp(p, 0), 1e-9) << x << " " << y;
        }
}

TEST(ResamplingSetTest, EveryFrameOwnTargetAndSetKept)
{
    SharedImageSet input;
    input.add(rampFrame<float>({6, 5, 4}));
    input.add(rampFrame<float>({3, 3, 3}));
    input.setName("pair");
    input.setModality(Data::Modality::CT);
    ImageDescriptorWorld a(ImageDescriptor(PixelType::Float, {2, 2, 2}), testMatrix());
    ImageDescriptorWorld b(ImageDescriptor(PixelType::Float, {4, 1, 1}), Eigen::Matrix4d::Identity());
    ImageResamplingAlgorithm algorithm;
    algorithm.setTargetDescriptorWorlds({a, b});
    algorithm.setInput(&input);
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    OwningDataList list = algorithm.takeOutput();
    ASSERT_EQ(list.size(), 1);
    auto* output = dynamic_cast<SharedImageSet*>(list.getItem(0));
    ASSERT_TRUE(output);
    EXPECT_EQ(output->name(), "pair");
    EXPECT_EQ(output->get(0)->dimensions(), Eigen::Vector3i(2, 2, 2));
    EXPECT_EQ(output->get(1)->dimensions(), Eigen::Vector3i(4, 1, 1));
    EXPECT_TRUE(output->get(1)->matrixToWorld().isIdentity());
    EXPECT_EQ(output->get(0)->modality(), Data::Modality::CT);
    EXPECT_EQ(algorithm.takeOutput().size(), 0);
    // Clearing the explicit grids lets the spacing decide again.
    algorithm.setTargetDescriptorWorlds({});
    algorithm.setTargetSpacing(1.6);
    algorithm.compute();
    ASSERT_EQ(algorithm.status(), Algorithm::Success);
    EXPECT_EQ(algorithm.takeOutputSet()->get(0)->dimensions(), Eigen::Vector3i(3, 3, 4));
}

TEST(ResamplingAliasingTest, SmoothingOnlyWhenAskedInTheTextConfiguration)
{
    // A checkerboard along x (columns of 0 and 100) reduced in resolution: without smoothing the
    // samples pick single columns; with it they are pulled towards the mean.
    auto pixels = TypedImage<float>::zeros(Eigen::Vector3i(16, 4, 4), 1);
    for (std::size_t i = 0; i < pixels->valueCount(); ++i)
        pixels->setValue(i % 2 ? 100.0f : 0.0f, i);
    SharedImageSet input(std::make_shared<SharedImage>(std::shared_ptr<Image>(std::move(pixels))));
    ImageDescriptorWorld linear(ImageDescriptor(PixelType::Float, {5, 4, 4}));
    linear.descriptor().spacing = Eigen::Vector3d(3, 1, 1);
    ImageDescriptorWorld nearest(ImageDescriptor(PixelType::Float, {4, 4, 4}));
    nearest.descriptor().spacing = Eigen::Vector3d(4, 1, 1);
    for (std::string const reduce : {"0", "1"}) {
        SCOPED_TRACE("reduceAliasing " + reduce);
        Properties properties;
        properties.setParam("reduceAliasing", reduce);
        ImageResamplingAlgorithm algorithm;
        algorithm.configure(&properties);
        algorithm.setTargetDescriptorWorlds({linear});
        auto output = run(algorithm, input);
        ASSERT_EQ(algorithm.status(), Algorithm::Success);
        // Target pixel 2 is at source x = 7.5: 50 either way; pixel 0 at 1.5, 50 unless the
        // smoothed edge leans on the clamped border.
        EXPECT_NEAR(typed<float>(*output->get(0)).value(2, 1, 1), 50.0f, 1e-3);
        if (reduce == "0") {
            EXPECT_NEAR(typed<float>(*output->get(0)).value(0, 1, 1), 50.0f, 1e-3);
        }

        // Nearest at source x 1.5, 5.5, ...: ties, resolved to column 6 (0) unless smoothed.
        properties.setParam("interpolation", "0");
        algorithm.configure(&properties);
        algorithm.setTargetDescriptorWorlds({nearest});
        float const v = typed<float>(*run(algorithm, input)->get(0)).value(1, 1, 1);
        if (reduce == "1") {
            EXPECT_GT(v, 5.0f);
        } else {
            EXPECT_EQ(v, 0.0f);
        }
    }
}

using ResamplingRefusal = Refusal<ImageResamplingAlgorithm, SharedImageSet>;

class ResamplingRefusalTest : public ::testing::TestWithParam<ResamplingRefusal>
{};

TEST_P(ResamplingRefusalTest, InvalidInputWithMessage)
{
    SharedImageSet input(rampFrame<float>({4, 4, 4}));
    input.add(rampFrame<float>({4, 4, 4}));
    input.add(rampFrame<float>({4, 4, 4}));
    input.setName("three");
    ImageResamplingAlgorithm algorithm(&input);
    GetParam().setup(algorithm, input);
    expectRefused(algorithm, GetParam().message, "Host.ImageResamplingAlgorithm");
    EXPECT_EQ(algorithm.takeOutputSet(), nullptr);
}

ImageDescriptorWorld grid(Eigen::Vector3i const& dims, Eigen::Matrix4d const& m = Eigen::Matrix4d::Identity())
{
    return ImageDescriptorWorld(ImageDescriptor(PixelType::Float, dims), m);
}

Eigen::Matrix4d flat()
{
    Eigen::Matrix4d m = Eigen::Matrix4d::Identity();
    m(2, 2) = 0.0;
    return m;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ResamplingRefusalTest,
    ::testing::Values(
        ResamplingRefusal{"NoTarget", [](auto&, auto&) {},
                          "No target set: call setTargetSpacing, setTargetDimensions or "
                          "setTargetDescriptorWorlds before compute"},
        ResamplingRefusal{"NoInput",
                          [](auto& a, auto&) {
                              a.setInput(nullptr);
                              a.setTargetSpacing(1.0);
                          },
                          "No input set"},
        ResamplingRefusal{"ZeroSpacing", [](auto& a, auto&) { a.setTargetSpacing(Eigen::Vector3d(1, 0, 1)); },
                          "Target spacing [1, 0, 1] must be positive and finite"},
        ResamplingRefusal{
            "HugeDims", [](auto& a, auto&) { a.setTargetSpacing(1e-9); },
            "Target spacing [1e-09, 1e-09, 1e-09] gives more than 1048576 pixels along axis 0 of "
            "frame 0"},
        ResamplingRefusal{"ZeroDims",
                          [](auto& a, auto&) {
                              a.setTargetDimensions({4, 0, 4});
                          },
                          "Target dimensions [4, 0, 4] must lie between 1 and 1048576"},
        ResamplingRefusal{"TwoGridsForThree",
                          [](auto& a, auto&) {
                              a.setTargetDescriptorWorlds({grid({2, 2, 2}), grid({2, 2, 2})});
                          },
                          "2 target grids given for 3 frames (expected 1 or one per frame)"},
        ResamplingRefusal{
            "SingularTargetMatrix",
            [](auto& a, auto&) {
                a.setTargetDescriptorWorlds({grid({2, 2, 2}, flat())});
            },
            "Target grid of frame 0 is invalid: dimensions [2, 2, 2], spacing [1, 1, 1], matrix "
            "[1 0 0 0, 0 1 0 0, 0 0 0 0, 0 0 0 1] (needs positive sizes and spacing and an "
            "invertible affine matrix)"},
        ResamplingRefusal{"SingularSourceMatrix",
                          [](auto& a, auto& input) {
                              input.get(1)->setMatrixToWorld(flat());
                              a.setTargetSpacing(2.0);
                          },
                          "Frame 1 of 'three' has the matrix [1 0 0 0, 0 1 0 0, 0 0 0 0, 0 0 0 1], which is "
                          "not an invertible affine map"},
        ResamplingRefusal{"BadInterpolation",
                          [](auto& a, auto&) {
                              a.setTargetSpacing(1.0);
                              a.p_interpolation.setValue(3);
                          },
                          "Unknown interpolation 3 (0 Nearest, 1 Linear)"}),
    [](auto const& info) { return std::string(info.param.name); });

} // namespace
