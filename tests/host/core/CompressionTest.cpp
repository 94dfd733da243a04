#include "host/core/Compression.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <climits>
#include <optional>
#include <random>
#include <string>

using namespace Velmoria;
namespace zstd = Velmoria::Compression::zstd;

namespace {

// Random bytes, or text-like data that compresses well, but not trivially.
ByteBuffer sampleBytes(std::size_t size, bool textLike)
{
    ByteBuffer buffer(size);
    std::string const words = "voxel spacing origin direction label image mask ";
    std::mt19937 engine(7);
    for (std::size_t i = 0; i < size; ++i)
        buffer[i] = static_cast<std::uint8_t>(textLike ? words[(i + engine() % 3) % words.size()] : engine());
    return buffer;
}

// A hand-built zstd frame, to read what other writers produce: frames without a content size and
// damaged headers. Layout: magic, frame header descriptor, header fields, blocks.
class Frame
{
public:
    // Without a content size: not single-segment, no checksum, and a 128 KiB window (descriptor
    // 0x38) so that blocks may have the maximum size. With one: a single segment and an 8-byte
    // content size field.
    explicit Frame(std::optional<std::uint64_t> contentSize = std::nullopt)
        : m_data(contentSize ? std::string("\x28\xB5\x2F\xFD\xE0", 5)
                             : std::string("\x28\xB5\x2F\xFD\x00\x38", 6))
    {
        for (int i = 0; contentSize && i < 8; ++i)
            m_data.push_back(static_cast<char>((*contentSize >> (8 * i)) & 0xFF));
    }

    Frame& raw(std::string_view content, bool last = false)
    {
        return block(0, content.size(), last, content);
    }
    Frame& rle(char value, std::size_t count, bool last = false)
    {
        return block(1, count, last, std::string_view(&value, 1));
    }
    std::string const& data() const { return m_data; }

private:
    Frame& block(unsigned type, std::size_t size, bool last, std::string_view content)
    {
        std::uint32_t const header = (last ? 1u : 0u) | (type << 1) | static_cast<std::uint32_t>(size << 3);
        for (int i = 0; i < 3; ++i)
            m_data.push_back(static_cast<char>((header >> (8 * i)) & 0xFF));
        m_data += content;
        return *this;
    }

