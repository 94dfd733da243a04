#pragma once

// Nodes that rearrange channels.
//
//   internal::CombineChannelsTpl<E0, E1, ...>   combineChannels(e0, e1, ...): channel c is the
//                                               one channel of operand c
//   internal::ChannelSwizzleViewTpl<E>          swizzle(e, {2, 0, 1}) or e.channels({2, 0, 1}):
//                                               channel c reads channel map[c] of e; over an
//                                               Array it is assignable and writes only the
//                                               mapped channels of the target
//
// Both change the channel layout, so they hand their operands an offset for the operands' own
// channel count (pixel · channels + k), as ChannelReductionTpl does. A map may repeat a channel
// when reading (e.g. {0, 0, 0} to make grey RGB); a written map may not (resolveRegion refuses).

#include "ml/imagemath/Array.h"
#include "ml/imagemath/ExprBase.h"
#include "ml/imagemath/Nodes.h"

#include "host/core/Log.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <tuple>
#include <utility>
#include <vector>

namespace Velmoria::ImageMath {

namespace internal {

template <class... Es>
class CombineChannelsTpl : public ExprBaseTpl<CombineChannelsTpl<Es...>>
{
    static constexpr int kChannels = static_cast<int>(sizeof...(Es));
    static_assert(kChannels > 0, "combineChannels needs at least one operand");

public:
    explicit CombineChannelsTpl(Es... operands)
        : m_operands(std::move(operands)...)
        , m_strategy(std::apply(
              [](auto const&... e) {
                  DeviceStrategy s = DeviceStrategy::Any;
                  ((s = combineDeviceStrategies(s, e.deviceStrategy())), ...);
                  return s;
              },
              m_operands))
    {}

    int numImgs() const override
    {
        return std::apply([](auto const&... e) { return std::max({e.numImgs()...}); }, m_operands);
    }
    std::optional<ImageDescriptor> imgDesc(int image = 0) const override
    {
        std::optional<ImageDescriptor> desc;
        std::apply([&](auto const&... e) { ((desc = Detail::firstDescriptor(desc, e.imgDesc(image))), ...); },
                   m_operands);
        if (desc) {
            desc->channels = kChannels;
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_strategy; }
    int numChannels() const override { return kChannels; }
    std::vector<ExprBase const*> children() const override
    {
        return std::apply([](auto const&... e) { return std::vector<ExprBase const*>{&e...}; }, m_operands);
    }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        if (shape.channels != kChannels) {
            why = fmt::format("{} combined channels used where {} are expected", kChannels, shape.channels);
            return false;
        }
        ImageDescriptor operandShape = shape;
        operandShape.channels = 1;
        return checkEach(image, type, operandShape, why, std::index_sequence_for<Es...>{});
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        return std::apply(
            [image](auto const&... e) {
                return CombineChannelsTpl<decltype(e.template convertToMemImgExpr<P>(image))...>(
                    e.template convertToMemImgExpr<P>(image)...);
            },
            m_operands);
    }
    auto value(Position const& position, Index, int channel) const
    {
        return valueOf(position, channel, std::index_sequence_for<Es...>{});
    }

private:
    template <std::size_t... I>
    bool checkEach(int image, PixelType type, ImageDescriptor const& shape, std::string& why,
                   std::index_sequence<I...>) const
    {
        auto const one = [&](auto const& e, std::size_t index) {
            if (e.numChannels() > 1) {
                why = fmt::format("operand {} of combineChannels has {} channels, expected 1", index,
                                  e.numChannels());
                return false;
            }
            return e.checkOperands(image, type, shape, why);
        };
        return (one(std::get<I>(m_operands), I) && ...);
    }
    // A chain of compares on the channel, no table of function pointers: the operands are
    // different types, and for a handful of channels the branches predict perfectly.
    template <std::size_t... I>
    auto valueOf(Position const& position, int channel, std::index_sequence<I...>) const
    {
        using V =
            std::common_type_t<std::decay_t<decltype(std::declval<Es const&>().value(position, 0, 0))>...>;
        V result{};
        (void)((channel == static_cast<int>(I)
                    ? (result = static_cast<V>(std::get<I>(m_operands).value(position, position.pixel, 0)),
                       true)
                    : false) ||
               ...);
        return result;
    }

