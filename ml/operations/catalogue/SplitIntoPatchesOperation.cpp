#include "ml/operations/catalogue/SplitIntoPatchesOperation.h"

#include "host/core/Log.h"

namespace Velmoria::ML {

SplitIntoPatchesOperation::SplitIntoPatchesOperation(Eigen::Vector3i const& patchSize, double patchStepSize,
                                                     ImageProcessing::PaddingMode mode)
    : Operation("SplitIntoPatches", ProcessingPolicy::Everything)
    , p_paddingMode("padding_mode", ImageProcessing::PaddingMode::Mirror, this, ParamRequired::No,
                    ImageProcessing::paddingModeToString, samplerPaddingModeFromText,
                    {"Zero", "Mirror", "Clamp"})
    , m_sampler(std::make_unique<SplitROISampler>(patchSize, patchStepSize, true, false))
{
    p_patchSize.setValue(patchSize);
    p_patchStepSize.setValue(patchStepSize);
    p_paddingMode.setValue(mode);
    m_sampler->setPaddingMode(mode);
}

bool SplitIntoPatchesOperation::configure(Properties const& properties)
{
    if (!Operation::configure(properties))
        return false;
    // The sampler gets the whole tree (base keys included) with this operation's values under its
    // own names, so that the two never disagree.
    Properties forSampler = properties;
    forSampler.removeParam("patch_size");
    forSampler.setParam("roi_size", p_patchSize.value());
    forSampler.setParam("patch_step_size", p_patchStepSize.value());
    forSampler.setParam("padding_mode", ImageProcessing::paddingModeToString(p_paddingMode.value()));
    return m_sampler->configure(forSampler);
}

void SplitIntoPatchesOperation::process(DataItem& item)
{
    m_sampler->process(item);
}

std::shared_ptr<SharedImageSet>
SplitIntoPatchesOperation::processImages(std::shared_ptr<SharedImageSet> sis) const
{
    return m_sampler->processImages(std::move(sis));
}

std::vector<RegionOfInterest> SplitIntoPatchesOperation::computeROIs(SharedImageSet const* image) const
{
    return m_sampler->computeROIs(image);
}

DataItem SplitIntoPatchesOperation::sampleFromROI(DataItem const& item, RegionOfInterest const& roi) const
{
    return m_sampler->sampleFromROI(item, roi);
}

} // namespace Velmoria::ML
