#pragma once

// The inner nodes and constants of ImageMath trees (the image leaves are in Array.h).
//
//   Scalar<T>                      constant
//   ChannelWiseScalar<T, N>        one constant per channel (N = -1: length known at run time)
//   internal::BinaryOpTpl<Op,L,R>  Op(l, r), Op from ImgOps
//   internal::UnaryOpTpl<Op,E>     Op(e)
//   internal::SelectTpl<C,L,R>     c ? l : r
//   internal::CastWrapperTpl<E,T>  e converted to pixel type T (saturating static_cast)
//   internal::ChannelReductionTpl<Op,E>   fold of e over the channels of a pixel (add, min,
//                                  max, length); one channel
//   internal::DeviceStrategyWrapperTpl<E> e, with a device strategy set by the caller
//
// Nodes hold their operands by value (image leaves are small handles), compute their device
// strategy once at construction, and contain no loops over pixels.

#include "ml/imagemath/ExprBase.h"
#include "ml/imagemath/ImgOps.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ImageMath {

template <class T>
class Scalar : public ExprBaseTpl<Scalar<T>>
{
public:
    explicit Scalar(T value)
        : m_value(value)
    {}

    int numImgs() const override { return 0; }
    std::optional<ImageDescriptor> imgDesc(int = 0) const override { return std::nullopt; }
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::Any; }
    int numChannels() const override { return -1; }
    std::vector<ExprBase const*> children() const override { return {}; }

    bool checkOperands(int, PixelType, ImageDescriptor const&, std::string&) const { return true; }
    template <class P>
    Scalar convertToMemImgExpr(int) const
    {
        return *this;
    }
    T value(Position const&, Index, int) const { return m_value; }

private:
    T m_value;
};

template <class T, int N = -1>
class ChannelWiseScalar : public ExprBaseTpl<ChannelWiseScalar<T, N>>
{
public:
    using Storage = std::conditional_t<(N < 0), std::vector<T>, std::array<T, (N < 0 ? 0 : N)>>;
    explicit ChannelWiseScalar(Storage values)
        : m_values(std::move(values))
    {}

    int numImgs() const override { return 0; }
    std::optional<ImageDescriptor> imgDesc(int = 0) const override { return std::nullopt; }
    DeviceStrategy deviceStrategy() const override { return DeviceStrategy::Any; }
    int numChannels() const override { return static_cast<int>(m_values.size()); }
    std::vector<ExprBase const*> children() const override { return {}; }

    // Callers are to pass one value per channel; checked here once per frame anyway, because a
    // short list would otherwise be read past its end in the loop.
    bool checkOperands(int, PixelType, ImageDescriptor const& shape, std::string& why) const
    {
        if (static_cast<int>(m_values.size()) == shape.channels)
            return true;
        why = "channel-wise constant has " + std::to_string(m_values.size()) + " values for " +
              std::to_string(shape.channels) + " channels";
        return false;
    }
    template <class P>
    ChannelWiseScalar convertToMemImgExpr(int) const
    {
        return *this;
    }
    T value(Position const&, Index, int channel) const { return m_values[static_cast<std::size_t>(channel)]; }

private:
    Storage m_values;
};

namespace internal {

template <class Op, class L, class R>
class BinaryOpTpl : public ExprBaseTpl<BinaryOpTpl<Op, L, R>>
{
public:
    BinaryOpTpl(L lhs, R rhs, Op op = Op{})
        : m_op(std::move(op))
        , m_lhs(std::move(lhs))
        , m_rhs(std::move(rhs))
        , m_strategy(combineDeviceStrategies(m_lhs.deviceStrategy(), m_rhs.deviceStrategy()))
    {}

