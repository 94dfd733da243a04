#include "ml/model/Elevator.h"

#include "ml/operations/PropertiesYAML.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

using Step = std::function<ConfigResult(Properties&)>;

std::unique_ptr<Properties> parse(std::string const& yaml)
{
    auto properties = PropertiesYAML::createFromString(yaml);
    EXPECT_NE(properties, nullptr) << yaml;
    return properties;
}

// A step applied to a file gives exactly the tree of the expected file; a step that refuses its
// input (`after` starts with "!") reports status 1 and says why.
struct StepCase
{
    std::string label;
    Step step;
    std::string before;
    std::string after;
};

class ElevatorStep : public testing::TestWithParam<StepCase>
{};

TEST_P(ElevatorStep, RewritesTheTreeAsTheNextSchemaReadsIt)
{
    Log::Capture capture;
    auto tree = parse(GetParam().before);
    ASSERT_TRUE(tree);
    ConfigResult const result = GetParam().step(*tree);
    if (GetParam().after.starts_with("!")) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.message.value_or("<none>"), GetParam().after.substr(1));
        return;
    }
    auto const expected = parse(GetParam().after);
    ASSERT_TRUE(expected);
    EXPECT_EQ(result.status, 0) << result.message.value_or("");
    EXPECT_FALSE(result.message.has_value());
    EXPECT_TRUE(tree->compareWith(*expected, 0)) << tree->describe() << "\nexpected:\n"
                                                 << expected->describe();
}

INSTANTIATE_TEST_SUITE_P(
    All, ElevatorStep,
    testing::Values(
        StepCase{"V2toV3TypeHeldPredictionType", Elevator::V2toV3, "Version: 2\nType: Regression\n",
                 "Version: 2\nType: NeuralNetwork\nPredictionType: [Regression]\n"},
        StepCase{"V2toV3ModelTypeStays", Elevator::V2toV3, "Version: 2\nType: randomforest\n",
                 "Version: 2\nType: randomforest\n"},
        StepCase{"V2toV3NoType", Elevator::V2toV3, "Version: 2\nName: a\n", "Version: 2\nName: a\n"},
        StepCase{"V3toV4AddsMakeFloatFirst", Elevator::V3toV4,
                 "Version: 3\nPreProcessing:\n  - Normalize: {}\n",
                 "Version: 3\nPreProcessing:\n  - MakeFloat: {phase: Always}\n  - Normalize: {}\n"},
        StepCase{"V3toV4WithoutList", Elevator::V3toV4, "Version: 3\n", "Version: 3\n"},
        StepCase{"V4toV5MirrorTrue", Elevator::V4toV5,
                 "Version: 6\nSampling:\n  MirrorPadding: true\n  overlap: 2\n",
                 "Version: 6\nSampling:\n  overlap: 2\n  PaddingMode: Mirror\n"},
        StepCase{"V4toV5MirrorFalse", Elevator::V4toV5, "Version: 6\nSampling:\n  mirrorPadding: false\n",
                 "Version: 6\nSampling:\n  PaddingMode: Clamp\n"},
        StepCase{"V4toV5NothingToDo", Elevator::V4toV5, "Version: 6\nSampling:\n  paddingMode: Zero\n",
                 "Version: 6\nSampling:\n  paddingMode: Zero\n"},
        StepCase{"V5toV6MovesEngineKeys", Elevator::V5toV6,
                 "Version: 5\nEngine: torch\nModelFile: m.pt\nForceCPU: true\nEngineVersion: '1.8'\n"
                 "EngineInputFields: [a, b]\nEngineOutputFields: [c]\nEngineOutputFieldsToIgnore: [d]\n"
                 "HalfPrecision: false\nEngineParameters:\n  threads: 4\nEngineSqueezeInput: true\n"
                 "DisableJITRecompile: true\nMaxBatchSize: 3\nName: n\n",
                 "Version: 5\nMaxBatchSize: 3\nName: n\nEngine:\n  Name: torch\n  ModelFile: m.pt\n"
                 "  ForceCPU: true\n  Version: '1.8'\n  InputFields: [a, b]\n  OutputFields: [c]\n"
                 "  OutputFieldsToIgnore: [d]\n  HalfPrecision: false\n  threads: 4\n"
                 "  EngineSqueezeInput: true\n  DisableJITRecompile: true\n  MaxBatchSize: 3\n"},
        StepCase{"V6toV7EnsuresMultiple", Elevator::V6toV7, "Version: 6\nSampling:\n  overlap: 2\n",
                 "Version: 6\nSampling:\n  overlap: 2\n  EnsureInputImageMultipleOfDivisor: true\n"},
        StepCase{"V6toV7KeepsGivenValue", Elevator::V6toV7,
                 "Version: 6\nSampling:\n  EnsureInputImageMultipleOfDivisor: false\n",
                 "Version: 6\nSampling:\n  EnsureInputImageMultipleOfDivisor: false\n"},
        StepCase{"V6toV7WithoutSampling", Elevator::V6toV7, "Version: 6\n", "Version: 6\n"},
        StepCase{"V7toV8WithoutSampling", Elevator::V7toV8, "Version: 7\n", "Version: 7\n"},
        StepCase{
            "V7toV8SplitsIntoPatches", Elevator::V7toV8,
            "Version: 7\nSampling:\n  MaxSizeSubdivision: [128, 96, -1]\n  DimensionDivisor: [16, 16, 1]\n"
            "  RecombineWeighted: true\n  RecombineDevice: force_cpu\n  PaddingMode: Zero\n"
            "PreProcessing:\n  - MakeFloat: {}\n"
            "PostProcessing:\n  - ArgMax: {}\n",
            "Version: 7\nSampling:\n  MaxSizeSubdivision: [128, 96, -1]\n  DimensionDivisor: [16, 16, 1]\n"
            "  RecombineWeighted: true\n  RecombineDevice: force_cpu\n  PaddingMode: Zero\n"
            "PreProcessing:\n  - MakeFloat: {}\n"
            "  - SplitIntoPatches: {patch_size: [128, 96, -1], patch_step_size: 0.8, padding_mode: Zero}\n"
            "PostProcessing:\n  - RecombinePatches: {mode: Weighted, device: ForceCPU}\n  - ArgMax: {}\n"},
        StepCase{"V7toV8SplitDefaultsToGpuDevice", Elevator::V7toV8,
                 "Version: 7\nSampling:\n  MaxSizeSubdivision: [64, 64, 64]\n",
                 "Version: 7\nSampling:\n  MaxSizeSubdivision: [64, 64, 64]\n"
                 "PreProcessing:\n  - SplitIntoPatches: {patch_size: [64, 64, 64], patch_step_size: 0.8, "
                 "padding_mode: Mirror}\n"
                 "PostProcessing:\n  - RecombinePatches: {mode: Default, device: GPUIfOpenGl}\n"},
        StepCase{"V7toV8PadsAndUnpads", Elevator::V7toV8,
                 "Version: 7\nSampling:\n  DimensionDivisor: [16, 16, 1]\n",
                 "Version: 7\nSampling:\n  DimensionDivisor: [16, 16, 1]\n"
                 "PreProcessing:\n  - PadDimsToNextMultiple: {dimension_divisor: [16, 16, 1], padding_mode: "
                 "Mirror, "
                 "allow_dimension_change: false, record_identifier: pad_to_next_dim_ev7to8_1}\n"
                 "PostProcessing:\n  - Inverse: {target_identifier: pad_to_next_dim_ev7to8_1}\n"},
        StepCase{"V7toV8PadsWithoutUnpadding", Elevator::V7toV8,
                 "Version: 7\nSampling:\n  DimensionDivisor: [16, 16, 1]\n  SkipUnpadding: true\n",
                 "Version: 7\nSampling:\n  DimensionDivisor: [16, 16, 1]\n  SkipUnpadding: true\n"
                 "PreProcessing:\n  - PadDimsToNextMultiple: {dimension_divisor: [16, 16, 1], padding_mode: "
                 "Mirror, "
                 "allow_dimension_change: false, record_identifier: pad_to_next_dim_ev7to8_1}\n"},
        StepCase{"V7toV8NothingToSplitOrPad", Elevator::V7toV8, "Version: 7\nSampling:\n  PixelsOverlap: 4\n",
                 "Version: 7\nSampling:\n  PixelsOverlap: 4\n"},
        StepCase{"BothPaddingKeys", Elevator::V4toV5,
                 "Version: 6\nSampling:\n  MirrorPadding: true\n  PaddingMode: Zero\n",
                 "!Both MirrorPadding and PaddingMode parameters were specified, please pick only one."},
        StepCase{"MissingEngine", Elevator::V5toV6, "Version: 5\nModelFile: m.pt\n", "!Missing Engine"},
        StepCase{
            "SplitNotMultipleOfDivisor", Elevator::V7toV8,
            "Version: 7\nSampling:\n  MaxSizeSubdivision: [100, 100, 1]\n  DimensionDivisor: [16, 16, 1]\n",
            "!MaxSizeSubdivision is not a multiple of DimensionDivisor."},
        StepCase{"ZeroDivisor", Elevator::V7toV8,
                 "Version: 7\nSampling:\n  MaxSizeSubdivision: [64, 64, 1]\n  DimensionDivisor: [0, 16, 1]\n",
                 "!MaxSizeSubdivision is not a multiple of DimensionDivisor."},
        StepCase{"SplitWithoutVersion", Elevator::V7toV8,
                 "Name: x\nSampling:\n  MaxSizeSubdivision: [64, 64, 1]\n",
                 "!Missing required configure parameter 'Version'"},
        StepCase{"BadPaddingMode", Elevator::V7toV8, "Version: 7\nSampling:\n  PaddingMode: Wrap\n",
                 "!Got invalid padding mode `Wrap`. Please choose from Mirror, Zero, Clamp. "}),
    [](testing::TestParamInfo<StepCase> const& info) { return info.param.label; });

