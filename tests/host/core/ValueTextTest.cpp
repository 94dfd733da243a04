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
    T out{};
    ASSERT_TRUE(readsAs(" \t+12\n", out)) << "blanks and a leading plus are accepted";
    EXPECT_EQ(out, T(12));
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

TEST(ValueTextInteger, FailsOutsideTheTargetType)
{
    struct Case
    {
        char const* text;
        char const* readBy; // i: int, u: unsigned int, s: unsigned short, c: unsigned char
    };
    for (Case const& c : {Case{"3", "iusc"}, Case{"-1", "i"}, Case{"3.0", ""}, Case{"1e3", ""}, Case{"A", ""},
                          Case{"256", "ius"}, Case{"65535", "ius"}, Case{"70000", "iu"},
                          Case{"2147483648", "u"}, Case{"4294967296", ""}, Case{"-2147483648", "i"}}) {
        SCOPED_TRACE(c.text);
        auto const check = [&c](auto out, char type) {
            bool const expected = std::string_view(c.readBy).find(type) != std::string_view::npos;
            EXPECT_EQ(readsAs(c.text, out), expected) << type;
            EXPECT_TRUE(expected || out == 7) << type << ": a failed read leaves the output untouched";
        };
        check(7, 'i');
        check(7u, 'u');
        check(static_cast<unsigned short>(7), 's');
        check(static_cast<unsigned char>(7), 'c');
    }
}

TEST(ValueTextDouble, WritesTheShortestFormThatReadsBackTheSameBits)
{
    struct Case
    {
        double value;
        char const* text;
    };
    double const inf = std::numeric_limits<double>::infinity();
    for (Case const& c :
         {Case{0.1, "0.1"}, Case{1.0, "1"}, Case{1e-7, "1e-07"}, Case{1.0 / 3.0, "0.3333333333333333"},
          Case{1e300, "1e+300"}, Case{-0.0, "-0"}, Case{4.9406564584124654e-324, "5e-324"},
          Case{123456789012.0, "123456789012"}, Case{inf, "inf"}, Case{-inf, "-inf"}}) {
        EXPECT_EQ(ValueText::toText(c.value), c.text);
        double back = 0;
        ASSERT_TRUE(readsAs(c.text, back));
        EXPECT_TRUE(sameBits(back, c.value)) << c.text;
    }
}

TEST(ValueTextBool, ReadsTheFourSpellingsInAnyCase)
{
    struct Case
    {
        char const* text;
        bool ok;
        bool value;
    };
    for (Case const& c : {Case{"true", true, true}, Case{"TRUE", true, true}, Case{" 1 ", true, true},
                          Case{"False", true, false}, Case{"0", true, false}, Case{"yes", false, false},
                          Case{"2", false, false}, Case{"", false, true}, Case{"truee", false, true}}) {
        SCOPED_TRACE(c.text);
        bool out = !c.value;
        EXPECT_EQ(readsAs(c.text, out), c.ok);
        EXPECT_EQ(out, c.ok ? c.value : !c.value);
    }
}

TEST(ValueText, FloatsEnumsAndStrings)
{
    EXPECT_EQ(ValueText::toText(1.0f / 3.0f), "0.33333334") << "a float is written as a float";
    float back = 0.5f;
    EXPECT_FALSE(readsAs("1e39", back)); // beyond float
    EXPECT_EQ(back, 0.5f);
    double value = 0;
    ASSERT_TRUE(readsAs("nan", value));
    EXPECT_TRUE(std::isnan(value));

    EXPECT_EQ(ValueText::toText(Interpolation::Cubic), "3");
    Interpolation mode = Interpolation::Nearest;
    ASSERT_TRUE(readsAs("1", mode));
    EXPECT_EQ(mode, Interpolation::Linear);
    EXPECT_FALSE(readsAs("Linear", mode));
    std::string text;
    ASSERT_TRUE(readsAs("  two words \n", text));
    EXPECT_EQ(text, "  two words \n");
}

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

