#pragma once

// LabelROISampler ("LabelROISampler"): cuts a region centred on a voxel of chosen label values,
// so that training sees foreground. It computes its region from a target label map only
// (requiresLabel), and the base class cuts every image of the item at that region.
//
// Keys (padding modes clamp unless configured, as in every sampler):
//   "roi_size"                three integers, default 1 1 1 (−1: the whole axis)
//   "labels_values"           list of integers, default empty: the values that may be centres
//   "sample_boundaries_only"  bool, default false: only voxels with a differing neighbour (the 4
//                             in-plane neighbours, and the 2 across slices in volumes; neighbours
//                             outside the image do not count) are candidates
//   "fallback_to_random"      bool, default false: with no candidate, cut a random region (an
//                             internal RandomROISampler configured with the same keys) instead of
//                             none
//
// computeROI(labels):
//   1. null: ImageSamplersException "Got empty image in computeROI."; a set that is not a label
//      map (modality Label) while requiresLabel holds, and a pixel type other than unsigned 8-bit,
//      are refused with ImageSamplersException too;
//   2. the focus frame is zero-padded to "roi_size" where it is shorter (as extractROI pads, so
//      the voxel indices of the search are those of the grid the region is cut from); the first
//      channel holds the labels;
//   3. candidates: one list of linear voxel indices per entry of "labels_values", in ascending
//      index order. Gathering runs in parallel (OpenMP) over fixed blocks of rows, each block
//      with lists of its own that are joined in block order afterwards, so the lists, and so
//      the draws, do not depend on the number of threads;
//   4. empty lists are dropped; with none left the result is no region (or the fallback's);
//   5. draws, in this order: the list, getUniformInteger(0, lists − 1), then the voxel of the
//      list, getUniformInteger(0, size − 1). Choosing the label first gives every label the same
//      chance whatever its size; a value listed twice counts twice;
//   6. offset = voxel − size / 2 per axis (integer division), then moved inside the padded image
//      (below 0 to 0, past the end to length − size); z is moved only for volumes.
// seedRandomEngine seeds the fallback sampler with the same seed.

#include "ml/sampling/ImageROISampler.h"
#include "ml/sampling/RandomROISampler.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

class LabelROISampler : public ImageROISampler
{
public:
    LabelROISampler();

    bool configure(Properties const& properties) override;
    void seedRandomEngine(unsigned int seed) override;
    std::optional<RegionOfInterest> computeROI(SharedImageSet const* labels) const override;
    bool requiresLabel() const override { return true; }

    // The candidate lists of computeROI's step 3 for an unsigned 8-bit frame: one list per value
    // (same order), linear indices ascending. Exposed for tests and tools.
    static std::vector<std::vector<std::size_t>>
    gatherCandidates(SharedImage const& labels, std::vector<int> const& values, bool boundariesOnly);

    AdvancedParameter<Eigen::Vector3i, Operation> p_roiSize = {"roi_size", Eigen::Vector3i::Ones(), this};
    AdvancedParameter<std::vector<int>, Operation> p_labelsValues = {"labels_values", {}, this};
    AdvancedParameter<bool, Operation> p_sampleBoundariesOnly = {"sample_boundaries_only", false, this};
    AdvancedParameter<bool, Operation> p_fallbackToRandom = {"fallback_to_random", false, this};

private:
    std::unique_ptr<RandomROISampler> m_fallback;
};

} // namespace Velmoria::ML
