// Evaluation of ImageMath trees on the CPU, against plain loops over the same buffers, on all
// eight pixel types with non-trivial shift and scale on operands and target; then the operator
// table itself: GLSL texts, CPU meanings at edge values and device strategy rules.

#include "ml/imagemath/ImageMath.h"

#include "tests/ml/imagemath/ImageMathSets.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageMath;

namespace {

// Three slices: not a multiple of two threads, so the first thread takes one more.
Eigen::Vector3i const kDims(5, 4, 3);

// A set of `frames` frames of kDims with pixel type T whose stored value j of frame f is pattern(f, j).
template <class T>
std::shared_ptr<SharedImageSet> makeSet(int frames, int channels, double shift, double scale,
                                        std::function<double(int, int)> const& pattern)
{
    return ImageMathTest::makeSet<T>(kDims, frames, channels, shift, scale, pattern);
}

template <class T>
class ImageMathTyped : public ::testing::Test
{
protected:
    // a: original = v / 2 + 3 in [3, 33]; b: original = 2v - 1 in [1, 33], never 0. Both
    // scales are powers of two, so originals are exact in every type.
    std::shared_ptr<SharedImageSet> a =
        makeSet<T>(2, 1, -3.0, 2.0, [](int f, int j) { return (j * 7 + f) % 61; });
    std::shared_ptr<SharedImageSet> b =
        makeSet<T>(2, 1, 1.0, 0.5, [](int f, int j) { return 1 + (j * 3 + f) % 17; });
    std::shared_ptr<SharedImageSet> target = makeSet<T>(2, 1, 40.0, 0.5, [](int, int) { return 0; });

    double original(SharedImageSet& set, int frame, std::size_t j)
    {
        return ImageMathTest::originalAt<T>(set, frame, j);
    }

    // Expects every value of `target` to be reference(original a, original b).
    void expectTarget(std::function<double(double, double)> const& reference, std::string const& what)
    {
        ImageMathTest::expectStored<T>(
            *target, [&](int f, std::size_t j) { return reference(original(*a, f, j), original(*b, f, j)); },
            what);
    }
};

using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(ImageMathTyped, PixelTypes);

TYPED_TEST(ImageMathTyped, OperatorsMatchPlainLoop)
{
    Array<SharedImageSet> a(*this->a);
    Array<SharedImageSet> b(*this->b);
    Array<SharedImageSet> out(*this->target);
    using Reference = std::function<double(double, double)>;
    std::tuple<char const*, std::function<bool()>, Reference> const cases[] = {
        {"add", [&] { return out.assign(a + b); }, [](double x, double y) { return x + y; }},
        {"minus", [&] { return out.assign(a - b); }, [](double x, double y) { return x - y; }},
        {"mult", [&] { return out.assign(a * b); }, [](double x, double y) { return x * y; }},
        {"divide", [&] { return out.assign(a / b); }, [](double x, double y) { return x / y; }},
        {"divideIfNotZero", [&] { return out.assign(divideIfNotZero(a, b - 3)); },
         [](double x, double y) { return y - 3 != 0 ? x / (y - 3) : 0.0; }},
        {"min", [&] { return out.assign(min(a, b)); }, [](double x, double y) { return std::min(x, y); }},
        {"max", [&] { return out.assign(max(a, b)); }, [](double x, double y) { return std::max(x, y); }},
        {"equal", [&] { return out.assign(equal(a, b)); }, [](double x, double y) { return x == y; }},
        {"notEqual", [&] { return out.assign(notEqual(a, b)); }, [](double x, double y) { return x != y; }},
        {"greater", [&] { return out.assign(a > b); }, [](double x, double y) { return x > y; }},
        {"greaterEqual", [&] { return out.assign(a >= b); }, [](double x, double y) { return x >= y; }},
        {"less", [&] { return out.assign(a < b); }, [](double x, double y) { return x < y; }},
        {"binaryAnd", [&] { return out.assign((a > 10) && (b < 20)); },
         [](double x, double y) { return x > 10 && y < 20; }},
        {"select", [&] { return out.assign(select(a > b, a, b * 2)); },
         [](double x, double y) { return x > y ? x : y * 2; }},
        {"unaryMinus", [&] { return out.assign(-a); }, [](double x, double) { return -x; }},
        {"abs", [&] { return out.assign(abs(a - 20)); }, [](double x, double) { return std::fabs(x - 20); }},
        {"pow2", [&] { return out.assign(pow2(a - 20)); },
         [](double x, double) { return (x - 20) * (x - 20); }},
        {"exp", [&] { return out.assign(exp(a / 10)); }, [](double x, double) { return std::exp(x / 10); }},
        {"unaryLambda",
         [&] {
             return out.assign(unaryLambda(
                 a, [](auto v) { return v * 3 - 1; }, [] { return "({})*3.0-1.0"; }));
         },
         [](double x, double) { return x * 3 - 1; }},
    };
    for (auto const& [name, assign, reference] : cases) {
        ASSERT_TRUE(assign()) << name;
        this->expectTarget(reference, name);
    }
}

TYPED_TEST(ImageMathTyped, ExpressionReadingItsTargetIsSafe)
{
    Array<SharedImageSet> a(*this->a);
    std::vector<double> before;
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < this->a->get(f)->descriptor().valueCount(); ++j)
            before.push_back(this->original(*this->a, f, j));

