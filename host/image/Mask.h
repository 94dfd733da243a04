#pragma once

// Masks: which pixels of a frame take part in a computation (statistics, sampling, metrics).
//
// A Mask is attached to a SharedImage (SharedImage::setMask). Pixel loops never ask a mask pixel
// by pixel through a virtual call: they ask once for the explicit form, one byte per pixel
// (non-zero = inside), and read that buffer.
//
//   ExplicitMask   the mask is a label image itself (a one-channel uint8 frame of the image's
//                  dimensions); convert() turns any one-channel label frame into one.
//   IntensityMask  the pixels whose original intensity (see ImageDescriptor::storageToOriginal)
//                  of channel 0 lies in [low, high].

#include "host/image/TypedImage.h"

#include <memory>

namespace Velmoria {

class SharedImage;

class Mask
{
public:
    virtual ~Mask() = default;

    // One byte per pixel of `image` (x fastest, then y, then z): 1 inside, 0 outside. Null, with
    // a log line, when the mask does not fit the image.
    virtual std::unique_ptr<TypedImage<unsigned char>> createExplicitMask(SharedImage const& image) const = 0;
    virtual std::unique_ptr<Mask> clone() const = 0;
};

class ExplicitMask final : public Mask
{
public:
    // An all-inside mask of these dimensions.
    explicit ExplicitMask(Eigen::Vector3i const& dimensions);
    // Takes a one-channel uint8 image whose non-zero pixels are inside.
    explicit ExplicitMask(std::shared_ptr<TypedImage<unsigned char>> mask);

    // Any one-channel label frame becomes a mask: non-zero values are inside. Null, with a log
    // line, for a null frame or one with more than one channel.
    static std::unique_ptr<ExplicitMask> convert(std::unique_ptr<SharedImage> labels);

    TypedImage<unsigned char> const& maskImage() const { return *m_mask; }
    TypedImage<unsigned char>& maskImage() { return *m_mask; }

    std::unique_ptr<TypedImage<unsigned char>> createExplicitMask(SharedImage const& image) const override;
    std::unique_ptr<Mask> clone() const override;

private:
    std::shared_ptr<TypedImage<unsigned char>> m_mask;
};

class IntensityMask final : public Mask
{
public:
    IntensityMask(double low, double high)
        : m_low(low)
        , m_high(high)
    {}

    double low() const { return m_low; }
    double high() const { return m_high; }

    std::unique_ptr<TypedImage<unsigned char>> createExplicitMask(SharedImage const& image) const override;
    std::unique_ptr<Mask> clone() const override { return std::make_unique<IntensityMask>(*this); }

private:
    double m_low;
    double m_high;
};

} // namespace Velmoria