    std::string m_data;
};

std::string decompress(std::string_view input)
{
    try {
        return zstd::Context().decompress(ByteBufferView(input)).toString();
    } catch (Compression::Error const& error) {
        return std::string("error: ") + error.what();
    }
}

TEST(Compression, DecompressGivesTheInputBack)
{
    struct Case
    {
        char const* name;
        ByteBuffer input;
        double maxRatio; // upper bound of compressed size / input size
    };
    zstd::Context context;
    for (Case const& c : {Case{"empty", ByteBuffer(), 0}, Case{"zeros", ByteBuffer(10 << 20), 0.001},
                          Case{"text", sampleBytes(10 << 20, true), 0.5},
                          // Incompressible: stored raw, with a little framing per block.
                          Case{"random", sampleBytes(10 << 20, false), 1.001}}) {
        SCOPED_TRACE(c.name);
        ByteBuffer const compressed = context.compress(c.input);
        EXPECT_LE(static_cast<double>(compressed.size()),
                  c.maxRatio * static_cast<double>(c.input.size()) + 20);
        EXPECT_TRUE(context.decompress(compressed) == c.input);
        // The same context works again (its zstd state is reset between calls).
        EXPECT_TRUE(context.decompress(context.compress(c.input, 1)) == c.input);
    }
}

TEST(Compression, LevelsAreUsedSilentlyOrClampedWithAWarning)
{
    ByteBuffer const input = sampleBytes(1 << 18, true);
    zstd::Context context;
    Log::Capture capture;
    EXPECT_LT(context.compress(input, 19).size(), context.compress(input, 1).size());
    EXPECT_TRUE(capture.messages().empty());
    EXPECT_TRUE(context.compress(input, 1000) == context.compress(input, zstd::maxLevel()));
    EXPECT_TRUE(context.compress(input, INT_MIN) == context.compress(input, zstd::minLevel()));
    std::string const expected = "Compression level 1000 is outside [" + std::to_string(zstd::minLevel()) +
                                 ", " + std::to_string(zstd::maxLevel()) + "]; using " +
                                 std::to_string(zstd::maxLevel());
    EXPECT_TRUE(capture.contains(expected, "Host.Compression"));
    EXPECT_EQ(capture.messages(Log::Warning).size(), 2u);
}

TEST(Compression, DamagedInputIsAnErrorAndLeavesTheContextUsable)
{
    ByteBuffer const input = sampleBytes(200000, true);
    zstd::Context context;
    std::string const compressed = context.compress(input).toString();
    for (double where : {0.0, 0.3, 0.5, 0.9, 1.0}) {
        std::string damaged = compressed;
        damaged[static_cast<std::size_t>(where * static_cast<double>(compressed.size() - 1))] ^= 0x5A;
        EXPECT_THROW((void)context.decompress(ByteBufferView(damaged)), Compression::Error) << where;
        EXPECT_TRUE(context.decompress(ByteBufferView(compressed)) == input);
    }
    std::string checksum = compressed;
    checksum.back() ^= 0x5A; // the last 4 bytes are the checksum
    EXPECT_NE(decompress(checksum).find("checksum"), std::string::npos);
    for (std::size_t keep : {std::size_t(1), std::size_t(5), std::size_t(12), compressed.size() - 1})
        EXPECT_EQ(decompress(compressed.substr(0, keep)).rfind("error: zstd: ", 0), 0u) << "keeping " << keep;
    EXPECT_NE(decompress("certainly not a zstd frame").find("Unknown frame descriptor"), std::string::npos);
    EXPECT_NE(decompress("").find("empty input"), std::string::npos);
}

TEST(Compression, FramesWithoutContentSizeAreStreamedAndConcatenatedFramesJoined)
{
    EXPECT_EQ(decompress(Frame().raw("hello ").rle('z', 3).raw("!", true).data()), "hello zzz!");
    // Far more output than input: the output buffer has to grow many times.
    Frame large;
    constexpr std::size_t kBlock = 128 * 1024;
    for (int i = 0; i < 40; ++i)
        large.rle(static_cast<char>('a' + i % 26), kBlock, i == 39);
    std::string const restored = decompress(large.data());
    ASSERT_EQ(restored.size(), 40 * kBlock);
    EXPECT_EQ(restored[39 * kBlock + 5], 'a' + 39 % 26);

    zstd::Context context;
    std::string const first = context.compress(ByteBufferView(std::string_view("first;"))).toString();
    std::string const second = context.compress(ByteBufferView(std::string_view("second"))).toString();
    std::string const unknown = Frame().raw(";third", true).data();
    EXPECT_EQ(decompress(first + second), "first;second");
    EXPECT_EQ(decompress(first + unknown), "first;;third");
    EXPECT_EQ(decompress(unknown + first), ";thirdfirst;");
    // A damaged second frame spoils the whole input; a cut one is found only while streaming.
    EXPECT_EQ(decompress(first + second.substr(0, second.size() - 2)).rfind("error: zstd: ", 0), 0u);
    std::string const cut = Frame().raw("complete block").data();
    EXPECT_EQ(decompress(cut).rfind("error: zstd: ", 0), 0u);
    EXPECT_NE(decompress(first + cut).find("truncated frame"), std::string::npos);
}

TEST(Compression, DeclaredContentSizeMustMatch)
{
    // Claims a petabyte: refused before any allocation.
    EXPECT_NE(decompress(Frame(1ull << 50).raw("tiny", true).data()).find("declares 1125899906842624 bytes"),
              std::string::npos);
    EXPECT_EQ(decompress(Frame(10).raw("tiny", true).data()).rfind("error: zstd: ", 0), 0u);
    std::string const exact = Frame(4).raw("tiny", true).data();
    zstd::Context context;
    EXPECT_EQ(context.decompress(ByteBufferView(exact)).toString(), "tiny");
    // A moved-from context creates its state again when used.
    zstd::Context moved(std::move(context));
    EXPECT_EQ(moved.decompress(ByteBufferView(exact)).toString(), "tiny");
    EXPECT_EQ(context.decompress(ByteBufferView(exact)).toString(),
              "tiny"); // NOLINT(bugprone-use-after-move)
}

} // namespace
