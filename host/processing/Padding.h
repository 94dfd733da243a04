#pragma once

// Padding: a copy of an image with pixels added (or removed) at the borders of each axis.
//
// low[axis] pixels are added before the first pixel and high[axis] after the last; a negative
// count removes that many pixels instead, so one call pads one side and crops the other. The
// target is allocated by the caller in its final size (dimensions low + dim + high, the source's
// pixel type and channels): computePadded only fills it. Pixel q of the target shows source
// pixel q − low where that exists; the mode decides what the other pixels show:
//
//   Zero   (0)  the fill value. It is a STORED value of the target's pixel type (not an original
//               intensity): it is rounded to the nearest integer and clamped to the range of an
//               integer type; callers that hold an original intensity convert it with
//               ImageDescriptor::originalToStorage first.
//   Mirror (1)  reflection about the edge pixel, which is not repeated: … 2 1 | 0 1 2 … n−1 |
//               n−2 n−3 …. A pad wider than the image keeps reflecting back and forth (the
//               pattern repeats every 2 · (n − 1) pixels); an axis of one pixel repeats it.
//   Clamp  (2)  the nearest edge pixel (replicate): … 0 0 | 0 1 2 … n−1 | n−1 n−1 ….
//
// Mirror is NumPy's and PyTorch's "reflect", Clamp their "edge"/"replicate". The enumeration
// values are written into configurations and never change; stringToPaddingMode reads the names
// "Zero", "Mirror", "Clamp" in any case.
//
// The geometry of a padded frame is that of the box (−low, low + dim + high) of Cropping.h:
// every source pixel keeps its world position.
//
// Errors (false / null, an error in "Host.Padding" naming the values at fault): a new size below
// one pixel, a target of the wrong size, pixel type or channel count, an unknown mode.

#include "host/image/MemImage.h"
#include "host/image/SharedImage.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Velmoria::ImageProcessing {

enum class PaddingMode : int
{
    Zero = 0,
    Mirror = 1,
    Clamp = 2,
};

// "Zero", "Mirror", "Clamp"; "Unknown" for a value outside the enumeration.
std::string paddingModeToString(PaddingMode mode);
// The mode of a name (any case, surrounding blanks ignored); empty, with an error in
// "Host.Padding" that names the text, for anything else.
std::optional<PaddingMode> stringToPaddingMode(std::string_view text);

// The source pixel index that target index `index` (already shifted by −low, so it may lie
// outside [0, size)) shows along an axis of `size` pixels; −1 for a fill pixel (Zero mode).
int paddedSourceIndex(int index, int size, PaddingMode mode);

// Fills `target` (dimensions source + low + high, same pixel type and channels) from `source`
// (see the file comment). False, with nothing written, when the sizes or types do not fit.
bool computePadded(MemImage const& source, MemImage& target, PaddingMode mode, Eigen::Vector3i const& low,
                   Eigen::Vector3i const& high, double value = 0.0);

// Allocates the target and pads into it; null on error.
std::unique_ptr<MemImage> createPadded(MemImage const& source, PaddingMode mode, Eigen::Vector3i const& low,
                                       Eigen::Vector3i const& high, double value = 0.0);

// The same for a frame: pixels keep their world positions (Cropping.h), modality and
// deformation are copied, the mask (made for the old grid) is dropped.
std::unique_ptr<SharedImage> createPadded(SharedImage const& source, PaddingMode mode,
                                          Eigen::Vector3i const& low, Eigen::Vector3i const& high,
                                          double value = 0.0);

} // namespace Velmoria::ImageProcessing
