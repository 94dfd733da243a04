#pragma once

// Intensity operations: the plain per-pixel arithmetic of pre- and post-processing. They change
// values and never geometry (matrix, spacing, mask and deformation of every frame stay).
//
//   Clip                     "min" 0, "max" 1: min(max(x, min), max). With min above max the
//                            max wins, since min() is outermost.
//   LinearIntensityMapping   "factor" 1, "bias" 0: factor * x + bias.
//   Invert                   -x; the level of the set's DisplayOptions2d/3d is negated too, so
//                            that the image looks the same (inverting twice restores both).
//   Threshold                "value" 0 (formerly "threshold"), "to_ubyte" false: x > value as
//                            1 or 0 (x == value gives 0). With to_ubyte the frames become
//                            unsigned 8-bit (new frames taking the old ones' geometry).
//   MakeFloat                float copy in original intensities (ImageProcessing::createFloat,
//                            no normalisation); a float input is returned as it is.
//   NormalizeNormal          "keep_background" false, "background_value" 0: (x - mean) / std
//                            per channel, over the whole set, population deviation, through
//                            divideIfNotZero so that a constant channel gives 0. With
//                            keep_background, pixels equal to background_value keep it and are
//                            left out of the statistics. Non-float input is made float first.
//   AdjustShiftScale         "shift" {0} (formerly "adjust_shift"), "scale" {1} (formerly
//                            "adjust_scale"): (x + shift) / scale; one value for all channels or
//                            one per channel (1 to 4 values).
//   Sigmoid                  "scale" 1: 1 / (1 + exp(-scale * x)); display window [0, 1].
//   Tanh                     "scale" 1: tanh(scale * x); display window [-1, 1].
//
// All have the policy EverythingButLabels (ground truth is left alone) and treat vector
// elements as images of one pixel. Values are read and written in original intensities: a
// frame stored with shift/scale keeps them, and its stored values are what the formula gives
// in original terms (integer frames saturate and truncate). Every formula is one ImageMath
// assignment in place, so the CPU and a GPU backend evaluate the same tree.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/Operation.h"

#include <memory>
#include <vector>

namespace Velmoria::ML {

// Shared shape of the operations below: processVectors is processImages.
class IntensityOperation : public Operation
{
public:
    using Operation::Operation;

protected:
    std::shared_ptr<SharedImageSet> processVectors(std::shared_ptr<SharedImageSet> vectors) const override
    {
        return processImages(std::move(vectors));
    }
};

class ClipOperation : public IntensityOperation
{
public:
    explicit ClipOperation(float min = 0.0F, float max = 1.0F);

    AdvancedParameter<float, Operation> p_min = {"min", 0.0F, this};
    AdvancedParameter<float, Operation> p_max = {"max", 1.0F, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class LinearIntensityMappingOperation : public IntensityOperation
{
public:
    explicit LinearIntensityMappingOperation(double factor = 1.0, double bias = 0.0);

    bool doesNotModifyInput() const override;

    AdvancedParameter<double, Operation> p_factor = {"factor", 1.0, this};
    AdvancedParameter<double, Operation> p_bias = {"bias", 0.0, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class InvertOperation : public IntensityOperation
{
public:
    InvertOperation();

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class ThresholdOperation : public IntensityOperation
{
public:
    explicit ThresholdOperation(double value = 0.0, bool toUbyte = false);

    AdvancedParameter<double, Operation> p_value = {"value", 0.0, this, ParamRequired::No, "threshold"};
    AdvancedParameter<bool, Operation> p_toUbyte = {"to_ubyte", false, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class MakeFloatOperation : public IntensityOperation
{
public:
    MakeFloatOperation();

    // The input is never written: a float input is returned as it is, others are converted
    // into a new set.
    bool doesNotModifyInput() const override { return true; }

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class NormalizeNormalOperation : public IntensityOperation
{
public:
    explicit NormalizeNormalOperation(bool keepBackground = false, float backgroundValue = 0.0F);

    AdvancedParameter<bool, Operation> p_keepBackground = {"keep_background", false, this};
    AdvancedParameter<float, Operation> p_backgroundValue = {"background_value", 0.0F, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class AdjustShiftScaleOperation : public IntensityOperation
{
public:
    // The most values "shift" and "scale" may have (one per channel of an RGBA image).
    static constexpr int kMaxValues = 4;

    explicit AdjustShiftScaleOperation(std::vector<double> shift = {0.0}, std::vector<double> scale = {1.0});

    AdvancedParameter<std::vector<double>, Operation> p_shift = {
        "shift", {0.0}, this, ParamRequired::No, "adjust_shift"};
    AdvancedParameter<std::vector<double>, Operation> p_scale = {
        "scale", {1.0}, this, ParamRequired::No, "adjust_scale"};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class SigmoidOperation : public IntensityOperation
{
public:
    explicit SigmoidOperation(float scale = 1.0F);

    AdvancedParameter<float, Operation> p_scale = {"scale", 1.0F, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

class TanhOperation : public IntensityOperation
{
public:
    explicit TanhOperation(float scale = 1.0F);

    AdvancedParameter<float, Operation> p_scale = {"scale", 1.0F, this};

protected:
    std::shared_ptr<SharedImageSet> processImages(std::shared_ptr<SharedImageSet> sis) const override;
};

} // namespace Velmoria::ML
