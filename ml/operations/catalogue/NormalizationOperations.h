#pragma once

// Normalisation operations: map each image's intensities onto a standard range or distribution
// from statistics of that image. Geometry (matrix, spacing, mask, deformation, modality) never
// changes; values are read in original intensities (stored / scale - shift).
//
//   NormalizeUniform      "min" 0, "max" 1: (x - lo) / (hi - lo) * (max - min) + min with lo/hi
//                         the image's own range over all channels; a masked frame counts only the
//                         pixels inside its mask. The result is a new float set (shift 0, scale 1)
//                         whose display window is [min, max]. A constant image (hi == lo) maps to
//                         `min` rather than to NaN; a frame without any counted pixel is an error.
//   NormalizePercentile   "min_percentile" 0, "max_percentile" 1, "clamp_values" false,
//                         "ignore_zeros" false: (x - p_lo) / (p_hi - p_lo), per frame and channel,
//                         p_lo/p_hi the percentiles of that frame's channel read from a
//                         HistogramDataComponent of ImageProcessing::kAutoWindowBins bins (linear
//                         inside a bin; percentiles 0 and 1 are the exact minimum and maximum).
//                         With clamp_values the result is clamped to [0, 1]. With ignore_zeros
//                         pixels whose channel-0 value is zero are left out of the percentiles
//                         (they are still mapped). Equal percentiles divide by zero on purpose:
//                         the plain formula is kept so that results match other implementations
//                         of it. The keys "min_outlier"/"max_outlier" of old files are refused.
//   NormalizeMAD          "selected_channels" [] (all), "fix_median" false: (x - median) / MAD
//                         per frame and channel, MAD the median of |x - median|; the median of an
//                         even count is the mean of the two middle values (as numpy's). With
//                         fix_median the median stays where it was: (x - median) / MAD + median.
//                         A channel of zero MAD becomes 0 (or its median with fix_median), as
//                         NormalizeNormal does for zero deviation. Channels not selected are left
//                         alone. CPU only; the display window is set to the result's range.
//   GammaCorrection       "gamma" 1: r * pow((x - lo) / r, gamma) + lo, lo/hi the frame's range
//                         and r = hi - lo, so the range itself is kept. Float input only. A
//                         constant frame (r == 0) is left as it is instead of becoming NaN.
//
// Non-float input to NormalizePercentile and NormalizeMAD is made float first (logged as an
// implicit MakeFloat); NormalizeUniform always writes new float frames.

#include "ml/operations/catalogue/IntensityOperations.h"

#include <vector>

namespace Velmoria::ML {

class NormalizeUniformOperation : public IntensityOperation
{
public:
    explicit NormalizeUniformOperation(float min = 0.0F, float max = 1.0F);

    AdvancedParameter<float, Operation> p_min = {"min", 0.0F, this};
    AdvancedParameter<float, Operation> p_max = {"max", 1.0F, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class NormalizePercentileOperation : public IntensityOperation
{
public:
    // Throws ParamException when a percentile lies outside [0, 1].
    explicit NormalizePercentileOperation(float minPercentile = 0.0F, float maxPercentile = 1.0F,
                                          bool clampValues = false, bool ignoreZeros = false);

    // Also refuses the retired outlier keys and percentiles outside [0, 1] (false, logged).
    bool configure(Properties const& properties) override;

    AdvancedParameter<float, Operation> p_minPercentile = {"min_percentile", 0.0F, this};
    AdvancedParameter<float, Operation> p_maxPercentile = {"max_percentile", 1.0F, this};
    AdvancedParameter<bool, Operation> p_clampValues = {"clamp_values", false, this};
    AdvancedParameter<bool, Operation> p_ignoreZeros = {"ignore_zeros", false, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;

private:
    bool percentilesInRange() const;
};

class NormalizeMADOperation : public IntensityOperation
{
public:
    explicit NormalizeMADOperation(std::vector<int> const& selectedChannels = {});

    AdvancedParameter<std::vector<int>, Operation> p_selectedChannels = {"selected_channels", {}, this};
    AdvancedParameter<bool, Operation> p_fixMedian = {"fix_median", false, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
    // Medians need the pixels in CPU memory whatever the device asks for.
    bool useGPU(SharedImageSet const* sis) const override;
};

class GammaCorrectionOperation : public IntensityOperation
{
public:
    explicit GammaCorrectionOperation(double gamma = 1.0);

    AdvancedParameter<double, Operation> p_gamma = {"gamma", 1.0, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

} // namespace Velmoria::ML
