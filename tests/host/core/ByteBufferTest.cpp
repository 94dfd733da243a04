#include "host/core/ByteBuffer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

using namespace Velmoria;

namespace {

ByteBuffer bufferOf(std::string_view text)
{
    return ByteBufferView(text).copy();
}

TEST(ByteBuffer, GrowsWithZeroesCopiesDeeplyAndMovesOut)
{
    ByteBuffer buffer = bufferOf("abcd");
    buffer.resize(2);
    buffer.resize(5);
    EXPECT_EQ(buffer.toString(), std::string("ab\0\0\0", 5));
    ByteBuffer copy = buffer;
    copy[0] = 'x';
    EXPECT_EQ(std::as_const(buffer)[0], 'a');
    copy.copyFrom("a\0b", 3);
    EXPECT_EQ(copy.toString(), std::string("a\0b", 3));

    std::uint8_t const* bytes = buffer.data();
    ByteBuffer moved(std::move(buffer));
    EXPECT_TRUE(buffer.empty()); // NOLINT(bugprone-use-after-move): the documented state
    EXPECT_EQ(moved.data(), bytes);
    copy = moved;
    EXPECT_TRUE(copy == moved);
    moved.clear();
    EXPECT_TRUE(moved.empty());
    for (std::uint8_t byte : ByteBuffer(1000))
        ASSERT_EQ(byte, 0);
}

TEST(ByteBufferView, ComparesContentsAcrossKinds)
{
    std::string const text("x\0y", 3);
    ByteBufferView const view(text);
    EXPECT_EQ(view.data(), reinterpret_cast<std::uint8_t const*>(text.data()));
    ByteBuffer const copy = view.copy();
    EXPECT_NE(copy.data(), view.data());
    EXPECT_TRUE(copy == view);
    EXPECT_TRUE(bufferOf("same") != bufferOf("sane"));
    EXPECT_FALSE(bufferOf("same") == ByteBufferView("sam"));
    EXPECT_TRUE(ByteBuffer() == ByteBufferView());
}

TEST(ByteBufferView, SubViewStaysWithinTheViewOrThrowsNamingTheRange)
{
    std::string const text = "0123456789";
    ByteBufferView const view(text);
    EXPECT_EQ(view.subView(3, 4).toString(), "3456");
    EXPECT_EQ(view.subView(4, ByteBufferView::npos).toString(), "456789");
    EXPECT_EQ(view.subView(10, ByteBufferView::npos).toString(), "");
    struct Bad
    {
        std::size_t offset;
        std::size_t size;
    };
    // The last one wraps around in offset + size: it must not pass the check.
    for (Bad const bad : {Bad{8, 3}, Bad{11, ByteBufferView::npos}, Bad{5, std::size_t(-2)}}) {
        try {
            (void)view.subView(bad.offset, bad.size);
            ADD_FAILURE() << "no exception for offset " << bad.offset << ", size " << bad.size;
        } catch (std::out_of_range const& error) {
            std::string const message = error.what();
            EXPECT_NE(message.find("offset " + std::to_string(bad.offset)), std::string::npos) << message;
            EXPECT_NE(message.find("length 10"), std::string::npos) << message;
        }
    }
}

} // namespace
