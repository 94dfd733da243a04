#include "ml/operations/catalogue/ImageResampler.h"

#include "ml/data/LabelMap.h"

#include "host/algorithm/AlgorithmUtils.h"
#include "host/data/Data.h"
#include "host/image/SharedImageSet.h"

namespace Velmoria::ML {

ImageResampler::ImageResampler()
{
    m_imageAlgorithm.setInterpolation(ImageResamplingAlgorithm::InterpolationMode::Linear);
    m_imageAlgorithm.setReduceAliasing(true);
    m_labelAlgorithm.setInterpolation(ImageResamplingAlgorithm::InterpolationMode::Nearest);
    m_labelAlgorithm.setReduceAliasing(false);
}

std::vector<ImageDescriptorWorld> ImageResampler::gridsOf(SharedImageSet const* reference)
{
    std::vector<ImageDescriptorWorld> grids;
    if (!reference)
        return grids;
    grids.reserve(static_cast<std::size_t>(reference->size()));
    for (auto const& frame : reference->images())
        grids.push_back(frame->descriptorWorld());
    return grids;
}

std::unique_ptr<SharedImageSet> ImageResampler::resample(SharedImageSet const* input,
                                                         std::vector<ImageDescriptorWorld> targets,
                                                         bool forceCPU)
{
    if (!input || input->empty())
        return nullptr;
    ImageResamplingAlgorithm& algorithm =
        isSemanticSegmentationMap(input) ? m_labelAlgorithm : m_imageAlgorithm;
    algorithm.setTargetDescriptorWorlds(std::move(targets));

    if (forceCPU) {
        algorithm.setInput(input);
        bool const ok = AlgorithmUtils::execute(algorithm);
        algorithm.setInput(nullptr);
        return ok ? algorithm.takeOutputSet() : nullptr;
    }

    // The batched path changes the set it is given, so it works on a copy that shares the
    // frames (the input stays as it was).
    std::unique_ptr<SharedImageSet> result = input->clone(SharedImageSet::CloneOption::ShareFrames);
    auto step = [&algorithm](SharedImageSet& images) {
        algorithm.setInput(&images);
        bool ok = AlgorithmUtils::execute(algorithm);
        algorithm.setInput(nullptr);
        std::unique_ptr<SharedImageSet> out = ok ? algorithm.takeOutputSet() : nullptr;
        return out && images.replaceAll(out->images());
    };
    if (!AlgorithmUtils::executeBatchedChannels(*result, step))
        return nullptr;
    return result;
}

std::unique_ptr<SharedImageSet> ImageResampler::resample(SharedImageSet const* input,
                                                         SharedImageSet const* reference, bool forceCPU)
{
    return resample(input, gridsOf(reference), forceCPU);
}

bool ImageResampler::process(SharedImageSet* input, std::vector<ImageDescriptorWorld> targets, bool forceCPU)
{
    if (!input)
        return false;
    std::unique_ptr<SharedImageSet> result = resample(input, std::move(targets), forceCPU);
    return result && input->replaceAll(result->images());
}

bool ImageResampler::process(SharedImageSet* input, SharedImageSet const* reference, bool forceCPU)
{
    return process(input, gridsOf(reference), forceCPU);
}

} // namespace Velmoria::ML
