#pragma once

// BlockViewTpl<E>: a box of an expression, read (and, over an Array, written) as an image of the
// box's size. Made by `expr.block(offset, size)` (ExprBaseTpl).
//
//   img.block(o, s) = 0;                              // fills the box only
//   target.block(o, s) = source.block(o2, s);         // copies a box between images of any size
//   out = in.block(o, out.dims) * 2;                  // a cut-out, as an operand
//
// Reading: position p of the view is position p + offset of the operand. The view translates
// the Position and recomputes the operand's offset from the operand's own dimensions (taken per
// frame at conversion, so the frames of a set may differ in size), so any node can be blocked:
// image leaves, Coordinates (which then are those of the big image), whole sub-trees.
//
// Writing: assigning to a view over a writable expression narrows the WriteRegion (Array.h) by
// the box and hands it on; the evaluator then loops over the box only.
//
// A box that does not lie inside the operand is refused (checkOperands / resolveRegion give a
// log line and nothing is evaluated), never clipped: pad and cut-out operations compute their
// boxes, and a box outside the image is a fault in that computation that must not pass silently.

#include "ml/imagemath/Array.h"
#include "ml/imagemath/ExprBase.h"
#include "ml/imagemath/Nodes.h"

#include "host/core/Log.h"

#include <fmt/format.h>

#include <utility>

namespace Velmoria::ImageMath {

namespace internal {

template <class E>
class BlockViewTpl : public ExprBaseTpl<BlockViewTpl<E>>
{
public:
    BlockViewTpl(E operand, Eigen::Vector3i const& offset, Eigen::Vector3i const& size)
        : m_operand(std::move(operand))
        , m_offset(offset)
        , m_size(size)
    {}
    BlockViewTpl(BlockViewTpl const&) = default;

    // Writing (only over a writable operand) ------------------------------------------------
    template <class X>
    requires isWritable<E>
    bool assign(ExprBaseTpl<X> const& expression) { return assignRegion(expression, WriteRegion{}); }
    template <class X>
    requires isWritable<E>
    bool assignRegion(ExprBaseTpl<X> const& expression, WriteRegion const& region)
    {
        Eigen::Vector3i const size = region.size.value_or(m_size - region.offset);
        Eigen::Vector3i const end = region.offset + size;
        if ((region.offset.array() < 0).any() || (size.array() < 0).any() ||
            (end.array() > m_size.array()).any()) {
            VELMORIA_LOG_ERROR("ML.ImageMath",
                               "Cannot assign to a box of size {} {} {} inside a block of size {} {} {}",
                               size.x(), size.y(), size.z(), m_size.x(), m_size.y(), m_size.z());
            return false;
        }
        WriteRegion narrowed = region;
        narrowed.offset = m_offset + region.offset;
        narrowed.size = size;
        return m_operand.assignRegion(expression, narrowed);
    }
    template <class X>
    requires isWritable<E> BlockViewTpl& operator=(ExprBaseTpl<X> const& expression)
    {
        assign(expression);
        return *this;
    }
    BlockViewTpl& operator=(BlockViewTpl const& other) requires isWritable<E>
    {
        assign(other);
        return *this;
    }
    // Fills the view with one number, e.g. `img.block(o, s) = 0`.
    template <class N>
    requires isWritable<E> && std::is_arithmetic_v<N> BlockViewTpl& operator=(N value)
    {
        assign(Scalar<N>(value));
        return *this;
    }

    // Reading ----------------------------------------------------------------------------------
    int numImgs() const override { return m_operand.numImgs(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = m_operand.imgDesc(image);
        if (desc) {
            desc->setDimensions(m_size);
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_operand.deviceStrategy(); }
    int numChannels() const override { return m_operand.numChannels(); }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        if (shape.dimensions() != m_size) {
            why = fmt::format("block of size {} {} {} used where {}x{}x{} is expected", m_size.x(),
                              m_size.y(), m_size.z(), shape.width, shape.height, shape.slices);
            return false;
        }
        ImageDescriptor operandShape = shape;
        Eigen::Vector3i const dims = operandDimensions(image);
        operandShape.setDimensions(dims);
        Eigen::Vector3i const end = m_offset + m_size;
        if ((m_offset.array() < 0).any() || (m_size.array() < 0).any() ||
            (end.array() > dims.array()).any()) {
            why = fmt::format("block at {} {} {} of size {} {} {} does not lie inside the operand ({}x{}x{})",
                              m_offset.x(), m_offset.y(), m_offset.z(), m_size.x(), m_size.y(), m_size.z(),
                              dims.x(), dims.y(), dims.z());
            return false;
        }
        return m_operand.checkOperands(image, type, operandShape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using B = decltype(m_operand.template convertToMemImgExpr<P>(image));
        BlockViewTpl<B> bound(m_operand.template convertToMemImgExpr<P>(image), m_offset, m_size);
        bound.m_operandDims = operandDimensions(image);
        bound.m_operandChannels = std::max(1, m_operand.numChannels());
        return bound;
    }
    auto value(Position const& position, Index, int channel) const
    {
        Position const inner{
            position.x + m_offset.x(), position.y + m_offset.y(), position.z + m_offset.z(),
            (static_cast<Index>(position.z + m_offset.z()) * m_operandDims.y() + position.y + m_offset.y()) *
                    m_operandDims.x() +
                position.x + m_offset.x()};
        return m_operand.value(inner, inner.pixel * m_operandChannels + channel, channel);
    }

    E const& operand() const { return m_operand; }
    Eigen::Vector3i const& offset() const { return m_offset; }
    Eigen::Vector3i const& size() const { return m_size; }

private:
    template <class F>
    friend class BlockViewTpl;

    // The operand's dimensions for frame `image`; an operand without images (a constant) is
    // taken to be just large enough.
    Eigen::Vector3i operandDimensions(int image) const
    {
        auto const desc = m_operand.imgDesc(image);
        return desc ? desc->dimensions() : Eigen::Vector3i(m_offset + m_size);
    }

    E m_operand;
    Eigen::Vector3i m_offset;
    Eigen::Vector3i m_size;
    // Set in the converted form only.
    Eigen::Vector3i m_operandDims = Eigen::Vector3i::Zero();
    int m_operandChannels = 1;
};

} // namespace internal

template <class E>
inline constexpr bool isWritable<internal::BlockViewTpl<E>> = isWritable<E>;

} // namespace Velmoria::ImageMath
