#pragma once

// SplitIntoPatches: cuts every selected single-frame image of an item into all patches of a
// regular, overlapping layout (see ml/sampling/SplitROISampler.h for the layout and the patch
// records). A thin owner of a SplitROISampler with "extract_all_patches" true and
// "allow_dimension_change" false (a 2D image gives 2D patches), speaking of patches rather than
// regions; processing lists and the prediction driver use it, RecombinePatches undoes it.
//
// Keys:
//   "patch_size"       three integers, default 1 1 1: handed to the sampler as "roi_size".
//   "patch_step_size"  double in (0, 1], default 0.8: see SplitROISampler.
//   "padding_mode"     Zero / Mirror / Clamp, default Mirror: padding of images smaller than a
//                      patch (label maps follow it unless "label_padding_mode" is given).
// configure reads its own keys, then hands a copy of the tree with these three (patch_size
// renamed to roi_size) to the sampler, so that base keys ("apply_to", "seed", ...) reach it too.
// Its result is the sampler's; it never throws.
//
// process / processImages forward to the sampler; computeROIs and sampleFromROI are the
// sampler's, for a driver that cuts one patch at a time.

#include "ml/data/DataItem.h"
#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"
#include "ml/sampling/SplitROISampler.h"

#include "host/processing/Padding.h"

#include <Eigen/Core>
#include <memory>
#include <vector>

namespace Velmoria::ML {

class SplitIntoPatchesOperation : public Operation
{
public:
    explicit SplitIntoPatchesOperation(
        Eigen::Vector3i const& patchSize = Eigen::Vector3i::Ones(),
        double patchStepSize = SplitROISampler::kDefaultStep,
        ImageProcessing::PaddingMode mode = ImageProcessing::PaddingMode::Mirror);

    bool configure(Properties const& properties) override;
    void process(DataItem& item) override;
    using Operation::process;
    bool doesNotModifyInput() const override { return true; }
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

    std::vector<RegionOfInterest> computeROIs(SharedImageSet const* image) const;
    DataItem sampleFromROI(DataItem const& item, RegionOfInterest const& roi) const;

    SplitROISampler& sampler() { return *m_sampler; }
    SplitROISampler const& sampler() const { return *m_sampler; }

    AdvancedParameter<Eigen::Vector3i, Operation> p_patchSize = {"patch_size", Eigen::Vector3i::Ones(), this};
    AdvancedParameter<double, Operation> p_patchStepSize = {"patch_step_size", SplitROISampler::kDefaultStep,
                                                            this};
    AdvancedParameter<ImageProcessing::PaddingMode, Operation> p_paddingMode;

private:
    std::unique_ptr<SplitROISampler> m_sampler;
};

} // namespace Velmoria::ML
