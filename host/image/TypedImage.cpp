#include "host/image/TypedImage.h"

#include "host/core/Log.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <new>

namespace Velmoria {

namespace {

constexpr char const* g_category = "Host.TypedImage";

// Below this many values a loop is faster on one thread than the cost of waking the team.
constexpr std::ptrdiff_t g_parallelThreshold = 1 << 18;

ImageDescriptor descriptorOf(PixelType type, Eigen::Vector3i const& dimensions, int channels)
{
    return ImageDescriptor(type, dimensions, channels);
}

template <class T>
ImageDescriptor const& checkedType(ImageDescriptor const& descriptor)
{
    if (descriptor.pixelType != Utils::pixelTypeId<T>())
        throw ImageError(fmt::format("A TypedImage of {} cannot hold the pixel type {}",
                                     pixelTypeName(Utils::pixelTypeId<T>()),
                                     pixelTypeName(descriptor.pixelType)));
    return descriptor;
}

template <class T, class Make>
std::unique_ptr<TypedImage<T>> guarded(ImageDescriptor const& descriptor, Make make)
{
    try {
        return make();
    } catch (ImageError const& error) {
        VELMORIA_LOG_ERROR(g_category, "Cannot create image {}: {}", descriptor.describe(), error.what());
    } catch (std::bad_alloc const&) {
        VELMORIA_LOG_ERROR(g_category, "Cannot create image {}: out of memory for {} bytes",
                           descriptor.describe(), descriptor.byteSize());
    }
    return nullptr;
}

} // namespace

template <class T>
TypedImage<T>::TypedImage(Eigen::Vector3i const& dimensions, int channels, T* data, Ownership ownership)
    : MemImage(descriptorOf(Utils::pixelTypeId<T>(), dimensions, channels), data, ownership)
{}

template <class T>
TypedImage<T>::TypedImage(ImageDescriptor const& descriptor, T* data, Ownership ownership)
    : MemImage(checkedType<T>(descriptor), data, ownership)
{}

template <class T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::create(Eigen::Vector3i const& dimensions, int channels, T* data,
                                                     Ownership ownership)
{
    return create(descriptorOf(Utils::pixelTypeId<T>(), dimensions, channels), data, ownership);
}

template <class T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::create(ImageDescriptor const& descriptor, T* data,
                                                     Ownership ownership)
{
    return guarded<T>(descriptor, [&] { return std::make_unique<TypedImage>(descriptor, data, ownership); });
}

template <class T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::zeros(ImageDescriptor const& descriptor)
{
    auto image = create(descriptor);
    // Zero bits are the value 0 for every pixel type, IEEE floats included.
    if (image && image->byteSize() > 0)
        std::memset(image->data(), 0, image->byteSize());
    return image;
}

template <class T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::zeros(Eigen::Vector3i const& dimensions, int channels)
{
    return zeros(descriptorOf(Utils::pixelTypeId<T>(), dimensions, channels));
}

template <class T>
void TypedImage<T>::fill(T value)
{
    T* const p = pointer();
    auto const n = static_cast<std::ptrdiff_t>(valueCount());
#pragma omp parallel for schedule(static) if (n >= g_parallelThreshold)
    for (std::ptrdiff_t i = 0; i < n; ++i)
        p[i] = value;
}

template <class T>
std::unique_ptr<TypedImage<T>> TypedImage<T>::clone() const
{
    auto copy = create(descriptor());
    if (copy && byteSize() > 0)
        std::memcpy(copy->data(), data(), byteSize());
    return copy;
}

template <class T>
std::unique_ptr<MemImage> TypedImage<T>::cloneMem() const
{
    return clone();
}

template <class T>
bool TypedImage<T>::getRange(T& lo, T& hi) const
{
    T const* const p = pointer();
    auto const n = static_cast<std::ptrdiff_t>(valueCount());
    if (n == 0)
        return false;
    if constexpr (std::is_floating_point_v<T>) {
        // Start from the empty range; NaN fails both comparisons and is skipped.
        T low = std::numeric_limits<T>::infinity();
        T high = -std::numeric_limits<T>::infinity();
        std::ptrdiff_t counted = 0;
#pragma omp parallel for schedule(static) reduction(min : low) reduction(max : high) reduction(+ : counted) \
    if (n >= g_parallelThreshold)
        for (std::ptrdiff_t i = 0; i < n; ++i) {
            T const v = p[i];
            if (std::isnan(v))
                continue;
            ++counted;
            low = v < low ? v : low;
            high = v > high ? v : high;
        }
        if (counted == 0)
            return false;
        lo = low;
        hi = high;
    } else {
        T low = std::numeric_limits<T>::max();
        T high = std::numeric_limits<T>::lowest();
#pragma omp parallel for schedule(static) reduction(min                                                      \
                                                    : low) reduction(max                                     \
                                                                     : high) if (n >= g_parallelThreshold)
        for (std::ptrdiff_t i = 0; i < n; ++i) {
            T const v = p[i];
            low = v < low ? v : low;
            high = v > high ? v : high;
        }
        lo = low;
        hi = high;
    }
    return true;
}

template class TypedImage<char>;
template class TypedImage<unsigned char>;
template class TypedImage<short>;
template class TypedImage<unsigned short>;
template class TypedImage<int>;
template class TypedImage<unsigned int>;
template class TypedImage<float>;
template class TypedImage<double>;

} // namespace Velmoria
