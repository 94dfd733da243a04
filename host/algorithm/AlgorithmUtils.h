#pragma once

// AlgorithmUtils: running algorithms the same way everywhere.
//
// execute(algorithm, progress) gives the algorithm the progress (when not null), resets its
// status to Unknown, runs compute() and returns status() == Success. An exception never leaves
// it: std::bad_alloc becomes OutOfMemory, any other exception Error, each with an error line in
// "Host.AlgorithmUtils" naming the algorithm's type and the reason. An algorithm whose
// compute() returns normally but leaves the status Unknown has succeeded (Success is set), so
// simple algorithms need not set it.
//
//
// executeBatchedChannels(images, step, maxChannels) runs a per-image step on at most
// `maxChannels` channels at a time, as GPU textures hold at most four. `step` changes the set it
// is given in place (it may replace the frames, e.g. by resampled ones). When no frame has more
// channels than that, `step` runs once on `images` itself. Otherwise each frame is cut into
// channel groups (channels 0-3, 4-7, ...), each group runs as a set of its own, and the results
// are woven back into frames of all channels, which replace the frames of `images`; they take
// the geometry the step gave to the first group. False, with `images` unchanged, when a step
// fails or the groups of one frame come back with different sizes or pixel types.

#include <functional>

namespace Velmoria {

class Algorithm;
class Progress;
class SharedImageSet;

namespace AlgorithmUtils {

bool execute(Algorithm& algorithm, Progress* progress = nullptr);

bool executeBatchedChannels(SharedImageSet& images, std::function<bool(SharedImageSet&)> const& step,
                            int maxChannels = 4);

} // namespace AlgorithmUtils
} // namespace Velmoria
