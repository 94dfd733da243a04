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
// Reading the target inside the expression is safe: a value depends on its own pixel only, and
// all channels of a pixel are computed (into a per-thread buffer of one pixel) before any of
// them is written, so in-place channel swaps (img = swizzle(img, {2, 1, 0})) and per-pixel
// normalisations (img = img / length(img)) read the old values. Not so for a block assigned
// from an overlapping block of the same image, which reads other pixels: copy through a
// temporary then.
//
// A partial assignment (assignRegion, the block and channel views) runs the same loop over the
// region's box only, with box-relative positions for the expression and a channel map for the
// writes; every node sees a Position (x, y, z, flat pixel) of that domain, see ExprBase.h.
//
// The pragmas need -fopenmp where these templates are instantiated: the ML library has it;
// tests and programs that instantiate them link OpenMP::OpenMP_CXX.

#include "ml/imagemath/Array.h"
#include "ml/imagemath/ConversionLoss.h"
#include "ml/imagemath/Nodes.h"

#include "host/core/Log.h"
#include "host/image/PixelType.h"

#include <omp.h>

#include <algorithm>
#include <cstdint>
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

// Writes `region` of `target` from the converted tree `expr`, evaluated on a domain of the
// region's size. Convert: the target is not normalised and stores (v + shift) · scale.
//
// Each thread evaluates its own copy of the tree: nodes that keep per-thread state (the row
// buffer of a PolyWrapper) then own it, and for all other nodes the copy is a few handles.
template <bool Convert, class T, class Bound>
void evaluateFrame(TypedImage<T>& target, Bound const& expr, double shift, double scale,
                   FrameRegion const& region)
{
    using V = std::decay_t<decltype(expr.value(Position{}, 0, 0))>;
    using W = std::conditional_t<std::is_floating_point_v<V>, V, double>;
    W const writeShift = static_cast<W>(shift);
    W const writeScale = static_cast<W>(scale);
    // Computed values that an integer image cannot hold are counted (ConversionLoss.h): one
    // compare per value, only where a floating value goes into an integer type.
    constexpr bool kCountLoss = std::is_integral_v<T> && std::is_floating_point_v<V>;
    std::int64_t lost = 0;
    auto const store = [writeShift, writeScale](auto v, [[maybe_unused]] std::int64_t& changed) {
        if constexpr (kCountLoss) {
            W const exact = Convert ? (static_cast<W>(v) + writeShift) * writeScale : static_cast<W>(v);
            T const stored = saturateCast<T>(exact);
            changed += static_cast<W>(stored) != exact;
            return stored;
        } else if constexpr (Convert) {
            return saturateCast<T>((static_cast<W>(v) + writeShift) * writeScale);
        } else {
            return saturateCast<T>(v);
        }
    };

    T* const out = target.pointer();
    int const width = target.width();
    int const height = target.height();
    int const channels = target.channels();
    int const boxWidth = region.size.x();
    int const boxHeight = region.size.y();
    int const boxSlices = region.size.z();
    int const exprChannels = static_cast<int>(region.channels.size());
    int const* const channelMap = region.channels.data();
    bool const allChannels = region.allChannels;
    Eigen::Vector3i const origin = region.offset;
#pragma omp parallel reduction(+ : lost)
    {
        Bound const local = expr;
        // One pixel's values, all computed before any is written (see the file comment).
        std::vector<W> pixelValues(static_cast<std::size_t>(std::max(1, exprChannels)));
        W* const values = pixelValues.data();
        auto const [firstSlice, lastSlice] =
            sliceBlock(boxSlices, omp_get_thread_num(), omp_get_num_threads());
        for (int z = firstSlice; z < lastSlice; ++z)
            for (int y = 0; y < boxHeight; ++y) {
                Index const rowPixel = (static_cast<Index>(z) * boxHeight + y) * boxWidth;
                Index const outPixel =
                    (static_cast<Index>(z + origin.z()) * height + y + origin.y()) * width + origin.x();
                if (allChannels && channels == 1) {
                    for (int x = 0; x < boxWidth; ++x)
                        out[outPixel + x] =
                            store(local.value(Position{x, y, z, rowPixel + x}, rowPixel + x, 0), lost);
                } else if (allChannels) {
                    Index offset = rowPixel * channels;
                    Index outOffset = outPixel * channels;
                    for (int x = 0; x < boxWidth; ++x) {
                        Position const position{x, y, z, rowPixel + x};
                        for (int c = 0; c < channels; ++c)
                            values[c] = static_cast<W>(local.value(position, offset + c, c));
                        for (int c = 0; c < channels; ++c)
                            out[outOffset + c] = store(values[c], lost);
                        offset += channels;
                        outOffset += channels;
                    }
                } else {
                    for (int x = 0; x < boxWidth; ++x) {
                        Position const position{x, y, z, rowPixel + x};
                        Index const offset = (rowPixel + x) * exprChannels;
                        Index const outOffset = (outPixel + x) * channels;
                        for (int c = 0; c < exprChannels; ++c)
                            values[c] = static_cast<W>(local.value(position, offset + c, c));
                        for (int c = 0; c < exprChannels; ++c)
                            out[outOffset + channelMap[c]] = store(values[c], lost);
                    }
                }
            }
    }
    ConversionLoss::add(lost);
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
void evaluateIntoMem(ExprBaseTpl<E> const& expression, int image, MemImage& target, bool normalized,
                     FrameRegion const& region)
{
    ImageDescriptor const& desc = target.descriptor();
    visitPixelType(desc.pixelType, [&](auto tag) {
        using T = decltype(tag);
        auto& typed = static_cast<TypedImage<T>&>(target);
        auto const bound = expression.derived().template convertToMemImgExpr<T>(image);
        if (!normalized && (desc.shift != 0.0 || desc.scale != 1.0))
            evaluateFrame<true>(typed, bound, desc.shift, desc.scale, region);
        else
            evaluateFrame<false>(typed, bound, desc.shift, desc.scale, region);
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
        auto const local = bound; // see evaluateFrame
        auto const [firstSlice, lastSlice] = sliceBlock(slices, omp_get_thread_num(), omp_get_num_threads());
        for (int z = firstSlice; z < lastSlice; ++z)
            for (int y = 0; y < height; ++y) {
                Index const rowPixel = (static_cast<Index>(z) * height + y) * width;
                Index offset = rowPixel * channels;
                if (channels == 1) {
                    double acc = partial[0];
                    for (int x = 0; x < width; ++x)
                        acc = Op{}(acc, static_cast<double>(
                                            local.value(Position{x, y, z, rowPixel + x}, offset + x, 0)));
                    partial[0] = acc;
                } else {
                    for (int x = 0; x < width; ++x) {
                        Position const position{x, y, z, rowPixel + x};
                        for (int c = 0; c < channels; ++c, ++offset)
                            partial[static_cast<std::size_t>(c)] =
                                Op{}(partial[static_cast<std::size_t>(c)],
                                     static_cast<double>(local.value(position, offset, c)));
                    }
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
bool Array<TypedImage<U>, Type>::assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region)
{
    ImageDescriptor const& desc = m_image->descriptor();
    Detail::FrameRegion resolved;
    if (!Detail::checkFrameCount(expression, 1) || !Detail::resolveRegion(region, desc, 0, resolved) ||
        !Detail::checkFrame(expression, 0, Detail::regionShape(desc, resolved)))
        return false;
    Detail::evaluateIntoMem(expression, 0, *m_image, m_sampling.normalized, resolved);
    return true;
}

template <class Type>
template <class E>
bool Array<SharedImageSet, Type>::assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region)
{
    int const frames = m_set->size();
    if (!Detail::checkFrameCount(expression, frames))
        return false;
    std::vector<Detail::FrameRegion> resolved(static_cast<std::size_t>(frames));
    for (int i = 0; i < frames; ++i) {
        SharedImage const* frame = m_set->get(i);
        if (frame == nullptr || !frame->hasMem()) {
            VELMORIA_LOG_ERROR("ML.ImageMath",
                               "Cannot assign expression to frame {}: it is not in CPU memory", i);
            return false;
        }
        Detail::FrameRegion& frameRegion = resolved[static_cast<std::size_t>(i)];
        if (!Detail::resolveRegion(region, frame->descriptor(), i, frameRegion) ||
            !Detail::checkFrame(expression, i, Detail::regionShape(frame->descriptor(), frameRegion)))
            return false;
    }
    for (int i = 0; i < frames; ++i) {
        SharedImage* frame = m_set->get(i);
        Detail::evaluateIntoMem(expression, i, *frame->mem(), m_sampling.normalized,
                                resolved[static_cast<std::size_t>(i)]);
        frame->setDirtyGl();
    }
    return true;
}

template <class Type>
template <class E>
bool Array<SharedImage, Type>::assignRegion(ExprBaseTpl<E> const& expression, WriteRegion const& region)
{
    if (!m_image->hasMem()) {
        VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot assign expression to an image that is not in CPU memory");
        return false;
    }
    ImageDescriptor const& desc = m_image->descriptor();
    Detail::FrameRegion resolved;
    if (!Detail::checkFrameCount(expression, 1) || !Detail::resolveRegion(region, desc, 0, resolved) ||
        !Detail::checkFrame(expression, 0, Detail::regionShape(desc, resolved)))
        return false;
    Detail::evaluateIntoMem(expression, 0, *m_image->mem(), m_sampling.normalized, resolved);
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
