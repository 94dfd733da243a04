#pragma once

// SplitROISampler ("SplitROISampler"): cuts a single-frame image into regular, overlapping
// patches of one size and says for each where it came from, so that RecombinePatches can put
// predictions on the patches back together.
//
// Keys (besides "padding_mode" / "label_padding_mode" of ImageROISampler, both "clamp" here):
//   "roi_size"               three integers, default 1 1 1: the patch size in voxels.
//   "patch_step_size"        double in (0, 1], default 0.8: the largest distance between the
//                            origins of two neighbouring patches as a fraction of the patch size
//                            (1: no overlap; 0.8: at least 20 % overlap).
//   "extract_all_patches"    bool, default false: process / processImages give every patch
//                            (in layout order); false gives one patch drawn at random.
//   "allow_dimension_change" bool, default true: false makes an image axis of length 1 force the
//                            patch to length 1 on that axis (a 2D image gives 2D patches); true
//                            pads such an axis up to the patch size.
//
// Layout (computeROIs), per axis, without touching pixels: step = size · patch_step_size (the
// configured size), span = max(length − size, 0), n = ceil(span / step) gaps, origins
// round(k · span / n) for k = 0..n (halves away from zero; the single origin 0 when n = 0). So
// the first origin is 0, the last is length − size, the real step never exceeds the nominal one
// and no patch hangs over the end of an axis at least as long as the patch (length 100, patch
// 32, step 0.8: origins 0 23 45 68). Regions are the product of the three lists with x outermost
// and z innermost. On an axis shorter than the patch the origin is 0 and the extent is the patch
// size: the image is padded (centred, low = d / 2, high = d − low) as ImageROISampler does.
//
// Patch records. extractROI attaches a PatchesFromImageDataComponent with one PatchInfo per frame:
// the ORIGINAL image's world descriptor and the patch's box in the original grid. Where the image
// was padded the box starts before the image (offset − low, negative) and may end past it, which
// the component allows; so RecombinePatches rebuilds the original image, size and geometry, and
// no separate undo of the padding is needed. processImages gathers the entries of all patches
// into one component on its output, one per frame. The patch itself is cut from the original in
// one pass (createPadded with a negative pad crops), with the same pixels and world positions
// as padding the whole image first and cropping after, but without the padded copy.
//
// One-patch mode draws the region index with the operation's generator, uniformly in
// [0, count − 1] (computeROI and processImages alike), so "seed" fixes the patch.
//
// process(DataItem&) with extract_all_patches: every selected image element is split (all must
// lie on one grid: "Input item contains image elements with spatially incompatible images");
// elements of other kinds are repeated once per patch so that the item's batch stays consistent.
// Without it, ImageROISampler::process cuts one region from all images.
//
// Errors: a step outside (0, 1] fails in the constructors (OperationException "[ML.SplitROISampler]
// `patch_step_size` value must be in range (0, 1].") and makes configure return false with that
// text logged. Layout and cutting errors are ImageSamplersException.

#include "ml/data/DataItem.h"
#include "ml/sampling/ImageROISampler.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <vector>

namespace Velmoria::ML {

class SplitROISampler : public ImageROISampler
{
public:
    static constexpr double kDefaultStep = 0.8;

    explicit SplitROISampler(double patchStepSize = kDefaultStep, bool extractAllPatches = false,
                             bool allowDimensionChange = true);
    SplitROISampler(Eigen::Vector3i const& roiSize, double patchStepSize, bool extractAllPatches,
                    bool allowDimensionChange);
    // A 2D patch size; z is 1.
    SplitROISampler(Eigen::Vector2i const& roiSize, double patchStepSize, bool extractAllPatches,
                    bool allowDimensionChange);

    // ImageROISampler::configure, then checkParams; false (logged) on a bad step. Never throws.
    bool configure(Properties const& properties) override;
    // Throws OperationException unless 0 < patch_step_size <= 1.
    void checkParams() const;

    // The whole layout of `image`'s focus frame (file comment). Throws ImageSamplersException
    // "Got empty image." for a null or empty set, and those of checkRoiSize.
    std::vector<RegionOfInterest> computeROIs(SharedImageSet const* image) const;
    // One region of the layout, drawn with the operation's generator; none for an empty layout.
    std::optional<RegionOfInterest> computeROI(SharedImageSet const* image) const override;
    // The patch at `roi` (computeROI when none) with its PatchesFromImageDataComponent.
    std::unique_ptr<SharedImageSet> extractROI(SharedImageSet const* image,
                                               std::optional<RegionOfInterest> roi) const override;
    // `roi` of the layout (counted in the grid padded up to the patch size) in the grid of the
    // image itself: on axes shorter than the patch it starts before the image (negative offset),
    // as the patch records and RecombinePatches count it.
    static RegionOfInterest regionInImage(RegionOfInterest const& roi, Eigen::Vector3i const& imageDims);
    // A new item: each ImageElement of `item` replaced by its patch at `roi`, other elements
    // cloned. `item` stays untouched.
    DataItem sampleFromROI(DataItem const& item, RegionOfInterest const& roi) const;

    void process(DataItem& item) override;
    using ImageROISampler::process;
    // All patches (extract_all_patches) or one, as frames of a frameless clone of `sis`.
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    AdvancedParameter<Eigen::Vector3i, Operation> p_roiSize = {"roi_size", Eigen::Vector3i::Ones(), this};
    AdvancedParameter<double, Operation> p_patchStepSize = {"patch_step_size", kDefaultStep, this};
    AdvancedParameter<bool, Operation> p_extractAllPatches = {"extract_all_patches", false, this};
    AdvancedParameter<bool, Operation> p_allowDimensionChange = {"allow_dimension_change", true, this};
};

// The origins along one axis of `length` voxels for patches of `size` voxels and a nominal step
// of `step` voxels (> 0): see the file comment.
std::vector<int> patchOrigins(int length, int size, double step);

} // namespace Velmoria::ML
