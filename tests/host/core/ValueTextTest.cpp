#include "host/core/ValueText.h"

#include "host/core/String.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

using namespace Velmoria;

namespace {

template <class T>
bool readsAs(std::string_view text, T& out)
{
    return ValueText::fromText(text, out);
}

template <class T>
bool sameBits(T a, T b)
{
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}

enum class Interpolation : int
{
    Nearest = 0,
    Linear = 1,
    Cubic = 3,
};

} // namespace

// ---------------------------------------------------------------------------------------------
// Scalars: every number type round-trips its extreme values and rejects the same bad texts.

template <class T>
class ValueTextNumber : public ::testing::Test
{};
using NumberTypes = ::testing::Types<int, unsigned int, unsigned short, unsigned long, long long,
                                     unsigned char, signed char, float, double>;
TYPED_TEST_SUITE(ValueTextNumber, NumberTypes);

TYPED_TEST(ValueTextNumber, ExtremesRoundTripExactly)
{
    using T = TypeParam;
    for (T value : {std::numeric_limits<T>::lowest(), std::numeric_limits<T>::min(), T(0), T(1),
                    std::numeric_limits<T>::max()}) {
        std::string const text = ValueText::toText(value);
        T back = T(7);
        ASSERT_TRUE(readsAs(text, back)) << text;
        EXPECT_TRUE(sameBits(back, value)) << text;
    }
}

TYPED_TEST(ValueTextNumber, WholeTextMustBeTheNumber)
{
    using T = TypeParam;
    for (char const* bad : {"", "   ", "3x", "x3", "1 2", "3,", "++3", "+-3", "+", "0x10", "1e", "--1"}) {
        T out = T(42);
        EXPECT_FALSE(readsAs(bad, out)) << "'" << bad << "'";
        EXPECT_EQ(out, T(42)) << "'" << bad << "' changed the output";
    }
}

TYPED_TEST(ValueTextNumber, BlanksAndLeadingPlusAreAccepted)
{
    using T = TypeParam;
    T out{};
    ASSERT_TRUE(readsAs(" \t+12\n", out));
    EXPECT_EQ(out, T(12));
}

TEST(ValueTextNumber, SmallCharTypesAreNumbersNotCharacters)
{
    EXPECT_EQ(ValueText::toText(static_cast<unsigned char>(65)), "65");
    unsigned char out = 0;
    EXPECT_TRUE(readsAs("255", out));
    EXPECT_EQ(out, 255);
    EXPECT_FALSE(readsAs("256", out));
    EXPECT_FALSE(readsAs("A", out));
    EXPECT_EQ(out, 255);
}

struct IntegerCase
{
    char const* text;
    bool intOk;
    bool unsignedOk;
    bool unsignedShortOk;
};

class ValueTextIntegerRange : public ::testing::TestWithParam<IntegerCase>
{};

