// The operations that compute pixel values (intensity, normalisation, grey conversion, smoothing)
// against plain reference loops on every pixel type: two frames stored with a shift and scale,
// compared in original intensities, with the geometry kept. Then the edge cases of the intensity,
// filter and normalisation operations (masks, percentiles, worked examples, and the statistics of
// NormalizeNormal on volumes large enough to be split between threads). The messages are in
// CatalogueTest.

#include "ml/TestHelpers.h"
#include "ml/data/DataItem.h"
#include "ml/data/VectorElement.h"
#include "ml/operations/CatalogueTestHelpers.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/catalogue/ChannelOperations.h"
#include "ml/operations/catalogue/FilterOperations.h"
#include "ml/operations/catalogue/IntensityOperations.h"
#include "ml/operations/catalogue/NormalizationOperations.h"

#include "host/image/DisplayOptions.h"
#include "host/image/Mask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;
using namespace Velmoria::ML::CatalogueTests;

namespace {

Eigen::Vector3i const kSize(6, 5, 4);
// MLTest::placedFrame's spacing.
Eigen::Vector3d const kSpacing(0.7, 1.1, 2.5);

// Original intensities of one frame (interleaved channels), frame by frame.
using Frames = std::vector<std::vector<double>>;
// The expected original intensities of the output frames.
using Reference = std::function<Frames(Frames const& x, int channels)>;

// How the result is stored: in the input's type and storage (integers truncate or round to the
// nearest value, and saturate), or as plain float or byte values.
enum class Output
{
    Truncated,
    Rounded,
    Float,
    Bytes
};

struct PixelCase
{
    std::string name;
    std::function<std::unique_ptr<Operation>()> make;
    int channels;
    Reference reference;
    Output output;
    double tolerance; // relative, at least 1
};

// A formula applied value by value (c: the channel).
Reference perValue(std::function<double(double x, int c)> f)
{
    return [f](Frames const& x, int channels) {
        Frames out = x;
        for (auto& frame : out)
            for (std::size_t i = 0; i < frame.size(); ++i)
                frame[i] = f(frame[i], static_cast<int>(i % channels));
        return out;
    };
}

// A formula applied to each channel of each frame (all: every value of the frame) ...
Reference
perChannel(std::function<std::vector<double>(std::vector<double> const& x, std::vector<double> const& all)> f)
{
    return [f](Frames const& x, int channels) {
        Frames out = x;
        for (std::size_t frame = 0; frame < x.size(); ++frame)
            for (int c = 0; c < channels; ++c) {
                std::vector<double> values;
                for (std::size_t i = c; i < x[frame].size(); i += channels)
                    values.push_back(x[frame][i]);
                std::vector<double> const result = f(values, x[frame]);
                for (std::size_t p = 0; p < result.size(); ++p)
                    out[frame][p * channels + c] = result[p];
            }
        return out;
    };
}

// ... or to each channel over all frames together.
Reference perChannelOfTheSet(std::function<double(double x, double mean, double deviation)> f)
{
    return [f](Frames const& x, int channels) {
        std::vector<double> n(channels, 0.0), mean(channels, 0.0), var(channels, 0.0);
        for (auto const& frame : x)
            for (std::size_t i = 0; i < frame.size(); ++i) {
                n[i % channels] += 1.0;
                mean[i % channels] += frame[i];
            }
        for (int c = 0; c < channels; ++c)
            mean[c] /= n[c];
        for (auto const& frame : x)
            for (std::size_t i = 0; i < frame.size(); ++i)
                var[i % channels] += std::pow(frame[i] - mean[i % channels], 2) / n[i % channels];
        Frames out = x;
        for (auto& frame : out)
            for (std::size_t i = 0; i < frame.size(); ++i)
                frame[i] = f(frame[i], mean[i % channels], std::sqrt(var[i % channels]));
        return out;
    };
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    std::size_t const n = values.size();
    return n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
}

Reference mad(bool fixMedian)
{
    return perChannel([fixMedian](std::vector<double> const& x, std::vector<double> const&) {
        double const m = median(x);
        std::vector<double> deviations;
        for (double v : x)
            deviations.push_back(std::abs(v - m));
        double const d = median(deviations);
        std::vector<double> out;
        for (double v : x)
            out.push_back((v - m) / d + (fixMedian ? m : 0.0));
        return out;
    });
}

// (x - lo) / (hi - lo) * (max - min) + min, with lo and hi the range of the channel or of the frame.
Reference minMax(double min, double max, bool wholeFrame)
{
    return perChannel([=](std::vector<double> const& x, std::vector<double> const& all) {
        auto const [lo, hi] = wholeFrame ? std::minmax_element(all.begin(), all.end())
                                         : std::minmax_element(x.begin(), x.end());
        std::vector<double> out;
        for (double v : x)
            out.push_back((v - *lo) / (*hi - *lo) * (max - min) + min);
        return out;
    });
}

// The average of the channels of each pixel.
Reference grey()
{
    return [](Frames const& x, int channels) {
        Frames out;
        for (auto const& frame : x) {
            out.emplace_back();
            for (std::size_t p = 0; p < frame.size(); p += channels) {
                double total = 0.0;
                for (int c = 0; c < channels; ++c)
                    total += frame[p + c];
                out.back().push_back(total / channels);
            }
        }
        return out;
    };
}

// Normalised Gaussian weights of radius ceil(3 sigma); {1} for sigma 0 or a one-voxel axis.
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

// Direct 3D convolution with the product kernel, clamping samples to the border voxel; with
// highPass, the input less that.
Reference gaussian(Eigen::Vector3d const& sigma, bool highPass = false)
{
    return [=](Frames const& x, int channels) {
        std::vector<double> const w[3] = {weights(sigma.x(), kSize.x()), weights(sigma.y(), kSize.y()),
                                          weights(sigma.z(), kSize.z())};
        Frames out = x;
        for (std::size_t f = 0; f < x.size(); ++f)
            forEachPixel(kSize, [&](Eigen::Vector3i const& p) {
                for (int c = 0; c < channels; ++c) {
                    double total = 0.0;
                    forEachPixel(Eigen::Vector3i(static_cast<int>(w[0].size()), static_cast<int>(w[1].size()),
                                                 static_cast<int>(w[2].size())),
                                 [&](Eigen::Vector3i const& k) {
                                     Eigen::Vector3i q;
                                     for (int a = 0; a < 3; ++a)
                                         q[a] = std::clamp(p[a] + k[a] - static_cast<int>(w[a].size() / 2), 0,
                                                           kSize[a] - 1);
                                     auto const i =
                                         ((q.z() * kSize.y() + q.y()) * kSize.x() + q.x()) * channels + c;
                                     total += w[0][k.x()] * w[1][k.y()] * w[2][k.z()] * x[f][i];
                                 });
                    auto const i = ((p.z() * kSize.y() + p.y()) * kSize.x() + p.x()) * channels + c;
                    out[f][i] = highPass ? x[f][i] - total : total;
                }
            });
        return out;
    };
}

template <class T, class... Args>
std::function<std::unique_ptr<Operation>()> make(Args... args)
{
    return [=] { return std::make_unique<T>(args...); };
}

std::vector<PixelCase> pixelCases()
{
    std::vector<PixelCase> cases = {
        {"Clip", make<ClipOperation>(-20.0F, 15.0F), 2,
         perValue([](double x, int) { return std::min(std::max(x, -20.0), 15.0); }), Output::Truncated, 1e-6},
        {"ClipMinAboveMax", make<ClipOperation>(10.0F, 5.0F), 2, perValue([](double, int) { return 5.0; }),
         Output::Truncated, 1e-6},
        {"LinearIntensityMapping", make<LinearIntensityMappingOperation>(-1.5, 4.0), 2,
         perValue([](double x, int) { return -1.5 * x + 4.0; }), Output::Truncated, 1e-6},
        {"Invert", make<InvertOperation>(), 2, perValue([](double x, int) { return -x; }), Output::Truncated,
         1e-6},
        {"Threshold", make<ThresholdOperation>(10.5), 2,
         perValue([](double x, int) { return x > 10.5 ? 1.0 : 0.0; }), Output::Truncated, 1e-6},
        {"ThresholdToUbyte", make<ThresholdOperation>(4.0, true), 1,
         perValue([](double x, int) { return x > 4.0 ? 1.0 : 0.0; }), Output::Bytes, 0.0},
        {"AdjustShiftScaleScalar", make<AdjustShiftScaleOperation>(std::vector{7.0}, std::vector{0.5}), 2,
         perValue([](double x, int) { return (x + 7.0) / 0.5; }), Output::Truncated, 1e-6},
        {"AdjustShiftScalePerChannel",
         make<AdjustShiftScaleOperation>(std::vector{2.0, -1.0}, std::vector{0.5, 4.0}), 2,
         perValue([](double x, int c) { return c == 0 ? (x + 2.0) / 0.5 : (x - 1.0) / 4.0; }),
         Output::Truncated, 1e-6},
        {"MakeFloat", make<MakeFloatOperation>(), 3, perValue([](double x, int) { return x; }), Output::Float,
         1e-7},
        {"NormalizeNormal", make<NormalizeNormalOperation>(), 2,
         perChannelOfTheSet([](double x, double mean, double deviation) { return (x - mean) / deviation; }),
         Output::Float, 1e-4},
        {"NormalizeUniform", make<NormalizeUniformOperation>(-2.0F, 3.0F), 2, minMax(-2.0, 3.0, true),
         Output::Float, 1e-5},
        {"NormalizePercentileFullRange", make<NormalizePercentileOperation>(0.0F, 1.0F, true, false), 2,
         minMax(0.0, 1.0, false), Output::Float, 1e-5},
        {"NormalizeMAD", make<NormalizeMADOperation>(), 2, mad(false), Output::Float, 1e-5},
        {"NormalizeMADFixMedian",
         [] {
             auto operation = std::make_unique<NormalizeMADOperation>();
             operation->p_fixMedian.setValue(true);
             return operation;
         },
         2, mad(true), Output::Float, 1e-5},
        // A size and unit of Smooth and the sigma in voxels they give on placedFrame's spacing.
        {"SmoothDefault", make<SmoothOperation>(1.0, false), 2,
         gaussian(Eigen::Vector3d::Constant(1.0 / 3.0)), Output::Float, 1e-4},
        {"SmoothAnisotropic", make<SmoothOperation>(Eigen::Vector3d(1.5, 3.0, 1.0), false), 2,
         gaussian(Eigen::Vector3d(0.5, 1.0, 1.0 / 3.0)), Output::Float, 1e-4},
        {"SmoothMillimetres", make<SmoothOperation>(Eigen::Vector3d(2.0, 2.0, 3.0), true), 2,
         gaussian(Eigen::Vector3d(2.0, 2.0, 3.0).cwiseQuotient(3.0 * kSpacing)), Output::Float, 1e-4},
        {"HighPass1", make<HighPassOperation>(1), 3, gaussian(Eigen::Vector3d::Constant(1.0 / 3.0), true),
         Output::Float, 1e-4},
        {"HighPass2", make<HighPassOperation>(2), 3, gaussian(Eigen::Vector3d::Constant(2.0 / 3.0), true),
         Output::Float, 1e-4}};
    // One channel is passed through, more are averaged.
    for (int channels = 1; channels <= 5; ++channels)
        cases.push_back({"ConvertToGray" + std::to_string(channels), make<ConvertToGrayOperation>(), channels,
                         grey(), Output::Rounded, 1e-6});
    return cases;
}

// What a target of type T stores for the original value r: (r + shift) * scale, saturated and
// truncated or rounded for integers.
template <class T>
double expectedStored(double r, bool round)
{
    double const v = (r + kShift) * kScale;
    if constexpr (std::is_floating_point_v<T>)
        return static_cast<double>(static_cast<T>(v));
    double const bounded =
        std::clamp(v, double(std::numeric_limits<T>::lowest()), double(std::numeric_limits<T>::max()));
    return static_cast<double>(static_cast<T>(round ? std::round(bounded) : bounded));
}

template <class T>
class PixelOperations : public ::testing::Test
{};
TYPED_TEST_SUITE(PixelOperations, AllPixelTypes);

TYPED_TEST(PixelOperations, MatchTheirReferenceAndKeepTheGeometry)
{
    using T = TypeParam;
    auto const pixels = static_cast<std::size_t>(kSize.prod());
    for (PixelCase const& c : pixelCases()) {
        SCOPED_TRACE(c.name);
        std::vector<std::vector<double>> const stored = {randomStored<T>(pixels * c.channels, 5),
                                                         randomStored<T>(pixels * c.channels, 6)};
        auto set = std::make_shared<SharedImageSet>();
        for (auto const& values : stored)
            set->add(MLTest::placedFrame<T>(kSize, c.channels, values, kShift, kScale));
        auto const input = set;
        Frames const expected =
            c.reference({originalsOf<T>(stored[0]), originalsOf<T>(stored[1])}, c.channels);
        Log::Capture capture;
        set = c.make()->process(set);
        ASSERT_NE(set, nullptr);
        ASSERT_EQ(set->size(), 2);
        bool const stays = c.output == Output::Truncated || c.output == Output::Rounded;
        for (int f = 0; f < 2; ++f) {
            SharedImage const& out = *set->get(f);
            EXPECT_TRUE(out.matrixToWorld().isApprox(MLTest::placedFrameMatrix()));
            EXPECT_EQ(out.spacing(), kSpacing);
            ASSERT_EQ(out.mem()->valueCount(), expected[f].size());
            PixelType const type = c.output == Output::Float   ? PixelType::Float
                                   : c.output == Output::Bytes ? PixelType::UChar
                                                               : Utils::pixelTypeId<T>();
            ASSERT_EQ(out.pixelType(), type);
            if (c.output != Output::Float) {
                EXPECT_EQ(out.descriptor().scale, stays ? kScale : 1.0);
            }
            for (std::size_t i = 0; i < expected[f].size(); ++i) {
                double const e = expected[f][i];
                if (stays) {
                    double const s = expectedStored<T>(e, c.output == Output::Rounded);
                    ASSERT_NEAR(storedAt(out, i), s, std::abs(s) * c.tolerance)
                        << "frame " << f << " value " << i;
                } else {
                    ASSERT_NEAR(originalAt(out, i), e, c.tolerance * std::max(1.0, std::abs(e)))
                        << "frame " << f << " value " << i;
                }
            }
        }
        // Integer input is converted into new frames, never written in place.
        if (c.output == Output::Float && !std::is_same_v<T, float>) {
            EXPECT_EQ(input->get(0)->pixelType(), Utils::pixelTypeId<T>());
        }
    }
}

// ---- Edge cases ----------------------------------------------------------------------------------

TEST(NormalizeNormal, ConstantChannelGivesZero)
{
    auto constant = NormalizeNormalOperation().process(floatSet({7, 7, 7}));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(storedAt(*constant->get(0), i), 0.0) << "no division by zero";
}

TEST(Invert, NegatesTheDisplayLevelAndTwiceRestoresEverything)
{
    std::vector<double> const stored = {-3, 0, 2.5, 9};
    auto set = floatSet(stored);
    set->components().getOrCreate<DisplayOptions2d>()->p_level.setValue(40.0);
    set->components().getOrCreate<DisplayOptions3d>()->p_level.setValue(-7.0);
    set = InvertOperation().process(set);
    EXPECT_EQ(set->components().get<DisplayOptions2d>()->p_level.value(), -40.0);
    EXPECT_EQ(set->components().get<DisplayOptions3d>()->p_level.value(), 7.0);
    EXPECT_EQ(storedAt(*set->get(0), 0), 3.0);
    set = InvertOperation().process(set);
    EXPECT_EQ(set->components().get<DisplayOptions2d>()->p_level.value(), 40.0);
    EXPECT_EQ(set->components().get<DisplayOptions3d>()->p_level.value(), -7.0);
    for (std::size_t i = 0; i < stored.size(); ++i)
        EXPECT_EQ(storedAt(*set->get(0), i), stored[i]);
}

TEST(Threshold, ValueItselfGivesZero)
{
    auto set = ThresholdOperation(2.0).process(floatSet({1.5, 2.0, 2.5}));
    EXPECT_EQ(storedAt(*set->get(0), 0), 0.0);
    EXPECT_EQ(storedAt(*set->get(0), 1), 0.0);
    EXPECT_EQ(storedAt(*set->get(0), 2), 1.0);
}

TEST(SigmoidAndTanh, MatchTheirFormulasAndSetTheWindow)
{
    std::vector<double> const stored = {-2, -0.5, 0, 0.25, 3};
    auto const sigmoid = SigmoidOperation(1.5F).process(floatSet(stored));
    auto const tanh = TanhOperation(0.7F).process(floatSet(stored));
    for (std::size_t i = 0; i < stored.size(); ++i) {
        EXPECT_NEAR(storedAt(*sigmoid->get(0), i), 1.0 / (1.0 + std::exp(-1.5 * stored[i])), 1e-6);
        EXPECT_NEAR(storedAt(*tanh->get(0), i), std::tanh(0.7 * stored[i]), 1e-6);
    }
    EXPECT_NEAR(sigmoid->components().get<DisplayOptions2d>()->greyValue(0.5), 0.5, 1e-12);
    EXPECT_NEAR(tanh->components().get<DisplayOptions2d>()->greyValue(0.0), 0.5, 1e-12);
    EXPECT_NEAR(tanh->components().get<DisplayOptions2d>()->greyValue(1.0), 1.0, 1e-12);
}

TEST(IntensityOperations, TakeVectorElementsLikeImages)
{
    // A vector element (one pixel per frame) is processed like an image, channel by channel.
    DataItem item;
    item.set("scores", floatSet({-2, 0.5, 4}, 3));
    ASSERT_NE(dynamic_cast<VectorElement*>(item.get("scores")), nullptr);
    AdjustShiftScaleOperation(std::vector{1.0, 2.0, 3.0}, std::vector{2.0, 5.0, 7.0}).process(item);
    SharedImage const& scores = *item.get<VectorElement>("scores")->sis()->get(0);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 0)), -0.5F);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 1)), 0.5F);
    EXPECT_FLOAT_EQ(static_cast<float>(storedAt(scores, 2)), 1.0F);
    // Float input is already what MakeFloat gives.
    auto const floats = floatSet({1, 2, 3});
    EXPECT_EQ(MakeFloatOperation().process(floats)->get(0), floats->get(0));
}

