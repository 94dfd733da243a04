#pragma once

// Operators and functions that build ImageMath trees. Any operand may be an expression or a
// plain number (which becomes a Scalar); at least one must be an expression. Nothing is
// computed here: the result is a node, evaluated when assigned to an Array.
//
//   a + b, a - b, a * b, a / b, -a
//   a == b, a != b, a > b, a >= b, a < b, a && b      (1 or 0 per value)
//   min, max, divideIfNotZero, abs, exp, pow2, select(c, a, b), cast<T>(a)
//   length(a), channelSum / channelMin / channelMax(a)  (over the channels of each pixel)
//   sum(a), reduceMin(a), reduceMax(a)                  (over all pixels; .eval() per channel)
//   unaryLambda(a, f, glslFormat), withDeviceStrategy(a, strategy)
//   combineChannels(a, b, ...)                          (channel c is operand c)
//   swizzle(a, {2, 0, 1}) / a.channels({...}), a.block(offset, size)   (views, Channels.h and
//                                                       BlockView.h; assignable over an Array)

#include "ml/imagemath/BlockView.h"
#include "ml/imagemath/Channels.h"
#include "ml/imagemath/Nodes.h"

#include <concepts>
#include <type_traits>

namespace Velmoria::ImageMath {

namespace Detail {

template <class A>
concept Operand = isExpression<A> || std::is_arithmetic_v<std::decay_t<A>>;

template <class A, class B>
concept OperandPair = Operand<A> && Operand<B> &&(isExpression<A> || isExpression<B>);

template <class A>
auto toExpr(A const& a)
{
    if constexpr (std::is_arithmetic_v<A>)
        return Scalar<A>(a);
    else
        return a.derived();
}

template <class Op, class A, class B>
auto binary(A const& a, B const& b)
{
    using L = decltype(toExpr(a));
    using R = decltype(toExpr(b));
    return internal::BinaryOpTpl<Op, L, R>(toExpr(a), toExpr(b));
}

} // namespace Detail

template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator+(A const& a, B const& b)
{
    return Detail::binary<ImgOps::add>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator-(A const& a, B const& b)
{
    return Detail::binary<ImgOps::minus>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator*(A const& a, B const& b)
{
    return Detail::binary<ImgOps::mult>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator/(A const& a, B const& b)
{
    return Detail::binary<ImgOps::divide>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator>(A const& a, B const& b)
{
    return Detail::binary<ImgOps::greater>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator>=(A const& a, B const& b)
{
    return Detail::binary<ImgOps::greaterEqual>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator<(A const& a, B const& b)
{
    return Detail::binary<ImgOps::less>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto operator&&(A const& a, B const& b)
{
    return Detail::binary<ImgOps::binaryAnd>(a, b);
}
// Named forms of the comparisons, for == and != (which C++20 would also try reversed).
template <class A, class B>
requires Detail::OperandPair<A, B>
auto equal(A const& a, B const& b)
{
    return Detail::binary<ImgOps::equal>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto notEqual(A const& a, B const& b)
{
    return Detail::binary<ImgOps::notEqual>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto min(A const& a, B const& b)
{
    return Detail::binary<ImgOps::min>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto max(A const& a, B const& b)
{
    return Detail::binary<ImgOps::max>(a, b);
}
template <class A, class B>
requires Detail::OperandPair<A, B>
auto divideIfNotZero(A const& a, B const& b)
{
    return Detail::binary<ImgOps::divideIfNotZero>(a, b);
}

template <class E>
auto operator-(ExprBaseTpl<E> const& e)
{
    return internal::UnaryOpTpl<ImgOps::unaryMinus, E>(e.derived());
}
template <class E>
auto abs(ExprBaseTpl<E> const& e)
{
    return internal::UnaryOpTpl<ImgOps::abs, E>(e.derived());
}
template <class E>
auto exp(ExprBaseTpl<E> const& e)
{
    return internal::UnaryOpTpl<ImgOps::exp, E>(e.derived());
}
template <class E>
auto pow2(ExprBaseTpl<E> const& e)
{
    return internal::UnaryOpTpl<ImgOps::pow2, E>(e.derived());
}
// `f` computes on the CPU; `glslFormat` returns the GLSL text with `{}` for the operand.
template <class E, class F, class G>
auto unaryLambda(ExprBaseTpl<E> const& e, F f, G glslFormat)
{
    using Op = ImgOps::unaryLambdaWrapper<F, G>;
    return internal::UnaryOpTpl<Op, E>(e.derived(), Op(std::move(f), std::move(glslFormat)));
}

template <class C, class A, class B>
requires isExpression<C> && Detail::Operand<A> && Detail::Operand<B>
auto select(C const& condition, A const& a, B const& b)
{
    using L = decltype(Detail::toExpr(a));
    using R = decltype(Detail::toExpr(b));
    return internal::SelectTpl<C, L, R>(condition.derived(), Detail::toExpr(a), Detail::toExpr(b));
}

template <class T, class E>
auto cast(ExprBaseTpl<E> const& e)
{
    return internal::CastWrapperTpl<E, T>(e.derived());
}

template <class E>
auto length(ExprBaseTpl<E> const& e)
{
    return internal::ChannelReductionTpl<ImgOps::length, E>(e.derived());
}
template <class E>
auto channelSum(ExprBaseTpl<E> const& e)
{
    return internal::ChannelReductionTpl<ImgOps::add, E>(e.derived());
}
template <class E>
auto channelMin(ExprBaseTpl<E> const& e)
{
    return internal::ChannelReductionTpl<ImgOps::min, E>(e.derived());
}
template <class E>
auto channelMax(ExprBaseTpl<E> const& e)
{
    return internal::ChannelReductionTpl<ImgOps::max, E>(e.derived());
}

template <class E>
auto sum(ExprBaseTpl<E> const& e)
{
    return internal::ReductionWrapperTpl<ImgOps::add, E>(e.derived());
}
template <class E>
auto reduceMin(ExprBaseTpl<E> const& e)
{
    return internal::ReductionWrapperTpl<ImgOps::min, E>(e.derived());
}
template <class E>
auto reduceMax(ExprBaseTpl<E> const& e)
{
    return internal::ReductionWrapperTpl<ImgOps::max, E>(e.derived());
}

// Channel c of the result is the one channel of operand c; plain numbers become constants.
template <class... A>
requires(sizeof...(A) > 0 && (Detail::Operand<A> && ...) &&
         (isExpression<A> || ...)) auto combineChannels(A const&... operands)
{
    return internal::CombineChannelsTpl<decltype(Detail::toExpr(operands))...>(Detail::toExpr(operands)...);
}

template <class E>
auto withDeviceStrategy(ExprBaseTpl<E> const& e, DeviceStrategy strategy)
{
    return internal::DeviceStrategyWrapperTpl<E>(e.derived(), strategy);
}

} // namespace Velmoria::ImageMath
