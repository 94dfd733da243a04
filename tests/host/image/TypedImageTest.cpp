// Pixel types and the CPU images built on them: the fixed names and values written into files,
// layout and ownership of the buffers, value ranges and the refusals.

#include "host/image/TypedImage.h"

#include "host/core/Log.h"
#include "host/image/PixelType.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

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
TEST_P(PixelTypeTable, PropertiesParsingAndVisitAgree)
{
    auto const& row = GetParam();
    EXPECT_EQ(static_cast<int>(row.type), row.value);
    EXPECT_EQ(pixelTypeName(row.type), row.name);
    EXPECT_EQ(pixelTypeSize(row.type), row.size);
    EXPECT_EQ(isIntegerPixelType(row.type), row.isInteger);
    EXPECT_EQ(isSignedPixelType(row.type), row.isSigned);
    EXPECT_EQ(pixelTypeMin(row.type), row.min);
    EXPECT_EQ(pixelTypeMax(row.type), row.max);

    EXPECT_EQ(parsePixelType(row.name), row.type);
    EXPECT_EQ(parsePixelType(row.alias), row.type);
    EXPECT_EQ(parsePixelType(std::to_string(row.value)), row.type);
    std::string upper = row.name;
    for (auto& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_EQ(parsePixelType("  " + upper + " "), row.type);

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

    static_assert(Utils::pixelTypeId<signed char>() == PixelType::Char);
    static_assert(Utils::pixelTypeId<float const>() == PixelType::Float);
    static_assert(std::is_same_v<PixelScalar<PixelType::UInt>, unsigned int>);
    EXPECT_EQ(Utils::imageTypeId<double>(), PixelType::Double);

    Log::Capture capture;
    EXPECT_EQ(MemImage::create(ImageDescriptor(static_cast<PixelType>(0), Eigen::Vector3i(2, 2, 2), 1)),
              nullptr);
    EXPECT_TRUE(capture.contains("Cannot create an image of invalid pixel type value 0", "Host.MemImage"));
}

// ---------------------------------------------------------------------------------------------

namespace {

template <class T>
class TypedImageTest : public ::testing::Test
{
protected:
    static constexpr PixelType Type = Utils::pixelTypeId<T>();
    Eigen::Vector3i const dims{4, 3, 2};
};

using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(TypedImageTest, PixelTypes);

} // namespace

TYPED_TEST(TypedImageTest, FactoriesFillAndDeepClone)
{
    using T = TypeParam;
    ImageDescriptor d(this->Type, this->dims, 2);
    d.setSpacing(Eigen::Vector3d(0.5, 0.5, 3), true);
    d.setShiftScale(2.0, 4.0);
    auto zeros = MemImage::zeros(d);
    auto* image = dynamic_cast<TypedImage<T>*>(zeros.get());
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(image->descriptor(), d);
    EXPECT_EQ(image->location(), Image::Memory);
    EXPECT_EQ(image->ownership(), MemImage::Owned);
    EXPECT_EQ(image->byteSize(), 48u * sizeof(T));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(image->data()) % MemImage::Alignment, 0u);
    for (std::size_t i = 0; i < image->valueCount(); ++i)
        ASSERT_EQ(image->value(i), T(0)) << i;
    EXPECT_NE(dynamic_cast<TypedImage<T>*>(MemImage::create(d).get()), nullptr);

    image->fill(T(7));
    for (std::size_t i = 0; i < image->valueCount(); ++i)
        ASSERT_EQ(image->value(i), T(7)) << i;

    image->setValue(T(9), 3, 2, 1, 1);
    auto copy = image->clone();
    ASSERT_TRUE(copy);
    EXPECT_NE(copy->pointer(), image->pointer());
    EXPECT_EQ(copy->descriptor(), image->descriptor());
    EXPECT_EQ(copy->value(3, 2, 1, 1), T(9));
    copy->setValue(T(1), 0, 0, 0, 0);
    EXPECT_EQ(image->value(0, 0, 0, 0), T(7)); // deep copy
    EXPECT_NE(dynamic_cast<TypedImage<T>*>(image->cloneMem().get()), nullptr);
}

TYPED_TEST(TypedImageTest, IndexInterleavesChannelsXFastest)
{
    using T = TypeParam;
    TypedImage<T> image(this->dims, 3);
    // ((z * height + y) * width + x) * channels + c, worked out by hand.
    EXPECT_EQ(image.index(0, 0, 0, 2), 2u);
    EXPECT_EQ(image.index(1, 0, 0, 0), 3u);
    EXPECT_EQ(image.index(0, 1, 0, 0), 12u);
    EXPECT_EQ(image.index(0, 0, 1, 0), 36u);
    EXPECT_EQ(image.index(3, 2, 1, 2), 71u);

    for (std::size_t i = 0; i < image.valueCount(); ++i)
        image.pointer()[i] = static_cast<T>(i + 1);
    EXPECT_EQ(image.value(1, 2, 1, 2), T(66));
    image.setValue(T(0), 1, 2, 1, 2);
    EXPECT_EQ(image.pointer()[65], T(0));
}