TEST_P(ValueTextIntegerRange, FailsOutsideTheTargetType)
{
    IntegerCase const c = GetParam();
    int i = -7;
    unsigned int u = 7;
    unsigned short s = 7;
    EXPECT_EQ(readsAs(c.text, i), c.intOk);
    EXPECT_EQ(readsAs(c.text, u), c.unsignedOk);
    EXPECT_EQ(readsAs(c.text, s), c.unsignedShortOk);
    if (!c.intOk) {
        EXPECT_EQ(i, -7);
    }
    if (!c.unsignedOk) {
        EXPECT_EQ(u, 7u);
    }
    if (!c.unsignedShortOk) {
        EXPECT_EQ(s, 7);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ValueTextIntegerRange,
    ::testing::Values(IntegerCase{"3", true, true, true}, IntegerCase{"-1", true, false, false},
                      IntegerCase{"3.0", false, false, false}, IntegerCase{"1e3", false, false, false},
                      IntegerCase{"70000", true, true, false}, IntegerCase{"65535", true, true, true},
                      IntegerCase{"2147483648", false, true, false},
                      IntegerCase{"4294967296", false, false, false},
                      IntegerCase{"-2147483648", true, false, false}));

struct DoubleCase
{
    double value;
    char const* text;
};

class ValueTextShortestDouble : public ::testing::TestWithParam<DoubleCase>
{};

TEST_P(ValueTextShortestDouble, WritesShortestFormAndReadsBackTheSameBits)
{
    DoubleCase const c = GetParam();
    EXPECT_EQ(ValueText::toText(c.value), c.text);
    double back = 0;
    ASSERT_TRUE(readsAs(c.text, back));
    EXPECT_TRUE(sameBits(back, c.value)) << c.text;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ValueTextShortestDouble,
    ::testing::Values(DoubleCase{0.1, "0.1"}, DoubleCase{1.0, "1"}, DoubleCase{1e-7, "1e-07"},
                      DoubleCase{1.0 / 3.0, "0.3333333333333333"}, DoubleCase{1e300, "1e+300"},
                      DoubleCase{-0.0, "-0"}, DoubleCase{4.9406564584124654e-324, "5e-324"},
                      DoubleCase{-2.5, "-2.5"}, DoubleCase{123456789012.0, "123456789012"}));

TEST(ValueTextFloat, FloatIsWrittenAsFloat)
{
    EXPECT_EQ(ValueText::toText(0.1f), "0.1");
    EXPECT_EQ(ValueText::toText(1.0f / 3.0f), "0.33333334");
    float back = 0;
    ASSERT_TRUE(readsAs("0.33333334", back));
    EXPECT_EQ(back, 1.0f / 3.0f);
    EXPECT_FALSE(readsAs("1e39", back)); // beyond float
    EXPECT_EQ(back, 1.0f / 3.0f);
}

TEST(ValueTextFloat, InfinityAndNanReadAsFromCharsReadsThem)
{
    double value = 0;
    ASSERT_TRUE(readsAs("inf", value));
    EXPECT_TRUE(std::isinf(value) && value > 0);
    ASSERT_TRUE(readsAs("-inf", value));
    EXPECT_TRUE(std::isinf(value) && value < 0);
    ASSERT_TRUE(readsAs("nan", value));
    EXPECT_TRUE(std::isnan(value));
    EXPECT_EQ(ValueText::toText(std::numeric_limits<double>::infinity()), "inf");
}

struct BoolCase
{
    char const* text;
    bool ok;
    bool value;
};

class ValueTextBool : public ::testing::TestWithParam<BoolCase>
{};

TEST_P(ValueTextBool, ReadsTheFourSpellingsInAnyCase)
{
    BoolCase const c = GetParam();
    bool out = !c.value;
    bool const before = out;
    EXPECT_EQ(readsAs(c.text, out), c.ok) << c.text;
    EXPECT_EQ(out, c.ok ? c.value : before) << c.text;
}

INSTANTIATE_TEST_SUITE_P(Spellings, ValueTextBool,
                         ::testing::Values(BoolCase{"true", true, true}, BoolCase{"TRUE", true, true},
                                           BoolCase{"True", true, true}, BoolCase{" 1 ", true, true},
                                           BoolCase{"false", true, false}, BoolCase{"False", true, false},
                                           BoolCase{"0", true, false}, BoolCase{"yes", false, false},
                                           BoolCase{"2", false, false}, BoolCase{"", false, true},
                                           BoolCase{"truee", false, true}));

TEST(ValueTextBool, WritesWords)
{
    EXPECT_EQ(ValueText::toText(true), "true");
    EXPECT_EQ(ValueText::toText(false), "false");
}

TEST(ValueTextEnum, IsItsUnderlyingInteger)
{
    EXPECT_EQ(ValueText::toText(Interpolation::Cubic), "3");
    Interpolation out = Interpolation::Nearest;
    ASSERT_TRUE(readsAs("1", out));
    EXPECT_EQ(out, Interpolation::Linear);
    EXPECT_FALSE(readsAs("Linear", out));
}

TEST(ValueTextString, IsKeptAsIs)
{
    std::string out;
    ASSERT_TRUE(readsAs("  two words \n", out));
    EXPECT_EQ(out, "  two words \n");
    EXPECT_EQ(ValueText::toText(std::string(" x ")), " x ");
}

// ---------------------------------------------------------------------------------------------
// Fixed vectors of every scalar and several sizes

template <class V>
class ValueTextFixedVector : public ::testing::Test
{
protected:
    static V sample()
    {
        V v;
        for (Eigen::Index i = 0; i < v.size(); ++i)
            v(i) = static_cast<typename V::Scalar>(i * 3 - 2);
        return v;
    }
    static std::string sampleText()
    {
        std::string text;
        for (Eigen::Index i = 0; i < V::SizeAtCompileTime; ++i)
            text += (i ? " " : "") + std::to_string(i * 3 - 2);
        return text;
    }
};
using FixedVectorTypes = ::testing::Types<Eigen::Vector2i, Eigen::Vector3f, Eigen::Vector4d, Eigen::Vector3i,
                                          Eigen::Matrix<double, 1, 3>, Eigen::Matrix<float, 6, 1>>;
TYPED_TEST_SUITE(ValueTextFixedVector, FixedVectorTypes);

TYPED_TEST(ValueTextFixedVector, NumbersSeparatedBySingleBlanks)
{
    EXPECT_EQ(ValueText::toText(this->sample()), this->sampleText());
}

TYPED_TEST(ValueTextFixedVector, ReadsPlainBracketedAndLooselySpacedForms)
{
    std::string const plain = this->sampleText();
    std::string const loose = "\t " + String::replaceAllCopy(plain, " ", " \t\n  ") + "  \n";
    for (std::string const& text : {plain, "[" + plain + "]", loose, "[ " + loose + " ]"}) {
        TypeParam out = TypeParam::Zero();
        ASSERT_TRUE(readsAs(text, out)) << "'" << text << "'";
        EXPECT_EQ(out, this->sample()) << "'" << text << "'";
    }
}

TYPED_TEST(ValueTextFixedVector, CountMustMatchExactly)
{
    std::string const plain = this->sampleText();
    TypeParam out = TypeParam::Constant(9);
    EXPECT_FALSE(readsAs(plain + " 1", out));
    EXPECT_FALSE(readsAs(plain.substr(0, plain.rfind(' ')), out));
    EXPECT_FALSE(readsAs("", out));
    EXPECT_FALSE(readsAs("[" + plain, out));
    EXPECT_FALSE(readsAs(plain + " x", out));
    EXPECT_EQ(out, TypeParam::Constant(9));
}

TEST(ValueTextFixedVector, ColumnOfSingleNumbersReads)
{
    Eigen::Vector3d out;
    ASSERT_TRUE(readsAs("[1, 2.5, -3]", out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2.5, -3));
    EXPECT_EQ(ValueText::toText(Eigen::Vector3d(0.1, 1, 1e-7)), "0.1 1 1e-07");
}

TEST(ValueTextFixedVector, ListValueItemsAreNumbersOrRows)
{
    Eigen::Vector3d out = Eigen::Vector3d::Zero();
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1", "2", "3"}), out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2, 3));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1", "2"}), out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2, 3));
}

