#pragma once

// Resample operations: put each frame of an image set onto another grid, keeping the world
// position of everything (the image centre stays where it is; see ImageResamplingAlgorithm).
// Images are interpolated linearly with anti-aliasing, label maps (modality Label) by nearest
// neighbour, so that a label map never gains a value (ImageResampler). All return a new set that
// carries the input's components, never write their input, and apply to every field (policy
// Everything): images and their label maps must stay on matching grids.
//
//   Resample                    "resolution" (three doubles, mm; one number is taken for all
//                               axes), "preserve_extent" false. When all frames are 2D the z
//                               resolution is taken as 1 (a 2D image has no z spacing to
//                               honour). A resolution at most 0 on an axis warns "Target
//                               resolution is 0 in one dimensions. Returning image without
//                               resampling." and returns the input.
//   ResampleDims                "target_dims" (three ints); below 1 fails with "Incorrect
//                               'target_dims' parameter". A 3D input going to one slice runs on
//                               the CPU (warning on a GPU run: "Changing the image
//                               dimensionality ...").
//   ResampleKeepingAspectRatio  "target_dim_x/y/z" (optional ints), "keep_aspect_ratio_wrt"
//                               (optional "x"/"y"/"z"): the axes not given scale by the factor of
//                               the reference axis. See the class comment.
//   ResampleToInput             to the grids of the set's ReferenceImageDataComponent.
//   ResolutionReduction         "target_spacing" (three doubles, > 0): resample to that spacing
//                               and back onto the input's own grid, which simulates a coarser
//                               acquisition without changing the grid.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"
#include "ml/operations/catalogue/ImageResampler.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>

namespace Velmoria::ML {

// The shared part: an ImageResampler (mutable, since the typed virtuals are const and set the
// target on it each run; an operation object is used by one thread at a time) and the
// device choice.
class ResampleOperationBase : public Operation
{
public:
    ResampleOperationBase(std::string name);

    bool doesNotModifyInput() const override { return true; }

    // Keypoints and boxes are in world coordinates, which a new grid does not move, and a vector
    // element (one pixel per frame) has no grid: all three pass through unchanged, so that items
    // carrying annotations can be resampled with the default policy.
    std::shared_ptr<KeypointSet> processPoints(std::shared_ptr<KeypointSet> keypoints) const override
    {
        return keypoints;
    }
    std::shared_ptr<BoundingBoxSet> processBoxes(std::shared_ptr<BoundingBoxSet> boxes) const override
    {
        return boxes;
    }
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return vectors;
    }

protected:
    // forceCPU for ImageResampler: the negation of the device choice.
    bool forceCPU(SharedImageSet const* sis) const { return !useGPU(sis); }
    // resampler().resample(...), failing with "Could not resample the input images" when the
    // host algorithm fails (it has logged the frame and value at fault).
    std::shared_ptr<SharedImageSet> resampleOrThrow(SharedImageSet const* input,
                                                    SharedImageSet const* reference, bool forceCPU) const;
    ImageResampler& resampler() const { return m_resampler; }

private:
    mutable ImageResampler m_resampler;
};

class ResampleOperation : public ResampleOperationBase
{
public:
    explicit ResampleOperation(Eigen::Vector3d const& resolution = Eigen::Vector3d::Ones(),
                               bool preserveExtent = false);
    explicit ResampleOperation(double resolution, bool preserveExtent = false);

    // Accepts one number for "resolution" (taken for all three axes) besides the three-number
    // form, then the base class.
    bool configure(Properties const& properties) override;

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    AdvancedParameter<Eigen::Vector3d, Operation> p_resolution = {"resolution", Eigen::Vector3d::Ones(),
                                                                  this};
    AdvancedParameter<bool, Operation> p_preserveExtent = {"preserve_extent", false, this};

protected:
    // The resampling kernels batch channels themselves (executeBatchedChannels).
    bool allowChannelBatchOnGPU() const override { return true; }
};

class ResampleDimsOperation : public ResampleOperationBase
{
public:
    explicit ResampleDimsOperation(Eigen::Vector3i const& targetDims = Eigen::Vector3i::Ones());

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    AdvancedParameter<Eigen::Vector3i, Operation> p_targetDims = {"target_dims", Eigen::Vector3i::Ones(),
                                                                  this};
};

// The axes with a target dimension get it; every other axis is scaled by
// factor = target(wrt) / dim(wrt) and truncated, at least 1. Which axis is "wrt"
// (determineKeepAspectRatioWrt): the only axis given when one is given; "x" when all three are;
// otherwise "keep_aspect_ratio_wrt", which must then name a given axis.
//
// An axis of one pixel that has no target stays one pixel: a 2D image stays 2D however large the
// factor (an image 200 x 150 x 1 to width 400 is 400 x 300 x 1, not x 2).
//
// With all three dimensions given this is ResampleDims per frame, and says so once per process
// at warning level ("All of x, y and z are specified: ...").
class ResampleKeepingAspectRatioOperation : public ResampleOperationBase
{
public:
    ResampleKeepingAspectRatioOperation();

    // The base class, then checkParams; a failed check is logged and gives false.
    bool configure(Properties const& properties) override;

    // "x", "y", "z", or the configured text (possibly empty or invalid) when it decides.
    std::string determineKeepAspectRatioWrt() const;
    // Throws OperationException (messages in docs/operations.md); warns when the key is given
    // although all three dimensions are.
    void checkParams() const;

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    AdvancedParameter<std::optional<std::string>, Operation> p_keepAspectRatioWrt = {"keep_aspect_ratio_wrt",
                                                                                     std::nullopt, this};
    AdvancedParameter<std::optional<int>, Operation> p_targetDimX = {"target_dim_x", std::nullopt, this};
    AdvancedParameter<std::optional<int>, Operation> p_targetDimY = {"target_dim_y", std::nullopt, this};
    AdvancedParameter<std::optional<int>, Operation> p_targetDimZ = {"target_dim_z", std::nullopt, this};

    // The dimensions frame dims `dims` go to with the present settings (after checkParams).
    Eigen::Vector3i targetDimsFor(Eigen::Vector3i const& dims) const;

private:
    mutable ResampleDimsOperation m_resampleDims;
};

class ResampleToInputOperation : public ResampleOperationBase
{
public:
    ResampleToInputOperation();

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class ResolutionReductionOperation : public ResampleOperationBase
{
public:
    explicit ResolutionReductionOperation(Eigen::Vector3d const& targetSpacing = Eigen::Vector3d::Ones());

    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    AdvancedParameter<Eigen::Vector3d, Operation> p_targetSpacing = {"target_spacing",
                                                                     Eigen::Vector3d::Ones(), this};
};

} // namespace Velmoria::ML
