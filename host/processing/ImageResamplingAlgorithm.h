#pragma once

// ImageResamplingAlgorithm: puts every frame of an image set onto another grid.
//
// Targets (the last one set decides; explicit descriptors win over the other two while set):
//   spacing     setTargetSpacing(s): per axis, dims' = max(1, round(extent / s)) with
//               extent = dims ∘ spacing (round half away from zero), spacing' = s. With
//               preserve extent on, spacing' = extent / dims' instead, so that the physical extent
//               is kept exactly (the spacing then differs slightly from s). An axis of one pixel
//               (the z axis of a 2D image) stays one pixel with its spacing, so 2D stays 2D.
//   dimensions  setTargetDimensions(d): dims' = d, spacing' = extent / d (the extent is kept).
//   grids       setTargetDescriptorWorlds(v): one ImageDescriptorWorld per frame, or one for all
//               frames; their dimensions, spacing and matrixToWorld are taken as they are, any
//               rotation or shear between source and target included. An empty list removes
//               them, and the spacing or dimensions target decides again.
// For the first two the output keeps the frame's matrixToWorld: image coordinates are centred,
// so the centre of the image stays where it is.
//
// Values. The output keeps the input's pixel type, channel count, shift and scale: stored values
// are interpolated (so original intensities are too, the mapping being linear). Integer results
// are rounded to the nearest integer and clamped to the type's range. Channels are interpolated
// with the same weights. Interpolation is
//   Linear   trilinear; bilinear within the slice when the source has one slice.
//   Nearest  the value of the pixel whose centre is nearest (ties go to the higher index); it
//            never creates a value that is not in the input, so it is the mode for label maps.
//
// Border rule. A target pixel whose centre falls inside the area of the source pixels (within
// half a pixel beyond the outermost pixel centres, [−0.5, dim − 0.5] in pixel indices on every
// axis, with a tolerance of 1e-4 pixel for rounding) takes the interpolated value, the position
// being clamped to the outermost centres (so the edge pixel is replicated over its outer half);
// a centre outside that area gets the stored value 0. Changing the spacing or the dimensions thus
// never produces zeros at the borders, and a rotated target grid has zeros where it leaves the
// image.
//
// Output: a new set (clone of the input without frames: name, modality, components and
// properties stay) whose frames keep modality and deformation; masks are dropped, because they
// describe the old grid. When a frame's target grid is its own grid (same dimensions, spacing
// and matrix up to the tolerance of ImageDescriptorWorld::isApprox) its pixels are copied
// exactly. takeOutput() hands the set over once; takeOutputSet() gives it typed.
//
// Implementation. The map target pixel -> source pixel is one affine 4x4 matrix per frame; the
// source position is advanced by its first column per x step (no matrix product per pixel).
// Rows are shared among OpenMP threads; there is one visitPixelType dispatch per frame and no
// allocation or virtual call per pixel.
//
// Status (status()): InvalidInput (2) for no input, an empty set, a frame without CPU pixels, no
// target, a non-positive or non-finite spacing or dimension, a target list whose size is neither
// 1 nor the frame count, or a frame or target grid whose matrix is not an invertible affine
// map; OutOfMemory (4) when an output image cannot be allocated. Each failure writes an error
// in "Host.ImageResamplingAlgorithm" that names the frame and the value.
//
// Parameters (Configurable): "interpolation" (0 Nearest, 1 Linear; default Linear),
// "preserveExtent" (default false), "reduceAliasing" (default false): before making the grid
// coarser, smooth the source with a Gaussian of sigma (factor − 1) / 2 source pixels per axis,
// factor = target spacing / source spacing, as scikit-image's rescale does, so that detail finer
// than the new pixels does not alias. Label maps must leave it off (it mixes labels); images
// usually turn it on together with Linear.

#include "host/algorithm/Algorithm.h"
#include "host/core/Parameter.h"
#include "host/image/ImageDescriptorWorld.h"
#include "host/image/SharedImageSet.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria {

class ImageResamplingAlgorithm : public Algorithm
{
public:
    enum class InterpolationMode : int
    {
        Nearest = 0,
        Linear = 1,
    };

    explicit ImageResamplingAlgorithm(SharedImageSet const* input = nullptr);
    ~ImageResamplingAlgorithm() override;

    // Not owned; must outlive compute().
    void setInput(SharedImageSet const* input) { m_input = input; }
    SharedImageSet const* input() const { return m_input; }

    void setTargetSpacing(Eigen::Vector3d const& spacing);
    void setTargetSpacing(double spacing) { setTargetSpacing(Eigen::Vector3d::Constant(spacing)); }
    void setTargetDimensions(Eigen::Vector3i const& dimensions);
    void setTargetDescriptorWorlds(std::vector<ImageDescriptorWorld> targets);
    std::vector<ImageDescriptorWorld> const& targetDescriptorWorlds() const { return m_targets; }

    void setPreserveExtent(bool preserve) { p_preserveExtent.setValue(preserve); }
    bool preserveExtent() const { return p_preserveExtent.value(); }
    void setInterpolation(InterpolationMode mode) { p_interpolation.setValue(static_cast<int>(mode)); }
    InterpolationMode interpolation() const;
    void setReduceAliasing(bool reduce) { p_reduceAliasing.setValue(reduce); }
    bool reduceAliasing() const { return p_reduceAliasing.value(); }

    // The grid that frame `frame` of the input goes to with the present settings; empty
    // (and false) when there is no valid target (the reason is logged).
    bool targetFor(SharedImage const& frame, int index, ImageDescriptorWorld& target) const;

    void compute() override;
    OwningDataList takeOutput() override;
    std::unique_ptr<SharedImageSet> takeOutputSet();

    Parameter<int> p_interpolation{"interpolation", static_cast<int>(InterpolationMode::Linear), this};
    Parameter<bool> p_preserveExtent{"preserveExtent", false, this};
    Parameter<bool> p_reduceAliasing{"reduceAliasing", false, this};

private:
    enum class GridTarget : int
    {
        None,
        Spacing,
        Dimensions,
    };

    bool fail(int status);

    SharedImageSet const* m_input = nullptr;
    GridTarget m_gridTarget = GridTarget::None;
    Eigen::Vector3d m_targetSpacing = Eigen::Vector3d::Ones();
    Eigen::Vector3i m_targetDimensions = Eigen::Vector3i::Ones();
    std::vector<ImageDescriptorWorld> m_targets;
    std::unique_ptr<SharedImageSet> m_output;
};

namespace ImageProcessing {

// Resamples one frame onto `target` (its dimensions, spacing and matrix; see
// ImageResamplingAlgorithm for values and borders). Null, with an error logged, when the frame
// has no CPU pixels, the target is invalid or memory cannot be had.
std::unique_ptr<SharedImage> resampleFrame(SharedImage const& frame, ImageDescriptorWorld const& target,
                                           ImageResamplingAlgorithm::InterpolationMode mode);

} // namespace ImageProcessing

} // namespace Velmoria
