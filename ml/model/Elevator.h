#pragma once

// Elevator: the upgrades of model files from one schema version to the next.
//
// Model files live for years, so every schema change comes with one function here that rewrites
// the parsed tree of a file in place from schema n to n + 1. ModelConfiguration chains them from
// the version a file names up to the version it is to behave as. Each returns a ConfigResult:
// status 0 and no message, or status 1 and the reason.
//
//   V2toV3  "Type" used to hold the prediction type: a "Type" that is no model type (warning in
//           "ML.ModelConfiguration") becomes "PredictionType: [<text>]" and "Type" NeuralNetwork.
//   V3toV4  a "PreProcessing" list gets a leading "MakeFloat" (phase Always): older files relied
//           on an implicit float conversion.
//   V4toV5  "MirrorPadding"/"mirrorPadding" in "Sampling" become "PaddingMode: Mirror|Clamp"
//           (true/missing value -> Mirror); fails when "PaddingMode" is given as well.
//   V5toV6  the engine keys at top level move into the block "Engine" ("Engine" -> "Name",
//           "EngineVersion" -> "Version", "EngineInputFields" -> "InputFields", ...; the keys of
//           the block "EngineParameters" are merged in; "MaxBatchSize" is copied and kept).
//           Fails with "Missing Engine" when the key "Engine" is absent.
//   V6toV7  "Sampling" gets "EnsureInputImageMultipleOfDivisor: true" unless it has the key.
//   V7toV8  the implicit splitting of "Sampling" becomes explicit operations: a positive
//           "MaxSizeSubdivision" appends "SplitIntoPatches" to "PreProcessing" and puts
//           "RecombinePatches" first in "PostProcessing"; otherwise a "DimensionDivisor" above 1
//           appends "PadDimsToNextMultiple" and, unless "SkipUnpadding" is set to true in the
//           block itself, puts an "Inverse" of it first in "PostProcessing". "SkipUnpadding" is
//           read from the block on purpose: the sampling block's version-dependent default
//           (true from version 5) would otherwise drop the unpadding that these files did.
//           The "Sampling" block stays.
//
// Nothing here throws.

#include "host/core/Properties.h"

#include <optional>
#include <string>

namespace Velmoria::ML {

class SamplingConfiguration;

// The result of a step that may refuse its input: status 0 is success, 1 failure with a reason.
struct ConfigResult
{
    int status = 0;
    std::optional<std::string> message;

    bool ok() const { return status == 0; }
    static ConfigResult success() { return {}; }
    static ConfigResult failure(std::string why) { return {1, std::move(why)}; }
};

class Elevator
{
public:
    static ConfigResult V2toV3(Properties& properties);
    static ConfigResult V3toV4(Properties& properties);
    static ConfigResult V4toV5(Properties& properties);
    static ConfigResult V5toV6(Properties& properties);
    static ConfigResult V6toV7(Properties& properties);
    static ConfigResult V7toV8(Properties& properties);

    // Configures `sampling` from `block` and, on failure, returns the first error message that
    // the sampling block logged (SamplingConfiguration reports through its log only).
    static ConfigResult configureSampling(SamplingConfiguration& sampling, Properties const& block);
};

} // namespace Velmoria::ML
