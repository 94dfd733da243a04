#include "host/core/Compression.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <random>
#include <string>

using namespace Velmoria;
namespace zstd = Velmoria::Compression::zstd;

namespace {

ByteBuffer randomBytes(std::size_t size, unsigned seed)
{
    ByteBuffer buffer(size);
    std::mt19937_64 engine(seed);
    for (std::size_t i = 0; i < size; i += 8) {
        std::uint64_t const value = engine();
        std::memcpy(buffer.data() + i, &value, std::min<std::size_t>(8, size - i));
    }
    return buffer;
}

// Text-like data: compresses well, but not trivially.
ByteBuffer repetitiveBytes(std::size_t size)
{
    ByteBuffer buffer(size);
    std::string const words = "voxel spacing origin direction label image mask ";
    std::mt19937 engine(7);
    for (std::size_t i = 0; i < size; ++i)
        buffer[i] = static_cast<std::uint8_t>(words[(i + engine() % 3) % words.size()]);
    return buffer;
}

// Hand-built zstd frames, to read what other writers produce: frames without a content size and
// damaged headers. Layout: magic, frame header descriptor, header fields, blocks.
class FrameBuilder
{
public:
    // Not single-segment, no content size, no checksum; a 128 KiB window (descriptor 0x38) so
    // that blocks may have the maximum size.
    static FrameBuilder withoutContentSize()
    {
        FrameBuilder frame;
        frame.bytes({0x00, 0x38});
        return frame;
    }
    // Single segment with an 8-byte content size field.
    static FrameBuilder withContentSize(std::uint64_t contentSize)
    {
        FrameBuilder frame;
        frame.bytes({0xE0});
        for (int i = 0; i < 8; ++i)
            frame.m_data.push_back(static_cast<char>((contentSize >> (8 * i)) & 0xFF));
        return frame;
    }

    FrameBuilder& raw(std::string_view content, bool last = false)
    {
        header(0, content.size(), last);
        m_data += content;
        return *this;
    }
    FrameBuilder& rle(char value, std::size_t count, bool last = false)
    {
        header(1, count, last);
        m_data += value;
        return *this;
    }
    std::string const& data() const { return m_data; }

private:
    FrameBuilder() { m_data = std::string("\x28\xB5\x2F\xFD", 4); }
    void bytes(std::initializer_list<std::uint8_t> values)
    {
        for (auto value : values)
            m_data.push_back(static_cast<char>(value));
    }
    void header(unsigned type, std::size_t size, bool last)
    {
        std::uint32_t const value = (last ? 1u : 0u) | (type << 1) | static_cast<std::uint32_t>(size << 3);
        bytes({static_cast<std::uint8_t>(value & 0xFF), static_cast<std::uint8_t>((value >> 8) & 0xFF),
               static_cast<std::uint8_t>((value >> 16) & 0xFF)});
    }

    std::string m_data;
};

std::string decompressError(ByteBufferView input)
{
    zstd::Context context;
    try {
        ByteBuffer const result = context.decompress(input);
        return "no error; " + std::to_string(result.size()) + " bytes";
    } catch (Compression::Error const& error) {
        return error.what();
    }
}

} // namespace

// ---------------------------------------------------------------------------------------------

struct RoundTripCase
{
    std::string name;
    std::function<ByteBuffer()> make;
    // Upper bound of compressed size / input size (for non-empty input).
    double maxRatio;
};

class CompressionRoundTrip : public ::testing::TestWithParam<RoundTripCase>
{};

TEST_P(CompressionRoundTrip, DecompressGivesTheInputBack)
{
    ByteBuffer const input = GetParam().make();
    zstd::Context context;
    ByteBuffer const compressed = context.compress(input);
    ASSERT_FALSE(compressed.empty());
    if (!input.empty()) {
        EXPECT_LE(static_cast<double>(compressed.size()),
                  GetParam().maxRatio * static_cast<double>(input.size()));
    }
    ByteBuffer const restored = context.decompress(compressed);
    ASSERT_EQ(restored.size(), input.size());
    EXPECT_TRUE(restored == input);
    // The same context works again (its zstd state is reset between calls).
    EXPECT_TRUE(context.decompress(context.compress(input, 1)) == input);
}

