#pragma once

// Array: the image leaves of ImageMath trees, and the targets that expressions are assigned to.
//
//   Array<SharedImageSet, Type>   every frame of a set; frame i of the tree reads frame i
//   Array<SharedImage, Type>      one frame, the same for every frame of the tree (broadcast)
//   Array<TypedImage<U>>          one CPU buffer of a known pixel type; what the other two
//                                 become in convertToMemImgExpr<T>
//
// Type is void (the frames are read as the pixel type of the target) or a fixed pixel type
// (for operands whose type differs from the target's). A leaf that is not `normalized` reads
// stored values as originals, v / scale − shift, with the image's own shift and scale; a
// target that is not normalised writes (v + shift) · scale. A normalised view takes stored
// values as they are. Filter, wrap and border colour are kept for the GPU backend and do not
// change the CPU result (CPU reads are at pixel centres and never outside the image).
//
// Assignment `array = expression` (or assign(), which says whether it worked) is the only place
// where pixels are computed; see CpuEvaluator.h. Copying an Array copies the handle;
// assigning one Array to another evaluates, as for any expression.
//
// Partial assignment. assignRegion(expression, region) writes only a box and/or some channels
// of every frame; the views `array.block(offset, size)` and `array.channels({...})` (BlockView.h,
// Channels.h) narrow the region and call it, so `img.block(o, s) = 0` loops over the box only.
// The expression is then evaluated on a domain of the box's size: its operands must have that
// size (take `.block()` of a larger operand) and as many channels as the region writes. A
// region that does not lie inside a frame, or names a channel twice or out of range, is
// refused with a log line and nothing is written; it is never clipped, because a clipped
// box would silently write fewer pixels than the caller asked for.

