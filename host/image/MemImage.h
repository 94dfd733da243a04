#pragma once

// MemImage: an image whose pixels are one contiguous CPU buffer, interleaved by channel, x
// fastest, then y, then z: value index = ((z · height + y) · width + x) · channels + c.
//
// Every MemImage is a TypedImage<T> of one of the eight pixel types; MemImage is the untyped
// view for code that only moves bytes. Typed loops get the TypedImage through visitPixelType
// (PixelType.h) once per image.
//
// Buffers are 64-byte aligned so that pixel loops vectorise. An image either owns its buffer
// (Owned: freed with the image) or borrows one (Borrowed: the caller keeps it alive and frees
// it). A buffer handed over as Owned must come from MemImage::allocateBuffer, because the image
// frees it with MemImage::freeBuffer. An empty image (0 values) has a null buffer.
//
// Images are not copyable (a silent copy of a 2 GB volume is a bug); use clone()/cloneMem(),
// which always give an Owned deep copy. Moving transfers the buffer and its ownership.

#include "host/image/Image.h"

#include <cstddef>
#include <memory>

namespace Velmoria {

class MemImage : public Image
{
public:
    enum Ownership : int
    {
        Owned = 0,
        Borrowed = 1,
    };

    static constexpr std::size_t Alignment = 64;

    ~MemImage() override;
    MemImage(MemImage const&) = delete;
    MemImage& operator=(MemImage const&) = delete;

    // A TypedImage of the descriptor's pixel type with uninitialised values; null (and an error
    // in "Host.MemImage") for an invalid descriptor or when the memory cannot be had.
    static std::unique_ptr<MemImage> create(ImageDescriptor const& descriptor);
    // The same, with every value 0.
    static std::unique_ptr<MemImage> zeros(ImageDescriptor const& descriptor);

    // 64-byte aligned storage for `bytes` bytes (null for 0); throws std::bad_alloc.
    static void* allocateBuffer(std::size_t bytes);
    static void freeBuffer(void* buffer) noexcept;

    Location location() const override { return Memory; }

    void* data() { return m_data; }
    void const* data() const { return m_data; }
    std::size_t byteSize() const { return m_descriptor.byteSize(); }
    std::size_t valueCount() const { return m_descriptor.valueCount(); }
    Ownership ownership() const { return m_ownership; }

    // Deep copy of pixels and descriptor, always Owned.
    virtual std::unique_ptr<MemImage> cloneMem() const = 0;

protected:
    // Takes `data` as is, or allocates byteSize() bytes (uninitialised) when it is null; then
    // the image is Owned whatever `ownership` says. Throws ImageError for negative sizes, less
    // than one channel or an invalid pixel type.
    MemImage(ImageDescriptor const& descriptor, void* data, Ownership ownership);
    MemImage(MemImage&& other) noexcept;
    MemImage& operator=(MemImage&& other) noexcept;

private:
    void release() noexcept;

    void* m_data = nullptr;
    Ownership m_ownership = Owned;
};

} // namespace Velmoria