    std::tuple<Es...> m_operands;
    DeviceStrategy m_strategy;
};

template <class E>
class ChannelSwizzleViewTpl : public ExprBaseTpl<ChannelSwizzleViewTpl<E>>
{
public:
    ChannelSwizzleViewTpl(E operand, std::vector<int> map)
        : m_operand(std::move(operand))
        , m_map(std::move(map))
    {
        int const known = m_operand.numChannels();
        int const highest = m_map.empty() ? 0 : *std::max_element(m_map.begin(), m_map.end()) + 1;
        // A constant fits any channel count: give it as many as the map reads.
        m_operandChannels = known > 0 ? known : std::max(1, highest);
    }
    ChannelSwizzleViewTpl(ChannelSwizzleViewTpl const&) = default;

    // Writing (only over a writable operand) ------------------------------------------------
    template <class X>
    requires isWritable<E>
    bool assign(ExprBaseTpl<X> const& expression) { return assignRegion(expression, WriteRegion{}); }
    template <class X>
    requires isWritable<E>
    bool assignRegion(ExprBaseTpl<X> const& expression, WriteRegion const& region)
    {
        WriteRegion mapped = region;
        if (region.channels.empty()) {
            mapped.channels = m_map;
        } else {
            mapped.channels.clear();
            for (int c : region.channels) {
                if (c < 0 || c >= static_cast<int>(m_map.size())) {
                    VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign to channel {} of a view of {} channels",
                                       c, m_map.size());
                    return false;
                }
                mapped.channels.push_back(m_map[static_cast<std::size_t>(c)]);
            }
        }
        return m_operand.assignRegion(expression, mapped);
    }
    template <class X>
    requires isWritable<E> ChannelSwizzleViewTpl& operator=(ExprBaseTpl<X> const& expression)
    {
        assign(expression);
        return *this;
    }
    ChannelSwizzleViewTpl& operator=(ChannelSwizzleViewTpl const& other) requires isWritable<E>
    {
        assign(other);
        return *this;
    }
    // Fills the view with one number, e.g. `img.block(o, s) = 0`.
    template <class N>
    requires isWritable<E> && std::is_arithmetic_v<N> ChannelSwizzleViewTpl& operator=(N value)
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
            desc->channels = numChannels();
            desc->setShiftScale(0.0, 1.0);
        }
        return desc;
    }
    DeviceStrategy deviceStrategy() const override { return m_operand.deviceStrategy(); }
    int numChannels() const override { return static_cast<int>(m_map.size()); }
    std::vector<ExprBase const*> children() const override { return {&m_operand}; }

    bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why) const
    {
        if (shape.channels != numChannels()) {
            why = fmt::format("channel view of {} channels used where {} are expected", numChannels(),
                              shape.channels);
            return false;
        }
        for (int c : m_map)
            if (c < 0 || c >= m_operandChannels) {
                why = fmt::format("channel view reads channel {} of an operand with {} channels", c,
                                  m_operandChannels);
                return false;
            }
        ImageDescriptor operandShape = shape;
        operandShape.channels = m_operandChannels;
        return m_operand.checkOperands(image, type, operandShape, why);
    }
    template <class P>
    auto convertToMemImgExpr(int image) const
    {
        using B = decltype(m_operand.template convertToMemImgExpr<P>(image));
        ChannelSwizzleViewTpl<B> bound(m_operand.template convertToMemImgExpr<P>(image), m_map);
        bound.m_operandChannels = m_operandChannels;
        return bound;
    }
    auto value(Position const& position, Index, int channel) const
    {
        int const source = m_map[static_cast<std::size_t>(channel)];
        return m_operand.value(position, position.pixel * m_operandChannels + source, source);
    }

    std::vector<int> const& map() const { return m_map; }

private:
    template <class F>
    friend class ChannelSwizzleViewTpl;

    E m_operand;
    std::vector<int> m_map;
    int m_operandChannels = 1;
};

} // namespace internal

template <class E>
inline constexpr bool isWritable<internal::ChannelSwizzleViewTpl<E>> = isWritable<E>;

// Channel c of the result reads channel map[c] of `e`; see the file comment.
template <class E>
auto swizzle(ExprBaseTpl<E> const& e, std::vector<int> map)
{
    return internal::ChannelSwizzleViewTpl<E>(e.derived(), std::move(map));
}

} // namespace Velmoria::ImageMath
