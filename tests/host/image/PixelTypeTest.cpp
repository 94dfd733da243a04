#include "host/image/PixelType.h"

#include "host/image/Image.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

using namespace Velmoria;

namespace {

struct PixelTypeRow
{
    PixelType type;
    int value;
    char const* name;
    char const* alias;
    std::size_t size;
    bool isInteger;
    bool isSigned;
    double min;
    double max;
};

class PixelTypeTable : public ::testing::TestWithParam<PixelTypeRow>
{};

} // namespace

// The numeric values and names are written into files: they must never change.
TEST_P(PixelTypeTable, PropertiesAreFixed)
{
    auto const& row = GetParam();
    EXPECT_EQ(static_cast<int>(row.type), row.value);
    EXPECT_EQ(pixelTypeName(row.type), row.name);
    EXPECT_EQ(pixelTypeSize(row.type), row.size);
    EXPECT_EQ(isIntegerPixelType(row.type), row.isInteger);
    EXPECT_EQ(isSignedPixelType(row.type), row.isSigned);
    EXPECT_EQ(pixelTypeMin(row.type), row.min);
    EXPECT_EQ(pixelTypeMax(row.type), row.max);
}

TEST_P(PixelTypeTable, ParsesNameAliasAndNumber)
{
    auto const& row = GetParam();
    EXPECT_EQ(parsePixelType(row.name), row.type);
    EXPECT_EQ(parsePixelType(row.alias), row.type);
    EXPECT_EQ(parsePixelType(std::to_string(row.value)), row.type);
    std::string upper = row.name;
    for (auto& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(parsePixelType("  " + upper + " "), row.type);
}

TEST_P(PixelTypeTable, VisitCallsTheMatchingCppType)
{
    auto const& row = GetParam();
    // Both calling conventions of visitPixelType reach the same type.
    PixelType byValue =
        visitPixelType(row.type, [](auto tag) { return Utils::pixelTypeId<decltype(tag)>(); });
    std::size_t byTemplate =
        visitPixelType(row.type, []<class T>() { return sizeof(T) * 100 + (std::is_signed_v<T> ? 1 : 0); });
    EXPECT_EQ(byValue, row.type);
    EXPECT_EQ(byTemplate, row.size * 100 + (row.isSigned ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, PixelTypeTable,
    ::testing::Values(
        PixelTypeRow{PixelType::Char, 1, "int8", "char", 1, true, true, -128, 127},
        PixelTypeRow{PixelType::UChar, 2, "uint8", "unsigned char", 1, true, false, 0, 255},
        PixelTypeRow{PixelType::Short, 3, "int16", "short", 2, true, true, -32768, 32767},
        PixelTypeRow{PixelType::UShort, 4, "uint16", "ushort", 2, true, false, 0, 65535},
        PixelTypeRow{PixelType::Int, 5, "int32", "int", 4, true, true, -2147483648.0, 2147483647.0},
        PixelTypeRow{PixelType::UInt, 6, "uint32", "unsigned int", 4, true, false, 0, 4294967295.0},
        PixelTypeRow{PixelType::Float, 7, "float", "float32", 4, false, true, -3.4028234663852886e38,
                     3.4028234663852886e38},
        PixelTypeRow{PixelType::Double, 8, "double", "float64", 8, false, true, -1.7976931348623157e308,
                     1.7976931348623157e308}),
    [](auto const& info) { return std::string(info.param.name); });

TEST(PixelType, RejectsUnknownTextAndValues)
{
    for (char const* text : {"", "int64", "9", "0", "-1", "floatx", "7.0", "uint 8"})
        EXPECT_FALSE(parsePixelType(text).has_value()) << text;
    auto const invalid = static_cast<PixelType>(42);
    EXPECT_FALSE(isValidPixelType(invalid));
    EXPECT_EQ(pixelTypeSize(invalid), 0u);
    EXPECT_EQ(pixelTypeName(invalid), "invalid");
    EXPECT_FALSE(isIntegerPixelType(invalid));
    EXPECT_THROW(visitPixelType(invalid, [](auto) {}), PixelTypeError);
}

TEST(PixelType, TypeIdsMapCppTypes)
{
    static_assert(Utils::pixelTypeId<char>() == PixelType::Char);
    static_assert(Utils::pixelTypeId<signed char>() == PixelType::Char);
    static_assert(Utils::pixelTypeId<std::uint16_t>() == PixelType::UShort);
    static_assert(Utils::pixelTypeId<float const>() == PixelType::Float);
    static_assert(Utils::imageTypeId<unsigned char>() == Image::Type::UChar);
    static_assert(std::is_same_v<PixelScalar<PixelType::UInt>, unsigned int>);
    EXPECT_EQ(Utils::imageTypeId<double>(), PixelType::Double);
}
