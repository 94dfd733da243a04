// PolyWrapper: run-time built trees, bound to images by variable name, evaluated row by row, on
// several pixel types with non-trivial shift and scale, against plain loops.

#include "ml/imagemath/ImageMath.h"
#include "tests/ml/imagemath/ImageMathSets.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <functional>

using namespace Velmoria;
using namespace Velmoria::ImageMath;
using namespace Velmoria::ImageMath::internal;
using namespace Velmoria::ImageMathTest;

namespace {

using Vec = Eigen::Vector3i;
using Poly = PolyWrapper;

template <class T>
class PolyWrapperTyped : public ::testing::Test
{
protected:
    // x: type T, original = stored / 2 + 3; y: float (another type than the target), original =
    // 2 · stored − 1. Two frames, two channels, 7x5x3 (odd sizes: rows are not a power of two).
    std::shared_ptr<SharedImageSet> x =
        makeSet<T>(Vec(7, 5, 3), 2, 2, -3.0, 2.0, [](int f, int j) { return (j * 7 + f) % 31; });
    std::shared_ptr<SharedImageSet> y =
        makeSet<float>(Vec(7, 5, 3), 2, 2, 1.0, 0.5, [](int f, int j) { return (j * 3 + 2 * f) % 13; });
    std::shared_ptr<SharedImageSet> target =
        makeSet<T>(Vec(7, 5, 3), 2, 2, 4.0, 0.5, [](int, int) { return 0; });

    // Expects target = reference(x, y) for every value.
    void expectTarget(std::function<double(double, double)> const& reference, char const* what)
    {
        expectStored<T>(
            *target,
            [&](int f, std::size_t j) {
                return reference(originalAt<T>(*x, f, j), originalAt<float>(*y, f, j));
            },
            what);
    }
    Poly bound(Poly formula)
    {
        EXPECT_TRUE(formula.substituteVariableWithImg("x", *x));
        if (std::ranges::count(formula.variableNames(), std::string("y")) > 0) {
            EXPECT_TRUE(formula.substituteVariableWithImg("y", *y));
        }
        return formula;
    }
};

using PixelTypes = ::testing::Types<char, unsigned char, short, int, float, double>;
TYPED_TEST_SUITE(PolyWrapperTyped, PixelTypes);

TYPED_TEST(PolyWrapperTyped, EveryOperatorMatchesAPlainLoop)
{
    struct Case
    {
        PolyOp op;
        char const* name;
        std::function<double(double, double)> reference;
    };
    std::vector<Case> const cases = {
        {PolyOp::Add, "add", [](double a, double b) { return a + b; }},
        {PolyOp::Subtract, "subtract", [](double a, double b) { return a - b; }},
        {PolyOp::Multiply, "multiply", [](double a, double b) { return a * b; }},
        {PolyOp::Divide, "divide", [](double a, double b) { return a / (b + 2); }}, // b + 2 >= 1
        {PolyOp::Min, "min", [](double a, double b) { return std::min(a, b); }},
        {PolyOp::Max, "max", [](double a, double b) { return std::max(a, b); }},
    };
    Array<SharedImageSet> out(*this->target);
    for (Case const& c : cases) {
        Poly rhs = Poly::variable("y");
        if (c.op == PolyOp::Divide)
            rhs = Poly::apply(PolyOp::Add, rhs, Poly::constant(2.0));
        Poly const formula = this->bound(Poly::apply(c.op, Poly::variable("x"), rhs));
        ASSERT_TRUE(out.assign(formula)) << c.name;
        this->expectTarget(c.reference, c.name);
    }
}

TYPED_TEST(PolyWrapperTyped, DeepTreesAndCompileTimeOperands)
{
    // max(x · 2 − y, 4) / (x + 1) − 3, with the same variable in several leaves; then inside a
    // compile-time tree together with an Array leaf of the same image.
    Poly const x = Poly::variable("x");
    Poly const y = Poly::variable("y");
    Poly const inner = Poly::apply(
        PolyOp::Max, Poly::apply(PolyOp::Subtract, Poly::apply(PolyOp::Multiply, x, Poly::constant(2.0)), y),
        Poly::constant(4.0));
    Poly const formula = this->bound(
        Poly::apply(PolyOp::Subtract,
                    Poly::apply(PolyOp::Divide, inner, Poly::apply(PolyOp::Add, x, Poly::constant(1.0))),
                    Poly::constant(3.0)));
    EXPECT_EQ(formula.variableNames(), (std::vector<std::string>{"x", "y"}));
    Array<SharedImageSet> out(*this->target);
    ASSERT_TRUE(out.assign(formula));
    auto const reference = [](double a, double b) { return std::max(a * 2 - b, 4.0) / (a + 1) - 3; };
    this->expectTarget(reference, "formula");
    ASSERT_TRUE(out.assign(formula * 2 + Array<SharedImageSet>(*this->x)));
    this->expectTarget([&](double a, double b) { return reference(a, b) * 2 + a; }, "mixed");
    // Through a channel view and a channel reduction: the channel argument, not the offset,
    // picks the value in the row.
    ASSERT_TRUE(out.assign(
        swizzle(swizzle(formula, {1, 0}) - swizzle(Array<SharedImageSet, float>(*this->y), {1, 0}), {1, 0})));
    this->expectTarget([&](double a, double b) { return reference(a, b) - b; }, "swizzled");
    auto const totals = sum(formula).eval();
    ASSERT_EQ(totals.size(), 2u);
    double expected = 0.0;
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < 210; j += 2)
            expected += reference(originalAt<TypeParam>(*this->x, f, j), originalAt<float>(*this->y, f, j));
    EXPECT_NEAR(totals[0], expected, 1e-9 * std::max(1.0, std::fabs(expected)));
}

