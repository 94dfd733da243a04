#pragma once

// ImageROISampler: the base of every sampler, an Operation that cuts one region of interest out
// of the images of a DataItem, the SAME region from every image of the item (an image and its
// label map must stay on one grid), and records that it did.
//
// A subclass decides WHERE to cut (computeROI); the base does the cutting (extractROI):
//   1. the region's extent is checked (checkRoiSize): a single-slice image takes only regions
//      one slice deep, and every extent must be positive;
//   2. an image shorter than the extent on some axis is padded to it first
//      (padImageToDimensions, with "label_padding_mode" for targets and "padding_mode" for
//      the others). Padding is centred, low = d / 2 and high = d − low, exactly as computeROI
//      of the subclasses assumes, so a region's offset is counted in the PADDED grid;
//   3. the box is copied out (cropImage).
// Every voxel of the result keeps its world position: padding and cropping both go through the
// box geometry of host/processing/Cropping.h, so regions partly outside the image come back
// with the padded voxels placed where they would lie in the world.
//
// Keys (besides those of Operation):
//   "padding_mode"        Zero / Mirror / Clamp (values 0, 1, 2 of ImageProcessing::PaddingMode,
//                         read by name in any case or by number). Pads non-target images.
//   "label_padding_mode"  the same for target images; when neither the constructor nor a
//                         configuration gave it, it follows "padding_mode".
//
// process(DataItem&):
//   - an item with a consistent batch above 1 fails ("Samplers only work for single-frame image
//     sets, please split the data item beforehand.");
//   - the region is computed ONCE, from the first selected image field (in insertion order) that
//     is a target or, for samplers that do not require a label, any image field;
//   - every selected image field is replaced by extractROI with that region (or, when no field
//     decided, with none, so each image computes its own). A sampler that requires a label and
//     found no region gives every image the empty result of extractROI without computing again,
//     because computing from a plain image would only fail on its modality;
//   - selected box and keypoint fields stay as they are, with a warning; vectors stay.
//   Pre and post hooks run around each image field, except the installed processing recorder:
//   extractROI records itself (it is also called on its own, by patch splitting for example),
//   and recording twice would list the sampler twice.
//
// Concurrency: computeROI may draw from the operation's generator, so a sampler object belongs
// to one thread at a time (the pipeline clones it).

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"
#include "ml/sampling/ImageSamplersException.h"
#include "ml/sampling/RegionOfInterest.h"

#include "host/processing/Padding.h"

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <string>

namespace Velmoria::ML {

class ImageROISampler : public Operation
{
public:
    using PaddingMode = ImageProcessing::PaddingMode;

    ImageROISampler(std::string name, PaddingMode paddingMode,
                    std::optional<PaddingMode> labelPaddingMode = std::nullopt);

    // ---- What a sampler decides ---------------------------------------------------------------

    // The region to cut out of `image`; no value for "no region".
    virtual std::optional<RegionOfInterest> computeROI(SharedImageSet const* image) const = 0;
    // The region of `image` (see the file comment); with no region given, computeROI is asked.
    // Throws ImageSamplersException "ML.<name>.extractROI: Got empty image." for null, and
    // "ML.<name>.extractROI: Got empty ROI. Did you forget to call computeROI?" for a zero
    // extent. When computeROI gives no region either, warns and returns a new empty set.
    virtual std::unique_ptr<SharedImageSet> extractROI(SharedImageSet const* image,
                                                       std::optional<RegionOfInterest> roi) const;
    // True for samplers that compute their region from a target (a label map) only.
    virtual bool requiresLabel() const { return false; }

    // ---- Operation ----------------------------------------------------------------------------

    void process(DataItem& item) override;
    using Operation::process;
    bool doesNotModifyInput() const override { return true; }
    bool configure(Properties const& properties) override;

    // ---- Padding modes ------------------------------------------------------------------------

    void setPaddingMode(PaddingMode mode);
    PaddingMode paddingMode() const { return p_paddingMode.value(); }
    // Fixes the label mode: from now on it no longer follows "padding_mode".
    void setLabelPaddingMode(PaddingMode mode);
    PaddingMode labelPaddingMode() const { return p_labelPaddingMode.value(); }

    // ---- Helpers shared with the subclasses ---------------------------------------------------

    // `roi` with every component of −1 replaced by the image's length on that axis, so that −1
    // in "roi_size" means the whole axis.
    static Eigen::Vector3i preprocessRoiSize(Eigen::Vector3i roi, Eigen::Vector3i const& dims);
    // Throws ImageSamplersException "ROI size AxBxC is invalid for image of size XxYxZ" when the
    // focus frame has one slice and roi.z() is not 1, then "ROI size AxBxC must be positive." when
    // a component is not positive (also "Got empty image." for null).
    static void checkRoiSize(SharedImageSet const* image, Eigen::Vector3i const& roi);
    // `image` padded (centred, with `mode`) so that no axis of any frame is shorter than `dims`;
    // axes that are long enough already stay as they are (never cut). Null for a null image and
    // when no axis needed padding. The pixels and their placement are those of the PadDims
    // operation, whose frame padding this uses.
    static std::unique_ptr<SharedImageSet>
    padImageToDimensions(SharedImageSet const* image, Eigen::Vector3i const& dims, PaddingMode mode);
    // A new set holding the region of every frame (world positions kept); null for a null image.
    // Throws ImageSamplersException when the region leaves the image. The host has no GPU image
    // backend yet, so the copy runs on the CPU whatever `device` says.
    static std::unique_ptr<SharedImageSet> cropImage(SharedImageSet const* image, RegionOfInterest const& roi,
                                                     ComputingDevice device);

    AdvancedParameter<PaddingMode, Operation> p_paddingMode;
    AdvancedParameter<PaddingMode, Operation> p_labelPaddingMode;

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    std::shared_ptr<BoundingBoxSet> processBoxes(std::shared_ptr<BoundingBoxSet> boxes) const override;
    std::shared_ptr<KeypointSet> processPoints(std::shared_ptr<KeypointSet> keypoints) const override;
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override;

    // The mode for `image`: "label_padding_mode" for a target set, "padding_mode" otherwise.
    PaddingMode paddingModeFor(SharedImageSet const* image) const;
    // Adds this sampler to the processing record of `result` (one list per frame when new).
    void recordOn(SharedImageSet& result) const;
    // The warning and the new empty set of extractROI for "no region".
    std::unique_ptr<SharedImageSet> emptyResult() const;

private:
    bool m_labelFollowsPadding;
};

// The padding mode of a name ("zero", "mirror", "clamp", any case); throws ParamException naming
// the text otherwise. Used by the samplers' parameters.
ImageProcessing::PaddingMode samplerPaddingModeFromText(std::string const& text);

} // namespace Velmoria::ML