TYPED_TEST(ValueTextFixedVector, WritesSingleBlanksAndReadsPlainBracketedAndLooseForms)
{
    std::string const plain = this->sampleText();
    EXPECT_EQ(ValueText::toText(this->sample()), plain);
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
    for (std::string const& text :
         {plain + " 1", plain.substr(0, plain.rfind(' ')), std::string(), "[" + plain, plain + " x"})
        EXPECT_FALSE(readsAs(text, out)) << "'" << text << "'";
    EXPECT_EQ(out, TypeParam::Constant(9));
}

TEST(ValueTextFixedVector, CommaSeparatedAndListValuesRead)
{
    Eigen::Vector3d out;
    ASSERT_TRUE(readsAs("[1, 2.5, -3]", out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2.5, -3));
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1", "2", "3"}), out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2, 3));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1", "2"}), out));
    EXPECT_EQ(out, Eigen::Vector3d(1, 2, 3));
}

TEST(ValueTextMatrix, ReadsRowFormsAndWritesRowsInBrackets)
{
    using Matrix = Eigen::Matrix<double, 2, 3>;
    Matrix const expected = (Matrix() << 1, 2, 3, 4, 5, 6).finished();
    for (char const* text : {"[1 2 3, 4 5 6]", "  [ 1  2 3 ,\n 4 5   6 ] ", "[[1 2 3], [4 5 6]]",
                             "[[1, 2, 3], [4, 5, 6]]", "1 2 3 4 5 6", "[1 2 3 4 5 6]"}) {
        Matrix out = Matrix::Zero();
        ASSERT_TRUE(readsAs(text, out)) << text;
        EXPECT_EQ(out, expected) << text;
    }
    Matrix out = expected;
    for (char const* text : {"[1 2, 3 4, 5 6]", "[1 2 3, 4 5]", "1 2 3 4 5", "[1 2 3, 4 5 6",
                             "[1 2 3], 4 5 6]", "[1 2 3, 4 5 x]", "[[[1 2 3]], [4 5 6]]", ""})
        EXPECT_FALSE(readsAs(text, out)) << text;
    EXPECT_EQ(out, expected) << "failed reads leave the output untouched";

    EXPECT_EQ(ValueText::toText((Eigen::Matrix<float, 2, 3>() << 0.1f, 2, 3, 4, 5, -6).finished()),
              "[0.1 2 3, 4 5 -6]");
    Eigen::Matrix4d const random = Eigen::Matrix4d::Random();
    Eigen::Matrix4d back;
    ASSERT_TRUE(readsAs(ValueText::toText(random), back));
    EXPECT_EQ(back, random);
}

TEST(ValueTextNumberVector, AnyLengthEmptyOrConcatenatedListItems)
{
    EXPECT_EQ(ValueText::toText(std::vector<double>{1, 0.5, -2}), "1 0.5 -2");
    std::vector<int> out{9};
    ASSERT_TRUE(readsAs("", out));
    EXPECT_TRUE(out.empty());
    ASSERT_TRUE(readsAs("[4 5 6 7]", out));
    EXPECT_EQ(out, (std::vector<int>{4, 5, 6, 7}));
    EXPECT_FALSE(readsAs("4 5.5", out));
    EXPECT_EQ(out, (std::vector<int>{4, 5, 6, 7}));

    std::vector<float> floats;
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1 2", "3", "", "4.5"}), floats));
    EXPECT_EQ(floats, (std::vector<float>{1, 2, 3, 4.5f}));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1", "two"}), floats));
    EXPECT_EQ(floats.size(), 4u);
}

