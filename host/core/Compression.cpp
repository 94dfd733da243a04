#include "host/core/Compression.h"

#include "host/core/Log.h"

#include <fmt/core.h>
#include <zstd.h>

#include <algorithm>
#include <new>

namespace Velmoria::Compression::zstd {

namespace {

constexpr char const* kCategory = "Host.Compression";

// Every zstd block has a header of at least three bytes and holds at most ZSTD_BLOCKSIZE_MAX
// bytes of content, so a frame of n bytes cannot hold more than (n / 3 + 1) blocks' worth. A
// declared content size beyond that is a damaged header; refusing it early avoids allocating
// (and zero-filling) gigabytes for a frame that is bound to fail.
bool plausibleContentSize(unsigned long long contentSize, std::size_t compressedSize)
{
    return contentSize / ZSTD_BLOCKSIZE_MAX <= compressedSize / 3 + 1;
}

[[noreturn]] void fail(std::string_view what, std::size_t code)
{
    throw Error(fmt::format("zstd: {}: {}", what, ZSTD_getErrorName(code)));
}

void check(std::size_t code, std::string_view what)
{
    if (ZSTD_isError(code))
        fail(what, code);
}

} // namespace

int minLevel()
{
    return ZSTD_minCLevel();
}

int maxLevel()
{
    return ZSTD_maxCLevel();
}

struct Context::State
{
    ZSTD_CCtx* cctx = nullptr;
    ZSTD_DCtx* dctx = nullptr;

    ~State()
    {
        ZSTD_freeCCtx(cctx);
        ZSTD_freeDCtx(dctx);
    }

    ZSTD_CCtx* compressor()
    {
        if (cctx == nullptr)
            cctx = ZSTD_createCCtx();
        if (cctx == nullptr)
            throw std::bad_alloc();
        return cctx;
    }

    ZSTD_DCtx* decompressor()
    {
        if (dctx == nullptr)
            dctx = ZSTD_createDCtx();
        if (dctx == nullptr)
            throw std::bad_alloc();
        return dctx;
    }
};

Context::Context()
    : m_state(std::make_unique<State>())
{}

Context::~Context() = default;
Context::Context(Context&& other) noexcept = default;
Context& Context::operator=(Context&& other) noexcept = default;

ByteBuffer Context::compress(ByteBufferView const& input, int level) const
{
    if (!m_state)
        m_state = std::make_unique<State>();
    if (level < minLevel() || level > maxLevel()) {
        int const clamped = std::clamp(level, minLevel(), maxLevel());
        VELMORIA_LOG_WARNING(kCategory, "Compression level {} is outside [{}, {}]; using {}", level,
                             minLevel(), maxLevel(), clamped);
        level = clamped;
    }

    ZSTD_CCtx* cctx = m_state->compressor();
    check(ZSTD_CCtx_reset(cctx, ZSTD_reset_session_and_parameters), "resetting the compression context");
    check(ZSTD_CCtx_setParameter(cctx, ZSTD_c_compressionLevel, level), "setting the compression level");
    check(ZSTD_CCtx_setParameter(cctx, ZSTD_c_contentSizeFlag, 1), "enabling the content size");
    check(ZSTD_CCtx_setParameter(cctx, ZSTD_c_checksumFlag, 1), "enabling the checksum");

    std::size_t const bound = ZSTD_compressBound(input.size());
    check(bound, fmt::format("compressing {} bytes", input.size()));
    ByteBuffer output(bound);
    // zstd accepts an empty source only through a non-null pointer on some versions.
    std::uint8_t const none = 0;
    void const* source = input.empty() ? &none : input.data();
    std::size_t const written = ZSTD_compress2(cctx, output.data(), output.size(), source, input.size());
    check(written, fmt::format("compressing {} bytes", input.size()));
    output.resize(written);
    output.shrinkToFit();
    return output;
}

namespace {

// Frames without a content size, and several frames in a row, are decoded as a stream into a
// buffer that doubles when full.
ByteBuffer decompressStream(ZSTD_DCtx* dctx, ByteBufferView const& input)
{
    check(ZSTD_DCtx_reset(dctx, ZSTD_reset_session_only), "resetting the decompression context");
    ByteBuffer output(std::max(ZSTD_DStreamOutSize(), input.size() * 4));
    ZSTD_inBuffer in{input.data(), input.size(), 0};
    ZSTD_outBuffer out{output.data(), output.size(), 0};
    while (true) {
        if (out.pos == out.size) {
            output.resize(output.size() * 2);
            out.dst = output.data();
            out.size = output.size();
        }
        std::size_t const remaining = ZSTD_decompressStream(dctx, &out, &in);
        check(remaining, fmt::format("decompressing {} bytes", input.size()));
        if (in.pos == in.size) {
            if (remaining == 0)
                break;
            // The decoder wants more input and has nothing left to flush.
            if (out.pos < out.size)
                throw Error(
                    fmt::format("zstd: decompressing {} bytes: truncated frame (input ends inside a frame)",
                                input.size()));
        }
    }
    output.resize(out.pos);
    output.shrinkToFit();
    return output;
}

} // namespace

ByteBuffer Context::decompress(ByteBufferView const& input) const
{
    if (!m_state)
        m_state = std::make_unique<State>();
    if (input.empty())
        throw Error("zstd: cannot decompress empty input: it holds no frame");

    std::size_t const firstFrameSize = ZSTD_findFrameCompressedSize(input.data(), input.size());
    check(firstFrameSize, fmt::format("decompressing {} bytes", input.size()));
    unsigned long long const contentSize = ZSTD_getFrameContentSize(input.data(), input.size());
    if (contentSize == ZSTD_CONTENTSIZE_ERROR)
        throw Error(fmt::format("zstd: decompressing {} bytes: the frame header is invalid", input.size()));

    ZSTD_DCtx* dctx = m_state->decompressor();
    if (contentSize == ZSTD_CONTENTSIZE_UNKNOWN || firstFrameSize != input.size())
        return decompressStream(dctx, input);

    if (!plausibleContentSize(contentSize, input.size())) {
        throw Error(
            fmt::format("zstd: decompressing {} bytes: the frame declares {} bytes of content, more than "
                        "it can hold",
                        input.size(), contentSize));
    }
    check(ZSTD_DCtx_reset(dctx, ZSTD_reset_session_only), "resetting the decompression context");
    ByteBuffer output(static_cast<std::size_t>(contentSize));
    std::uint8_t none = 0;
    void* target = output.empty() ? &none : output.data();
    std::size_t const produced = ZSTD_decompressDCtx(dctx, target, output.size(), input.data(), input.size());
    check(produced, fmt::format("decompressing {} bytes", input.size()));
    if (produced != output.size()) {
        throw Error(
            fmt::format("zstd: decompressing {} bytes: the frame declares {} bytes of content but holds {}",
                        input.size(), output.size(), produced));
    }
    return output;
}

} // namespace Velmoria::Compression::zstd
