#pragma once

// Compression::zstd: whole-buffer zstd compression for container blocks, caches and resources.
//
// A Context keeps one compression and one decompression context of the zstd library, created on
// first use and reused afterwards, because creating them costs more than compressing a small
// block. A Context is NOT thread-safe (its zstd contexts are mutable state behind const
// methods): give every thread its own.
//
// Frames written by compress() carry their content size and a checksum, so decompress() sizes
// its output in one step and detects corrupted data instead of returning wrong bytes.
// decompress() also reads frames without a content size (from streaming writers, other tools)
// and several frames one after another; their contents are concatenated.
//
// Failures throw Compression::Error, whose text names the zstd error. This is the one place of
// the host where a data function throws instead of returning an empty result: an empty buffer is
// a valid decompressed result, so an empty optional would be ambiguous with a missing reason,
// and bytes that do not decompress mean that a file or cache is damaged, which the caller (the
// container reader) reports together with the file name it knows and we don't.

#include "host/core/ByteBuffer.h"

#include <memory>
#include <stdexcept>

namespace Velmoria::Compression {

class Error : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

namespace zstd {

// Level used when none is given: zstd's own default, a good speed/size balance.
inline constexpr int kDefaultLevel = 3;

// The range of levels zstd accepts (negative levels trade ratio for speed). Levels outside it
// are clamped with a warning in category "Host.Compression".
int minLevel();
int maxLevel();

class Context
{
public:
    Context();
    ~Context();
    Context(Context&& other) noexcept;
    Context& operator=(Context&& other) noexcept;
    Context(Context const&) = delete;
    Context& operator=(Context const&) = delete;

    // One frame holding all of `input`, with content size and checksum. Level 0 means zstd's
    // default level. Throws Error only when zstd itself fails (out of memory).
    ByteBuffer compress(ByteBufferView const& input, int level = kDefaultLevel) const;

    // The contents of all frames in `input`. Throws Error for input that is empty, not zstd data,
    // truncated, corrupt (checksum mismatch) or declares a content size it cannot hold.
    ByteBuffer decompress(ByteBufferView const& input) const;

private:
    struct State;
    // Created on first use (also after a move), hence mutable.
    mutable std::unique_ptr<State> m_state;
};

} // namespace zstd

} // namespace Velmoria::Compression
