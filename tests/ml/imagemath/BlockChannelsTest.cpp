// Block and channel views and combineChannels: reading and writing parts of images, on several
// pixel types with non-trivial shift and scale, against plain loops over the buffers.

#include "ml/imagemath/ImageMath.h"
#include "tests/ml/imagemath/ImageMathSets.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Velmoria;
using namespace Velmoria::ImageMath;
using namespace Velmoria::ImageMathTest;

namespace {

using Vec = Eigen::Vector3i;

bool inside(Vec const& p, Vec const& offset, Vec const& size)
{
    return ((p - offset).array() >= 0).all() && ((p - offset - size).array() < 0).all();
}

template <class T>
class BlockChannelsTyped : public ::testing::Test
{
protected:
    // a: 6x5x4, two frames, original = stored / 2 + 3.
    std::shared_ptr<SharedImageSet> a =
        makeSet<T>(Vec(6, 5, 4), 2, 1, -3.0, 2.0, [](int f, int j) { return (j * 7 + 3 * f) % 41; });

    // Expected stored value of a target frame for original `value`.
    static T stored(SharedImageSet& set, int frame, double value)
    {
        return Detail::saturateCast<T>(set.get(frame)->descriptor().originalToStorage(value));
    }
    static std::vector<T> snapshot(SharedImageSet& set, int frame)
    {
        auto const& image = typed<T>(set, frame);
        return std::vector<T>(image.pointer(), image.pointer() + image.valueCount());
    }
};

using PixelTypes = ::testing::Types<char, unsigned char, short, int, float, double>;
TYPED_TEST_SUITE(BlockChannelsTyped, PixelTypes);

TYPED_TEST(BlockChannelsTyped, FillingABlockLeavesTheRestUntouched)
{
    using T = TypeParam;
    std::vector<std::vector<T>> const before = {this->snapshot(*this->a, 0), this->snapshot(*this->a, 1)};
    Vec const offset(1, 2, 1), size(3, 2, 2);
    Array<SharedImageSet> img(*this->a);
    img.block(offset, size) = 7;
    for (int f = 0; f < 2; ++f)
        for (int z = 0; z < 4; ++z)
            for (int y = 0; y < 5; ++y)
                for (int x = 0; x < 6; ++x) {
                    T const actual = typed<T>(*this->a, f).value(x, y, z);
                    if (inside(Vec(x, y, z), offset, size))
                        ASSERT_EQ(actual, this->stored(*this->a, f, 7.0)) << f << ": " << x << y << z;
                    else
                        ASSERT_EQ(actual, before[f][std::size_t((z * 5 + y) * 6 + x)])
                            << f << ": " << x << y << z;
                }
}

TYPED_TEST(BlockChannelsTyped, CopiesABlockBetweenImagesOfDifferentSize)
{
    using T = TypeParam;
    // Two channels, another shift and scale than the target's.
    auto source = makeSet<T>(Vec(7, 6, 5), 2, 2, 1.0, 0.5, [](int f, int j) { return (j * 3 + f) % 23; });
    auto target = makeSet<T>(Vec(4, 3, 2), 2, 2, -3.0, 2.0, [](int, int j) { return j % 5; });
    std::vector<T> const before = this->snapshot(*target, 1);
    Vec const to(1, 1, 0), from(3, 2, 1), size(2, 2, 2);

    Array<SharedImageSet> out(*target);
    Array<SharedImageSet> in(*source);
    out.block(to, size) = in.block(from, size); // view = view of the same type: evaluates too
    for (int f = 0; f < 2; ++f)
        for (int z = 0; z < 2; ++z)
            for (int y = 0; y < 3; ++y)
                for (int x = 0; x < 4; ++x)
                    for (int c = 0; c < 2; ++c) {
                        T const actual = typed<T>(*target, f).value(x, y, z, c);
                        Vec const p(x, y, z);
                        if (inside(p, to, size)) {
                            Vec const q = p - to + from;
                            double const v = original<T>(*source, f, q.x(), q.y(), q.z(), c);
                            ASSERT_EQ(actual, this->stored(*target, f, v)) << f << ": " << x << y << z << c;
                        } else if (f == 1) {
                            ASSERT_EQ(actual, before[std::size_t(((z * 3 + y) * 4 + x) * 2 + c)]);
                        }
                    }

    // An expression of a block, into a block.
    ASSERT_TRUE(out.block(Vec(0, 0, 1), Vec(3, 2, 1)).assign(in.block(Vec(4, 4, 4), Vec(3, 2, 1)) * 2 - 1));
    for (int c = 0; c < 2; ++c)
        EXPECT_EQ(typed<T>(*target, 1).value(2, 1, 1, c),
                  this->stored(*target, 1, 2 * original<T>(*source, 1, 6, 5, 4, c) - 1));
}

TYPED_TEST(BlockChannelsTyped, BlockOfAnExpressionEqualsExpressionOfTheBlock)
{
    using T = TypeParam;
    auto small1 = makeSet<T>(Vec(3, 2, 2), 2, 1, 0.0, 1.0, [](int, int) { return 0; });
    auto small2 = makeSet<T>(Vec(3, 2, 2), 2, 1, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> a(*this->a);
    Vec const offset(2, 3, 1), size(3, 2, 2);
    ASSERT_TRUE(Array<SharedImageSet>(*small1).assign(a.block(offset, size) * 2 - 5));
    ASSERT_TRUE(Array<SharedImageSet>(*small2).assign((a * 2 - 5).block(offset, size)));
    for (int f = 0; f < 2; ++f)
        for (std::size_t j = 0; j < 12; ++j) {
            int const x = int(j % 3), y = int(j / 3 % 2), z = int(j / 6);
            double const v = 2 * original<T>(*this->a, f, x + 2, y + 3, z + 1) - 5;
            ASSERT_EQ(typed<T>(*small1, f).value(j), this->stored(*small1, f, v)) << f << " " << j;
            ASSERT_EQ(typed<T>(*small2, f).value(j), typed<T>(*small1, f).value(j)) << f << " " << j;
        }
}

TYPED_TEST(BlockChannelsTyped, SwizzleReadsTheMappedChannels)
{
    using T = TypeParam;
    auto rgb = makeSet<T>(Vec(3, 2, 2), 2, 3, 1.0, 0.5, [](int f, int j) { return (j * 5 + f) % 17; });
    auto out = makeSet<T>(Vec(3, 2, 2), 2, 3, -3.0, 2.0, [](int, int) { return 0; });
    Array<SharedImageSet> in(*rgb);
    Array<SharedImageSet> target(*out);
    std::vector<int> const map = {2, 0, 1};
    ASSERT_TRUE(target.assign(swizzle(in, map) + 1));
    for (int f = 0; f < 2; ++f)
        for (int p = 0; p < 12; ++p)
            for (int c = 0; c < 3; ++c)
                ASSERT_EQ(typed<T>(*out, f).value(std::size_t(3 * p + c)),
                          this->stored(*out, f, original<T>(*rgb, f, p % 3, p / 3 % 2, p / 6, map[c]) + 1));
    // A channel may be read more than once; the member form is the same view.
    ASSERT_TRUE(target.assign(in.channels({1, 1, 1})));
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ(typed<T>(*out, 1).value(2, 1, 1, c),
                  this->stored(*out, 1, original<T>(*rgb, 1, 2, 1, 1, 1)));
    // One channel of a three-channel image into a one-channel image.
    auto grey = makeSet<T>(Vec(3, 2, 2), 2, 1, 0.0, 1.0, [](int, int) { return 0; });
    ASSERT_TRUE(Array<SharedImageSet>(*grey).assign(in.channels({2})));
    EXPECT_EQ(typed<T>(*grey, 0).value(1, 1, 0), this->stored(*grey, 0, original<T>(*rgb, 0, 1, 1, 0, 2)));
}

TYPED_TEST(BlockChannelsTyped, ChannelViewWritesOnlyTheMappedChannels)
{
    using T = TypeParam;
    auto rgb = makeSet<T>(Vec(3, 2, 2), 1, 3, -3.0, 2.0, [](int, int j) { return j % 11; });
    auto two = makeSet<T>(Vec(3, 2, 2), 1, 2, 1.0, 0.5, [](int, int j) { return 1 + j % 7; });
    std::vector<T> const before = this->snapshot(*rgb, 0);
    Array<SharedImageSet> target(*rgb);
    // Channel 0 of the expression goes to channel 2, channel 1 to channel 0; channel 1 stays.
    target.channels({2, 0}) = Array<SharedImageSet>(*two);
    for (int p = 0; p < 12; ++p) {
        int const x = p % 3, y = p / 3 % 2, z = p / 6;
        EXPECT_EQ(typed<T>(*rgb).value(x, y, z, 2), this->stored(*rgb, 0, original<T>(*two, 0, x, y, z, 0)));
        EXPECT_EQ(typed<T>(*rgb).value(x, y, z, 0), this->stored(*rgb, 0, original<T>(*two, 0, x, y, z, 1)));
        EXPECT_EQ(typed<T>(*rgb).value(x, y, z, 1), before[std::size_t(3 * p + 1)]);
    }
    // Views compose: one channel of one box.
    target.block(Vec(1, 1, 1), Vec(1, 1, 1)).channels({1}) = 4;
    EXPECT_EQ(typed<T>(*rgb).value(1, 1, 1, 1), this->stored(*rgb, 0, 4.0));
    EXPECT_EQ(typed<T>(*rgb).value(0, 1, 1, 1), before[std::size_t(3 * 9 + 1)]);
    EXPECT_EQ(typed<T>(*rgb).value(1, 1, 1, 0), this->stored(*rgb, 0, original<T>(*two, 0, 1, 1, 1, 1)));
}

TYPED_TEST(BlockChannelsTyped, CombineChannelsTakesOneOperandPerChannel)
{
    using T = TypeParam;
    auto rgb = makeSet<T>(Vec(6, 5, 4), 2, 3, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> a(*this->a);
    Array<SharedImageSet> out(*rgb);
    ASSERT_TRUE(out.assign(combineChannels(a, a * 2 - 10, 5)));
    for (int f = 0; f < 2; ++f)
        for (int j = 0; j < 120; ++j) {
            int const x = j % 6, y = j / 6 % 5, z = j / 30;
            double const v = original<T>(*this->a, f, x, y, z);
            ASSERT_EQ(typed<T>(*rgb, f).value(x, y, z, 0), this->stored(*rgb, f, v));
            ASSERT_EQ(typed<T>(*rgb, f).value(x, y, z, 1), this->stored(*rgb, f, v * 2 - 10));
            ASSERT_EQ(typed<T>(*rgb, f).value(x, y, z, 2), this->stored(*rgb, f, 5.0));
        }
    // Channels of a multichannel operand, recombined in another order.
    ASSERT_TRUE(out.assign(combineChannels(out.channels({2}), out.channels({0}), channelMax(out))));
    EXPECT_EQ(typed<T>(*rgb, 1).value(3, 2, 1, 0), this->stored(*rgb, 1, 5.0));
    EXPECT_EQ(typed<T>(*rgb, 1).value(3, 2, 1, 1), this->stored(*rgb, 1, original<T>(*this->a, 1, 3, 2, 1)));
}

TEST(BlockChannels, MisfitsAreRefusedWithoutWriting)
{
    auto a = makeSet<float>(Vec(6, 5, 4), 1, 3, 0.0, 1.0, [](int, int j) { return j; });
    auto small = makeSet<float>(Vec(2, 2, 2), 1, 3, 0.0, 1.0, [](int, int) { return -1; });
    Array<SharedImageSet> img(*a);
    Array<SharedImageSet> out(*small);
    Log::Capture capture;

    EXPECT_FALSE(img.block(Vec(5, 0, 0), Vec(3, 1, 1)).assign(Scalar<float>(1)));
    EXPECT_TRUE(capture.contains(
        "Cannot assign to the box at 5 0 0 of size 3 1 1: it does not lie inside frame 0 (6x5x4)",
        "ML.ImageMath"));
    EXPECT_FALSE(img.block(Vec(-1, 0, 0), Vec(1, 1, 1)).assign(Scalar<float>(1)));
    EXPECT_FALSE(
        img.block(Vec(0, 0, 0), Vec(2, 2, 2)).block(Vec(1, 1, 1), Vec(2, 1, 1)).assign(Scalar<float>(1)));
    EXPECT_TRUE(capture.contains("Cannot assign to a box of size 2 1 1 inside a block of size 2 2 2",
                                 "ML.ImageMath"));

    EXPECT_FALSE(out.assign(img.block(Vec(4, 4, 3), Vec(2, 2, 2))));
    EXPECT_TRUE(
        capture.contains("Cannot assign expression to frame 0 (float 2x2x2 3ch spacing 1 1 1 mm): block at "
                         "4 4 3 of size 2 2 2 does not lie inside the operand (6x5x4)",
                         "ML.ImageMath"));
    EXPECT_FALSE(out.assign(img.block(Vec(0, 0, 0), Vec(3, 2, 2))));
    EXPECT_TRUE(capture.containsFragment("block of size 3 2 2 used where 2x2x2 is expected"));
    EXPECT_FALSE(out.assign(img)); // a whole image of another size
    EXPECT_FALSE(out.assign(swizzle(out, {0, 3, 1})));
    EXPECT_TRUE(capture.containsFragment("channel view reads channel 3 of an operand with 3 channels"));
    EXPECT_FALSE(out.channels({1, 1}).assign(out.channels({0, 2})));
    EXPECT_TRUE(capture.contains("Cannot assign to channel 1 of frame 0 (3 channels): written twice",
                                 "ML.ImageMath"));
    EXPECT_FALSE(out.channels({0, 4}).assign(out.channels({0, 2})));
    EXPECT_FALSE(out.assign(combineChannels(out, 1, 2)));
    EXPECT_TRUE(capture.containsFragment("operand 0 of combineChannels has 3 channels, expected 1"));
    EXPECT_FALSE(out.assign(combineChannels(out.channels({0}), 1)));
    EXPECT_TRUE(capture.containsFragment("2 combined channels used where 3 are expected"));

    for (std::size_t j = 0; j < typed<float>(*small).valueCount(); ++j)
        ASSERT_EQ(typed<float>(*small).value(j), -1.0f) << j;
    for (std::size_t j = 0; j < typed<float>(*a).valueCount(); ++j)
        ASSERT_EQ(typed<float>(*a).value(j), float(j)) << j;
}

TEST(BlockChannels, ViewsKeepTheOperandsDeviceStrategy)
{
    auto floats = makeSet<float>(Vec(2, 2, 2), 1, 3, 0.0, 1.0, [](int, int) { return 0; });
    auto ints = makeSet<int>(Vec(2, 2, 2), 1, 1, 0.0, 1.0, [](int, int) { return 0; });
    Array<SharedImageSet> f(*floats);
    Array<SharedImageSet> i(*ints);
    EXPECT_EQ(f.block(Vec(0, 0, 0), Vec(1, 1, 1)).deviceStrategy(), DeviceStrategy::Any);
    EXPECT_EQ(f.channels({2, 1}).deviceStrategy(), DeviceStrategy::Any);
    EXPECT_EQ(i.block(Vec(0, 0, 0), Vec(1, 1, 1)).deviceStrategy(), DeviceStrategy::CpuOnly);
    EXPECT_EQ(combineChannels(f.channels({0}), i, 1.0f).deviceStrategy(), DeviceStrategy::CpuOnly);
    EXPECT_EQ(combineChannels(f.channels({0}), 1.0f).deviceStrategy(), DeviceStrategy::Any);
    EXPECT_EQ(combineChannels(f.channels({0}), 1.0f).numChannels(), 2);
    auto const desc = f.block(Vec(1, 0, 0), Vec(1, 2, 1)).imgDesc();
    ASSERT_TRUE(desc.has_value());
    EXPECT_EQ(desc->dimensions(), Vec(1, 2, 1));
}

} // namespace