// ---------------------------------------------------------------------------------------------
// Matrices

struct MatrixCase
{
    char const* text;
    bool ok;
};

class ValueTextMatrix : public ::testing::TestWithParam<MatrixCase>
{};

TEST_P(ValueTextMatrix, ReadsTwoByThreeForms)
{
    MatrixCase const c = GetParam();
    Eigen::Matrix<double, 2, 3> expected;
    expected << 1, 2, 3, 4, 5, 6;
    Eigen::Matrix<double, 2, 3> out = Eigen::Matrix<double, 2, 3>::Constant(-1);
    EXPECT_EQ(readsAs(c.text, out), c.ok) << c.text;
    if (c.ok) {
        EXPECT_EQ(out, expected) << c.text;
    } else {
        EXPECT_EQ(out, (Eigen::Matrix<double, 2, 3>::Constant(-1))) << c.text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Forms, ValueTextMatrix,
    ::testing::Values(MatrixCase{"[1 2 3, 4 5 6]", true}, MatrixCase{"  [ 1  2 3 ,\n 4 5   6 ] ", true},
                      MatrixCase{"[[1 2 3], [4 5 6]]", true}, MatrixCase{"[[1, 2, 3], [4, 5, 6]]", true},
                      MatrixCase{"1 2 3 4 5 6", true}, MatrixCase{"[1 2 3 4 5 6]", true},
                      MatrixCase{"[1 2, 3 4, 5 6]", false}, MatrixCase{"[1 2 3, 4 5]", false},
                      MatrixCase{"1 2 3 4 5", false}, MatrixCase{"[1 2 3, 4 5 6", false},
                      MatrixCase{"[1 2 3], 4 5 6]", false}, MatrixCase{"[1 2 3, 4 5 x]", false},
                      MatrixCase{"[[[1 2 3]], [4 5 6]]", false}, MatrixCase{"", false}));

TEST(ValueTextMatrix, WritesRowsInBrackets)
{
    EXPECT_EQ(ValueText::toText(Eigen::Matrix2d::Identity().eval()), "[1 0, 0 1]");
    Eigen::Matrix<float, 2, 3> m;
    m << 0.1f, 2, 3, 4, 5, -6;
    EXPECT_EQ(ValueText::toText(m), "[0.1 2 3, 4 5 -6]");
    Eigen::Matrix4d r = Eigen::Matrix4d::Random();
    Eigen::Matrix4d back;
    ASSERT_TRUE(readsAs(ValueText::toText(r), back));
    EXPECT_EQ(back, r);
}

// ---------------------------------------------------------------------------------------------
// Dynamic lists

TEST(ValueTextNumberVector, AnyLengthAndEmpty)
{
    EXPECT_EQ(ValueText::toText(std::vector<double>{1, 0.5, -2}), "1 0.5 -2");
    EXPECT_EQ(ValueText::toText(std::vector<int>{}), "");
    std::vector<int> out{9};
    ASSERT_TRUE(readsAs("", out));
    EXPECT_TRUE(out.empty());
    ASSERT_TRUE(readsAs("[4 5 6 7]", out));
    EXPECT_EQ(out, (std::vector<int>{4, 5, 6, 7}));
    EXPECT_FALSE(readsAs("4 5.5", out));
    EXPECT_EQ(out, (std::vector<int>{4, 5, 6, 7}));
}

TEST(ValueTextNumberVector, ListItemsAreConcatenated)
{
    std::vector<float> out;
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1 2", "3", "", "4.5"}), out));
    EXPECT_EQ(out, (std::vector<float>{1, 2, 3, 4.5f}));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1", "two"}), out));
    EXPECT_EQ(out.size(), 4u);
}

TEST(ValueTextVectorOfVectors, MatrixFormOneRowPerElement)
{
    std::vector<Eigen::Vector3d> const points{{1, 2, 3}, {4, 5, 6.5}};
    EXPECT_EQ(ValueText::toText(points), "[1 2 3, 4 5 6.5]");
    EXPECT_EQ(ValueText::toText(std::vector<Eigen::Vector3d>{}), "");

    for (char const* text : {"[1 2 3, 4 5 6.5]", "1 2 3 4 5 6.5", "[[1 2 3], [4 5 6.5]]"}) {
        std::vector<Eigen::Vector3d> out;
        ASSERT_TRUE(readsAs(text, out)) << text;
        EXPECT_EQ(out, points) << text;
    }
    std::vector<Eigen::Vector3d> out{{0, 0, 0}};
    EXPECT_FALSE(readsAs("1 2 3 4", out));
    EXPECT_FALSE(readsAs("[1 2 3, 4 5]", out));
    EXPECT_EQ(out.size(), 1u);
    ASSERT_TRUE(readsAs("", out));
    EXPECT_TRUE(out.empty());
}

TEST(ValueTextVectorOfVectors, ListItemsAreVectors)
{
    std::vector<Eigen::Vector2f> out;
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1 2", "[3 4]"}), out));
    EXPECT_EQ(out, (std::vector<Eigen::Vector2f>{{1, 2}, {3, 4}}));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1 2", "3"}), out));
    EXPECT_EQ(out.size(), 2u);
}

TEST(ValueTextStringVector, IsAListAndReadsTextAsOneItem)
{
    std::vector<std::string> const items{"image", "", " label "};
    ParamValue const value = ValueText::toValue(items);
    ASSERT_TRUE(value.isList());
    std::vector<std::string> out;
    ASSERT_TRUE(ValueText::fromValue(value, out));
    EXPECT_EQ(out, items);
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromText("image"), out));
    EXPECT_EQ(out, (std::vector<std::string>{"image"}));
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromText(""), out));
    EXPECT_TRUE(out.empty());
}

