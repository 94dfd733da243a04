#pragma once

// Tensor: a block of typed numbers with a shape and no image semantics. Tensors carry the network
// inputs and outputs that are not images (class scores, embeddings, token ids).
//
// Element types are tagged with the OpenGL type constants, because that is how they are written
// into files and handed to engines:
//
//   tag   Type     element                 elementByteSize()
//   5126  Float    32-bit IEEE float       4
//   5124  Int64    signed 64-bit integer   8   (the tag is OpenGL's *32-bit* int constant, but a
//                                              tensor of this type holds 64-bit values; the typed
//                                              constructor takes std::int64_t data)
//   5121  UInt8    unsigned byte           1
//
// The elements live in a buffer of 64-bit words (byteSize() rounded up to a multiple of 8), so
// that bytePtr() is suitably aligned for every element type. An empty shape has zero elements,
// not one: a tensor without a shape holds nothing.
//
// Stream form (serialize / deserialize), native byte order (little-endian on every platform we
// build for), no padding:
//   type  4 bytes       the tag above
//   order 4 bytes       number of shape entries, unsigned
//   shape order x 8     the sizes, unsigned
//   data  byteSize()    the raw elements
// A shape [2, 3] of float therefore takes 4 + 4 + 16 + 24 = 48 bytes.

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <vector>

namespace Velmoria::ML {

class Tensor
{
public:
    enum class Type : std::uint32_t
    {
        UInt8 = 5121,
        Int64 = 5124,
        Float = 5126,
    };

    using Shape = std::vector<std::uint64_t>;

    // Empty: no shape, no elements, type Float.
    Tensor();
    // Copies numElements(shape) values from `data`; a null `data` gives zero-filled elements.
    Tensor(Shape shape, float const* data);
    Tensor(Shape shape, std::int64_t const* data);
    Tensor(Shape shape, std::uint8_t const* data);
    // Copies byteSize() raw bytes of elements of `type` from `bytes` (zeros when null). A tag
    // outside the three types logs an error and gives a tensor without elements.
    Tensor(Shape shape, Type type, void const* bytes);

    Tensor(Tensor const&) = default;
    Tensor& operator=(Tensor const&) = default;
    Tensor(Tensor&& other) noexcept;
    Tensor& operator=(Tensor&& other) noexcept;
    void swapWith(Tensor& other) noexcept;

    Type type() const { return m_type; }
    std::size_t order() const { return m_shape.size(); }
    Shape const& shape() const { return m_shape; }
    // Product of the shape; 0 for an empty shape.
    std::size_t numElements() const;

    // Bytes per element of type(); 0 (with an error line) for an unknown tag.
    std::size_t elementByteSize() const;
    static std::size_t elementByteSize(Type type);
    std::size_t byteSize() const { return numElements() * elementByteSize(); }
    // Number of 64-bit words of the buffer: byteSize() rounded up to a multiple of 8, over 8.
    std::size_t buffer64Size() const { return (byteSize() + 7) / 8; }
    std::uint8_t* bytePtr() { return reinterpret_cast<std::uint8_t*>(m_buffer.data()); }
    std::uint8_t const* bytePtr() const { return reinterpret_cast<std::uint8_t const*>(m_buffer.data()); }

    // Copies of the elements; an empty vector (with an error line) when the type does not match.
    std::vector<float> toFloatVector() const;
    std::vector<std::int64_t> toIntVector() const;
    std::vector<std::uint8_t> toUByteVector() const;

    // Equal tags, equal shapes and byte-equal elements.
    bool operator==(Tensor const& other) const;
    bool operator!=(Tensor const& other) const { return !(*this == other); }

    // Writes the stream form. False, writing nothing, when `out` is already failed; false when a
    // write fails.
    bool serialize(std::ostream& out) const;
    // Reads the stream form. On any failure (failed or truncated stream, unknown tag, a shape
    // whose size overflows) logs an error under "ML.Tensor", returns false and leaves the tensor
    // unchanged.
    bool deserialize(std::istream& in);

private:
    void assign(Shape shape, Type type, void const* bytes);

    Shape m_shape;
    Type m_type = Type::Float;
    std::vector<std::uint64_t> m_buffer;
};

} // namespace Velmoria::ML
