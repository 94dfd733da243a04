#pragma once

// The CPU evaluator of ImageMath: the one loop that computes pixels (assignment to an Array)
// and the one loop that reduces them (ReductionWrapperTpl::eval).
//
// Assignment, per target frame:
//   1. check every operand against the frame (pixel type, dimensions, channels) — all frames
//      before any is written, so a failed assignment changes nothing;
//   2. dispatch on the target's pixel type once (visitPixelType) and convert the tree with
//      convertToMemImgExpr<T>: from here on every leaf is a typed pointer and the whole formula
//      is one inlined expression, with no virtual call or switch per pixel;
//   3. an OpenMP parallel region splits the slices by hand into nthreads contiguous blocks (the
//      first slices % nthreads threads take one more), and each thread runs z, y, x, channel
//      with the offset computed once per row. Single-channel images take a loop without the
//      channel level so that it vectorises.
//   4. the frame is marked setDirtyGl(): its GPU copy, if any, is stale.
// Reading the target inside the expression is safe: each value depends on its own position
// only, and is read before it is written.
//
// The pragmas need -fopenmp where these templates are instantiated: the ML library has it;
// tests and programs that instantiate them link OpenMP::OpenMP_CXX.

#include "ml/imagemath/Array.h"
#include "ml/imagemath/Nodes.h"

#include "host/core/Log.h"
#include "host/image/PixelType.h"

#include <omp.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ImageMath {

namespace Detail {

// The contiguous block [first, last) of `slices` that thread `thread` of `threads` owns.
inline std::pair<int, int> sliceBlock(int slices, int thread, int threads)
{
    int const base = slices / threads;
    int const extra = slices % threads;
    int const first = thread * base + std::min(thread, extra);
    return {first, first + base + (thread < extra ? 1 : 0)};
}

// Writes every value of `target` from the converted tree `expr`. Convert: the target is not
// normalised and stores (v + shift) · scale.
template <bool Convert, class T, class Bound>
void evaluateFrame(TypedImage<T>& target, Bound const& expr, double shift, double scale)
{
    using V = std::decay_t<decltype(expr.value(0, 0, 0))>;
    using W = std::conditional_t<std::is_floating_point_v<V>, V, double>;
    W const writeShift = static_cast<W>(shift);
    W const writeScale = static_cast<W>(scale);
    auto const store = [writeShift, writeScale](auto v) {
        if constexpr (Convert)
            return saturateCast<T>((static_cast<W>(v) + writeShift) * writeScale);
        else
            return saturateCast<T>(v);
    };

    T* const out = target.pointer();
    int const width = target.width();
    int const height = target.height();
    int const slices = target.slices();
    int const channels = target.channels();
#pragma omp parallel
    {
        auto const [firstSlice, lastSlice] = sliceBlock(slices, omp_get_thread_num(), omp_get_num_threads());
        for (int z = firstSlice; z < lastSlice; ++z)
            for (int y = 0; y < height; ++y) {
                Index const rowPixel = (static_cast<Index>(z) * height + y) * width;
                Index offset = rowPixel * channels;
                if (channels == 1) {
                    for (Index x = 0; x < width; ++x)
                        out[offset + x] = store(expr.value(rowPixel + x, offset + x, 0));
                } else {
                    for (Index x = 0; x < width; ++x)
                        for (int c = 0; c < channels; ++c, ++offset)
                            out[offset] = store(expr.value(rowPixel + x, offset, c));
                }
            }
    }
}

// Checks `expression` against frame `image` of the target; logs and returns false on a misfit.
template <class E>
bool checkFrame(ExprBaseTpl<E> const& expression, int image, ImageDescriptor const& shape)
{
    std::string why;
    if (expression.derived().checkOperands(image, shape.pixelType, shape, why))
        return true;
    VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign expression to frame {} ({}): {}", image,
                       shape.describe(), why);
    return false;
}

template <class E>
bool checkFrameCount(ExprBaseTpl<E> const& expression, int targetFrames)
{
    int const frames = expression.numImgs();
    if (frames <= 1 || frames == targetFrames)
        return true;
    VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign an expression over {} frames to a target of {} frames",
                       frames, targetFrames);
    return false;
}

// Steps 2 and 3 of the file comment for one checked frame.
template <class E>
void evaluateIntoMem(ExprBaseTpl<E> const& expression, int image, MemImage& target, bool normalized)
{
    ImageDescriptor const& desc = target.descriptor();
    visitPixelType(desc.pixelType, [&](auto tag) {
        using T = decltype(tag);
        auto& typed = static_cast<TypedImage<T>&>(target);
        auto const bound = expression.derived().template convertToMemImgExpr<T>(image);
        if (!normalized && (desc.shift != 0.0 || desc.scale != 1.0))
            evaluateFrame<true>(typed, bound, desc.shift, desc.scale);
        else
            evaluateFrame<false>(typed, bound, desc.shift, desc.scale);
    });
}

