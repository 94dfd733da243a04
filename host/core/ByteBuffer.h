#pragma once

// ByteBuffer and ByteBufferView: the one currency for raw bytes in Velmoria (file contents,
// compressed blocks, resources, serialized models).
//
// ByteBuffer owns a contiguous block. A new or grown buffer is zero-filled: a buffer that is
// handed to a reader which then fails half-way must never expose stale heap contents in a file
// or a checksum. Copies are deep; a moved-from buffer is empty (guaranteed, not merely "valid").
//
// ByteBufferView is a pointer and a length, like std::string_view: cheap to pass by value, and
// valid only while the bytes it looks at live. It converts implicitly from a ByteBuffer (so every
// function that only reads bytes takes a view) and explicitly from text, because text usually
// is not meant as bytes and the explicit step makes the intent visible.
//
// Bytes are std::uint8_t throughout (begin/end/data), so they compare, print and index as
// numbers in tests and in checksum code.
//
// Equality compares contents, between any mix of buffers and views.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria {

class ByteBufferView;

class ByteBuffer
{
public:
    ByteBuffer() = default;
    // `size` zero bytes.
    explicit ByteBuffer(std::size_t size);

    ByteBuffer(ByteBuffer const& other) = default;
    ByteBuffer& operator=(ByteBuffer const& other) = default;
    // The source is left empty.
    ByteBuffer(ByteBuffer&& other) noexcept;
    ByteBuffer& operator=(ByteBuffer&& other) noexcept;

    // Replaces the contents by a copy of `size` bytes at `data` (which may be null when size is 0).
    void copyFrom(void const* data, std::size_t size);

    std::uint8_t* data() { return m_bytes.data(); }
    std::uint8_t const* data() const { return m_bytes.data(); }
    std::size_t size() const { return m_bytes.size(); }
    bool empty() const { return m_bytes.empty(); }

    // Keeps the first min(size(), newSize) bytes; new bytes are zero.
    void resize(std::size_t newSize) { m_bytes.resize(newSize); }
    // Releases the memory as well.
    void clear();
    // Gives back memory beyond size() (after a buffer was sized for the worst case and then
    // shrunk to what was used, as compression does).
    void shrinkToFit() { m_bytes.shrink_to_fit(); }

    std::uint8_t* begin() { return m_bytes.data(); }
    std::uint8_t* end() { return m_bytes.data() + m_bytes.size(); }
    std::uint8_t const* begin() const { return m_bytes.data(); }
    std::uint8_t const* end() const { return m_bytes.data() + m_bytes.size(); }

    std::uint8_t& operator[](std::size_t index) { return m_bytes[index]; }
    std::uint8_t operator[](std::size_t index) const { return m_bytes[index]; }

    ByteBufferView view() const;
    // The bytes as they are (embedded zero bytes included).
    std::string toString() const;

private:
    std::vector<std::uint8_t> m_bytes;
};

class ByteBufferView
{
public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    constexpr ByteBufferView() = default;
    ByteBufferView(void const* data, std::size_t size)
        : m_data(static_cast<std::uint8_t const*>(data))
        , m_size(size)
    {}
    // The characters of `text`, without a terminating zero. std::string converts too; the view
    // then refers to that string's characters.
    explicit ByteBufferView(std::string_view text)
        : ByteBufferView(text.data(), text.size())
    {}
    ByteBufferView(ByteBuffer const& buffer)
        : ByteBufferView(buffer.data(), buffer.size())
    {}

    std::uint8_t const* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::uint8_t const* begin() const { return m_data; }
    std::uint8_t const* end() const { return m_data + m_size; }
    std::uint8_t operator[](std::size_t index) const { return m_data[index]; }

    // A view of `size` bytes from `offset`; `npos` means "to the end". Throws std::out_of_range
    // naming offset, size and length when the range does not lie within this view.
    ByteBufferView subView(std::size_t offset, std::size_t size = npos) const;

    ByteBuffer copy() const;
    std::string toString() const;
    std::string_view toStringView() const;

private:
    std::uint8_t const* m_data = nullptr;
    std::size_t m_size = 0;
};

// Content equality; both ByteBuffer and ByteBufferView convert, so any mix compares.
bool operator==(ByteBufferView a, ByteBufferView b);

} // namespace Velmoria
