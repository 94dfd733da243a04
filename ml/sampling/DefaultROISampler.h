#pragma once

// DefaultROISampler ("DefaultROISampler"): the sampler of models that take whole images. It cuts
// nothing; it only pads each image so that every length of its dimensionality (x and y, and z
// for volumes) is a multiple of "dimension_divisor" (an integer, default 1), as networks that
// halve their input several times require. A single-slice image stays single-slice.
//
// computeROI never gives a region; extractROI pads (the mode chosen as in ImageROISampler, clamp
// unless configured) or, when every length is a multiple already, returns a deep clone. Either
// way the sampler is recorded on the result. A divisor below 1 fails configure.

#include "ml/sampling/ImageROISampler.h"

namespace Velmoria::ML {

class DefaultROISampler : public ImageROISampler
{
public:
    explicit DefaultROISampler(int dimensionDivisor = 1);

    bool configure(Properties const& properties) override;
    std::optional<RegionOfInterest> computeROI(SharedImageSet const* image) const override;
    // Throws ImageSamplersException "Got empty image." for null; `roi` is not used.
    std::unique_ptr<SharedImageSet> extractROI(SharedImageSet const* image,
                                               std::optional<RegionOfInterest> roi) const override;

    AdvancedParameter<int, Operation> p_dimensionDivisor = {"dimension_divisor", 1, this};
};

} // namespace Velmoria::ML