INSTANTIATE_TEST_SUITE_P(
    Inputs, CompressionRoundTrip,
    ::testing::Values(RoundTripCase{"Empty", [] { return ByteBuffer(); }, 0},
                      RoundTripCase{"Small", [] { return ByteBufferView(std::string_view("hello")).copy(); },
                                    10},
                      RoundTripCase{"Zeros10MB", [] { return ByteBuffer(10 << 20); }, 0.001},
                      RoundTripCase{"Text10MB", [] { return repetitiveBytes(10 << 20); }, 0.5},
                      // Incompressible: zstd stores it raw, with a few bytes of framing per block.
                      RoundTripCase{"Random10MB", [] { return randomBytes(10 << 20, 42); }, 1.001}),
    [](auto const& info) { return info.param.name; });

TEST(Compression, OutOfRangeLevelsAreClampedWithAWarning)
{
    ByteBuffer const input = repetitiveBytes(1 << 16);
    zstd::Context context;
    Log::Capture capture;
    ByteBuffer const tooHigh = context.compress(input, 1000);
    EXPECT_TRUE(tooHigh == context.compress(input, zstd::maxLevel()));
    ByteBuffer const tooLow = context.compress(input, INT_MIN);
    EXPECT_TRUE(tooLow == context.compress(input, zstd::minLevel()));
    EXPECT_TRUE(context.decompress(tooHigh) == input);
    EXPECT_TRUE(context.decompress(tooLow) == input);
    std::string const expected = "Compression level 1000 is outside [" + std::to_string(zstd::minLevel()) +
                                 ", " + std::to_string(zstd::maxLevel()) + "]; using " +
                                 std::to_string(zstd::maxLevel());
    EXPECT_TRUE(capture.contains(expected, "Host.Compression"));
    EXPECT_EQ(capture.messages(Log::Warning).size(), 2u);
}

TEST(Compression, LevelsInRangeAreUsedSilently)
{
    ByteBuffer const input = repetitiveBytes(1 << 18);
    zstd::Context context;
    Log::Capture capture;
    ByteBuffer const fast = context.compress(input, 1);
    ByteBuffer const strong = context.compress(input, 19);
    EXPECT_LT(strong.size(), fast.size());
    EXPECT_TRUE(context.decompress(context.compress(input, 0)) == input);
    EXPECT_TRUE(capture.messages().empty());
}

TEST(Compression, DamagedChecksumIsReported)
{
    ByteBuffer const input = repetitiveBytes(100000);
    zstd::Context context;
    ByteBuffer compressed = context.compress(input);
    compressed[compressed.size() - 1] ^= 0x5A; // the last 4 bytes are the checksum
    std::string const error = decompressError(compressed);
    EXPECT_NE(error.find("checksum"), std::string::npos) << error;
    EXPECT_EQ(error.rfind("zstd: ", 0), 0u) << error;
}

class CompressionCorruptByte : public ::testing::TestWithParam<double>
{};

TEST_P(CompressionCorruptByte, NeverReturnsWrongData)
{
    ByteBuffer const input = repetitiveBytes(200000);
    zstd::Context context;
    ByteBuffer compressed = context.compress(input);
    auto const position = static_cast<std::size_t>(GetParam() * static_cast<double>(compressed.size() - 1));
    compressed[position] ^= 0xFF;
    EXPECT_THROW((void)context.decompress(compressed), Compression::Error) << "byte " << position;
    // A failure leaves the context usable.
    EXPECT_TRUE(context.decompress(context.compress(input)) == input);
}

INSTANTIATE_TEST_SUITE_P(Positions, CompressionCorruptByte, ::testing::Values(0.0, 0.3, 0.5, 0.9, 1.0));

class CompressionTruncated : public ::testing::TestWithParam<std::size_t>
{};

TEST_P(CompressionTruncated, IsAnError)
{
    ByteBuffer const input = repetitiveBytes(300000);
    zstd::Context context;
    ByteBuffer const compressed = context.compress(input);
    std::size_t const keep = std::min(GetParam(), compressed.size() - 1);
    std::string const error = decompressError(compressed.view().subView(0, keep));
    EXPECT_EQ(error.rfind("zstd: ", 0), 0u) << "keeping " << keep << " bytes: " << error;
}

INSTANTIATE_TEST_SUITE_P(Lengths, CompressionTruncated,
                         ::testing::Values(1, 4, 5, 12, 1000, static_cast<std::size_t>(-1)));

