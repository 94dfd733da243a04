#include "ml/data/Tensor.h"

#include "host/core/Log.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <limits>
#include <ostream>
#include <utility>

namespace Velmoria::ML {

namespace {

constexpr char const* logCategory = "ML.Tensor";

// A corrupt stream can claim any size; the data is read in chunks of this many bytes so that a
// truncated stream fails after a bounded allocation instead of reserving the claimed size first.
constexpr std::size_t readChunkBytes = std::size_t{64} << 20;

// Product of `shape` times `elementBytes`, or nothing when it does not fit a size_t.
bool checkedByteSize(Tensor::Shape const& shape, std::size_t elementBytes, std::size_t& result)
{
    if (shape.empty()) {
        result = 0;
        return true;
    }
    std::size_t product = elementBytes;
    for (std::uint64_t extent : shape) {
        if (extent != 0 && product > std::numeric_limits<std::size_t>::max() / extent)
            return false;
        product *= static_cast<std::size_t>(extent);
    }
    result = product;
    return true;
}

template <class T>
std::vector<T> copyElements(Tensor const& tensor)
{
    std::vector<T> values(tensor.numElements());
    if (!values.empty())
        std::memcpy(values.data(), tensor.bytePtr(), values.size() * sizeof(T));
    return values;
}

} // namespace

Tensor::Tensor() = default;

Tensor::Tensor(Shape shape, float const* data)
{
    assign(std::move(shape), Type::Float, data);
}

Tensor::Tensor(Shape shape, std::int64_t const* data)
{
    assign(std::move(shape), Type::Int64, data);
}

Tensor::Tensor(Shape shape, std::uint8_t const* data)
{
    assign(std::move(shape), Type::UInt8, data);
}

Tensor::Tensor(Shape shape, Type type, void const* bytes)
{
    assign(std::move(shape), type, bytes);
}

Tensor::Tensor(Tensor&& other) noexcept
    : m_shape(std::move(other.m_shape))
    , m_type(other.m_type)
    , m_buffer(std::move(other.m_buffer))
{
    other.m_shape.clear();
    other.m_buffer.clear();
}

Tensor& Tensor::operator=(Tensor&& other) noexcept
{
    if (this != &other) {
        Tensor moved(std::move(other));
        swapWith(moved);
    }
    return *this;
}

void Tensor::swapWith(Tensor& other) noexcept
{
    std::swap(m_shape, other.m_shape);
    std::swap(m_type, other.m_type);
    std::swap(m_buffer, other.m_buffer);
}

void Tensor::assign(Shape shape, Type type, void const* bytes)
{
    m_shape = std::move(shape);
    m_type = type;
    m_buffer.assign(buffer64Size(), 0);
    if (bytes != nullptr && byteSize() > 0)
        std::memcpy(m_buffer.data(), bytes, byteSize());
}

std::size_t Tensor::numElements() const
{
    if (m_shape.empty())
        return 0;
    std::size_t product = 1;
    for (std::uint64_t extent : m_shape)
        product *= static_cast<std::size_t>(extent);
    return product;
}

std::size_t Tensor::elementByteSize(Type type)
{
    switch (type) {
    case Type::Float:
        return sizeof(float);
    case Type::Int64:
        return sizeof(std::int64_t);
    case Type::UInt8:
        return sizeof(std::uint8_t);
    }
    VELMORIA_LOG_ERROR(logCategory, "ByteSize of Unknown type request");
    return 0;
}

std::size_t Tensor::elementByteSize() const
{
    return elementByteSize(m_type);
}

std::vector<float> Tensor::toFloatVector() const
{
    if (m_type != Type::Float) {
        VELMORIA_LOG_ERROR(logCategory, "Float vector requested, but Tensor is not float");
        return {};
    }
    return copyElements<float>(*this);
}

std::vector<std::int64_t> Tensor::toIntVector() const
{
    if (m_type != Type::Int64) {
        VELMORIA_LOG_ERROR(logCategory, "Int vector requested, but Tensor is not int");
        return {};
    }
    return copyElements<std::int64_t>(*this);
}

std::vector<std::uint8_t> Tensor::toUByteVector() const
{
    if (m_type != Type::UInt8) {
        VELMORIA_LOG_ERROR(logCategory, "uint8 vector requested, but Tensor is not uint8");
        return {};
    }
    return copyElements<std::uint8_t>(*this);
}

bool Tensor::operator==(Tensor const& other) const
{
    if (m_type != other.m_type || m_shape != other.m_shape)
        return false;
    std::size_t const bytes = byteSize();
    return bytes == 0 || std::memcmp(bytePtr(), other.bytePtr(), bytes) == 0;
}

bool Tensor::serialize(std::ostream& out) const
{
    if (!out)
        return false;
    auto const tag = static_cast<std::uint32_t>(m_type);
    auto const order = static_cast<std::uint32_t>(m_shape.size());
    out.write(reinterpret_cast<char const*>(&tag), sizeof(tag));
    out.write(reinterpret_cast<char const*>(&order), sizeof(order));
    if (!m_shape.empty())
        out.write(reinterpret_cast<char const*>(m_shape.data()),
                  static_cast<std::streamsize>(m_shape.size() * sizeof(std::uint64_t)));
    if (byteSize() > 0)
        out.write(reinterpret_cast<char const*>(bytePtr()), static_cast<std::streamsize>(byteSize()));
    return static_cast<bool>(out);
}

bool Tensor::deserialize(std::istream& in)
{
    auto fail = [] {
        VELMORIA_LOG_ERROR(logCategory, "Failure during deserialization");
        return false;
    };
    if (!in)
        return fail();

    std::uint32_t tag = 0;
    std::uint32_t order = 0;
    in.read(reinterpret_cast<char*>(&tag), sizeof(tag));
    in.read(reinterpret_cast<char*>(&order), sizeof(order));
    if (!in)
        return fail();

    auto const type = static_cast<Type>(tag);
    if (type != Type::Float && type != Type::Int64 && type != Type::UInt8) {
        VELMORIA_LOG_ERROR(logCategory, "Unknown tensor element type {} in stream", tag);
        return false;
    }

    // The shape is read entry by entry for the same reason as the data: `order` is untrusted.
    Shape shape;
    for (std::uint32_t i = 0; i < order; ++i) {
        std::uint64_t extent = 0;
        in.read(reinterpret_cast<char*>(&extent), sizeof(extent));
        if (!in)
            return fail();
        shape.push_back(extent);
    }

    std::size_t bytes = 0;
    if (!checkedByteSize(shape, elementByteSize(type), bytes)) {
        VELMORIA_LOG_ERROR(logCategory, "Tensor of {} dimensions in stream is too large to be held", order);
        return false;
    }

    std::vector<std::uint64_t> buffer;
    std::size_t done = 0;
    while (done < bytes) {
        std::size_t const chunk = std::min(readChunkBytes, bytes - done);
        buffer.resize((done + chunk + 7) / 8, 0);
        in.read(reinterpret_cast<char*>(buffer.data()) + done, static_cast<std::streamsize>(chunk));
        if (!in)
            return fail();
        done += chunk;
    }

    m_shape = std::move(shape);
    m_type = type;
    m_buffer = std::move(buffer);
    return true;
}

} // namespace Velmoria::ML
