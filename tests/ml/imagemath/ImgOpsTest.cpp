// The operator table without images: GLSL texts, CPU meanings at edge values, device strategy
// rules.

#include "ml/imagemath/ImageMath.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ImageMath;

namespace {

struct GlslCase
{
    std::string name;
    std::function<std::string()> text;
    std::string expected;
};

std::ostream& operator<<(std::ostream& os, GlslCase const& c)
{
    return os << c.name;
}

class GlslTextTest : public ::testing::TestWithParam<GlslCase>
{};

TEST_P(GlslTextTest, MatchesTable)
{
    EXPECT_EQ(GetParam().text(), GetParam().expected);
}

template <class Op>
GlslCase binaryCase(std::string name, std::string expected)
{
    return {std::move(name), [] { return Op::evalString("A", "B"); }, std::move(expected)};
}
template <class Op>
GlslCase unaryCase(std::string name, std::string expected)
{
    return {std::move(name), [] { return Op::evalString("A"); }, std::move(expected)};
}

INSTANTIATE_TEST_SUITE_P(
    ImgOps, GlslTextTest,
    ::testing::Values(
        binaryCase<ImgOps::add>("add", "(A)+(B)"), binaryCase<ImgOps::minus>("minus", "(A)-(B)"),
        binaryCase<ImgOps::mult>("mult", "(A)*(B)"), binaryCase<ImgOps::divide>("divide", "(A)/(B)"),
        binaryCase<ImgOps::divideIfNotZero>("divideIfNotZero",
                                            "(float(length(B) != 0.0) * (A))/(B + float(length(B) == 0.0))"),
        binaryCase<ImgOps::min>("min", "min((A), (B))"), binaryCase<ImgOps::max>("max", "max((A), (B))"),
        unaryCase<ImgOps::pow2>("pow2", "(A)*(A)"), unaryCase<ImgOps::unaryMinus>("unaryMinus", "-(A)"),
        unaryCase<ImgOps::abs>("abs", "abs(A)"), unaryCase<ImgOps::exp>("exp", "exp(A)"),
        unaryCase<ImgOps::length>("length", "length( A)"),
        binaryCase<ImgOps::equal>("equal", "equal((A), (B))"),
        binaryCase<ImgOps::notEqual>("notEqual", "not(equal((A), (B)))"),
        binaryCase<ImgOps::greater>("greater", "greaterThan((A), (B))"),
        binaryCase<ImgOps::greaterEqual>("greaterEqual", "greaterThanEqual((A), (B))"),
        binaryCase<ImgOps::less>("less", "lessThan((A), (B))"),
        binaryCase<ImgOps::binaryAnd>("binaryAnd", "(A) && (B)"),
        GlslCase{"lambdaSigmoid",
                 [] {
                     ImgOps::unaryLambdaWrapper op([](float v) { return v; },
                                                   [] { return "1.0f / (1.0f + exp(-{} * ({})))"; });
                     return op.evalString("x");
                 },
                 "1.0f / (1.0f + exp(-x * (x)))"},
        GlslCase{"lambdaTanh",
                 [] {
                     ImgOps::unaryLambdaWrapper op([](float v) { return std::tanh(v); },
                                                   [] { return "tanh({})"; });
                     return op.evalString("(a)+(b)");
                 },
                 "tanh((a)+(b))"}),
    [](::testing::TestParamInfo<GlslCase> const& info) { return info.param.name; });

TEST(ImgOpsCpu, EdgeValues)
{
    EXPECT_EQ(ImgOps::divideIfNotZero{}(6.0, 0.0), 0.0);
    EXPECT_EQ(ImgOps::divideIfNotZero{}(6.0, 3.0), 2.0);
    EXPECT_EQ(ImgOps::divideIfNotZero{}(-1.0f, -0.0f), 0.0f);
    EXPECT_EQ(ImgOps::min{}(2, 1.5), 1.5);
    EXPECT_EQ(ImgOps::max{}(2, 1.5), 2.0);
    EXPECT_EQ(ImgOps::abs{}(-3), 3);
    EXPECT_EQ(ImgOps::abs{}(-2.5f), 2.5f);
    EXPECT_EQ(ImgOps::length{}(9.0, 4.0), 25.0); // fold step: acc + v²
    EXPECT_TRUE(ImgOps::binaryAnd{}(1.0, 2.0));
    EXPECT_FALSE(ImgOps::binaryAnd{}(1.0, 0.0));
    EXPECT_DOUBLE_EQ(ImgOps::exp{}(1), std::exp(1.0));
    ImgOps::unaryLambdaWrapper halve([](double v) { return v / 2; }, [] { return "({})/2.0"; });
    EXPECT_EQ(halve(5.0), 2.5);
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

struct StrategyCase
{
    int a;
    int b;
    int expected;
};

class DeviceStrategyCombineTest : public ::testing::TestWithParam<StrategyCase>
{};

TEST_P(DeviceStrategyCombineTest, MoreRestrictiveWins)
{
    auto const [a, b, expected] = GetParam();
    EXPECT_EQ(combineDeviceStrategies(static_cast<DeviceStrategy>(a), static_cast<DeviceStrategy>(b)),
              static_cast<DeviceStrategy>(expected));
    EXPECT_EQ(combineDeviceStrategies(static_cast<DeviceStrategy>(b), static_cast<DeviceStrategy>(a)),
              static_cast<DeviceStrategy>(expected));
}

INSTANTIATE_TEST_SUITE_P(AllPairs, DeviceStrategyCombineTest,
                         ::testing::Values(StrategyCase{0, 0, 0}, StrategyCase{0, 1, 0},
                                           StrategyCase{0, 2, 0}, StrategyCase{1, 1, 1},
                                           StrategyCase{1, 2, 1}, StrategyCase{2, 2, 2},
                                           // Out-of-range values count as "any device".
                                           StrategyCase{3, 2, 2}, StrategyCase{7, 1, 1},
                                           StrategyCase{-1, 0, 0}));

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

TEST(ExpressionInterface, DescribesResult)
{
    ImageDescriptor desc(PixelType::UShort, 4, 3, 2, 3);
    desc.setShiftScale(5.0, 2.0);
    auto frame = std::make_shared<SharedImage>(desc);
    SharedImageSet set({frame, std::make_shared<SharedImage>(desc)});
    Array<SharedImageSet> a(set);
    SharedImage single(desc);
    Array<SharedImage> s(single);

    auto const expr = a * 2 + s;
    EXPECT_EQ(expr.numImgs(), 2);
    EXPECT_EQ(expr.numChannels(), 3);
    EXPECT_EQ(expr.children().size(), 2u);
    auto const result = expr.imgDesc(1);
    ASSERT_TRUE(result.has_value());
    EXPECT_EQ(result->dimensions(), Eigen::Vector3i(4, 3, 2));
    EXPECT_EQ(result->shift, 0.0);
    EXPECT_EQ(result->scale, 1.0);
    EXPECT_EQ(length(a).numChannels(), 1);
    EXPECT_EQ(cast<float>(a).imgDesc()->pixelType, PixelType::Float);
    EXPECT_EQ(cast<float>(a).leafPixelType(), PixelType::UShort);
    EXPECT_FALSE(Scalar<int>(3).imgDesc().has_value());
    EXPECT_EQ(Scalar<int>(3).numImgs(), 0);
    EXPECT_EQ((ChannelWiseScalar<float, 3>({1, 2, 3})).numChannels(), 3);
}

} // namespace
