#pragma once

// SamplingConfiguration: the block of a model file that says how images too large for the
// network are split into pieces and put back together. It is a host Configurable (not an
// Operation); its owner name, and so the category of its messages, is "SamplingConfiguration"
// ("ML.SamplingConfiguration").
//
// Keys, each also read under its older name(s) (with a deprecation warning), and the key that
// toSplitImagesAlgorithmProperties writes for the host's image-splitting algorithm. The table
// lives once, in SamplingConfiguration.cpp (kSamplingKeys); this list mirrors it:
//
//   key                                 old names                   default        split key
//   MaxSizeSubdivision                  maxSize                     -1 -1 -1       maxSize
//   PixelsOverlap                       overlap                     0              overlap
//   DimensionDivisor                    dimensionDivisor            1 1 1          dimensionDivisor
//   RecombineWeighted                   weighted                    false          weighted
//   RecombineDevice                     recombineDevice, device     GPUIfOpenGl    device
//   PaddingMode                         paddingMode                 Mirror         paddingMode
//   ExtendImage                         extendImage                 false          extendImage
//   SkipUnpadding                       skipUnpadding               see below      skipUnpadding
//   EnsureInputImageMultipleOfDivisor   ensureInputImage...         false          ensureMultipleOfDivisor
//
// A non-positive MaxSizeSubdivision means "no subdivision". SkipUnpadding defaults to true for
// model files of version 5 and above (the version the object is constructed with), else false.
// PaddingMode is read as "Mirror", "Zero" or "Clamp" in any case (or 0, 1, 2).
//
// Failures. configure never throws (configure-family rule of the project): configureChecked
// reports false and logs, in "ML.SamplingConfiguration",
//   - for version 5 and above, a key "mirrorPadding" or "MirrorPadding": "`<key>` is no longer
//     supported from version 5 on. Please use `PaddingMode: [Mirror, Clamp, Zero]` instead.";
//   - an unreadable padding mode: "Got invalid padding mode `<text>`. Please choose from Mirror,
//     Zero, Clamp. " (the trailing blank belongs to the text);
//   - the parameters' own messages for any other unreadable value.
// The checks above run before any parameter changes, so a refused tree leaves the object as it
// was; a bad value of another key leaves the keys read before it changed.

#include "ml/operations/AdvancedParameter.h"
#include "ml/operations/OperationEnums.h"

#include "host/core/Configurable.h"
#include "host/core/Properties.h"
#include "host/processing/Padding.h"

#include <Eigen/Core>
#include <string>

namespace Velmoria::ML {

class SamplingConfiguration : public Configurable
{
public:
    explicit SamplingConfiguration(int version);
    SamplingConfiguration(SamplingConfiguration const&) = delete;
    SamplingConfiguration& operator=(SamplingConfiguration const&) = delete;

    // The owner name of the parameters.
    std::string name() const { return "SamplingConfiguration"; }
    int version() const { return m_version; }

    // configureChecked without its result; a null pointer does nothing.
    void configure(Properties const* properties) override;
    // See the file comment. True for a null pointer (nothing to do).
    bool configureChecked(Properties const* properties);

    // The configured values under the split algorithm's keys, in the order of the table.
    Properties toSplitImagesAlgorithmProperties() const;

    AdvancedParameter<Eigen::Vector3i, SamplingConfiguration> p_maxSizeSubdivision = {
        "MaxSizeSubdivision", Eigen::Vector3i::Constant(-1), this};
    AdvancedParameter<int, SamplingConfiguration> p_pixelsOverlap = {"PixelsOverlap", 0, this};
    AdvancedParameter<Eigen::Vector3i, SamplingConfiguration> p_dimensionDivisor = {
        "DimensionDivisor", Eigen::Vector3i::Ones(), this};
    AdvancedParameter<bool, SamplingConfiguration> p_recombineWeighted = {"RecombineWeighted", false, this};
    AdvancedParameter<ComputingDevice, SamplingConfiguration> p_recombineDevice;
    AdvancedParameter<ImageProcessing::PaddingMode, SamplingConfiguration> p_paddingMode;
    AdvancedParameter<bool, SamplingConfiguration> p_extendImage = {"ExtendImage", false, this};
    AdvancedParameter<bool, SamplingConfiguration> p_skipUnpadding = {"SkipUnpadding", false, this};
    AdvancedParameter<bool, SamplingConfiguration> p_ensureInputImageMultipleOfDivisor = {
        "EnsureInputImageMultipleOfDivisor", false, this};

private:
    int m_version;
};

} // namespace Velmoria::ML