    a = (a - 3) * 0.5 + 1; // originals stay within every type's range
    std::size_t k = 0;
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < this->a->get(f)->descriptor().valueCount(); ++j, ++k) {
            double const expected =
                this->a->get(f)->descriptor().storageToOriginal(Detail::saturateCast<TypeParam>(
                    this->a->get(f)->descriptor().originalToStorage((before[k] - 3) * 0.5 + 1)));
            ASSERT_NEAR(this->original(*this->a, f, j), expected, 1e-5) << "frame " << f << " value " << j;
        }
    EXPECT_TRUE(this->a->get(0)->isGlDirty());
    EXPECT_TRUE(this->a->get(1)->isGlDirty());
}

TYPED_TEST(ImageMathTyped, ReductionsPerChannelOverASet)
{
    using T = TypeParam;
    auto set = makeSet<T>(2, 2, -3.0, 2.0, [](int f, int j) { return (j * 11 + 5 * f) % 53; });
    Array<SharedImageSet> a(*set);
    std::vector<double> sums(2, 0.0), lows(2, 1e300), highs(2, -1e300);
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < set->get(f)->descriptor().valueCount(); ++j) {
            double const v =
                set->get(f)->descriptor().storageToOriginal(ImageMathTest::typed<T>(*set, f).value(j));
            sums[j % 2] += v;
            lows[j % 2] = std::min(lows[j % 2], v);
            highs[j % 2] = std::max(highs[j % 2], v);
        }
    auto const total = sum(a).eval();
    ASSERT_EQ(total.size(), 2u);
    EXPECT_NEAR(total[0], sums[0], 1e-6 * std::fabs(sums[0]));
    EXPECT_NEAR(total[1], sums[1], 1e-6 * std::fabs(sums[1]));
    EXPECT_EQ(reduceMin(a).eval(), lows);
    EXPECT_EQ(reduceMax(a).eval(), highs);
    // A normalised view reduces stored values.
    auto const stored = reduceMax(Array<SharedImageSet>(*set, true)).eval();
    EXPECT_EQ(stored[0], (highs[0] - 3.0) * 2.0); // stored = (original + shift) · scale
}

