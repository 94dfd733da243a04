#pragma once

// Automatic display windows from intensity percentiles.
//
// computeAutoWindowing gives the intensities (original intensities, see ImageDescriptor) below
// which the fractions `minPercentile` and `maxPercentile` (each in [0, 1], min <= max) of the
// values of one channel lie, as (lo, hi). From a HistogramDataComponent it reads the
// histogram's percentiles, linear inside a bin. From an image set it computes a histogram of
// kAutoWindowBins bins over all frames first; with a mask, only the pixels inside the mask (as
// the mask's createExplicitMask says, frame by frame) are counted, the masks attached to the
// frames are not consulted. NaN values are never counted.
//
// autoWindow sets level and window of the set's DisplayOptions2d and DisplayOptions3d (created
// when missing) to cover (lo, hi) of channel 0: window = hi − lo, level = (lo + hi) / 2.
//
// Errors (an empty result / false, with an error in "Host.AutoWindowing", nothing changed):
// percentiles outside [0, 1] or NaN, min above max, a channel the images lack, an empty set, a
// mask that does not fit a frame, and no counted value at all.

#include "host/image/HistogramDataComponent.h"
#include "host/image/Mask.h"
#include "host/image/SharedImageSet.h"

#include <optional>
#include <utility>

namespace Velmoria::ImageProcessing {

// Bins of the histogram computed from image sets: the percentiles are exact to 1/1024 of the
// value range, finer than any display can show.
inline constexpr int kAutoWindowBins = 1024;

std::optional<std::pair<double, double>> computeAutoWindowing(HistogramDataComponent const& histogram,
                                                              double minPercentile, double maxPercentile,
                                                              int channel = 0);
std::optional<std::pair<double, double>> computeAutoWindowing(SharedImageSet const& images,
                                                              double minPercentile, double maxPercentile,
                                                              Mask const* mask = nullptr, int channel = 0);

bool autoWindow(SharedImageSet& images, double minPercentile, double maxPercentile);

} // namespace Velmoria::ImageProcessing
