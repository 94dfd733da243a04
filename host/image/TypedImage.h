#pragma once

// TypedImage<T>: a MemImage of one pixel type T, for T in char (int8, see PixelType.h),
// unsigned char, short, unsigned short, int, unsigned int, float, double. The eight classes are
// instantiated once, in TypedImage.cpp; their bulk loops (fill, getRange) run in parallel with
// OpenMP there, which keeps OpenMP out of every header.
//
// Layout (see MemImage.h): index(x, y, z, c) = ((z · height + y) · width + x) · channels + c.
// value/setValue do no bounds check in release builds (an assert in debug builds): they are
// meant for inner loops.
//
// getRange gives the smallest and largest value over all pixels and channels; NaN values of
// float and double images are skipped. It returns false, leaving lo and hi untouched, for an
// empty image or one with nothing but NaN.

#include "host/image/MemImage.h"

#include <cassert>
#include <cstddef>
#include <memory>

namespace Velmoria {

template <class T>
class TypedImage : public MemImage
{
    static_assert(Utils::isPixelScalar<T> && !std::is_same_v<T, signed char>,
                  "TypedImage exists for char, unsigned char, short, unsigned short, int, unsigned int, "
                  "float and double");

public:
    using ValueType = T;

    // A null `data` allocates an Owned buffer (uninitialised). Throws ImageError for negative
    // sizes or channels < 1.
    TypedImage(Eigen::Vector3i const& dimensions, int channels, T* data = nullptr,
               Ownership ownership = Owned);
    // The descriptor's pixel type must be T (ImageError otherwise).
    explicit TypedImage(ImageDescriptor const& descriptor, T* data = nullptr, Ownership ownership = Owned);
    TypedImage(TypedImage&& other) noexcept = default;
    TypedImage& operator=(TypedImage&& other) noexcept = default;

    // As the constructors, but null and an error in "Host.TypedImage" instead of an exception.
    static std::unique_ptr<TypedImage> create(Eigen::Vector3i const& dimensions, int channels,
                                              T* data = nullptr, Ownership ownership = Owned);
    static std::unique_ptr<TypedImage> create(ImageDescriptor const& descriptor, T* data = nullptr,
                                              Ownership ownership = Owned);
    static std::unique_ptr<TypedImage> zeros(ImageDescriptor const& descriptor);
    static std::unique_ptr<TypedImage> zeros(Eigen::Vector3i const& dimensions, int channels = 1);

    T* pointer() { return static_cast<T*>(data()); }
    T const* pointer() const { return static_cast<T const*>(data()); }

    void fill(T value);
    std::unique_ptr<TypedImage> clone() const;
    std::unique_ptr<MemImage> cloneMem() const override;
    bool getRange(T& lo, T& hi) const;

    std::size_t index(int x, int y, int z, int channel = 0) const
    {
        assert(x >= 0 && x < width() && y >= 0 && y < height() && z >= 0 && z < slices() && channel >= 0 &&
               channel < channels());
        auto const w = static_cast<std::size_t>(width());
        auto const h = static_cast<std::size_t>(height());
        auto const c = static_cast<std::size_t>(channels());
        return ((static_cast<std::size_t>(z) * h + static_cast<std::size_t>(y)) * w +
                static_cast<std::size_t>(x)) *
                   c +
               static_cast<std::size_t>(channel);
    }
    T value(int x, int y, int z, int channel = 0) const { return pointer()[index(x, y, z, channel)]; }
    void setValue(T v, int x, int y, int z, int channel = 0) { pointer()[index(x, y, z, channel)] = v; }
    T value(std::size_t flatIndex) const
    {
        assert(flatIndex < valueCount());
        return pointer()[flatIndex];
    }
    void setValue(T v, std::size_t flatIndex)
    {
        assert(flatIndex < valueCount());
        pointer()[flatIndex] = v;
    }
};

extern template class TypedImage<char>;
extern template class TypedImage<unsigned char>;
extern template class TypedImage<short>;
extern template class TypedImage<unsigned short>;
extern template class TypedImage<int>;
extern template class TypedImage<unsigned int>;
extern template class TypedImage<float>;
extern template class TypedImage<double>;

} // namespace Velmoria