TEST(Compression, GarbageAndEmptyInputAreErrors)
{
    EXPECT_NE(decompressError(ByteBufferView(std::string_view("certainly not a zstd frame")))
                  .find("Unknown frame descriptor"),
              std::string::npos);
    EXPECT_NE(decompressError(ByteBufferView()).find("empty input"), std::string::npos);
}

TEST(Compression, FramesWithoutContentSizeAreStreamed)
{
    std::string const frame =
        FrameBuilder::withoutContentSize().raw("hello ").rle('z', 3).raw("!", true).data();
    zstd::Context context;
    EXPECT_EQ(context.decompress(ByteBufferView(frame)).toString(), "hello zzz!");

    // Far more output than input: the output buffer has to grow many times.
    FrameBuilder large = FrameBuilder::withoutContentSize();
    constexpr std::size_t kBlock = 128 * 1024;
    for (int i = 0; i < 40; ++i)
        large.rle(static_cast<char>('a' + i % 26), kBlock, i == 39);
    ByteBuffer const restored = context.decompress(ByteBufferView(large.data()));
    ASSERT_EQ(restored.size(), 40 * kBlock);
    EXPECT_EQ(restored[0], 'a');
    EXPECT_EQ(restored[kBlock], 'b');
    EXPECT_EQ(restored[39 * kBlock + 5], 'a' + 39 % 26);
}

TEST(Compression, ConcatenatedFramesAreJoined)
{
    zstd::Context context;
    std::string const first = context.compress(ByteBufferView(std::string_view("first;"))).toString();
    std::string const second = context.compress(ByteBufferView(std::string_view("second"))).toString();
    std::string const unknown = FrameBuilder::withoutContentSize().raw(";third", true).data();
    EXPECT_EQ(context.decompress(ByteBufferView(first + second)).toString(), "first;second");
    EXPECT_EQ(context.decompress(ByteBufferView(first + unknown)).toString(), "first;;third");
    EXPECT_EQ(context.decompress(ByteBufferView(unknown + first)).toString(), ";thirdfirst;");
    // A damaged second frame spoils the whole input.
    EXPECT_THROW((void)context.decompress(ByteBufferView(first + second.substr(0, second.size() - 2))),
                 Compression::Error);
}

TEST(Compression, StreamedFrameCutAfterABlockIsTruncated)
{
    // Every block is intact, but the last one is missing.
    std::string const cut = FrameBuilder::withoutContentSize().raw("complete block").data();
    std::string error = decompressError(ByteBufferView(cut));
    EXPECT_EQ(error.rfind("zstd: ", 0), 0u) << error;

    // The same behind a complete frame: found only while streaming.
    std::string const complete =
        zstd::Context().compress(ByteBufferView(std::string_view("whole"))).toString();
    error = decompressError(ByteBufferView(complete + cut));
    EXPECT_NE(error.find("truncated frame"), std::string::npos) << error;
}

TEST(Compression, DeclaredContentSizeMustMatch)
{
    // Claims a petabyte: refused before any allocation.
    std::string const huge = FrameBuilder::withContentSize(1ull << 50).raw("tiny", true).data();
    std::string error = decompressError(ByteBufferView(huge));
    EXPECT_NE(error.find("declares 1125899906842624 bytes"), std::string::npos) << error;

    // Claims a little more than it holds.
    std::string const longer = FrameBuilder::withContentSize(10).raw("tiny", true).data();
    error = decompressError(ByteBufferView(longer));
    EXPECT_EQ(error.rfind("zstd: ", 0), 0u) << error;

    std::string const exact = FrameBuilder::withContentSize(4).raw("tiny", true).data();
    EXPECT_EQ(zstd::Context().decompress(ByteBufferView(exact)).toString(), "tiny");
}

TEST(Compression, MovedContextsStayUsable)
{
    zstd::Context first;
    ByteBuffer const input = repetitiveBytes(5000);
    ByteBuffer const compressed = first.compress(input);
    zstd::Context second(std::move(first));
    EXPECT_TRUE(second.decompress(compressed) == input);
    // The moved-from context creates its state again when used.
    EXPECT_TRUE(first.decompress(compressed) == input); // NOLINT(bugprone-use-after-move)
}