// Smooth keeps a constant image (per channel) and HighPass gives zero, at corners, edges and
// inside alike; a float image is smoothed in place and its GPU copy marked stale.
TEST(FilterOperations, SmoothKeepsAConstantImageAndHighPassGivesZero)
{
    for (auto const& [size, channels] :
         {std::pair{Eigen::Vector3i(6, 5, 4), 1}, std::pair{Eigen::Vector3i(7, 5, 1), 3},
          std::pair{Eigen::Vector3i(9, 1, 1), 4}}) {
        SCOPED_TRACE(channels);
        auto const count = static_cast<std::size_t>(size.prod() * channels);
        std::vector<double> values(count);
        for (std::size_t i = 0; i < count; ++i)
            values[i] = 5.25 + static_cast<double>(i % static_cast<std::size_t>(channels));
        auto smoothed = floatSet(values, channels, size);
        auto const frame = smoothed->getShared(0);
        smoothed = SmoothOperation(Eigen::Vector3d(2.0, 1.0, 2.0)).process(smoothed);
        EXPECT_EQ(smoothed->getShared(0), frame);
        EXPECT_TRUE(frame->isGlDirty());
        auto const highPass = HighPassOperation(2).process(floatSet(values, channels, size));
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_NEAR(storedAt(*smoothed->get(0), i), values[i], 1e-5) << i;
            ASSERT_NEAR(storedAt(*highPass->get(0), i), 0.0, 1e-5) << i;
        }
    }
}