TYPED_TEST(ImageMathTyped, ChannelReductionsAndChannelConstants)
{
    using T = TypeParam;
    auto set = makeSet<T>(1, 3, 0.0, 1.0, [](int, int j) { return j % 9; });
    auto out = makeSet<T>(1, 1, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> a(*set);
    Array<SharedImageSet> target(*out);
    auto const& in = ImageMathTest::typed<T>(*set, 0);
    auto const& result = ImageMathTest::typed<T>(*out, 0);
    std::size_t const pixels = static_cast<std::size_t>(kDims.prod());

    ASSERT_TRUE(target.assign(channelSum(a)));
    for (std::size_t p = 0; p < pixels; ++p)
        ASSERT_EQ(result.value(p), in.value(3 * p) + in.value(3 * p + 1) + in.value(3 * p + 2)) << p;
    ASSERT_TRUE(target.assign(channelMax(a) - channelMin(a)));
    for (std::size_t p = 0; p < pixels; ++p)
        ASSERT_EQ(result.value(p), std::max({in.value(3 * p), in.value(3 * p + 1), in.value(3 * p + 2)}) -
                                       std::min({in.value(3 * p), in.value(3 * p + 1), in.value(3 * p + 2)}));
    ASSERT_TRUE(target.assign(length(a) * 4));
    for (std::size_t p = 0; p < pixels; ++p) {
        double const x = in.value(3 * p), y = in.value(3 * p + 1), z = in.value(3 * p + 2);
        ASSERT_NEAR(double(result.value(p)),
                    double(Detail::saturateCast<T>(4 * std::sqrt(x * x + y * y + z * z))), 1e-4)
            << p;
    }
    // One constant per channel, in place, on a three-channel image.
    a = a * ChannelWiseScalar<int, 3>({1, 0, 2});
    for (std::size_t j = 0; j < 3 * pixels; ++j)
        ASSERT_EQ(double(in.value(j)), double((j % 9) * std::vector<int>{1, 0, 2}[j % 3])) << j;
}

TEST(ImageMath, CastsSaturateAndTruncate)
{
    std::vector<float> const values = {300.0f, -5.0f, 12.7f, std::nanf(""), 254.5f, 0.2f};
    auto floats =
        makeSet<float>(1, 1, 0.0, 1.0, [&](int, int j) { return values[std::size_t(j) % values.size()]; });
    auto bytes = makeSet<unsigned char>(1, 1, 0.0, 1.0, [](int, int) { return 9; });
    Array<SharedImageSet> out(*bytes);
    // The float operand has another pixel type than the target: it is read with a fixed type.
    ASSERT_TRUE(out.assign(cast<unsigned char>(Array<SharedImageSet, float>(*floats)) + 1));
    std::vector<int> const expected = {256, 0 + 1, 13, 1, 255, 1};
    for (std::size_t j = 0; j < 6; ++j)
        EXPECT_EQ(ImageMathTest::typed<unsigned char>(*bytes, 0).value(j), std::min(255, expected[j])) << j;
}

TEST(ImageMath, SingleImageLeafIsBroadcastOverSet)
{
    auto set = makeSet<short>(3, 1, 0.0, 1.0, [](int f, int j) { return f * 100 + j; });
    SharedImage offsets(ImageDescriptor(PixelType::Short, kDims, 1));
    static_cast<TypedImage<short>&>(*offsets.mem()).fill(7);
    Array<SharedImageSet> a(*set);
    ASSERT_TRUE(a.assign(a - Array<SharedImage>(offsets)));
    for (int f = 0; f < 3; ++f)
        EXPECT_EQ(ImageMathTest::typed<short>(*set, f).value(std::size_t(4)), f * 100 + 4 - 7) << f;
    // And an expression into a single image.
    ASSERT_TRUE(Array<SharedImage>(offsets).assign(Array<SharedImage>(offsets) * 3));
    EXPECT_EQ(static_cast<TypedImage<short>&>(*offsets.mem()).value(std::size_t(0)), 21);
    EXPECT_TRUE(offsets.isGlDirty());
}

TEST(ImageMath, MisfitsAreRefusedWithoutWriting)
{
    auto target = makeSet<float>(2, 1, 0.0, 1.0, [](int, int) { return 1; });
    auto threeFrames = makeSet<float>(3, 1, 0.0, 1.0, [](int, int) { return 2; });
    auto doubles = makeSet<double>(2, 1, 0.0, 1.0, [](int, int) { return 2; });
    auto twoChannels = makeSet<float>(2, 2, 0.0, 1.0, [](int, int) { return 2; });
    Array<SharedImageSet> out(*target);

    Log::Capture capture;
    EXPECT_FALSE(out.assign(out + Array<SharedImageSet>(*threeFrames)));
    EXPECT_TRUE(capture.contains("Cannot assign an expression over 3 frames to a target of 2 frames",
                                 "ML.ImageMath"));
    EXPECT_FALSE(out.assign(out + Array<SharedImageSet>(*doubles)));
    EXPECT_TRUE(capture.contains(
        "Cannot assign expression to frame 0 (float 5x4x3 1ch spacing 1 1 1 mm): operand frame "
        "0 has pixel type double, expected float",
        "ML.ImageMath"));
    EXPECT_FALSE(out.assign(out + Array<SharedImageSet>(*twoChannels)));
    EXPECT_FALSE(out.assign(out * ChannelWiseScalar<float>({1.0f, 2.0f})));
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < ImageMathTest::typed<float>(*target, f).valueCount(); ++j)
            ASSERT_EQ(ImageMathTest::typed<float>(*target, f).value(j), 1.0f);
    EXPECT_EQ(evaluateIntoImage(Scalar<int>(3) + 1), nullptr);
    EXPECT_TRUE(
        capture.contains("Cannot evaluate an expression without images into an image", "ML.ImageMath"));
}

TEST(ImageMath, EmptySetsGiveEmptyResults)
{
    SharedImageSet empty;
    Array<SharedImageSet> a(empty);
    EXPECT_TRUE(sum(a).eval().empty());
    EXPECT_TRUE(reduceMax(a * 2).eval().empty());
    EXPECT_TRUE(a.assign(a + 1)); // nothing to do
}

