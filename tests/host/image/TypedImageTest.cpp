#include "host/image/TypedImage.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

using namespace Velmoria;

namespace {

template <class T>
class TypedImageTest : public ::testing::Test
{
protected:
    static constexpr PixelType Type = Utils::pixelTypeId<T>();
    Eigen::Vector3i const dims{4, 3, 2};

    // A value that differs per position and fits every type.
    static T valueAt(std::size_t i) { return static_cast<T>(i % 100 + 1); }
};

using PixelTypes =
    ::testing::Types<char, unsigned char, short, unsigned short, int, unsigned int, float, double>;
TYPED_TEST_SUITE(TypedImageTest, PixelTypes);

} // namespace

TYPED_TEST(TypedImageTest, ZerosFillAndClone)
{
    using T = TypeParam;
    auto image = TypedImage<T>::zeros(this->dims, 2);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->type(), this->Type);
    EXPECT_EQ(image->location(), Image::Memory);
    EXPECT_EQ(image->ownership(), MemImage::Owned);
    EXPECT_EQ(image->valueCount(), 48u);
    EXPECT_EQ(image->byteSize(), 48u * sizeof(T));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(image->data()) % MemImage::Alignment, 0u);
    for (std::size_t i = 0; i < image->valueCount(); ++i)
        ASSERT_EQ(image->value(i), T(0)) << i;

    image->fill(T(7));
    for (std::size_t i = 0; i < image->valueCount(); ++i)
        ASSERT_EQ(image->value(i), T(7)) << i;

    image->setValue(T(9), 3, 2, 1, 1);
    image->setShiftScale(2.0, 4.0);
    auto copy = image->clone();
    ASSERT_TRUE(copy);
    EXPECT_NE(copy->pointer(), image->pointer());
    EXPECT_EQ(copy->descriptor(), image->descriptor());
    EXPECT_EQ(copy->value(3, 2, 1, 1), T(9));
    copy->setValue(T(1), 0, 0, 0, 0);
    EXPECT_EQ(image->value(0, 0, 0, 0), T(7)); // deep copy

    std::unique_ptr<MemImage> mem = image->cloneMem();
    auto* typed = dynamic_cast<TypedImage<T>*>(mem.get());
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->value(3, 2, 1, 1), T(9));
}

TYPED_TEST(TypedImageTest, IndexInterleavesChannelsXFastest)
{
    using T = TypeParam;
    TypedImage<T> image(this->dims, 3);
    // ((z * height + y) * width + x) * channels + c, worked out by hand.
    EXPECT_EQ(image.index(0, 0, 0, 0), 0u);
    EXPECT_EQ(image.index(0, 0, 0, 2), 2u);
    EXPECT_EQ(image.index(1, 0, 0, 0), 3u);
    EXPECT_EQ(image.index(0, 1, 0, 0), 12u);
    EXPECT_EQ(image.index(0, 0, 1, 0), 36u);
    EXPECT_EQ(image.index(1, 2, 1, 2), 65u);
    EXPECT_EQ(image.index(3, 2, 1, 2), 71u);

    for (std::size_t i = 0; i < image.valueCount(); ++i)
        image.pointer()[i] = this->valueAt(i);
    EXPECT_EQ(image.value(1, 2, 1, 2), this->valueAt(65));
    image.setValue(T(0), 1, 2, 1, 2);
    EXPECT_EQ(image.pointer()[65], T(0));
    EXPECT_EQ(image.value(64), this->valueAt(64));
}

TYPED_TEST(TypedImageTest, BorrowedBufferIsNotFreed)
{
    using T = TypeParam;
    std::vector<T> buffer(24, T(5));
    {
        TypedImage<T> image(this->dims, 1, buffer.data(), MemImage::Borrowed);
        EXPECT_EQ(image.ownership(), MemImage::Borrowed);
        EXPECT_EQ(image.pointer(), buffer.data());
        image.setValue(T(3), 1, 1, 1);
        auto copy = image.clone();
        EXPECT_EQ(copy->ownership(), MemImage::Owned);
    }
    // Still ours: writing and reading it is fine (the sanitizer build checks this).
    EXPECT_EQ(buffer[1 + 4 + 12], T(3));
    buffer[0] = T(8);
    EXPECT_EQ(buffer[0], T(8));
}

TYPED_TEST(TypedImageTest, OwnedBufferIsTakenOver)
{
    using T = TypeParam;
    auto* raw = static_cast<T*>(MemImage::allocateBuffer(24 * sizeof(T)));
    raw[23] = T(4);
    auto image = TypedImage<T>::create(this->dims, 1, raw, MemImage::Owned);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->pointer(), raw);
    EXPECT_EQ(image->value(3, 2, 1), T(4));
    // Freed with the image; the leak checker would report it otherwise.
}

