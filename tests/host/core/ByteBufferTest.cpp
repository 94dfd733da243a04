#include "host/core/ByteBuffer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using namespace Velmoria;

namespace {

ByteBuffer bufferOf(std::string_view text)
{
    return ByteBufferView(text).copy();
}

} // namespace

TEST(ByteBuffer, SizedConstructionIsZeroFilled)
{
    ByteBuffer buffer(1000);
    ASSERT_EQ(buffer.size(), 1000u);
    EXPECT_FALSE(buffer.empty());
    for (std::uint8_t byte : buffer)
        ASSERT_EQ(byte, 0);
    EXPECT_TRUE(ByteBuffer().empty());
}

TEST(ByteBuffer, CopyIsDeep)
{
    ByteBuffer original = bufferOf("abc");
    ByteBuffer copy = original;
    copy[0] = 'x';
    EXPECT_EQ(original.toString(), "abc");
    EXPECT_EQ(copy.toString(), "xbc");
    ByteBuffer assigned;
    assigned = original;
    EXPECT_NE(assigned.data(), original.data());
    EXPECT_EQ(assigned, original);
}

TEST(ByteBuffer, MoveLeavesTheSourceEmpty)
{
    ByteBuffer source = bufferOf("payload");
    std::uint8_t const* bytes = source.data();
    ByteBuffer moved(std::move(source));
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move): the documented state
    EXPECT_EQ(moved.data(), bytes);

    ByteBuffer target = bufferOf("old");
    target = std::move(moved);
    EXPECT_TRUE(moved.empty()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(target.toString(), "payload");
}

TEST(ByteBuffer, CopyFromReplacesTheContents)
{
    ByteBuffer buffer(10);
    char const text[] = {'a', '\0', 'b'};
    buffer.copyFrom(text, sizeof(text));
    EXPECT_EQ(buffer.toString(), std::string(text, sizeof(text)));
    buffer.copyFrom(nullptr, 0);
    EXPECT_TRUE(buffer.empty());
}

TEST(ByteBuffer, ResizeKeepsThePrefixAndZeroesNewBytes)
{
    ByteBuffer buffer = bufferOf("abcd");
    buffer.resize(2);
    EXPECT_EQ(buffer.toString(), "ab");
    buffer.resize(5);
    EXPECT_EQ(buffer.toString(), std::string("ab\0\0\0", 5));
    buffer.clear();
    EXPECT_TRUE(buffer.empty());
}

TEST(ByteBufferView, ViewsOfTextAndBuffers)
{
    std::string const text("x\0y", 3);
    ByteBufferView const view(text);
    EXPECT_EQ(view.size(), 3u);
    EXPECT_EQ(view.data(), reinterpret_cast<std::uint8_t const*>(text.data()));
    EXPECT_EQ(view.toString(), text);

    ByteBuffer const buffer = view.copy();
    EXPECT_NE(buffer.data(), view.data());
    ByteBufferView const ofBuffer = buffer; // implicit
    EXPECT_EQ(ofBuffer.data(), buffer.data());
    EXPECT_EQ(ofBuffer.toStringView(), text);
    EXPECT_TRUE(ByteBufferView().empty());
    EXPECT_EQ(ByteBufferView().toString(), "");
    EXPECT_TRUE(ByteBufferView().copy().empty());
}

TEST(ByteBufferView, EqualityComparesContentsAcrossKinds)
{
    ByteBuffer const a = bufferOf("same");
    ByteBuffer const b = bufferOf("same");
    ByteBuffer const c = bufferOf("sane");
    ByteBuffer const shorter = bufferOf("sam");
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_FALSE(a == shorter);
    EXPECT_TRUE(a == ByteBufferView("same"));
    EXPECT_TRUE(ByteBufferView("same") == b.view());
    EXPECT_TRUE(a != c);
    EXPECT_TRUE(ByteBuffer() == ByteBufferView());
}

struct SubViewCase
{
    std::size_t offset;
    std::size_t size;
    char const* expected; // null: out of range
};

void PrintTo(SubViewCase const& test, std::ostream* out)
{
    *out << "offset " << test.offset << ", size " << test.size;
}

class ByteBufferSubView : public ::testing::TestWithParam<SubViewCase>
{};

TEST_P(ByteBufferSubView, StaysWithinTheViewOrThrows)
{
    SubViewCase const& test = GetParam();
    std::string const text = "0123456789";
    ByteBufferView const view(text);
    if (test.expected != nullptr) {
        EXPECT_EQ(view.subView(test.offset, test.size).toString(), test.expected);
        return;
    }
    try {
        (void)view.subView(test.offset, test.size);
        FAIL() << "no exception for offset " << test.offset << " and size " << test.size;
    } catch (std::out_of_range const& error) {
        std::string const message = error.what();
        EXPECT_NE(message.find("offset " + std::to_string(test.offset)), std::string::npos) << message;
        EXPECT_NE(message.find("length 10"), std::string::npos) << message;
    }
}

INSTANTIATE_TEST_SUITE_P(Ranges, ByteBufferSubView,
                         ::testing::Values(SubViewCase{0, 10, "0123456789"}, SubViewCase{3, 4, "3456"},
                                           SubViewCase{10, 0, ""},
                                           SubViewCase{4, ByteBufferView::npos, "456789"},
                                           SubViewCase{10, ByteBufferView::npos, ""},
                                           SubViewCase{8, 3, nullptr}, SubViewCase{11, 0, nullptr},
                                           SubViewCase{11, ByteBufferView::npos, nullptr},
                                           // offset + size wraps around: must not pass the check
                                           SubViewCase{5, static_cast<std::size_t>(-2), nullptr}));