TYPED_TEST(PolyWrapperTyped, BlocksReadTheRightRows)
{
    using T = TypeParam;
    Poly const formula = this->bound(Poly::apply(PolyOp::Add, Poly::variable("x"), Poly::variable("y")));
    auto small = makeSet<T>(Vec(3, 2, 2), 2, 2, 0.0, 1.0, [](int, int) { return 0; });
    Vec const offset(4, 2, 1);
    ASSERT_TRUE(Array<SharedImageSet>(*small).assign(formula.block(offset, Vec(3, 2, 2))));
    for (int f = 0; f < 2; ++f)
        for (int z = 0; z < 2; ++z)
            for (int y = 0; y < 2; ++y)
                for (int x = 0; x < 3; ++x)
                    for (int c = 0; c < 2; ++c) {
                        Vec const q = Vec(x, y, z) + offset;
                        double const v = original<T>(*this->x, f, q.x(), q.y(), q.z(), c) +
                                         original<float>(*this->y, f, q.x(), q.y(), q.z(), c);
                        ASSERT_EQ(typed<T>(*small, f).value(x, y, z, c), Detail::saturateCast<T>(v))
                            << f << ": " << x << y << z << c;
                    }
}

TEST(PolyWrapper, SameResultOnAnyThreadCount)
{
    auto image = makeSet<float>(Vec(33, 17, 11), 1, 1, 0.0, 1.0, [](int, int j) { return j % 101; });
    auto out1 = makeSet<float>(Vec(33, 17, 11), 1, 1, 0.0, 1.0, [](int, int) { return 0; });
    auto out3 = makeSet<float>(Vec(33, 17, 11), 1, 1, 0.0, 1.0, [](int, int) { return 0; });
    Poly formula = Poly::apply(PolyOp::Multiply, Poly::variable("v"), Poly::variable("v"));
    ASSERT_TRUE(formula.substituteVariableWithImg("v", *image));
    int const threads = omp_get_max_threads();
    omp_set_num_threads(1);
    ASSERT_TRUE(Array<SharedImageSet>(*out1).assign(formula));
    omp_set_num_threads(3);
    ASSERT_TRUE(Array<SharedImageSet>(*out3).assign(formula));
    omp_set_num_threads(threads);
    for (std::size_t j = 0; j < typed<float>(*out1).valueCount(); ++j) {
        ASSERT_EQ(typed<float>(*out1).value(j), float((j % 101) * (j % 101))) << j;
        ASSERT_EQ(typed<float>(*out3).value(j), typed<float>(*out1).value(j)) << j;
    }
}

