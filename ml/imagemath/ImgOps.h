#pragma once

// ImgOps: the operator table of ImageMath. Each operator is a small empty class with
//   - a CPU call operator, inlined into the evaluation loop (operands are plain numbers), and
//   - evalString, the GLSL text of the same operation, for the GPU backend that generates
//     shader code from the same trees.
// The GLSL texts are fixed: shaders compiled from them are cached by their text, and the
// reference results of the GPU path depend on the exact spelling.
//
// `length` is the one operator that works across the channels of a pixel: its call operator is
// the fold step acc + v·v, and ChannelReductionTpl applies the square root at the end (see
// ReductionTraits). `unaryLambdaWrapper<F, G>` turns a CPU function object F and a GLSL format
// G (a callable returning text with `{}` slots, each slot standing for the operand) into an
// operator, for formulas that the table does not have.

#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Velmoria::ImageMath::ImgOps {

// Replaces every "{}" of `format` by `operand`. Hand-written because all slots are the same
// operand, which positional formatting would ask to be passed once per slot.
std::string fillSlots(std::string_view format, std::string const& operand);

struct add
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        return a + b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct minus
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        return a - b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct mult
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        return a * b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct divide
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        return a / b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct divideIfNotZero
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        using R = decltype(a / b);
        return b != B(0) ? a / b : R(0);
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct min
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        using R = std::common_type_t<A, B>;
        return R(b) < R(a) ? R(b) : R(a);
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct max
{
    template <class A, class B>
    auto operator()(A a, B b) const
    {
        using R = std::common_type_t<A, B>;
        return R(a) < R(b) ? R(b) : R(a);
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct pow2
{
    template <class A>
    auto operator()(A a) const
    {
        return a * a;
    }
    static std::string evalString(std::string const& a);
};

struct unaryMinus
{
    template <class A>
    auto operator()(A a) const
    {
        return -a;
    }
    static std::string evalString(std::string const& a);
};

struct abs
{
    template <class A>
    auto operator()(A a) const
    {
        if constexpr (std::is_floating_point_v<A>)
            return std::fabs(a);
        else
            return a < A(0) ? A(-a) : a;
    }
    static std::string evalString(std::string const& a);
};

struct exp
{
    template <class A>
    auto operator()(A a) const
    {
        if constexpr (std::is_floating_point_v<A>)
            return std::exp(a);
        else
            return std::exp(static_cast<double>(a));
    }
    static std::string evalString(std::string const& a);
};

// Fold step of the vector length over channels; the square root is taken by the reduction.
struct length
{
    template <class A, class B>
    auto operator()(A acc, B v) const
    {
        return acc + v * v;
    }
    static std::string evalString(std::string const& a);
};

struct equal
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a == b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct notEqual
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a != b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct greater
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a > b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct greaterEqual
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a >= b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct less
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a < b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

struct binaryAnd
{
    template <class A, class B>
    bool operator()(A a, B b) const
    {
        return a && b;
    }
    static std::string evalString(std::string const& a, std::string const& b);
};

// F: CPU function object of one number; G: callable returning the GLSL format (see file
// comment). Both may carry state (e.g. a slope), hence members rather than types only.
template <class F, class G>
struct unaryLambdaWrapper
{
    unaryLambdaWrapper(F f, G g)
        : function(std::move(f))
        , glsl(std::move(g))
    {}

    template <class A>
    auto operator()(A a) const
    {
        return function(a);
    }
    std::string evalString(std::string const& a) const { return fillSlots(glsl(), a); }

    F function;
    G glsl;
};

// What a fold over channels or pixels starts from and how it ends, per reducing operator.
template <class Op>
struct ReductionTraits;

template <>
struct ReductionTraits<add>
{
    template <class V>
    static constexpr V identity()
    {
        return V(0);
    }
    template <class V>
    static V finish(V v)
    {
        return v;
    }
};

template <>
struct ReductionTraits<min>
{
    template <class V>
    static constexpr V identity()
    {
        return std::numeric_limits<V>::has_infinity ? std::numeric_limits<V>::infinity()
                                                    : std::numeric_limits<V>::max();
    }
    template <class V>
    static V finish(V v)
    {
        return v;
    }
};

template <>
struct ReductionTraits<max>
{
    template <class V>
    static constexpr V identity()
    {
        return std::numeric_limits<V>::has_infinity ? -std::numeric_limits<V>::infinity()
                                                    : std::numeric_limits<V>::lowest();
    }
    template <class V>
    static V finish(V v)
    {
        return v;
    }
};

template <>
struct ReductionTraits<length>
{
    template <class V>
    static constexpr V identity()
    {
        return V(0);
    }
    template <class V>
    static V finish(V v)
    {
        return static_cast<V>(std::sqrt(v));
    }
};

} // namespace Velmoria::ImageMath::ImgOps