    int numImgs() const override { return std::max(m_lhs.numImgs(), m_rhs.numImgs()); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = Detail::firstDescriptor(m_lhs.imgDesc(image), m_rhs.imgDesc(image));
        if (desc) {
            desc->channels = numChannels() > 0 ? numChannels() : desc->channels;
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_strategy; }
    int numChannels() const override
    {
        return Detail::combinedChannels(m_lhs.numChannels(), m_rhs.numChannels());
    }
    std::vector<ExprBase const*> children() const override { return {&m_lhs, &m_rhs}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        return m_lhs.checkOperands(image, type, shape, why) && m_rhs.checkOperands(image, type, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using BL = decltype(m_lhs.template convertToMemImgExpr<P>(image));
        using BR = decltype(m_rhs.template convertToMemImgExpr<P>(image));
        return BinaryOpTpl<Op, BL, BR>(m_lhs.template convertToMemImgExpr<P>(image),
                                       m_rhs.template convertToMemImgExpr<P>(image), m_op);
    }
    auto value(Position const& position, Index offset, int channel) const
    {
        return m_op(m_lhs.value(position, offset, channel), m_rhs.value(position, offset, channel));
    }

    L const& lhs() const { return m_lhs; }
    R const& rhs() const { return m_rhs; }

private:
    [[no_unique_address]] Op m_op;
    L m_lhs;
    R m_rhs;
    DeviceStrategy m_strategy;
};

template <class Op, class E>
class UnaryOpTpl : public ExprBaseTpl<UnaryOpTpl<Op, E>>
{
public:
    explicit UnaryOpTpl(E operand, Op op = Op{})
        : m_op(std::move(op))
        , m_operand(std::move(operand))
    {}

    int numImgs() const override { return m_operand.numImgs(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = m_operand.imgDesc(image);
        if (desc)
            desc->setShiftScale(0.0, 1.0);
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_operand.deviceStrategy(); }
    int numChannels() const override { return m_operand.numChannels(); }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        return m_operand.checkOperands(image, type, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using B = decltype(m_operand.template convertToMemImgExpr<P>(image));
        return UnaryOpTpl<Op, B>(m_operand.template convertToMemImgExpr<P>(image), m_op);
    }
    auto value(Position const& position, Index offset, int channel) const
    {
        return m_op(m_operand.value(position, offset, channel));
    }

    Op const& op() const { return m_op; }

private:
    [[no_unique_address]] Op m_op;
    E m_operand;
};

template <class C, class L, class R>
class SelectTpl : public ExprBaseTpl<SelectTpl<C, L, R>>
{
public:
    SelectTpl(C condition, L lhs, R rhs)
        : m_condition(std::move(condition))
        , m_lhs(std::move(lhs))
        , m_rhs(std::move(rhs))
        , m_strategy(combineDeviceStrategies(
              m_condition.deviceStrategy(),
              combineDeviceStrategies(m_lhs.deviceStrategy(), m_rhs.deviceStrategy())))
    {}

    int numImgs() const override
    {
        return std::max({m_condition.numImgs(), m_lhs.numImgs(), m_rhs.numImgs()});
    }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = Detail::firstDescriptor(
            Detail::firstDescriptor(m_lhs.imgDesc(image), m_rhs.imgDesc(image)), m_condition.imgDesc(image));
        if (desc) {
            desc->channels = numChannels() > 0 ? numChannels() : desc->channels;
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_strategy; }
    int numChannels() const override
    {
        return Detail::combinedChannels(Detail::combinedChannels(m_lhs.numChannels(), m_rhs.numChannels()),
                                        m_condition.numChannels());
    }
    std::vector<ExprBase const*> children() const override { return {&m_condition, &m_lhs, &m_rhs}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        return m_condition.checkOperands(image, type, shape, why) &&
               m_lhs.checkOperands(image, type, shape, why) && m_rhs.checkOperands(image, type, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using BC = decltype(m_condition.template convertToMemImgExpr<P>(image));
        using BL = decltype(m_lhs.template convertToMemImgExpr<P>(image));
        using BR = decltype(m_rhs.template convertToMemImgExpr<P>(image));
        return SelectTpl<BC, BL, BR>(m_condition.template convertToMemImgExpr<P>(image),
                                     m_lhs.template convertToMemImgExpr<P>(image),
                                     m_rhs.template convertToMemImgExpr<P>(image));
    }
    auto value(Position const& position, Index offset, int channel) const
    {
        using V = std::common_type_t<decltype(m_lhs.value(position, offset, channel)),
                                     decltype(m_rhs.value(position, offset, channel))>;
        return m_condition.value(position, offset, channel) ? V(m_lhs.value(position, offset, channel))
                                                            : V(m_rhs.value(position, offset, channel));
    }

private:
    C m_condition;
    L m_lhs;
    R m_rhs;
    DeviceStrategy m_strategy;
};

template <class E, class T>
class CastWrapperTpl : public ExprBaseTpl<CastWrapperTpl<E, T>>
{
public:
    explicit CastWrapperTpl(E operand)
        : m_operand(std::move(operand))
    {}

    int numImgs() const override { return m_operand.numImgs(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = m_operand.imgDesc(image);
        if (desc) {
            desc->pixelType = Utils::pixelTypeId<T>();
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_operand.deviceStrategy(); }
    int numChannels() const override { return m_operand.numChannels(); }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        return m_operand.checkOperands(image, type, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using B = decltype(m_operand.template convertToMemImgExpr<P>(image));
        return CastWrapperTpl<B, T>(m_operand.template convertToMemImgExpr<P>(image));
    }
    T value(Position const& position, Index offset, int channel) const
    {
        return Detail::saturateCast<T>(m_operand.value(position, offset, channel));
    }

private:
    E m_operand;
};

// Folds E over the channels of each pixel; the result has one channel. E is addressed with its
// own channel count, so the offset passed down is pixel · channels + k.
template <class Op, class E>
class ChannelReductionTpl : public ExprBaseTpl<ChannelReductionTpl<Op, E>>
{
public:
    explicit ChannelReductionTpl(E operand)
        : m_operand(std::move(operand))
        , m_channels(std::max(1, m_operand.numChannels()))
    {}

    int numImgs() const override { return m_operand.numImgs(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        auto desc = m_operand.imgDesc(image);
        if (desc) {
            desc->channels = 1;
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_operand.deviceStrategy(); }
    int numChannels() const override { return 1; }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        ImageDescriptor operandShape = shape;
        operandShape.channels = m_channels;
        return m_operand.checkOperands(image, type, operandShape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using B = decltype(m_operand.template convertToMemImgExpr<P>(image));
        return ChannelReductionTpl<Op, B>(m_operand.template convertToMemImgExpr<P>(image));
    }
    auto value(Position const& position, Index, int) const
    {
        using EV = std::decay_t<decltype(m_operand.value(position, 0, 0))>;
        using V = std::conditional_t<std::is_floating_point_v<EV>, EV, double>;
        using Traits = ImgOps::ReductionTraits<Op>;
        V acc = Traits::template identity<V>();
        Index const base = position.pixel * m_channels;
        for (int k = 0; k < m_channels; ++k)
            acc = static_cast<V>(Op{}(acc, static_cast<V>(m_operand.value(position, base + k, k))));
        return Traits::finish(acc);
    }

private:
    E m_operand;
    int m_channels;
};

template <class E>
class DeviceStrategyWrapperTpl : public ExprBaseTpl<DeviceStrategyWrapperTpl<E>>
{
public:
    DeviceStrategyWrapperTpl(E operand, DeviceStrategy strategy)
        : m_operand(std::move(operand))
        , m_strategy(strategy)
    {}

    int numImgs() const override { return m_operand.numImgs(); }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override { return m_operand.imgDesc(image); }
    DeviceStrategy deviceStrategy() const override { return m_strategy; }
    int numChannels() const override { return m_operand.numChannels(); }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        return m_operand.checkOperands(image, type, shape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        return m_operand.template convertToMemImgExpr<P>(image);
    }

private:
    E m_operand;
    DeviceStrategy m_strategy;
};

// Reduces E over all pixels into one double per channel (add: sum, min, max). Not an
// expression itself: eval() (defined in CpuEvaluator.h) is its only use. For a set the frames
// are reduced one by one and their results combined with the same Op; a tree without frames
// gives an empty vector.
template <class Op, class E>
class ReductionWrapperTpl
{
public:
    explicit ReductionWrapperTpl(E operand)
        : m_operand(std::move(operand))
    {}

    std::vector<double> eval() const;
    E const& operand() const { return m_operand; }

private:
    E m_operand;
};

} // namespace internal

} // namespace Velmoria::ImageMath