TEST(ImageMath, EvaluateIntoImageAllocatesNormalisedFrames)
{
    auto set = makeSet<unsigned short>(2, 2, 10.0, 4.0, [](int f, int j) { return 40 + 4 * (j + f); });
    Array<SharedImageSet> a(*set);
    auto result = evaluateIntoImage(a * 2);
    ASSERT_NE(result, nullptr);
    ASSERT_EQ(result->size(), 2);
    ImageDescriptor const& desc = result->get(1)->descriptor();
    EXPECT_EQ(desc.pixelType, PixelType::UShort);
    EXPECT_EQ(desc.channels, 2);
    EXPECT_EQ(desc.shift, 0.0);
    EXPECT_EQ(desc.scale, 1.0);
    // stored 40 + 4(j + f) is original 10 + j + f - 10 = j + f; doubled.
    EXPECT_EQ(ImageMathTest::typed<unsigned short>(*result, 1).value(std::size_t(5)), 2 * (5 + 1));
    auto single = evaluateIntoImage(length(a));
    ASSERT_NE(single, nullptr);
    EXPECT_EQ(single->get(0)->channels(), 1);
}

TEST(ImageMath, TypedImageLeavesAndTargets)
{
    auto image = TypedImage<float>::zeros(Eigen::Vector3i(8, 2, 5), 1);
    for (std::size_t j = 0; j < image->valueCount(); ++j)
        image->setValue(float(j), j);
    auto other = TypedImage<unsigned char>::zeros(Eigen::Vector3i(8, 2, 5), 1);
    other->fill(2);
    Array<TypedImage<float>> a(*image);
    a = a * Array<TypedImage<unsigned char>>(*other) + 0.5f;
    for (std::size_t j = 0; j < image->valueCount(); ++j)
        ASSERT_EQ(image->value(j), float(j) * 2 + 0.5f) << j;
    auto const total = sum(a).eval();
    ASSERT_EQ(total.size(), 1u);
    EXPECT_DOUBLE_EQ(total[0], 2.0 * (79.0 * 80.0 / 2.0) + 0.5 * 80);
}

// ---- The operator table without images: GLSL texts, CPU meanings at edge values, device strategy
// rules.

template <class Op>
std::string binary()
{
    return Op::evalString("A", "B");
}
template <class Op>
std::string unary()
{
    return Op::evalString("A");
}

TEST(ImgOps, GlslTextsMatchTheTable)
{
    ImgOps::unaryLambdaWrapper sigmoid([](float v) { return v; },
                                       [] { return "1.0f / (1.0f + exp(-{} * ({})))"; });
    ImgOps::unaryLambdaWrapper tanh([](float v) { return std::tanh(v); }, [] { return "tanh({})"; });
    std::pair<std::string, std::string> const cases[] = {
        {binary<ImgOps::add>(), "(A)+(B)"},
        {binary<ImgOps::minus>(), "(A)-(B)"},
        {binary<ImgOps::mult>(), "(A)*(B)"},
        {binary<ImgOps::divide>(), "(A)/(B)"},
        {binary<ImgOps::divideIfNotZero>(), "(float(length(B) != 0.0) * (A))/(B + float(length(B) == 0.0))"},
        {binary<ImgOps::min>(), "min((A), (B))"},
        {binary<ImgOps::max>(), "max((A), (B))"},
        {unary<ImgOps::pow2>(), "(A)*(A)"},
        {unary<ImgOps::unaryMinus>(), "-(A)"},
        {unary<ImgOps::abs>(), "abs(A)"},
        {unary<ImgOps::exp>(), "exp(A)"},
        {unary<ImgOps::length>(), "length( A)"},
        {binary<ImgOps::equal>(), "equal((A), (B))"},
        {binary<ImgOps::notEqual>(), "not(equal((A), (B)))"},
        {binary<ImgOps::greater>(), "greaterThan((A), (B))"},
        {binary<ImgOps::greaterEqual>(), "greaterThanEqual((A), (B))"},
        {binary<ImgOps::less>(), "lessThan((A), (B))"},
        {binary<ImgOps::binaryAnd>(), "(A) && (B)"},
        {sigmoid.evalString("x"), "1.0f / (1.0f + exp(-x * (x)))"},
        {tanh.evalString("(a)+(b)"), "tanh((a)+(b))"},
    };
    for (auto const& [text, expected] : cases)
        EXPECT_EQ(text, expected);
}

// The other operators are compared with plain loops in OperatorsMatchPlainLoop.
TEST(ImgOpsCpu, EdgeValues)
{
    EXPECT_EQ(ImgOps::divideIfNotZero{}(6.0, 0.0), 0.0);
    EXPECT_EQ(ImgOps::divideIfNotZero{}(-1.0f, -0.0f), 0.0f);
    EXPECT_EQ(ImgOps::length{}(9.0, 4.0), 25.0); // fold step: acc + v²
    EXPECT_EQ(ImgOps::abs{}(-3), 3);
}

