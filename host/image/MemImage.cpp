#include "host/image/MemImage.h"

#include "host/core/Log.h"
#include "host/image/TypedImage.h"

#include <new>
#include <utility>

namespace Velmoria {

namespace {

constexpr char const* g_category = "Host.MemImage";

void checkDescriptor(ImageDescriptor const& descriptor)
{
    if (!isValidPixelType(descriptor.pixelType))
        throw ImageError(fmt::format("Invalid pixel type value {}", static_cast<int>(descriptor.pixelType)));
    if (descriptor.width < 0 || descriptor.height < 0 || descriptor.slices < 0 || descriptor.channels < 1)
        throw ImageError(fmt::format("Invalid image size {}x{}x{} with {} channels", descriptor.width,
                                     descriptor.height, descriptor.slices, descriptor.channels));
}

template <bool Zero>
std::unique_ptr<MemImage> make(ImageDescriptor const& descriptor)
{
    if (!isValidPixelType(descriptor.pixelType)) {
        VELMORIA_LOG_ERROR(g_category, "Cannot create an image of invalid pixel type value {}",
                           static_cast<int>(descriptor.pixelType));
        return nullptr;
    }
    return visitPixelType(descriptor.pixelType, [&](auto tag) -> std::unique_ptr<MemImage> {
        using T = decltype(tag);
        if constexpr (Zero)
            return TypedImage<T>::zeros(descriptor);
        else
            return TypedImage<T>::create(descriptor);
    });
}

} // namespace

MemImage::MemImage(ImageDescriptor const& descriptor, void* data, Ownership ownership)
    : Image(descriptor)
    , m_data(data)
    , m_ownership(ownership)
{
    checkDescriptor(descriptor);
    if (!m_data) {
        m_data = allocateBuffer(descriptor.byteSize());
        m_ownership = Owned;
    }
}

MemImage::~MemImage()
{
    release();
}

MemImage::MemImage(MemImage&& other) noexcept
    : Image(std::move(other))
    , m_data(std::exchange(other.m_data, nullptr))
    , m_ownership(other.m_ownership)
{
    // The moved-from image is left empty, so its descriptor must agree with its null buffer.
    other.m_descriptor.setDimensions(Eigen::Vector3i::Zero());
}

MemImage& MemImage::operator=(MemImage&& other) noexcept
{
    if (this != &other) {
        release();
        Image::operator=(std::move(other));
        m_data = std::exchange(other.m_data, nullptr);
        m_ownership = other.m_ownership;
        other.m_descriptor.setDimensions(Eigen::Vector3i::Zero());
    }
    return *this;
}

void MemImage::release() noexcept
{
    if (m_ownership == Owned)
        freeBuffer(m_data);
    m_data = nullptr;
}

void* MemImage::allocateBuffer(std::size_t bytes)
{
    if (bytes == 0)
        return nullptr;
    return ::operator new (bytes, std::align_val_t{Alignment});
}

void MemImage::freeBuffer(void* buffer) noexcept
{
    if (buffer)
        ::operator delete (buffer, std::align_val_t{Alignment});
}

std::unique_ptr<MemImage> MemImage::create(ImageDescriptor const& descriptor)
{
    return make<false>(descriptor);
}

std::unique_ptr<MemImage> MemImage::zeros(ImageDescriptor const& descriptor)
{
    return make<true>(descriptor);
}

} // namespace Velmoria