TEST(ElevatorLog, TypeReinterpretationIsAWarning)
{
    Log::Capture capture;
    auto tree = parse("Type: Regression\n");
    Elevator::V2toV3(*tree);
    EXPECT_TRUE(capture.contains("Interpreting 'Type' as 'PredictionType', please update your config file.",
                                 "ML.ModelConfiguration"));
    EXPECT_TRUE(
        capture.contains("Unknown model type 'Regression', supported are ['RandomForest', 'NeuralNetwork']",
                         "ML.ModelConfiguration"));
}

TEST(ElevatorLog, SplitOperationsGetEnumerationTypes)
{
    Log::Capture capture;
    auto tree = parse("Version: 7\nSampling:\n  MaxSizeSubdivision: [32, 32, 32]\n");
    ASSERT_TRUE(Elevator::V7toV8(*tree).ok());
    Properties const* split = tree->findSubProperties("PreProcessing")->findSubProperties("SplitIntoPatches");
    Properties const* recombine =
        tree->findSubProperties("PostProcessing")->findSubProperties("RecombinePatches");
    ASSERT_TRUE(split && recombine);
    EXPECT_EQ(ParamType::kind(split->paramType("padding_mode")), ParamType::Enumeration);
    EXPECT_EQ(ParamType::kind(recombine->paramType("mode")), ParamType::Enumeration);
    EXPECT_EQ(ParamType::kind(recombine->paramType("device")), ParamType::Enumeration);
}

} // namespace
