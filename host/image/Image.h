#pragma once

// Image: the abstract pixel container. It knows its ImageDescriptor (pixel type, size,
// channels, spacing, shift/scale) and where its pixels live (Location); the pixels themselves
// belong to the subclasses: MemImage (CPU memory) and the GPU images of host/gl.
//
// Image::Type is an alias of PixelType (same values, see PixelType.h), so that code can use
// either name without conversions.
//
// Location values are fixed: Memory 1, Gpu 2 (they are bits, so a set of locations fits in an
// int).
//
// Geometry in the world is not part of an image: SharedImage holds the matrix.

#include "host/image/ImageDescriptor.h"
#include "host/image/PixelType.h"

#include <Eigen/Core>
#include <stdexcept>

namespace Velmoria {

// Thrown by image constructors for impossible sizes (negative dimensions, no channels) or a
// buffer of the wrong pixel type; the create() functions report these as null instead.
class ImageError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class Image
{
public:
    using Type = PixelType;

    enum Location : int
    {
        Memory = 1,
        Gpu = 2,
    };

    virtual ~Image() = default;

    virtual Location location() const = 0;

    Type type() const { return m_descriptor.pixelType; }
    ImageDescriptor const& descriptor() const { return m_descriptor; }
    int width() const { return m_descriptor.width; }
    int height() const { return m_descriptor.height; }
    int slices() const { return m_descriptor.slices; }
    int channels() const { return m_descriptor.channels; }
    int dimension() const { return m_descriptor.dimension(); }
    Eigen::Vector3i dimensions() const { return m_descriptor.dimensions(); }

    // Spacing and shift/scale describe the pixels without changing them, so they can be set on
    // any image; the sizes and the type cannot.
    Eigen::Vector3d const& spacing() const { return m_descriptor.spacing; }
    bool isMetric() const { return m_descriptor.isMetric; }
    void setSpacing(Eigen::Vector3d const& spacing) { m_descriptor.spacing = spacing; }
    void setSpacing(Eigen::Vector3d const& spacing, bool isMetric)
    {
        m_descriptor.setSpacing(spacing, isMetric);
    }
    double shift() const { return m_descriptor.shift; }
    double scale() const { return m_descriptor.scale; }
    void setShiftScale(double shift, double scale) { m_descriptor.setShiftScale(shift, scale); }

    // Same dimensions always; with the flags also the same pixel type, channel count and
    // (approximately, see ImageDescriptor) the same spacing.
    bool compatible(Image const& other, bool checkType = true, bool checkChannels = true,
                    bool checkSpacing = false) const;

protected:
    explicit Image(ImageDescriptor const& descriptor)
        : m_descriptor(descriptor)
    {}
    Image(Image const&) = default;
    Image(Image&&) = default;
    Image& operator=(Image const&) = default;
    Image& operator=(Image&&) = default;

    ImageDescriptor m_descriptor;
};

namespace Utils {
template <class T>
constexpr Image::Type imageTypeId()
{
    return pixelTypeId<T>();
}
} // namespace Utils

} // namespace Velmoria
