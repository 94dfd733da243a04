#pragma once

// ImageDescriptor: the value type that describes one pixel buffer — what is stored (pixel
// type, width, height, slices, channels), the size of a pixel (spacing) and how stored values
// relate to the original intensities (shift and scale). It holds no geometry in the world; that
// is ImageDescriptorWorld.
//
// Intensities: original = stored / scale − shift, hence stored = (original + shift) · scale.
// Defaults shift 0 and scale 1 make both the same. Use storageToOriginal / originalToStorage
// rather than repeating the formula.
//
// The default descriptor is empty: float, 0 × 0 × 0 pixels, 1 channel, spacing 1 mm (metric).
// dimension() is 3 when slices > 1 and 2 otherwise. extent() is the physical size of the box
// around all pixel areas, dimensions ∘ spacing (as in ITK), not (dimensions − 1) ∘ spacing.
//
// Comparison (isApprox) takes a bit set of CompareFlags; the values are fixed, several masks are
// used as numbers across the system:
//
//   bit  name          compares
//   1    Orientation   rotation part of the image-to-world matrix (ImageDescriptorWorld only)
//   2    Channels      channel count
//   4    PixelType     pixel type
//   8    ShiftScale    intensity shift and scale
//   16   Dimensions    width, height, slices
//   32   Position      translation of the image-to-world matrix (ImageDescriptorWorld only)
//   64   Spacing       spacing and the isMetric flag
//
//   64  = same spacing; 79 = same spacing, shift/scale, pixel type, channels, orientation;
//   81  = same dimensions, spacing, orientation; 113 = 81 plus position (same grid in the world).
//
// A plain ImageDescriptor ignores bits 1 and 32. Doubles compare as approximately equal when
// |a − b| <= 1e-9 + 1e-6 · max(|a|, |b|): relative 1e-6, with an absolute floor so that values
// near zero (rotation entries, positions at the origin) still compare. Vectors and matrices
// compare element by element. This is hand-written because Eigen's isApprox is norm-relative and
// never accepts a difference against an exact zero.
//
// Configuration keys (configure / configuration): "type" (pixelTypeName, e.g. "uint8"; every
// form parsePixelType reads), "dimensions" ("512 512 100"), "channels", "spacing" ("1 1 2.5"),
// "isMetric", "shift", "scale". configure applies the keys that are present, checks all of them
// first, and on any bad value logs an error in "Host.ImageDescriptor" naming key and text,
// returns false and leaves the descriptor unchanged. It never throws.

#include "host/image/PixelType.h"

#include <Eigen/Core>
#include <cstddef>
#include <string>

namespace Velmoria {

class Properties;
class ImageDescriptorWorld;

class ImageDescriptor
{
public:
    enum CompareFlags : int
    {
        CompareOrientation = 1,
        CompareChannels = 2,
        ComparePixelType = 4,
        CompareShiftScale = 8,
        CompareDimensions = 16,
        ComparePosition = 32,
        CompareSpacing = 64,
        CompareAll = 127,
    };

    ImageDescriptor() = default;
    ImageDescriptor(PixelType type, Eigen::Vector3i const& dimensions, int channels = 1);
    ImageDescriptor(PixelType type, int width, int height, int slices, int channels = 1);

    PixelType pixelType = PixelType::Float;
    int width = 0;
    int height = 0;
    int slices = 0;
    int channels = 1;
    Eigen::Vector3d spacing = Eigen::Vector3d::Ones();
    bool isMetric = true; // spacing in millimetres
    double shift = 0.0;
    double scale = 1.0;

    // Negative sizes count as 0 in all of these.
    std::size_t pixelCount() const; // width · height · slices
    std::size_t valueCount() const; // pixelCount · channels
    std::size_t byteSize() const;   // valueCount · pixelTypeSize
    int dimension() const { return slices > 1 ? 3 : 2; }
    Eigen::Vector3i dimensions() const { return {width, height, slices}; }
    // Physical size, dimensions ∘ spacing.
    Eigen::Vector3d extent() const;
    // Sizes >= 1 and channels >= 1, a valid pixel type, positive finite spacing, finite shift
    // and a finite non-zero scale.
    bool isValid() const;
    bool isEmpty() const { return pixelCount() == 0; }

    void setDimensions(Eigen::Vector3i const& dimensions, int channels);
    void setDimensions(Eigen::Vector3i const& dimensions) { setDimensions(dimensions, channels); }
    void setSpacing(Eigen::Vector3d const& spacing, bool isMetric);
    void setShiftScale(double shift, double scale);

    double storageToOriginal(double stored) const { return stored / scale - shift; }
    double originalToStorage(double original) const { return (original + shift) * scale; }

    // See the flag table in the file comment.
    bool isApprox(ImageDescriptor const& other, int flags = CompareAll) const;
    // A plain descriptor cannot compare orientation or position; compare world descriptors as
    // ImageDescriptorWorld, or call .descriptor() on purpose.
    bool isApprox(ImageDescriptorWorld const& other, int flags = CompareAll) const = delete;
    // Same pixel type, dimensions and channels: the raw buffers can be exchanged.
    bool isPixelBufferCompatible(ImageDescriptor const& other) const;

    bool configure(Properties const* properties);
    void configuration(Properties* properties) const;

    // Exact equality of every field.
    bool operator==(ImageDescriptor const& other) const;

    // "float 4x3x2 1ch spacing 0.5 1 2 mm", for messages.
    std::string describe() const;
};

namespace ImageDescriptorDetail {
// The tolerance rule of the file comment.
bool approxEqual(double a, double b);
template <class A, class B>
bool approxEqual(Eigen::MatrixBase<A> const& a, Eigen::MatrixBase<B> const& b)
{
    for (Eigen::Index r = 0; r < a.rows(); ++r)
        for (Eigen::Index c = 0; c < a.cols(); ++c)
            if (!approxEqual(static_cast<double>(a(r, c)), static_cast<double>(b(r, c))))
                return false;
    return true;
}
} // namespace ImageDescriptorDetail

} // namespace Velmoria