TEST(Smooth, ReadsOneTwoOrThreeNumbersAndIntegerInputIsMadeFloat)
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
    Log::Capture capture;
    SmoothOperation().process(
        std::make_shared<SharedImageSet>(MLTest::placedFrame<short>(Eigen::Vector3i(3, 3, 1), 1, {})));
    EXPECT_TRUE(
        capture.contains("Input was not float - adding an implicit MakeFloatOperation.", "ML.Smooth"));
}

// Sizes up to the extent of the image are accepted; larger ones are refused (see CatalogueTest).
TEST(Smooth, SizesUpToTheImageAreAccepted)
{
    // 6 x 5 x 4 voxels of 0.7 x 1.1 x 2.5 mm: radii of 6, 5 and 4 voxels are the extents exactly.
    for (bool const inMm : {false, true}) {
        std::vector<double> peak(120, 0.0);
        peak[0] = 1.0;
        auto const set = floatSet(peak, 1, Eigen::Vector3i(6, 5, 4));
        SmoothOperation smooth(inMm ? Eigen::Vector3d(4, 5, 8) : Eigen::Vector3d(5, 4, 3), inMm);
        EXPECT_EQ(errorOf(smooth, set), "no error") << inMm;
        EXPECT_LT(storedAt(*set->get(0), 0), 1.0) << "the peak was smoothed";
    }
    // A two-dimensional image ignores the size along z.
    auto const flat = SmoothOperation(Eigen::Vector3d(1, 1, 50))
                          .process(floatSet(std::vector<double>(16, 2.0), 1, {4, 4, 1}));
    EXPECT_NEAR(storedAt(*flat->get(0), 5), 2.0, 1e-6);
}