TEST(ValueTextStringVector, ScalarsDoNotReadFromLists)
{
    ParamValue const list = ParamValue::fromList({"3"});
    int i = 1;
    std::string s = "keep";
    bool b = false;
    EXPECT_FALSE(ValueText::fromValue(list, i));
    EXPECT_FALSE(ValueText::fromValue(list, s));
    EXPECT_FALSE(ValueText::fromValue(list, b));
    EXPECT_EQ(i, 1);
    EXPECT_EQ(s, "keep");
}

// ---------------------------------------------------------------------------------------------
// Optionals

TEST(ValueTextOptional, EmptyTextIsNullopt)
{
    EXPECT_EQ(ValueText::toText(std::optional<int>{}), "");
    EXPECT_EQ(ValueText::toText(std::optional<double>{0.25}), "0.25");
    EXPECT_EQ(ValueText::toText(std::optional<Eigen::Vector2d>{Eigen::Vector2d(1, 2)}), "1 2");

    std::optional<int> i = 5;
    ASSERT_TRUE(readsAs("", i));
    EXPECT_FALSE(i.has_value());
    ASSERT_TRUE(readsAs(" 7 ", i));
    EXPECT_EQ(i, 7);
    EXPECT_FALSE(readsAs("seven", i));
    EXPECT_EQ(i, 7);

    std::optional<unsigned char> u;
    ASSERT_TRUE(readsAs("200", u));
    EXPECT_EQ(u, 200);
    EXPECT_FALSE(readsAs("300", u));

    std::optional<Eigen::Vector3f> v;
    ASSERT_TRUE(readsAs("1 2 3", v));
    EXPECT_EQ(*v, Eigen::Vector3f(1, 2, 3));
    ASSERT_TRUE(readsAs("   ", v));
    EXPECT_FALSE(v.has_value());
}

