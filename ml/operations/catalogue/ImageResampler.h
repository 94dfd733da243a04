#pragma once

// ImageResampler: the one place where the ML library puts image sets onto another grid. The
// resample operations (and later the metrics that compare a prediction with its ground truth)
// hold one, set a target on its algorithms and call resample().
//
// Two host ImageResamplingAlgorithms, configured alike but for the two settings in which images
// and label maps must differ:
//   images      Linear interpolation, reduceAliasing on (smooth before making the grid coarser,
//               so that detail finer than the new pixels does not alias);
//   label maps  Nearest interpolation, reduceAliasing off: both others mix label values, and a
//               label map must never get a value that was not in it.
// isSemanticSegmentationMap(input) (modality Label) chooses the one that runs.
//
// Targets. algorithms() hands out both so that a caller sets the same spacing or dimensions on
// each. resample(input, targets, ...) puts `targets` (one grid per frame, or one for all) on the
// chosen algorithm before it runs; an empty list clears earlier grids, so that the spacing or
// dimensions target decides. resample(input, reference, ...) takes the reference's frame grids
// (descriptorWorld()); a null reference gives the empty list.
//
// Device. forceCPU true runs setInput/compute directly. false goes through
// AlgorithmUtils::executeBatchedChannels, which hands the algorithm at most four channels at a
// time as GPU textures need, on a clone of the input that shares its frames; both give the same
// pixels on the CPU backend.
//
// Result: a new set (the input's name, modality, components and properties, so that records
// such as the processing record, the inversion stack or the reference travel on); the input is
// never written. Null when the algorithm fails; the host has then logged the frame and value in
// "Host.ImageResamplingAlgorithm".

#include "host/image/ImageDescriptorWorld.h"
#include "host/processing/ImageResamplingAlgorithm.h"

#include <memory>
#include <utility>
#include <vector>

namespace Velmoria {
class SharedImageSet;
}

namespace Velmoria::ML {

class ImageResampler
{
public:
    ImageResampler();
    ImageResampler(ImageResampler const&) = delete;
    ImageResampler& operator=(ImageResampler const&) = delete;

    // (image algorithm, label-map algorithm).
    std::pair<ImageResamplingAlgorithm*, ImageResamplingAlgorithm*> algorithms()
    {
        return {&m_imageAlgorithm, &m_labelAlgorithm};
    }
    ImageResamplingAlgorithm& imageAlgorithm() { return m_imageAlgorithm; }
    ImageResamplingAlgorithm& labelAlgorithm() { return m_labelAlgorithm; }

    // Null for a null or frameless input, or when the algorithm fails.
    std::unique_ptr<SharedImageSet> resample(SharedImageSet const* input,
                                             std::vector<ImageDescriptorWorld> targets, bool forceCPU);
    std::unique_ptr<SharedImageSet> resample(SharedImageSet const* input, SharedImageSet const* reference,
                                             bool forceCPU);

    // As resample, then the frames of `input` are replaced by the resampled ones (its components
    // stay). False, with `input` unchanged, when resampling fails; a null input does nothing.
    bool process(SharedImageSet* input, std::vector<ImageDescriptorWorld> targets, bool forceCPU);
    bool process(SharedImageSet* input, SharedImageSet const* reference, bool forceCPU);

    // The grids of the frames of `reference`, in order; empty for null.
    static std::vector<ImageDescriptorWorld> gridsOf(SharedImageSet const* reference);

private:
    ImageResamplingAlgorithm m_imageAlgorithm;
    ImageResamplingAlgorithm m_labelAlgorithm;
};

} // namespace Velmoria::ML
