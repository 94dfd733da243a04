#pragma once

// PredictionTimings: where the wall-clock time of one MachineLearningModel::predict went.
//
// The stages do not overlap, so `total` minus the parts is the driver's own bookkeeping (cloning
// the input, setting up output containers, stacking). `engine` is the time spent inside
// Engine::predict, including the engine's own conversion between images and its tensors;
// everything else is "outside the engine", the part this library is responsible for.
// `splitting` covers cutting patches and the operations that run per patch before the engine;
// `recombination` the per-patch operations after it, the weighted accumulation and its
// normalisation. A model that does not split leaves both at zero.

#include <cstddef>

namespace Velmoria::ML {

struct PredictionTimings
{
    double preprocessingMs = 0;
    double splittingMs = 0;
    double engineMs = 0;
    double recombinationMs = 0;
    double postprocessingMs = 0;
    double totalMs = 0;
    std::size_t engineRuns = 0;

    double outsideEngineMs() const { return totalMs - engineMs; }
};

} // namespace Velmoria::ML