TEST(ValueTextOptional, StringIsNulloptOnlyForTheEmptyText)
{
    std::optional<std::string> s = "x";
    ASSERT_TRUE(readsAs("", s));
    EXPECT_FALSE(s.has_value());
    ASSERT_TRUE(readsAs(" ", s));
    EXPECT_EQ(s, " ");
}

TEST(ValueTextSameValue, TreatsNanAsEqualAndSignedZerosAsDifferent)
{
    double const nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(ValueText::sameValue(nan, nan));
    EXPECT_FALSE(ValueText::sameValue(0.0, -0.0));
    EXPECT_FALSE(ValueText::sameValue(nan, 1.0));
    EXPECT_TRUE(ValueText::sameValue(Eigen::Vector2d(nan, 1), Eigen::Vector2d(nan, 1)));
    EXPECT_FALSE(ValueText::sameValue(std::optional<int>{}, std::optional<int>{0}));
}

// ---------------------------------------------------------------------------------------------
// Attribute text

struct AttributeCase
{
    char const* text;
    ParamAttributes expected;
};

class ValueTextAttributes : public ::testing::TestWithParam<AttributeCase>
{};

TEST_P(ValueTextAttributes, Parses)
{
    AttributeCase const& c = GetParam();
    ParamAttributes out{{"stale", "entry"}};
    std::string error;
    ASSERT_TRUE(ValueText::parseAttributes(c.text, out, &error)) << c.text << ": " << error;
    EXPECT_EQ(out, c.expected) << c.text;
    // Whatever was read is written so that it reads back the same.
    ParamAttributes back;
    ASSERT_TRUE(ValueText::parseAttributes(ValueText::writeAttributes(out), back));
    EXPECT_EQ(back, c.expected) << ValueText::writeAttributes(out);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, ValueTextAttributes,
    ::testing::Values(
        AttributeCase{"values: 'ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU'",
                      {{"values", "ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU"}}},
        AttributeCase{"values:'A,B,C'", {{"values", "A,B,C"}}}, AttributeCase{"hidden: 1", {{"hidden", "1"}}},
        AttributeCase{"hidden: 0, deprecatedName: old, deprecatedName: older",
                      {{"hidden", "0"}, {"deprecatedName", "old"}, {"deprecatedName", "older"}}},
        AttributeCase{"  label :  Two words  ,default:3", {{"label", "Two words"}, {"default", "3"}}},
        AttributeCase{"a: 'it''s', b: ''", {{"a", "it's"}, {"b", ""}}},
        AttributeCase{"a:, b: x", {{"a", ""}, {"b", "x"}}}, AttributeCase{"", {}}, AttributeCase{" , ", {}},
        AttributeCase{"url: http://x", {{"url", "http://x"}}}));

class ValueTextBadAttributes : public ::testing::TestWithParam<char const*>
{};

TEST_P(ValueTextBadAttributes, FailWithAReasonAndKeepTheOutput)
{
    ParamAttributes out{{"keep", "me"}};
    std::string error;
    EXPECT_FALSE(ValueText::parseAttributes(GetParam(), out, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(out, (ParamAttributes{{"keep", "me"}}));
}

INSTANTIATE_TEST_SUITE_P(Texts, ValueTextBadAttributes,
                         ::testing::Values("novalue", "a: 1, b", "a: 'open", "a: 'x' y", ": value"));

TEST(ValueTextAttributes, WriterQuotesOnlyWhatNeedsIt)
{
    EXPECT_EQ(ValueText::writeAttributes({{"values", "A, B"}, {"hidden", "1"}}), "values: 'A, B', hidden: 1");
    EXPECT_EQ(ValueText::writeAttributes({{"a", "it's"}, {"b", ""}, {"c", "x\ny"}}),
              "a: 'it''s', b: '', c: 'x\ny'");
    EXPECT_EQ(ValueText::writeAttributes({}), "");
}
