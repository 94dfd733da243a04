#include "host/core/ByteBuffer.h"

#include <fmt/core.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace Velmoria {

ByteBuffer::ByteBuffer(std::size_t size)
    : m_bytes(size)
{}

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : m_bytes(std::exchange(other.m_bytes, {}))
{}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept
{
    if (this != &other)
        m_bytes = std::exchange(other.m_bytes, {});
    return *this;
}

void ByteBuffer::copyFrom(void const* data, std::size_t size)
{
    auto const* bytes = static_cast<std::uint8_t const*>(data);
    if (size == 0 || bytes == nullptr) {
        m_bytes.clear();
        return;
    }
    m_bytes.assign(bytes, bytes + size);
}

void ByteBuffer::clear()
{
    std::vector<std::uint8_t>().swap(m_bytes);
}

ByteBufferView ByteBuffer::view() const
{
    return ByteBufferView(*this);
}

std::string ByteBuffer::toString() const
{
    return view().toString();
}

ByteBufferView ByteBufferView::subView(std::size_t offset, std::size_t size) const
{
    if (offset > m_size || (size != npos && size > m_size - offset)) {
        throw std::out_of_range(fmt::format("ByteBufferView::subView: offset {} and size {} exceed length {}",
                                            offset, size == npos ? std::string("npos") : std::to_string(size),
                                            m_size));
    }
    if (size == npos)
        size = m_size - offset;
    return ByteBufferView(m_data + offset, size);
}

ByteBuffer ByteBufferView::copy() const
{
    ByteBuffer result;
    result.copyFrom(m_data, m_size);
    return result;
}

std::string ByteBufferView::toString() const
{
    return std::string(toStringView());
}

std::string_view ByteBufferView::toStringView() const
{
    if (m_size == 0)
        return {};
    return std::string_view(reinterpret_cast<char const*>(m_data), m_size);
}

bool operator==(ByteBufferView a, ByteBufferView b)
{
    return a.size() == b.size() && (a.size() == 0 || std::equal(a.begin(), a.end(), b.begin()));
}

} // namespace Velmoria