TEST(PolyWrapper, SingleImagesConstantsAndBroadcast)
{
    auto set = makeSet<short>(Vec(4, 3, 2), 3, 1, 0.0, 1.0, [](int f, int j) { return 10 * f + j; });
    SharedImage offsets(ImageDescriptor(PixelType::UChar, Vec(4, 3, 2), 1));
    static_cast<TypedImage<unsigned char>&>(*offsets.mem()).fill(5);
    Poly formula = Poly::apply(PolyOp::Subtract, Poly::variable("frames"), Poly::variable("offset"));
    ASSERT_TRUE(formula.substituteVariableWithImg("frames", *set));
    ASSERT_TRUE(formula.substituteVariableWithImg("offset", offsets)); // one image for every frame
    EXPECT_EQ(formula.numImgs(), 3);
    EXPECT_EQ(formula.numChannels(), 1);
    EXPECT_EQ(formula.deviceStrategy(), DeviceStrategy::CpuOnly);
    Array<SharedImageSet> out(*set);
    ASSERT_TRUE(out.assign(formula));
    for (int f = 0; f < 3; ++f)
        EXPECT_EQ(typed<short>(*set, f).value(std::size_t(7)), 10 * f + 7 - 5) << f;

    // A tree of constants only fits any target.
    Poly const constant = Poly::apply(PolyOp::Max, Poly::constant(2.0), Poly::constant(-1.0));
    EXPECT_EQ(constant.numImgs(), 0);
    ASSERT_TRUE(out.assign(Array<SharedImageSet>(*set) * constant));
    EXPECT_EQ(typed<short>(*set, 2).value(std::size_t(7)), 2 * (20 + 2));
    EXPECT_EQ(evaluateIntoImage(constant), nullptr);
}

TEST(PolyWrapper, UnboundOrBadTreesAreRefused)
{
    auto set = makeSet<float>(Vec(4, 3, 2), 1, 1, 0.0, 1.0, [](int, int) { return 1; });
    auto other = makeSet<float>(Vec(4, 3, 3), 1, 1, 0.0, 1.0, [](int, int) { return 1; });
    Array<SharedImageSet> out(*set);
    Log::Capture capture;

    Poly formula = Poly::apply(PolyOp::Add, Poly::variable("a"), Poly::variable("b"));
    ASSERT_TRUE(formula.substituteVariableWithImg("a", *set));
    EXPECT_FALSE(out.assign(formula));
    EXPECT_TRUE(capture.contains("Cannot assign expression to frame 0 (float 4x3x2 1ch spacing 1 1 1 mm): "
                                 "variable 'b' is not bound to an image",
                                 "ML.ImageMath"));
    EXPECT_FALSE(formula.substituteVariableWithImg("c", *set));
    EXPECT_TRUE(
        capture.contains("Cannot bind variable 'c': the expression has no such variable", "ML.ImageMath"));
    ASSERT_TRUE(formula.substituteVariableWithImg("b", *other));
    EXPECT_FALSE(out.assign(formula));
    EXPECT_TRUE(capture.containsFragment("variable 'b': operand is 4x3x3 with 1 channels, target is 4x3x2"));

    Poly const bad = Poly::apply(static_cast<PolyOp>(9), Poly::constant(1.0), Poly::constant(2.0));
    EXPECT_TRUE(capture.contains("Unknown run-time operator 9", "ML.ImageMath"));
    EXPECT_FALSE(out.assign(bad + 1));
    EXPECT_TRUE(capture.containsFragment("unknown run-time operator 9"));
    // The error travels up through further operators.
    EXPECT_FALSE(out.assign(Poly::apply(PolyOp::Add, Poly::constant(1.0), bad)));

    for (std::size_t j = 0; j < typed<float>(*set).valueCount(); ++j)
        ASSERT_EQ(typed<float>(*set).value(j), 1.0f);
}

} // namespace