#include "ml/imagemath/ExprBase.h"

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria::ImageMath {

enum class MagFilter : int
{
    Nearest = 0,
    Linear = 1,
};

enum class Wrap : int
{
    ClampToEdge = 0,
    Repeat = 1,
    MirroredRepeat = 2,
    ClampToBorder = 3,
};

// Settings shared by all image leaves.
struct ArraySampling
{
    bool normalized = false;
    MagFilter filter = MagFilter::Nearest;
    Wrap wrap = Wrap::ClampToEdge;
    Eigen::Vector4f borderColor = Eigen::Vector4f::Zero();
};

template <class Storage, class Type = void>
class Array;

// The part of each target frame that an assignment writes (see the file comment).
struct WriteRegion
{
    Eigen::Vector3i offset = Eigen::Vector3i::Zero();
    std::optional<Eigen::Vector3i> size; // nullopt: from offset to the end of the frame
    std::vector<int> channels;           // target channel of each expression channel; empty: all
};

// Whether an expression can be assigned to: Arrays, and block/channel views of writable ones.
template <class E>
inline constexpr bool isWritable = false;
template <class Storage, class Type>
inline constexpr bool isWritable<Array<Storage, Type>> = true;

namespace Detail {

// Whether frame `frame` (of a set, or the one image) fits a target of that pixel type and
// shape; `why` names what does not.
bool checkLeafFrame(SharedImage const* frame, int image, PixelType expected, ImageDescriptor const& shape,
                    std::string& why);
bool checkLeafShape(ImageDescriptor const& desc, ImageDescriptor const& shape, std::string& why);

// A WriteRegion resolved against one frame: box and target channels spelled out.
struct FrameRegion
{
    Eigen::Vector3i offset = Eigen::Vector3i::Zero();
    Eigen::Vector3i size = Eigen::Vector3i::Zero();
    std::vector<int> channels; // target channel of each expression channel
    bool allChannels = true;   // channels is 0, 1, ..., channels − 1 of the target
};

// Resolves `region` against frame `image` of descriptor `frame`; false, with a log line, when it
// does not lie inside the frame or names a channel twice or out of range.
bool resolveRegion(WriteRegion const& region, ImageDescriptor const& frame, int image, FrameRegion& resolved);
// The shape an expression must have to fill `region` of a frame: the box's dimensions and
// the number of written channels.
ImageDescriptor regionShape(ImageDescriptor const& frame, FrameRegion const& region);

} // namespace Detail

// One CPU buffer of pixel type U. The converted form of every other leaf.
template <class U, class Type>
class Array<TypedImage<U>, Type> : public ExprBaseTpl<Array<TypedImage<U>, Type>>
{
public:
    using ValueType = Detail::LeafValue<U>;

    explicit Array(TypedImage<U>& image, bool normalized = false, MagFilter filter = MagFilter::Nearest,
                   Wrap wrap = Wrap::ClampToEdge,
                   Eigen::Vector4f const& borderColor = Eigen::Vector4f::Zero())
        : m_image(&image)
        , m_data(image.pointer())
        , m_sampling{normalized, filter, wrap, borderColor}
    {
        ImageDescriptor const& desc = image.descriptor();
        m_convert = !normalized && (desc.shift != 0.0 || desc.scale != 1.0);
        m_shift = static_cast<ValueType>(desc.shift);
        m_scale = static_cast<ValueType>(desc.scale);
    }
    Array(Array const&) = default;

    // Evaluates `expression` into this image. False, with a log line, when an operand does not
    // fit; the image is unchanged then.
    template <class E>
    bool assign(ExprBaseTpl<E> const& expression)
    {
        return assignRegion(expression, WriteRegion{});
    }
    // Evaluates `expression` into `region` of every frame only (see the file comment).
    template <class E>
    bool assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region);
    template <class E>
    Array& operator=(ExprBaseTpl<E> const& expression)
    {
        assign(expression);
        return *this;
    }
    Array& operator=(Array const& other)
    {
        assign(other);
        return *this;
    }

    int numImgs() const override { return 1; }
    std::optional<ImageDescriptor> imgDesc(int = 0) const override { return m_image->descriptor(); }
    DeviceStrategy deviceStrategy() const override { return imageDeviceStrategy(m_image->descriptor()); }
    int numChannels() const override { return m_image->channels(); }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int, PixelType, ImageDescriptor const& shape, std::string& why) const
    {
        return Detail::checkLeafShape(m_image->descriptor(), shape, why);
    }
    template <class P>
    Array convertToMemImgExpr(int) const
    {
        return *this;
    }
    ValueType value(Position const&, Index offset, int) const
    {
        ValueType const v = static_cast<ValueType>(m_data[offset]);
        return m_convert ? v / m_scale - m_shift : v;
    }

    TypedImage<U>& image() const { return *m_image; }
    ArraySampling const& sampling() const { return m_sampling; }

private:
    TypedImage<U>* m_image;
    U const* m_data;
    ArraySampling m_sampling;
    bool m_convert = false;
    ValueType m_shift = 0;
    ValueType m_scale = 1;
};

// Every frame of a set. Frame i of the tree reads frame i.
template <class Type>
class Array<SharedImageSet, Type> : public ExprBaseTpl<Array<SharedImageSet, Type>>
{
public:
    explicit Array(SharedImageSet& set, bool normalized = false, MagFilter filter = MagFilter::Nearest,
                   Wrap wrap = Wrap::ClampToEdge,
                   Eigen::Vector4f const& borderColor = Eigen::Vector4f::Zero())
        : m_set(&set)
        , m_sampling{normalized, filter, wrap, borderColor}
    {}
    Array(Array const&) = default;