TEST(ValueTextVectorOfVectors, MatrixFormOneRowPerElementOrOneListItemEach)
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

    std::vector<Eigen::Vector2f> items;
    ASSERT_TRUE(ValueText::fromValue(ParamValue::fromList({"1 2", "[3 4]"}), items));
    EXPECT_EQ(items, (std::vector<Eigen::Vector2f>{{1, 2}, {3, 4}}));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"1 2", "3"}), items));
    EXPECT_EQ(items.size(), 2u);
}

TEST(ValueTextStringVector, IsAListAndScalarsDoNotReadFromLists)
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

    int number = 1;
    std::string text = "keep";
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"3"}), number));
    EXPECT_FALSE(ValueText::fromValue(ParamValue::fromList({"3"}), text));
    EXPECT_EQ(number, 1);
    EXPECT_EQ(text, "keep");
}

TEST(ValueTextOptional, EmptyTextIsNullopt)
{
    EXPECT_EQ(ValueText::toText(std::optional<int>{}), "");
    EXPECT_EQ(ValueText::toText(std::optional<Eigen::Vector2d>{Eigen::Vector2d(1, 2)}), "1 2");
    std::optional<int> i = 5;
    ASSERT_TRUE(readsAs("", i));
    EXPECT_FALSE(i.has_value());
    ASSERT_TRUE(readsAs(" 7 ", i));
    EXPECT_FALSE(readsAs("seven", i));
    EXPECT_EQ(i, 7);
    std::optional<Eigen::Vector3f> v;
    ASSERT_TRUE(readsAs("1 2 3", v));
    EXPECT_EQ(v, Eigen::Vector3f(1, 2, 3));
    ASSERT_TRUE(readsAs("   ", v));
    EXPECT_FALSE(v.has_value());
    // Only the empty text is no string.
    std::optional<std::string> s = "x";
    ASSERT_TRUE(readsAs(" ", s));
    EXPECT_EQ(s, " ");
    ASSERT_TRUE(readsAs("", s));
    EXPECT_FALSE(s.has_value());
}

TEST(ValueTextAttributes, ParseAndWriteBackTheSame)
{
    struct Case
    {
        char const* text;
        ParamAttributes expected;
    };
    for (Case const& c :
         std::vector<Case>{{"values: 'ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU'",
                            {{"values", "ForceCPU, GPUIfGlImage, GPUIfOpenGl, ForceGPU"}}},
                           {"values:'A,B,C'", {{"values", "A,B,C"}}},
                           {"hidden: 0, deprecatedName: old, deprecatedName: older",
                            {{"hidden", "0"}, {"deprecatedName", "old"}, {"deprecatedName", "older"}}},
                           {"  label :  Two words  ,default:3", {{"label", "Two words"}, {"default", "3"}}},
                           {"a: 'it''s', b: ''", {{"a", "it's"}, {"b", ""}}},
                           {"a:, b: x", {{"a", ""}, {"b", "x"}}},
                           {"", {}},
                           {" , ", {}},
                           {"url: http://x", {{"url", "http://x"}}}}) {
        ParamAttributes out{{"stale", "entry"}};
        std::string error;
        ASSERT_TRUE(ValueText::parseAttributes(c.text, out, &error)) << c.text << ": " << error;
        EXPECT_EQ(out, c.expected) << c.text;
        ParamAttributes back;
        ASSERT_TRUE(ValueText::parseAttributes(ValueText::writeAttributes(out), back));
        EXPECT_EQ(back, c.expected) << ValueText::writeAttributes(out);
    }
}

TEST(ValueTextAttributes, BadTextFailsWithAReasonAndKeepsTheOutput)
{
    for (char const* text : {"novalue", "a: 1, b", "a: 'open", "a: 'x' y", ": value"}) {
        ParamAttributes out{{"keep", "me"}};
        std::string error;
        EXPECT_FALSE(ValueText::parseAttributes(text, out, &error)) << text;
        EXPECT_FALSE(error.empty()) << text;
        EXPECT_EQ(out, (ParamAttributes{{"keep", "me"}})) << text;
    }
}

} // namespace
