#pragma once

// ImageMath: per-pixel expression templates over images. Include this one header.
//
//   SharedImageSet& set = ...;
//   ImageMath::Array<SharedImageSet> img(set);
//   img = min(max(img, lo), hi);                       // evaluated here, in place, in parallel
//   std::vector<double> total = sum(img).eval();       // one value per channel
//
// Nodes (Nodes.h, Array.h, BlockView.h, Channels.h, Coordinates.h, Noise.h, PolyWrapper.h)
// say what to compute; CpuEvaluator.h is the one CPU loop. See docs/imagemath.md for the node
// table.

#include "ml/imagemath/Array.h"
#include "ml/imagemath/BlockView.h"
#include "ml/imagemath/Channels.h"
#include "ml/imagemath/Coordinates.h"
#include "ml/imagemath/CpuEvaluator.h"
#include "ml/imagemath/DeviceStrategy.h"
#include "ml/imagemath/ExprBase.h"
#include "ml/imagemath/ImgOps.h"
#include "ml/imagemath/Nodes.h"
#include "ml/imagemath/Noise.h"
#include "ml/imagemath/Operators.h"
#include "ml/imagemath/PolyWrapper.h"

#include <memory>

namespace Velmoria::ImageMath {

// Allocates one frame per frame of the expression (descriptor imgDesc(i): normalised, the
// pixel type of the first leaf or of a cast) and assigns the expression into them. Null, with
// a log line, for an expression without images or one that cannot be evaluated.
template <class E>
std::shared_ptr<SharedImageSet> evaluateIntoImage(ExprBaseTpl<E> const& expression)
{
    int const frames = std::max(1, expression.numImgs());
    auto result = std::make_shared<SharedImageSet>();
    for (int i = 0; i < frames; ++i) {
        auto desc = expression.imgDesc(i);
        if (!desc) {
            VELMORIA_LOG_ERROR("ML.ImageMath", "Cannot evaluate an expression without images into an image");
            return nullptr;
        }
        desc->channels = expression.numChannels() > 0 ? expression.numChannels() : desc->channels;
        desc->setShiftScale(0.0, 1.0);
        result->add(std::make_shared<SharedImage>(*desc));
    }
    Array<SharedImageSet> target(*result, true);
    if (!target.assign(expression))
        return nullptr;
    return result;
}

} // namespace Velmoria::ImageMath