// Folds frame `image` of `expression`, read as pixel type T, into one value per channel.
template <class Op, class T, class E>
std::vector<double> reduceFrame(E const& expression, int image, ImageDescriptor const& shape)
{
    using Traits = ImgOps::ReductionTraits<Op>;
    auto const bound = expression.template convertToMemImgExpr<T>(image);
    int const width = shape.width;
    int const height = shape.height;
    int const slices = shape.slices;
    int const channels = shape.channels;
    std::vector<double> result(static_cast<std::size_t>(channels), Traits::template identity<double>());
#pragma omp parallel
    {
        // One partial per thread and channel, merged once at the end.
        std::vector<double> partial(static_cast<std::size_t>(channels), Traits::template identity<double>());
        auto const [firstSlice, lastSlice] = sliceBlock(slices, omp_get_thread_num(), omp_get_num_threads());
        for (int z = firstSlice; z < lastSlice; ++z)
            for (int y = 0; y < height; ++y) {
                Index const rowPixel = (static_cast<Index>(z) * height + y) * width;
                Index offset = rowPixel * channels;
                if (channels == 1) {
                    double acc = partial[0];
                    for (Index x = 0; x < width; ++x)
                        acc = Op{}(acc, static_cast<double>(bound.value(rowPixel + x, offset + x, 0)));
                    partial[0] = acc;
                } else {
                    for (Index x = 0; x < width; ++x)
                        for (int c = 0; c < channels; ++c, ++offset)
                            partial[static_cast<std::size_t>(c)] =
                                Op{}(partial[static_cast<std::size_t>(c)],
                                     static_cast<double>(bound.value(rowPixel + x, offset, c)));
                }
            }
#pragma omp critical(velmoria_imagemath_reduce)
        for (std::size_t c = 0; c < result.size(); ++c)
            result[c] = Op{}(result[c], partial[c]);
    }
    return result;
}

} // namespace Detail

template <class U, class Type>
template <class E>
bool Array<TypedImage<U>, Type>::assign(ExprBaseTpl<E> const& expression)
{
    ImageDescriptor const& desc = m_image->descriptor();
    if (!Detail::checkFrameCount(expression, 1) || !Detail::checkFrame(expression, 0, desc))
        return false;
    Detail::evaluateIntoMem(expression, 0, *m_image, m_sampling.normalized);
    return true;
}

template <class Type>
template <class E>
bool Array<SharedImageSet, Type>::assign(ExprBaseTpl<E> const& expression)
{
    int const frames = m_set->size();
    if (!Detail::checkFrameCount(expression, frames))
        return false;
    for (int i = 0; i < frames; ++i) {
        SharedImage const* frame = m_set->get(i);
        if (frame == nullptr || !frame->hasMem()) {
            VELMORIA_LOG_ERROR("ML.ImageMath",
                               "Cannot assign expression to frame {}: it is not in CPU memory", i);
            return false;
        }
        if (!Detail::checkFrame(expression, i, frame->descriptor()))
            return false;
    }
    for (int i = 0; i < frames; ++i) {
        SharedImage* frame = m_set->get(i);
        Detail::evaluateIntoMem(expression, i, *frame->mem(), m_sampling.normalized);
        frame->setDirtyGl();
    }
    return true;
}

template <class Type>
template <class E>
bool Array<SharedImage, Type>::assign(ExprBaseTpl<E> const& expression)
{
    if (!m_image->hasMem()) {
        VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign expression to an image that is not in CPU memory");
        return false;
    }
    if (!Detail::checkFrameCount(expression, 1) || !Detail::checkFrame(expression, 0, m_image->descriptor()))
        return false;
    Detail::evaluateIntoMem(expression, 0, *m_image->mem(), m_sampling.normalized);
    m_image->setDirtyGl();
    return true;
}

template <class Op, class E>
std::vector<double> internal::ReductionWrapperTpl<Op, E>::eval() const
{
    int const frames = m_operand.numImgs();
    std::vector<double> result;
    for (int i = 0; i < frames; ++i) {
        auto desc = m_operand.imgDesc(i);
        auto const type = m_operand.leafPixelType(i);
        if (!desc || !type) {
            VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot reduce frame {}: it is not in CPU memory", i);
            return {};
        }
        desc->channels = std::max(1, m_operand.numChannels());
        desc->pixelType = *type;
        std::string why;
        if (!m_operand.checkOperands(i, *type, *desc, why)) {
            VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot reduce frame {} ({}): {}", i, desc->describe(), why);
            return {};
        }
        std::vector<double> frameResult = visitPixelType(
            *type, [&](auto tag) { return Detail::reduceFrame<Op, decltype(tag)>(m_operand, i, *desc); });
        if (result.empty()) {
            result = std::move(frameResult);
        } else {
            for (std::size_t c = 0; c < result.size(); ++c)
                result[c] = Op{}(result[c], frameResult[c]);
        }
    }
    return result;
}

} // namespace Velmoria::ImageMath
