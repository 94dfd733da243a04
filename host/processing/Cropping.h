#pragma once

// Cutting a box out of an image, and the geometry of a box of a frame's grid.
//
// A box of a grid is given by the index of its first pixel in that grid (`offset`, which may be
// negative or reach past the end: padding is a box that is larger than the image) and its size
// in pixels. The box keeps the spacing. Its matrixToWorld is chosen so that every pixel keeps its
// world position: box pixel q is grid pixel q + offset. With image coordinates centred on the
// image (pixel p at (p − (dim − 1) / 2) ∘ spacing), the centre of the box lies at
// (offset + (size − dim) / 2) ∘ spacing in the grid's image coordinates, so
//
//   boxMatrix = matrixToWorld · Translation((offset + (size − dim) / 2) ∘ spacing).
//
// Cropping or padding both sides by the same amount therefore keeps the matrix. Padding with
// (low, high) pixels is the box offset −low, size low + dim + high.
//
// createCropped copies the pixels of a box that lies inside the image; a box that reaches
// outside is refused with an error in "Host.Cropping" naming the offset, size and image size
// (null result), never clipped silently: the caller decides how to treat borders (Padding.h).

#include "host/image/ImageDescriptorWorld.h"
#include "host/image/MemImage.h"
#include "host/image/SharedImage.h"

#include <Eigen/Core>
#include <memory>

namespace Velmoria::ImageProcessing {

// The matrixToWorld of the box (offset, size) of a grid with these dimensions, spacing and
// matrix (see the file comment).
Eigen::Matrix4d boxMatrixToWorld(Eigen::Matrix4d const& matrixToWorld, Eigen::Vector3i const& dimensions,
                                 Eigen::Vector3d const& spacing, Eigen::Vector3i const& offset,
                                 Eigen::Vector3i const& size);

// The descriptor of the box: `grid` with dimensions `size` and the box matrix; pixel type,
// channels, spacing, shift and scale stay.
ImageDescriptorWorld boxDescriptorWorld(ImageDescriptorWorld const& grid, Eigen::Vector3i const& offset,
                                        Eigen::Vector3i const& size);

// True when the box lies inside an image of `dimensions` and has at least one pixel per axis;
// otherwise false with an error in "Host.Cropping" that names offset, size and dimensions.
bool checkCropBox(Eigen::Vector3i const& dimensions, Eigen::Vector3i const& offset,
                  Eigen::Vector3i const& size);

// A new image (same pixel type, channels, spacing, shift and scale) holding the pixels of the
// box; null when the box is not inside the image (see checkCropBox) or memory cannot be had.
std::unique_ptr<MemImage> createCropped(MemImage const& source, Eigen::Vector3i const& offset,
                                        Eigen::Vector3i const& size);

// The same for a frame: the result keeps the world position of every pixel (boxMatrixToWorld)
// and the frame's modality and deformation. The mask is dropped, because it describes the old
// grid.
std::unique_ptr<SharedImage> createCropped(SharedImage const& source, Eigen::Vector3i const& offset,
                                           Eigen::Vector3i const& size);

} // namespace Velmoria::ImageProcessing
