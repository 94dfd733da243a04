#pragma once

// The two interfaces every ImageMath node has.
//
// ExprBase is the run-time face of a node: how many images the expression ranges over, the
// descriptor of its result, where it may run, its channel count and its operands. Code that
// only inspects a tree (device choice, allocation of results) uses it through a reference.
//
// ExprBaseTpl<Derived> is the compile-time face (CRTP). Operators take ExprBaseTpl<D> and build
// nodes that hold their operands by value, so a whole formula is one type. Besides the virtual
// queries, every node has three non-virtual members that the CPU evaluator uses:
//
//   bool checkOperands(int image, PixelType type, ImageDescriptor const& shape, std::string& why)
//       Whether the node can be evaluated for frame `image` of a target of pixel type `type`
//       and that shape (dimensions, channels); on failure `why` says what does not fit.
//   auto convertToMemImgExpr<T>(int image)
//       The same tree with every image leaf replaced by an Array<TypedImage<U>> of that frame;
//       leaves without a fixed pixel type are read as T. This is done once per frame.
//   auto value(Position const& position, Index offset, int channel)
//       The node's value at one pixel and channel of a converted tree. `position` is the pixel
//       in the evaluation domain (x, y, z and its flat index `pixel`), the same for every node
//       of the tree; `offset` is the flat index of the value in a buffer with this node's
//       channel count and the domain's dimensions (pixel · channels + channel). Leaves that
//       read a buffer use `offset` (one add per value); nodes that need the place itself
//       (coordinates, noise, blocks of another image) use `position`. A node that changes the
//       channel layout (channel reductions, swizzles, combineChannels) passes its operands an
//       offset for *their* channel count. Called in the evaluation loop, always inlined, never
//       virtual; the evaluator builds one Position per pixel and the unused parts of it cost
//       nothing once inlined.
//
// The evaluation domain is the target's frame, or the box of a block assignment (see
// BlockView.h): x, y, z then run over the box, 0-based.
//
// Besides, every expression has two views (defined in BlockView.h and Channels.h):
//   block(offset, size)   the box of the expression, read as an image of that size; assignable
//                         when the expression is an Array (writes only the box)
//   channels({...})       channel c reads channel map[c]; assignable when over an Array
//
// Nodes describe *what* is computed; the loops live in CpuEvaluator.h only.

#include "ml/imagemath/DeviceStrategy.h"

#include "host/image/ImageDescriptor.h"

#include <Eigen/Core>
#include <cmath>
#include <cstddef>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria::ImageMath {

using Index = std::ptrdiff_t;

// Where in the evaluation domain a value is computed; see the file comment.
struct Position
{
    int x = 0;
    int y = 0;
    int z = 0;
    Index pixel = 0; // (z · height + y) · width + x in the domain
};

namespace internal {
template <class E>
class BlockViewTpl;
template <class E>
class ChannelSwizzleViewTpl;
} // namespace internal

class ExprBase
{
public:
    virtual ~ExprBase() = default;

    // Number of frames the expression ranges over: the largest among its set leaves, 1 for a
    // single image, 0 for an expression of constants only.
    virtual int numImgs() const = 0;
    // Descriptor of the result for frame `image` (shift 0 and scale 1: results are normalised);
    // nullopt for an expression without images.
    virtual std::optional<ImageDescriptor> imgDesc(int image = 0) const = 0;
    virtual DeviceStrategy deviceStrategy() const = 0;
    // Channels of the result; -1 for a value that fits any channel count (a constant).
    virtual int numChannels() const = 0;
    virtual std::vector<ExprBase const*> children() const = 0;

    // Pixel type of the first image leaf for frame `image` (depth first); nullopt without one.
    // Reductions read their leaves as this type, as assignment reads them as the target's.
    std::optional<PixelType> leafPixelType(int image = 0) const
    {
        auto const operands = children();
        if (operands.empty()) {
            auto const desc = imgDesc(image);
            return desc ? std::optional<PixelType>(desc->pixelType) : std::nullopt;
        }
        for (ExprBase const* operand : operands)
            if (auto type = operand->leafPixelType(image))
                return type;
        return std::nullopt;
    }

protected:
    ExprBase() = default;
    ExprBase(ExprBase const&) = default;
    ExprBase& operator=(ExprBase const&) = default;
};

template <class Derived>
class ExprBaseTpl : public ExprBase
{
public:
    Derived const& derived() const { return static_cast<Derived const&>(*this); }
    ExprBase const& exprInterface() const { return *this; }

    // The box [offset, offset + size) of this expression, as an expression of that size.
    internal::BlockViewTpl<Derived> block(Eigen::Vector3i const& offset, Eigen::Vector3i const& size) const
    {
        return internal::BlockViewTpl<Derived>(derived(), offset, size);
    }
    // Channel c of the view reads channel map[c] of this expression.
    internal::ChannelSwizzleViewTpl<Derived> channels(std::vector<int> map) const
    {
        return internal::ChannelSwizzleViewTpl<Derived>(derived(), std::move(map));
    }

protected:
    ExprBaseTpl() = default;
    ExprBaseTpl(ExprBaseTpl const&) = default;
    ExprBaseTpl& operator=(ExprBaseTpl const&) = default;
};

template <class T>
inline constexpr bool isExpression = std::is_base_of_v<ExprBase, std::decay_t<T>>;

namespace Detail {

// Number type that image values of pixel type U are computed in: floating types as they are,
// integers as double so that shift/scale and division stay exact enough.
template <class U>
using LeafValue = std::conditional_t<std::is_floating_point_v<U>, U, double>;

// static_cast<T>(v) without its undefined cases: NaN gives 0 and values outside T's range
// saturate. Floating targets take the value as it is.
template <class T, class V>
inline T saturateCast(V v)
{
    if constexpr (std::is_floating_point_v<T> || std::is_same_v<T, bool>) {
        return static_cast<T>(v);
    } else if constexpr (std::is_floating_point_v<V>) {
        if (!(v == v))
            return T(0);
        if (v <= static_cast<V>(std::numeric_limits<T>::lowest()))
            return std::numeric_limits<T>::lowest();
        if (v >= static_cast<V>(std::numeric_limits<T>::max()))
            return std::numeric_limits<T>::max();
        return static_cast<T>(v);
    } else {
        using C = std::common_type_t<long long, V>;
        C const c = static_cast<C>(v);
        if (c < static_cast<C>(std::numeric_limits<T>::lowest()))
            return std::numeric_limits<T>::lowest();
        if (c > static_cast<C>(std::numeric_limits<T>::max()))
            return std::numeric_limits<T>::max();
        return static_cast<T>(v);
    }
}

// Merges two optional descriptors: the first one that exists.
inline std::optional<ImageDescriptor> firstDescriptor(std::optional<ImageDescriptor> a,
                                                      std::optional<ImageDescriptor> const& b)
{
    return a ? a : b;
}

// Channel count of two operands: the one that is not "any".
inline int combinedChannels(int a, int b)
{
    return a >= 0 ? a : b;
}

} // namespace Detail

} // namespace Velmoria::ImageMath
