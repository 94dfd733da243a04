#include "ml/model/Elevator.h"

#include "ml/model/ModelEnums.h"
#include "ml/sampling/SamplingConfiguration.h"

#include "host/core/Log.h"
#include "host/processing/Padding.h"

#include <Eigen/Core>
#include <exception>
#include <memory>
#include <utility>

namespace Velmoria::ML {

namespace {

constexpr char const* kCategory = "ML.ModelConfiguration";
constexpr char const* kSamplingCategory = "ML.SamplingConfiguration";
// The record that ties the padding added for old files to the Inverse that removes it again.
constexpr char const* kPadRecordIdentifier = "pad_to_next_dim_ev7to8_1";

// A block at top level, or null.
Properties* block(Properties& properties, char const* name)
{
    return properties.subProperties(name, false);
}

// The named operation block, inserted into the list `listName` (created when missing) at
// `index` (-1 appends).
Properties* addOperation(Properties& properties, char const* listName, char const* operation, int index)
{
    Properties* list = properties.subProperties(listName, true);
    auto entry = std::make_unique<Properties>(operation);
    if (index < 0)
        return list->addSubProperties(std::move(entry));
    return list->insertSubProperties(std::move(entry), index);
}

} // namespace

ConfigResult Elevator::configureSampling(SamplingConfiguration& sampling, Properties const& block)
{
    // The sampling block reports its faults through the log only; the first error it logs is
    // the reason the caller passes on. The capture passes every line through to the other sinks.
    Log::Capture capture(true);
    if (sampling.configureChecked(&block))
        return ConfigResult::success();
    for (Log::Record const& record : capture.records())
        if (record.level == Log::Error && record.category == kSamplingCategory)
            return ConfigResult::failure(record.message);
    return ConfigResult::failure("Invalid `Sampling` configuration");
}

ConfigResult Elevator::V2toV3(Properties& properties)
{
    std::string type;
    if (!properties.contains("Type") || !properties.param("Type", type))
        return ConfigResult::success();
    try {
        stringToModelType(type);
        return ConfigResult::success();
    } catch (std::exception const& e) {
        VELMORIA_LOG_WARNING(kCategory, "{}", e.what());
        VELMORIA_LOG_WARNING(kCategory,
                             "Interpreting 'Type' as 'PredictionType', please update your config file.");
    }
    properties.setParam("Type", modelTypeToString(ModelType::NeuralNetwork));
    properties.setParam("PredictionType", std::vector<std::string>{type});
    return ConfigResult::success();
}

ConfigResult Elevator::V3toV4(Properties& properties)
{
    if (!block(properties, "PreProcessing"))
        return ConfigResult::success();
    VELMORIA_LOG_DEBUG(kCategory, "File with version < 4.0: adding an automatic float conversion");
    addOperation(properties, "PreProcessing", "MakeFloat", 0)->setParam("phase", "Always");
    return ConfigResult::success();
}

ConfigResult Elevator::V4toV5(Properties& properties)
{
    Properties* sampling = block(properties, "Sampling");
    if (!sampling)
        return ConfigResult::success();
    bool paddingModePresent = false;
    for (char const* key : {"PaddingMode", "paddingMode"})
        paddingModePresent =
            paddingModePresent || sampling->contains(key) || sampling->findSubProperties(key);

    for (char const* name : {"mirrorPadding", "MirrorPadding"}) {
        // A bare "MirrorPadding:" (no value) may come back as an empty block; it means the default.
        Properties const* asBlock = sampling->findSubProperties(name);
        bool const asKey = sampling->contains(name);
        if (!asBlock && !asKey)
            continue;
        if (paddingModePresent)
            return ConfigResult::failure(
                "Both MirrorPadding and PaddingMode parameters were specified, please pick only one.");
        VELMORIA_LOG_WARNING(kCategory,
                             "`{}` parameter was specified, this is deprecated. Please replace with "
                             "'PaddingMode: [Mirror (default), Clamp (MirrorPadding: false), Zero]'",
                             name);
        bool mirror = true;
        if (asKey)
            sampling->param(name, mirror);
        std::string const value = mirror ? "Mirror" : "Clamp";
        sampling->setParam("PaddingMode", value);
        if (asBlock)
            sampling->deleteSubProperty(asBlock);
        sampling->removeParam(name);
        VELMORIA_LOG_DEBUG(kCategory, "Automatically converting {} to PaddingMode: {}", name, value);
        // The mode is now given; a second old key would contradict it.
        paddingModePresent = true;
    }
    return ConfigResult::success();
}

ConfigResult Elevator::V5toV6(Properties& properties)
{
    Properties::Param const* engineName = properties.findParam("Engine");
    if (!engineName)
        return ConfigResult::failure("Missing Engine");
    auto engine = std::make_unique<Properties>("Engine");
    engine->setParamValue("Name", engineName->value);
    properties.removeParam("Engine");

    // (old key, key in the block, whether the old key stays at top level)
    struct Move
    {
        char const* from;
        char const* to;
        bool keep;
    };
    static constexpr Move kMoves[] = {
        {"ModelFile", "ModelFile", false},
        {"ForceCPU", "ForceCPU", false},
        {"EngineVersion", "Version", false},
        {"EngineInputFields", "InputFields", false},
        {"EngineOutputFields", "OutputFields", false},
        {"EngineOutputFieldsToIgnore", "OutputFieldsToIgnore", false},
        {"HalfPrecision", "HalfPrecision", false},
        {"EngineParameters", nullptr, false},
        {"EngineSqueezeInput", "EngineSqueezeInput", false},
        {"DisableJITRecompile", "DisableJITRecompile", false},
        {"MaxBatchSize", "MaxBatchSize", true},
    };
    for (Move const& move : kMoves) {
        if (!move.to) {
            // The engine-specific parameters had their own block; they join the engine block.
            if (Properties const* parameters = properties.findSubProperties(move.from)) {
                engine->copyFrom(*parameters);
                properties.deleteSubProperty(parameters);
            }
            continue;
        }
        Properties::Param const* param = properties.findParam(move.from);
        if (!param)
            continue;
        Properties::Param moved = *param;
        moved.key = move.to;
        engine->setParamEntry(std::move(moved));
        if (!move.keep)
            properties.removeParam(move.from);
    }
    properties.addSubProperties(std::move(engine));
    return ConfigResult::success();
}

ConfigResult Elevator::V6toV7(Properties& properties)
{
    Properties* sampling = block(properties, "Sampling");
    if (!sampling)
        return ConfigResult::success();
    // The old behaviour padded to a multiple of the divisor by default.
    if (sampling->paramValueText("EnsureInputImageMultipleOfDivisor").empty() &&
        !sampling->paramIsList("EnsureInputImageMultipleOfDivisor"))
        sampling->setParam("EnsureInputImageMultipleOfDivisor", true);
    return ConfigResult::success();
}

ConfigResult Elevator::V7toV8(Properties& properties)
{
    Properties* samplingBlock = block(properties, "Sampling");
    if (!samplingBlock)
        return ConfigResult::success();
    int version = 0;
    if (!properties.param("Version", version))
        return ConfigResult::failure("Missing required configure parameter 'Version'");
    SamplingConfiguration sampling(version);
    if (ConfigResult result = configureSampling(sampling, *samplingBlock); !result.ok())
        return result;

    Eigen::Vector3i const maxSize = sampling.p_maxSizeSubdivision.value();
    Eigen::Vector3i const divisor = sampling.p_dimensionDivisor.value();
    std::string const paddingMode = ImageProcessing::paddingModeToString(sampling.p_paddingMode.value());

    if ((maxSize.array() > 0).any()) {
        for (int axis = 0; axis < 3; ++axis) {
            // A non-positive divisor divides nothing (and must not be divided by).
            if (divisor[axis] <= 0 || maxSize[axis] % divisor[axis] != 0)
                return ConfigResult::failure("MaxSizeSubdivision is not a multiple of DimensionDivisor.");
        }
        Properties* split = addOperation(properties, "PreProcessing", "SplitIntoPatches", -1);
        split->setParam("patch_size", maxSize);
        split->setParam("patch_step_size", 0.8);
        split->setParam("padding_mode", paddingMode);
        split->setParamType("padding_mode", ParamType::Enumeration);

        bool const cpu = sampling.p_recombineDevice.value() == ComputingDevice::ForceCPU;
        Properties* recombine = addOperation(properties, "PostProcessing", "RecombinePatches", 0);
        recombine->setParam("mode", sampling.p_recombineWeighted.value() ? "Weighted" : "Default");
        recombine->setParamType("mode", ParamType::Enumeration);
        recombine->setParam("device",
                            deviceToString(cpu ? ComputingDevice::ForceCPU : ComputingDevice::GPUIfOpenGl));
        recombine->setParamType("device", ParamType::Enumeration);
    } else if ((divisor.array() > 1).any()) {
        Properties* pad = addOperation(properties, "PreProcessing", "PadDimsToNextMultiple", -1);
        pad->setParam("dimension_divisor", divisor);
        pad->setParam("padding_mode", paddingMode);
        pad->setParamType("padding_mode", ParamType::Enumeration);
        pad->setParam("allow_dimension_change", false);
        pad->setParam("record_identifier", kPadRecordIdentifier);

        bool skipUnpadding = false;
        if (!samplingBlock->param("SkipUnpadding", skipUnpadding))
            samplingBlock->param("skipUnpadding", skipUnpadding);
        if (!skipUnpadding)
            addOperation(properties, "PostProcessing", "Inverse", 0)
                ->setParam("target_identifier", kPadRecordIdentifier);
    }
    return ConfigResult::success();
}

} // namespace Velmoria::ML