TYPED_TEST(TypedImageTest, BorrowedBuffersStayOursOwnedOnesAreTakenOverAndMoved)
{
    using T = TypeParam;
    std::vector<T> buffer(24, T(5));
    {
        TypedImage<T> image(this->dims, 1, buffer.data(), MemImage::Borrowed);
        EXPECT_EQ(image.ownership(), MemImage::Borrowed);
        EXPECT_EQ(image.pointer(), buffer.data());
        image.setValue(T(3), 1, 1, 1);
        EXPECT_EQ(image.clone()->ownership(), MemImage::Owned);
    }
    // Still ours: writing and reading it is fine (the sanitizer build checks this).
    EXPECT_EQ(buffer[1 + 4 + 12], T(3));
    buffer[0] = T(8);
    EXPECT_EQ(buffer[0], T(8));

    // Freed with the image; the leak checker would report it otherwise.
    auto* raw = static_cast<T*>(MemImage::allocateBuffer(24 * sizeof(T)));
    raw[23] = T(4);
    auto owner = TypedImage<T>::create(this->dims, 1, raw, MemImage::Owned);
    ASSERT_TRUE(owner);
    EXPECT_EQ(owner->pointer(), raw);
    EXPECT_EQ(owner->value(3, 2, 1), T(4));

    TypedImage<T> allocated(ImageDescriptor(this->Type, this->dims, 1), nullptr, MemImage::Borrowed);
    EXPECT_NE(allocated.pointer(), nullptr) << "no data: allocated even when borrowed";
    EXPECT_EQ(allocated.ownership(), MemImage::Owned);

    TypedImage<T> moved(std::move(*owner));
    EXPECT_EQ(moved.pointer(), raw);
    EXPECT_EQ(owner->pointer(), nullptr); // NOLINT(bugprone-use-after-move): checking the moved-from state
    EXPECT_EQ(owner->byteSize(), 0u);
    TypedImage<T> assigned(Eigen::Vector3i(1, 1, 1), 2);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.pointer(), raw);
    EXPECT_EQ(assigned.dimensions(), this->dims);
    EXPECT_EQ(assigned.channels(), 1);
}

TYPED_TEST(TypedImageTest, GetRangeCoversAllValuesAndChannelsAndSkipsNaN)
{
    using T = TypeParam;
    auto image = TypedImage<T>::zeros(this->dims, 2);
    image->fill(T(10));
    image->setValue(std::numeric_limits<T>::lowest(), 2, 1, 0, 1);
    image->setValue(std::numeric_limits<T>::max(), 3, 2, 1, 1);
    T lo = T(1), hi = T(1);
    ASSERT_TRUE(image->getRange(lo, hi));
    EXPECT_EQ(lo, std::numeric_limits<T>::lowest());
    EXPECT_EQ(hi, std::numeric_limits<T>::max());

    // Large enough to take the parallel path.
    TypedImage<T> large(Eigen::Vector3i(1024, 1024, 1), 1);
    large.fill(T(20));
    large.setValue(T(3), 1000, 1000, 0);
    large.setValue(T(90), 5, 0, 0);
    ASSERT_TRUE(large.getRange(lo, hi));
    EXPECT_EQ(lo, T(3));
    EXPECT_EQ(hi, T(90));

    if constexpr (std::is_floating_point_v<T>) {
        image->fill(std::numeric_limits<T>::quiet_NaN());
        EXPECT_FALSE(image->getRange(lo, hi)) << "nothing but NaN";
        EXPECT_EQ(lo, T(3));
        image->setValue(T(-2.5), 1, 0, 0);
        image->setValue(-std::numeric_limits<T>::infinity(), 0, 0, 0, 1);
        ASSERT_TRUE(image->getRange(lo, hi));
        EXPECT_EQ(lo, -std::numeric_limits<T>::infinity());
        EXPECT_EQ(hi, T(-2.5));
    }
}

TYPED_TEST(TypedImageTest, EmptyAndInvalidSizes)
{
    using T = TypeParam;
    TypedImage<T> empty(Eigen::Vector3i(0, 5, 1), 1);
    EXPECT_EQ(empty.data(), nullptr);
    EXPECT_EQ(empty.byteSize(), 0u);
    T lo = T(1), hi = T(2);
    EXPECT_FALSE(empty.getRange(lo, hi));
    EXPECT_EQ(lo, T(1));
    EXPECT_EQ(hi, T(2));
    EXPECT_TRUE(empty.clone());

    EXPECT_THROW(TypedImage<T>(Eigen::Vector3i(-1, 2, 2), 1), ImageError);
    EXPECT_THROW(TypedImage<T>(Eigen::Vector3i(1, 2, 2), 0), ImageError);
    PixelType const other = this->Type == PixelType::Float ? PixelType::Double : PixelType::Float;
    EXPECT_THROW(TypedImage<T>(ImageDescriptor(other, this->dims, 1)), ImageError);

    Log::Capture capture;
    EXPECT_EQ(TypedImage<T>::create(Eigen::Vector3i(4, -3, 2), 1), nullptr);
    EXPECT_TRUE(capture.containsFragment("Cannot create image"));
    EXPECT_TRUE(capture.containsFragment("Invalid image size 4x-3x2 with 1 channels"));
    EXPECT_EQ(MemImage::zeros(ImageDescriptor(this->Type, this->dims, 0)), nullptr);
}

TEST(Image, CompatibleChecksDimensionsAndTheChosenProperties)
{
    TypedImage<float> a(Eigen::Vector3i(4, 3, 2), 1);
    TypedImage<unsigned char> b(Eigen::Vector3i(4, 3, 2), 2);
    b.setSpacing(Eigen::Vector3d(2, 2, 2));
    EXPECT_TRUE(a.compatible(b, false, false, false));
    EXPECT_FALSE(a.compatible(b, true, false, false));
    EXPECT_FALSE(a.compatible(b, false, true, false));
    EXPECT_FALSE(a.compatible(b, false, false, true));
    b.setSpacing(Eigen::Vector3d(1, 1, 1), false);
    EXPECT_FALSE(a.compatible(b, false, false, true)); // metric flag differs
    b.setSpacing(Eigen::Vector3d(1, 1, 1), true);
    EXPECT_TRUE(a.compatible(b, false, false, true));
    TypedImage<float> c(Eigen::Vector3i(4, 3, 1), 1);
    EXPECT_FALSE(a.compatible(c, false, false, false));
}
