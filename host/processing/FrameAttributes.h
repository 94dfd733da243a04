#pragma once

// What a processed frame takes over from the frame it was made from, whatever its pixels became:
// the placement in the world (matrixToWorld), the mask, the deformation and the modality. The
// spacing lives in the pixel descriptor, so routines keep it by building the new descriptor from
// the old one. One function, so that every routine of this folder keeps the same set and a field
// added to SharedImage later is added here once.

#include "host/image/SharedImage.h"

#include <memory>

namespace Velmoria::ImageProcessing {

// Copies matrix, mask, deformation and modality of `from` onto `to`.
void copyFrameAttributes(SharedImage const& from, SharedImage& to);

// A new frame holding `pixels`, with the attributes of `from`.
std::unique_ptr<SharedImage> makeFrameLike(SharedImage const& from, std::unique_ptr<MemImage> pixels);

} // namespace Velmoria::ImageProcessing