TYPED_TEST(TypedImageTest, NullDataAllocatesEvenWhenBorrowed)
{
    using T = TypeParam;
    TypedImage<T> image(ImageDescriptor(this->Type, this->dims, 1), nullptr, MemImage::Borrowed);
    EXPECT_NE(image.pointer(), nullptr);
    EXPECT_EQ(image.ownership(), MemImage::Owned);
}

TYPED_TEST(TypedImageTest, MoveTransfersBuffer)
{
    using T = TypeParam;
    TypedImage<T> a(this->dims, 2);
    a.fill(T(6));
    T* const p = a.pointer();
    TypedImage<T> b(std::move(a));
    EXPECT_EQ(b.pointer(), p);
    EXPECT_EQ(b.value(3, 2, 1, 1), T(6));
    EXPECT_EQ(a.pointer(), nullptr); // NOLINT(bugprone-use-after-move): checking the moved-from state
    EXPECT_EQ(a.byteSize(), 0u);

    TypedImage<T> c(Eigen::Vector3i(1, 1, 1), 1);
    c = std::move(b);
    EXPECT_EQ(c.pointer(), p);
    EXPECT_EQ(c.dimensions(), this->dims);
    EXPECT_EQ(c.channels(), 2);
}

TYPED_TEST(TypedImageTest, GetRangeCoversAllValuesAndChannels)
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
}

TYPED_TEST(TypedImageTest, EmptyImageHasNoRangeAndNoBuffer)
{
    using T = TypeParam;
    TypedImage<T> image(Eigen::Vector3i(0, 5, 1), 1);
    EXPECT_EQ(image.data(), nullptr);
    EXPECT_EQ(image.byteSize(), 0u);
    T lo = T(1), hi = T(2);
    EXPECT_FALSE(image.getRange(lo, hi));
    EXPECT_EQ(lo, T(1));
    EXPECT_EQ(hi, T(2));
    EXPECT_TRUE(image.clone());
}

TYPED_TEST(TypedImageTest, MemImageFactoriesMakeTheRightType)
{
    using T = TypeParam;
    ImageDescriptor d(this->Type, this->dims, 3);
    d.setSpacing(Eigen::Vector3d(0.5, 0.5, 3), true);
    auto zeros = MemImage::zeros(d);
    ASSERT_TRUE(zeros);
    auto* typed = dynamic_cast<TypedImage<T>*>(zeros.get());
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->descriptor(), d);
    EXPECT_EQ(typed->value(3, 2, 1, 2), T(0));
    auto created = MemImage::create(d);
    ASSERT_TRUE(created);
    EXPECT_NE(dynamic_cast<TypedImage<T>*>(created.get()), nullptr);
    EXPECT_EQ(created->byteSize(), 72u * sizeof(T));
}

TYPED_TEST(TypedImageTest, InvalidSizesAreRefused)
{
    using T = TypeParam;
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

// ---------------------------------------------------------------------------------------------

template <class T>
class FloatImageTest : public ::testing::Test
{};
using FloatTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(FloatImageTest, FloatTypes);

TYPED_TEST(FloatImageTest, GetRangeSkipsNaN)
{
    using T = TypeParam;
    TypedImage<T> image(Eigen::Vector3i(3, 2, 1), 1);
    image.fill(std::numeric_limits<T>::quiet_NaN());
    T lo = T(1), hi = T(2);
    EXPECT_FALSE(image.getRange(lo, hi)); // nothing but NaN
    EXPECT_EQ(lo, T(1));
    image.setValue(T(-2.5), 1, 0, 0);
    image.setValue(T(4), 2, 1, 0);
    ASSERT_TRUE(image.getRange(lo, hi));
    EXPECT_EQ(lo, T(-2.5));
    EXPECT_EQ(hi, T(4));
    image.setValue(-std::numeric_limits<T>::infinity(), 0, 0, 0);
    ASSERT_TRUE(image.getRange(lo, hi));
    EXPECT_EQ(lo, -std::numeric_limits<T>::infinity());
}

TEST(MemImage, InvalidPixelTypeGivesNull)
{
    Log::Capture capture;
    EXPECT_EQ(MemImage::create(ImageDescriptor(static_cast<PixelType>(0), Eigen::Vector3i(2, 2, 2), 1)),
              nullptr);
    EXPECT_TRUE(capture.contains("Cannot create an image of invalid pixel type value 0", "Host.MemImage"));
}

TEST(MemImage, ByteSizeOfLargeDescriptorsDoesNotOverflow)
{
    // Only the descriptor: 512 x 512 x 1000 x 4 doubles is 8 GB.
    for (PixelType type : {PixelType::UChar, PixelType::Short, PixelType::Float, PixelType::Double}) {
        ImageDescriptor d(type, Eigen::Vector3i(512, 512, 1000), 4);
        EXPECT_EQ(d.byteSize(), 1048576000ull * pixelTypeSize(type));
    }
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