    template <class E>
    bool assign(ExprBaseTpl<E> const& expression)
    {
        return assignRegion(expression, WriteRegion{});
    }
    // Evaluates `expression` into `region` of every frame only (see the file comment).
    template <class E>
    bool assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region);
    template <class E>
    Array& operator=(ExprBaseTpl<E> const& expression)
    {
        assign(expression);
        return *this;
    }
    Array& operator=(Array const& other)
    {
        assign(other);
        return *this;
    }

    int numImgs() const override { return m_set->size(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        SharedImage const* frame = m_set->get(image < m_set->size() ? image : 0);
        if (frame == nullptr || !frame->hasMem())
            return std::nullopt;
        return frame->descriptor();
    }
    DeviceStrategy deviceStrategy() const override
    {
        auto desc = imgDesc(0);
        return desc ? imageDeviceStrategy(*desc) : DeviceStrategy::CpuOnly;
    }
    int numChannels() const override
    {
        auto desc = imgDesc(0);
        return desc ? desc->channels : -1;
    }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        PixelType const expected = std::is_void_v<Type> ? type : Utils::pixelTypeId<ReadType<int>>();
        SharedImage const* frame = image < m_set->size() ? m_set->get(image) : nullptr;
        return Detail::checkLeafFrame(frame, image, expected, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using U = std::conditional_t<std::is_void_v<Type>, P, Type>;
        return Array<TypedImage<U>>(static_cast<TypedImage<U>&>(*m_set->mem(image)), m_sampling.normalized,
                                    m_sampling.filter, m_sampling.wrap, m_sampling.borderColor);
    }

    SharedImageSet& set() const { return *m_set; }
    ArraySampling const& sampling() const { return m_sampling; }

private:
    template <class Fallback>
    using ReadType = std::conditional_t<std::is_void_v<Type>, Fallback, Type>;

    SharedImageSet* m_set;
    ArraySampling m_sampling;
};

// One frame, read for every frame of the tree.
template <class Type>
class Array<SharedImage, Type> : public ExprBaseTpl<Array<SharedImage, Type>>
{
public:
    explicit Array(SharedImage& image, bool normalized = false, MagFilter filter = MagFilter::Nearest,
                   Wrap wrap = Wrap::ClampToEdge,
                   Eigen::Vector4f const& borderColor = Eigen::Vector4f::Zero())
        : m_image(&image)
        , m_sampling{normalized, filter, wrap, borderColor}
    {}
    Array(Array const&) = default;

    template <class E>
    bool assign(ExprBaseTpl<E> const& expression)
    {
        return assignRegion(expression, WriteRegion{});
    }
    // Evaluates `expression` into `region` of every frame only (see the file comment).
    template <class E>
    bool assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region);
    template <class E>
    Array& operator=(ExprBaseTpl<E> const& expression)
    {
        assign(expression);
        return *this;
    }
    Array& operator=(Array const& other)
    {
        assign(other);
        return *this;
    }

    int numImgs() const override { return 1; }
    std::optional<ImageDescriptor> imgDesc(int = 0) const override
    {
        if (!m_image->hasMem())
            return std::nullopt;
        return m_image->descriptor();
    }
    DeviceStrategy deviceStrategy() const override
    {
        return m_image->hasMem() ? imageDeviceStrategy(m_image->descriptor()) : DeviceStrategy::CpuOnly;
    }
    int numChannels() const override { return m_image->hasMem() ? m_image->channels() : -1; }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        PixelType const expected = std::is_void_v<Type> ? type : Utils::pixelTypeId<ReadType<int>>();
        return Detail::checkLeafFrame(m_image, image, expected, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int) const
    {
        using U = std::conditional_t<std::is_void_v<Type>, P, Type>;
        return Array<TypedImage<U>>(static_cast<TypedImage<U>&>(*m_image->mem()), m_sampling.normalized,
                                    m_sampling.filter, m_sampling.wrap, m_sampling.borderColor);
    }

    SharedImage& image() const { return *m_image; }
    ArraySampling const& sampling() const { return m_sampling; }

private:
    template <class Fallback>
    using ReadType = std::conditional_t<std::is_void_v<Type>, Fallback, Type>;

    SharedImage* m_image;
    ArraySampling m_sampling;
};

} // namespace Velmoria::ImageMath
