#pragma once

// createFloat: a float copy of an image in its ORIGINAL intensities (stored / scale − shift, see
// ImageDescriptor), so that the copy has shift 0 and scale 1 and later arithmetic needs no
// knowledge of how the source was stored. Dimensions, channels, spacing, matrix, modality, mask
// and deformation are kept.
//
// With `normalize` the values are mapped to [0, 1] instead:
//   - integer pixel types by the type's range: (stored − typeMin) / (typeMax − typeMin). Stored
//     and original intensities differ by an affine map, so this is also the position of the
//     original value inside the original range that the type can express, for any shift and
//     any positive scale;
//   - float and double have no useful type range (±3.4e38), so they are mapped by the image's
//     own range of original intensities over all channels, NaN skipped; a constant image gives 0.
// NaN stays NaN. Values of double images outside float's range become ±inf.
//
// The set overload converts every frame and keeps everything else of the set (name, modality,
// components, properties, timestamps, selection): it is a clone that shares no pixels.

#include "host/image/SharedImage.h"
#include "host/image/SharedImageSet.h"

#include <memory>

namespace Velmoria::ImageProcessing {

// Null (with an error in "Host.ImageProcessing") only when the pixel memory cannot be had.
std::unique_ptr<SharedImage> createFloat(SharedImage const& image, bool normalize = false);
std::unique_ptr<SharedImageSet> createFloat(SharedImageSet const& images, bool normalize = false);

} // namespace Velmoria::ImageProcessing