TEST(SaturateCast, DefinesEveryInput)
{
    EXPECT_EQ(Detail::saturateCast<unsigned char>(300.0), 255);
    EXPECT_EQ(Detail::saturateCast<unsigned char>(-5.0), 0);
    EXPECT_EQ(Detail::saturateCast<unsigned char>(std::nan("")), 0);
    EXPECT_EQ(Detail::saturateCast<unsigned char>(12.7), 12);
    EXPECT_EQ(Detail::saturateCast<char>(-12.7), -12);
    EXPECT_EQ(Detail::saturateCast<int>(1e30f), std::numeric_limits<int>::max());
    EXPECT_EQ(Detail::saturateCast<unsigned int>(-1), 0u);
    EXPECT_EQ(Detail::saturateCast<short>(70000), std::numeric_limits<short>::max());
    EXPECT_EQ(Detail::saturateCast<float>(0.1), 0.1f);
}

TEST(DeviceStrategy, MoreRestrictiveWinsInEitherOrder)
{
    // Out-of-range values count as "any device".
    int const cases[][3] = {{0, 0, 0}, {0, 1, 0}, {0, 2, 0}, {1, 1, 1}, {1, 2, 1},
                            {2, 2, 2}, {3, 2, 2}, {7, 1, 1}, {-1, 0, 0}};
    for (auto const& [a, b, expected] : cases) {
        SCOPED_TRACE(std::to_string(a) + " " + std::to_string(b));
        auto const sa = static_cast<DeviceStrategy>(a), sb = static_cast<DeviceStrategy>(b);
        EXPECT_EQ(combineDeviceStrategies(sa, sb), static_cast<DeviceStrategy>(expected));
        EXPECT_EQ(combineDeviceStrategies(sb, sa), static_cast<DeviceStrategy>(expected));
    }
}

TEST(DeviceStrategy, ImageRule)
{
    for (PixelType type :
         {PixelType::Char, PixelType::UChar, PixelType::Short, PixelType::UShort, PixelType::Float})
        EXPECT_EQ(imageDeviceStrategy(ImageDescriptor(type, 2, 2, 1, 4)), DeviceStrategy::Any)
            << pixelTypeName(type);
    for (PixelType type : {PixelType::Int, PixelType::UInt, PixelType::Double})
        EXPECT_EQ(imageDeviceStrategy(ImageDescriptor(type, 2, 2, 1, 1)), DeviceStrategy::CpuOnly)
            << pixelTypeName(type);
    EXPECT_EQ(imageDeviceStrategy(ImageDescriptor(PixelType::Float, 2, 2, 1, 5)), DeviceStrategy::CpuOnly);
    EXPECT_EQ(deviceStrategyName(DeviceStrategy::CpuPreferred), "cpu_preferred");
    EXPECT_EQ(deviceStrategyName(static_cast<DeviceStrategy>(9)), "invalid");
}

TEST(DeviceStrategy, TreesTakeTheMostRestrictive)
{
    SharedImageSet floats(std::make_shared<SharedImage>(ImageDescriptor(PixelType::Float, 2, 2, 1)));
    SharedImageSet doubles(std::make_shared<SharedImage>(ImageDescriptor(PixelType::Double, 2, 2, 1)));
    Array<SharedImageSet> f(floats);
    Array<SharedImageSet> d(doubles);
    EXPECT_EQ((f + 1.0f).deviceStrategy(), DeviceStrategy::Any);
    EXPECT_EQ((f * 2 + cast<float>(d)).deviceStrategy(), DeviceStrategy::CpuOnly);
    EXPECT_EQ(select(f > 0, f, d).deviceStrategy(), DeviceStrategy::CpuOnly);
    auto const preferred = withDeviceStrategy(f, DeviceStrategy::CpuPreferred);
    EXPECT_EQ(preferred.deviceStrategy(), DeviceStrategy::CpuPreferred);
    EXPECT_EQ((preferred + f).deviceStrategy(), DeviceStrategy::CpuPreferred);
    EXPECT_EQ(withDeviceStrategy(d, DeviceStrategy::Any).deviceStrategy(), DeviceStrategy::Any);
    // An empty set has no frame to run on a GPU.
    SharedImageSet empty;
    EXPECT_EQ(Array<SharedImageSet>(empty).deviceStrategy(), DeviceStrategy::CpuOnly);
}

} // namespace
