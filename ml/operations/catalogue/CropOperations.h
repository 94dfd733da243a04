#pragma once

// Crop-like operations: cut a box out of each frame, blank boxes, or blank half-spaces.
//
//   Crop      "size" (three ints, default -1 -1 -1; formerly "crop_size"): -1 on an axis means up
//             to the end of the image. "offset" (three ints, default 0 0 0; formerly
//             "crop_offset"): a negative value counts from the end of the axis. Every frame is
//             resolved and checked before any pixel moves, failing with
//               "Resolved offset is negative. Crop offset: [x, y, z]"           (as configured)
//               "Offset exceeds image dimensions. Image size: [..], Crop offset: [..]"
//               "Resolved size is equal to zero. Crop size: [..]"                (resolved)
//               "Offset + size exceeds image dimensions. Image size: [..], Offset + size: [..]"
//             The result is a new set whose frames keep every pixel's world position
//             (ImageProcessing::createCropped, box geometry of host/processing/Cropping.h).
//             Policy Everything: an image and its label map must stay on one grid.
//
//   CutOut    Blanks boxes (an occlusion augmentation). "size", "offset": one three-double
//             vector per box; "fill_value": one number per box (original intensity, all
//             channels). "size_units" / "offset_units": ParamUnit, Fraction (of the frame's
//             size), MM (through its spacing) or Voxel (default), converted per frame and
//             rounded to the nearest voxel. Errors: lengths differ ("number of offsets, sizes and
//             fill values are not equal."), a negative offset ("cutout offset should be >= 0.")
//             or size ("cutout size should be >= 0."). Warnings: a size below one voxel is raised
//             to one ("cutout size too small. Increasing to at least one voxel."), a box past the
//             image is clipped ("offset + cutout size exceeds image dimension. Clipping size to
//             image extent."); a box that starts beyond the image is then empty. Works on a deep
//             clone. Policy EverythingButLabels: what is behind the occluder is still the truth.
//
//   PolyCrop  "points": a list of three-double vectors, each defining the half-space that is
//             kept. With n = p / |p| (points with |p| <= 1e-6 are skipped), a pixel is kept when
//             dot(c, n) < |p| and set to 0 otherwise, where c are the CENTRED NORMALISED
//             coordinates of the pixel: c = 2 * (p + 0.5) / dim - 1 per axis, so the image spans
//             [-1, 1] on every axis whatever its size and spacing (the convention of
//             torch.grid_sample with align_corners=False). The point (0.5, 0, 0) thus blanks the
//             pixels whose centres lie in the highest quarter of x; a point with |p| >= sqrt(3)
//             keeps everything. Works on a deep clone; policy Everything, since the blanked
//             region is outside the field of view for labels too.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria::ML {

class CropOperation : public Operation
{
public:
    explicit CropOperation(Eigen::Vector3i size = Eigen::Vector3i::Constant(-1),
                           Eigen::Vector3i offset = Eigen::Vector3i::Zero());

    bool doesNotModifyInput() const override { return true; }

    AdvancedParameter<Eigen::Vector3i, Operation> p_size = {"size", Eigen::Vector3i::Constant(-1), this,
                                                            ParamRequired::No, "crop_size"};
    AdvancedParameter<Eigen::Vector3i, Operation> p_offset = {"offset", Eigen::Vector3i::Zero(), this,
                                                              ParamRequired::No, "crop_offset"};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class CutOutOperation : public Operation
{
public:
    CutOutOperation();

    bool doesNotModifyInput() const override { return true; }

    AdvancedParameter<std::vector<Eigen::Vector3d>, Operation> p_size = {"size", {}, this};
    AdvancedParameter<ParamUnit, Operation> p_sizeUnits = {
        "size_units",      ParamUnit::Voxel,           this, ParamRequired::No, paramUnitToString,
        stringToParamUnit, {"MM", "Fraction", "Voxel"}};
    AdvancedParameter<std::vector<Eigen::Vector3d>, Operation> p_offset = {"offset", {}, this};
    AdvancedParameter<ParamUnit, Operation> p_offsetUnits = {
        "offset_units",    ParamUnit::Voxel,           this, ParamRequired::No, paramUnitToString,
        stringToParamUnit, {"MM", "Fraction", "Voxel"}};
    AdvancedParameter<std::vector<double>, Operation> p_fillValue = {"fill_value", {}, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class PolyCropOperation : public Operation
{
public:
    // Points of at most this length define no plane and are skipped.
    static constexpr double kMinPointLength = 1e-6;

    explicit PolyCropOperation(std::vector<Eigen::Vector3d> points = {});

    bool doesNotModifyInput() const override { return true; }

    AdvancedParameter<std::vector<Eigen::Vector3d>, Operation> p_points = {"points", {}, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

} // namespace Velmoria::ML