TEST(HighPass, ForcedOnTheCpuWarnsAndStillComputes)
{
    auto const set = floatSet(std::vector<double>(9, 1.0), 1, {3, 3, 1});
    HighPassOperation forced;
    forced.setComputingDevice(ComputingDevice::ForceCPU);
    Log::Capture capture;
    ASSERT_NE(forced.process(set), nullptr);
    EXPECT_TRUE(capture.contains("HighPass was forced to run on CPU but is not implemented for that yet.",
                                 "ML.HighPass"));
    EXPECT_NEAR(storedAt(*set->get(0), 4), 0.0, 1e-6);
}

} // namespace

namespace {

Eigen::Vector3i const kGammaSize(4, 3, 2);
constexpr int kGammaChannels = 2;

TEST(GammaCorrection, KeepsTheRangeOfTheImage)
{
    auto const stored = randomStored<float>(static_cast<std::size_t>(kGammaSize.prod() * kGammaChannels), 11);
    auto set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<float>(kGammaSize, kGammaChannels, stored, kShift, kScale));
    auto const originals = originalsOf<float>(stored);
    auto const [lo, hi] = std::minmax_element(originals.begin(), originals.end());
    double const r = *hi - *lo;
    set = GammaCorrectionOperation(0.5).process(set);
    for (std::size_t i = 0; i < stored.size(); ++i)
        ASSERT_NEAR(originalAt(*set->get(0), i), r * std::pow((originals[i] - *lo) / r, 0.5) + *lo, 1e-4)
            << i;
}

// ---- NormalizeNormal statistics --------------------------------------------------------------

struct MomentsCase
{
    std::string name;
    double mean;
    double spread;
    int channels;
    bool keepBackground;
};

class NormalizeNormalStatistics : public ::testing::TestWithParam<MomentsCase>
{};

// Volumes of many slices (split between threads) with offsets large against their spread, where
// sums of x and x² would lose the deviation; compared with a two-pass reference in double.
TEST_P(NormalizeNormalStatistics, MatchATwoPassReference)
{
    MomentsCase const& c = GetParam();
    Eigen::Vector3i const size(33, 17, 29);
    auto const count = static_cast<std::size_t>(size.prod() * c.channels);
    std::mt19937 engine(3);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<double> values(count);
    for (std::size_t i = 0; i < count; ++i) {
        double const v = static_cast<float>(c.mean * (1 + static_cast<double>(i % c.channels)) +
                                            c.spread * normal(engine));
        values[i] = c.keepBackground && i % 5 == 0 ? 0.0 : v;
    }
    auto set = std::make_shared<SharedImageSet>(MLTest::placedFrame<float>(size, c.channels, values));
    set->add(
        MLTest::placedFrame<float>(Eigen::Vector3i(5, 4, 3), c.channels,
                                   std::vector<double>(static_cast<std::size_t>(60 * c.channels), c.mean)));
    std::vector<double> all = values;
    all.insert(all.end(), static_cast<std::size_t>(60 * c.channels), c.mean);

    std::vector<double> n(c.channels, 0.0), mean(c.channels, 0.0), var(c.channels, 0.0);
    auto const counted = [&](double v) { return !c.keepBackground || v != 0.0; };
    for (std::size_t i = 0; i < all.size(); ++i)
        if (counted(all[i])) {
            n[i % c.channels] += 1;
            mean[i % c.channels] += all[i];
        }
    for (int ch = 0; ch < c.channels; ++ch)
        mean[ch] /= n[ch];
    for (std::size_t i = 0; i < all.size(); ++i)
        if (counted(all[i]))
            var[i % c.channels] += std::pow(all[i] - mean[i % c.channels], 2) / n[i % c.channels];

    set = NormalizeNormalOperation(c.keepBackground, 0.0F).process(set);
    for (std::size_t i = 0; i < all.size(); ++i) {
        SharedImage const& out = *set->get(i < count ? 0 : 1);
        std::size_t const at = i < count ? i : i - count;
        int const ch = static_cast<int>(i % c.channels);
        double const expected = counted(all[i]) ? (all[i] - mean[ch]) / std::sqrt(var[ch]) : 0.0;
        // The subtraction happens in float, as in the reference of numpy: its rounding of a
        // value of size `mean` is what limits agreement.
        double const tolerance = 1e-5 + 2.0 * std::abs(c.mean) * 1e-7 / std::sqrt(var[ch]);
        ASSERT_NEAR(storedAt(out, at), expected, tolerance) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(Offsets, NormalizeNormalStatistics,
                         ::testing::Values(MomentsCase{"Centred", 0.0, 1.0, 1, false},
                                           MomentsCase{"CtLike", 1000.0, 1.0, 1, false},
                                           MomentsCase{"LargeOffset", 1.0e5, 3.0, 1, false},
                                           MomentsCase{"ThreeChannels", 500.0, 2.0, 3, false},
                                           MomentsCase{"Background", 1000.0, 4.0, 1, true},
                                           MomentsCase{"BackgroundTwoChannels", 50.0, 4.0, 2, true}),
                         [](auto const& info) { return info.param.name; });

// ---- NormalizePercentile -------------------------------------------------------------------

TEST(NormalizePercentile, RangeIsCheckedWhenBuiltAndWhenProcessing)
{
    EXPECT_THROW(NormalizePercentileOperation(-0.5F, 1.0F), ParamException);
    EXPECT_THROW(NormalizePercentileOperation(0.0F, 2.0F), ParamException);
    NormalizePercentileOperation operation;
    operation.p_maxPercentile.setValue(1.25F);
    auto set = floatSet({1, 2, 3});
    EXPECT_EQ(errorOf(operation, set), "[ML.NormalizePercentile] Min/max percentiles must be in [0;1]");
    EXPECT_EQ(storedAt(*set->get(0), 2), 3.0) << "nothing was written";
}

TEST(NormalizePercentile, LogsTheImplicitConversionAndThePercentileValues)
{
    auto set = std::make_shared<SharedImageSet>(
        MLTest::placedFrame<short>(Eigen::Vector3i(5, 1, 1), 1, {10, 20, 30, 40, 50}, kShift, kScale));
    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    Log::Capture capture;
    set = NormalizePercentileOperation().process(set);
    Log::g_globalLevel = level;
    EXPECT_TRUE(capture.contains("Input was not float - adding an implicit MakeFloatOperation.",
                                 "ML.NormalizePercentile"));
    EXPECT_TRUE(capture.contains("minPercentileValue = 2", "ML.NormalizePercentile"));
    EXPECT_TRUE(capture.contains("maxPercentileValue = 22", "ML.NormalizePercentile"));
    EXPECT_EQ(storedAt(*set->get(0), 2), 0.5);
}

TEST(NormalizePercentile, IgnoreZerosLeavesZerosOutOfThePercentilesOnBothSides)
{
    std::vector<double> const values = {0, -4, 0, 0, 6, 0, 2, 0};
    auto withZeros = NormalizePercentileOperation(0.0F, 1.0F).process(floatSet(values));
    auto ignoring = NormalizePercentileOperation(0.0F, 1.0F, false, true).process(floatSet(values));
    for (std::size_t i = 0; i < values.size(); ++i) {
        // Range [-4, 6] either way: zeros lie inside it and are mapped, not skipped.
        EXPECT_NEAR(storedAt(*withZeros->get(0), i), (values[i] + 4.0) / 10.0, 1e-6) << i;
        EXPECT_NEAR(storedAt(*ignoring->get(0), i), (values[i] + 4.0) / 10.0, 1e-6) << i;
    }
    // Only positive values besides zeros: the lower end is the smallest of them, not 0.
    std::vector<double> const positive = {0, 0, 0, 10, 12, 14, 0, 20};
    auto set = NormalizePercentileOperation(0.0F, 1.0F, false, true).process(floatSet(positive));
    for (std::size_t i = 0; i < positive.size(); ++i)
        EXPECT_NEAR(storedAt(*set->get(0), i), (positive[i] - 10.0) / 10.0, 1e-6) << i;
}

TEST(NormalizePercentile, ClampValuesBoundsTheResultAndEqualPercentilesAreRefused)
{
    std::vector<double> ramp(100);
    for (std::size_t i = 0; i < ramp.size(); ++i)
        ramp[i] = static_cast<double>(i);
    auto open = NormalizePercentileOperation(0.25F, 0.75F, false).process(floatSet(ramp));
    auto clamped = NormalizePercentileOperation(0.25F, 0.75F, true).process(floatSet(ramp));
    EXPECT_LT(storedAt(*open->get(0), 0), -0.4);
    EXPECT_GT(storedAt(*open->get(0), 99), 1.4);
    for (std::size_t i = 0; i < ramp.size(); ++i) {
        double const o = storedAt(*open->get(0), i);
        EXPECT_EQ(storedAt(*clamped->get(0), i), std::min(std::max(o, 0.0), 1.0)) << i;
    }
    // The quartiles of 0..99 lie within a histogram bin (99/1024) of 24.75 and 74.25.
    EXPECT_NEAR(storedAt(*open->get(0), 50), (50.0 - 24.75) / 49.5, 0.01);

    NormalizePercentileOperation equal(0.5F, 0.5F);
    EXPECT_EQ(errorOf(equal, floatSet({1, 2, 3})),
              "[ML.NormalizePercentile] 'min_percentile' and "
              "'max_percentile' are both 0.5: the mapping would divide by zero");
}

// ---- NormalizeUniform with masks and windows -------------------------------------------------

TEST(NormalizeUniform, MaskedImagesTakeTheRangeFromInsideTheMaskAndKeepIt)
{
    std::vector<double> const values = {-100, 2, 4, 6, 500, 10};
    auto set = floatSet(values);
    auto maskImage = TypedImage<unsigned char>::zeros(Eigen::Vector3i(6, 1, 1), 1);
    for (std::size_t i = 1; i <= 3; ++i)
        maskImage->setValue(1, i);
    auto const mask =
        std::make_shared<ExplicitMask>(std::shared_ptr<TypedImage<unsigned char>>(std::move(maskImage)));
    set->get(0)->setMask(mask);
    auto const result = NormalizeUniformOperation(0.0F, 1.0F).process(set);
    ASSERT_NE(result, set) << "a new set of float frames";
    EXPECT_EQ(result->get(0)->mask(), mask);
    std::vector<double> const expected = {-25.5, 0, 0.5, 1, 124.5, 2};
    for (std::size_t i = 0; i < values.size(); ++i)
        EXPECT_NEAR(storedAt(*result->get(0), i), expected[i], 1e-5) << i;
    auto const* window = result->components().get<DisplayOptions2d>();
    ASSERT_NE(window, nullptr);
    EXPECT_NEAR(window->greyValue(0.0), 0.0, 1e-12);
    EXPECT_NEAR(window->greyValue(1.0), 1.0, 1e-12);
    EXPECT_EQ(storedAt(*set->get(0), 0), -100.0) << "the input is not written";
}

TEST(NormalizeUniform, ConstantImageGoesToTheLowerEnd)
{
    auto set = NormalizeUniformOperation(-1.0F, 1.0F).process(floatSet({4, 4, 4}));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(storedAt(*set->get(0), i), -1.0) << i;
}

// ---- NormalizeMAD on known vectors -----------------------------------------------------------

struct MadCase
{
    std::string name;
    std::vector<double> values;
    int channels;
    std::vector<int> selected;
    bool fixMedian;
    std::vector<double> expected;
};

class NormalizeMADKnown : public ::testing::TestWithParam<MadCase>
{};

TEST_P(NormalizeMADKnown, GivesTheWorkedResult)
{
    MadCase const& c = GetParam();
    NormalizeMADOperation operation(c.selected);
    operation.p_fixMedian.setValue(c.fixMedian);
    auto set = operation.process(floatSet(c.values, c.channels));
    for (std::size_t i = 0; i < c.expected.size(); ++i)
        EXPECT_NEAR(storedAt(*set->get(0), i), c.expected[i], 1e-6) << i;
    auto const [lo, hi] = std::minmax_element(c.expected.begin(), c.expected.end());
    if (c.channels == 1 && *hi > *lo) {
        auto const* window = set->components().get<DisplayOptions2d>();
        ASSERT_NE(window, nullptr);
        EXPECT_NEAR(window->greyValue(*lo), 0.0, 1e-9);
        EXPECT_NEAR(window->greyValue(*hi), 1.0, 1e-9);
    }
}

INSTANTIATE_TEST_SUITE_P(Vectors, NormalizeMADKnown,
                         ::testing::Values(
                             // median 6, deviations {4, 2, 0, 2, 194}: MAD 2.
                             MadCase{"Odd", {2, 4, 6, 8, 200}, 1, {}, false, {-2, -1, 0, 1, 97}},
                             MadCase{"FixMedian", {2, 4, 6, 8, 200}, 1, {}, true, {4, 5, 6, 7, 103}},
                             // median 2.5, deviations {1.5, 0.5, 0.5, 1.5}: MAD 1.
                             MadCase{"Even", {4, 1, 3, 2}, 1, {}, false, {1.5, -1.5, 0.5, -0.5}},
                             MadCase{"ZeroMad", {5, 5, 5, 9}, 1, {}, false, {0, 0, 0, 0}},
                             // Channel 0 is not selected and keeps its values.
                             MadCase{
                                 "SelectedChannel", {7, 2, 8, 4, 9, 6}, 2, {1}, false, {7, -1, 8, 0, 9, 1}}),
                         [](auto const& info) { return info.param.name; });

TEST(NormalizeMAD, WarnsWhenForcedToTheGpuAndRunsOnTheCpu)
{
    NormalizeMADOperation forced;
    forced.setComputingDevice(ComputingDevice::ForceGPU);
    Log::Capture capture;
    auto const set = forced.process(floatSet({1, 2, 3}));
    EXPECT_TRUE(capture.contains("NormalizeMAD was forced to run on GPU but is not implemented for that yet.",
                                 "ML.NormalizeMAD"));
    EXPECT_NEAR(storedAt(*set->get(0), 0), -1.0, 1e-6) << "it still ran, on the CPU";
}

} // namespace
