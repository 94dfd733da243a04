#include "ml/model/ModelConfiguration.h"

#include "ml/model/ModelEnums.h"
#include "ml/operations/ParamException.h"
#include "ml/operations/PropertiesYAML.h"
#include "tests/ml/TestHelpers.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

// A complete schema-8 file that sets every key away from its default.
std::string const kFullFile = R"(Version: 8
Name: Liver
Description: liver segmentation
Type: NeuralNetwork
Verbose: true
MaxBatchSize: 4
CloneInputContainer: true
RingBufferSize: 3
CommercialUseAllowed: false
PreprocessingInputFields: [Input, Mask]
PredictionOutput: [Image, Vector]
PredictionType: [Classification, Regression]
Engine:
  Name: torch
  ModelFile: model.pt
  ForceCPU: true
  InputFields: [Input]
  OutputFields: [Prediction, Score]
LabelNames:
  Prediction: [Liver, Tumour]
  Score: [Low, High]
PreProcessing:
  - MakeFloat: {}
  - Normalize: {phase: Inference}
PostProcessing:
  - ArgMax: {}
Sampling:
  MaxSizeSubdivision: [64, 64, 32]
  DimensionDivisor: [16, 16, 16]
Acknowledgments:
  Authors: A. Person
  License: MIT
)";

// The smallest file that loads.
std::string const kMinimalFile = R"(Version: 8
PredictionOutput: [Image]
Engine:
  ModelFile: model.pt
)";

// The same model written for `version` (2 to 8): each older schema spells one more thing the
// old way, so that loading it with the upgrade flag runs every step from that version on.
std::string modelFileOfVersion(int version)
{
    std::string text = "Version: " + std::to_string(version) + "\nPredictionOutput: [Image]\n";
    text += version <= 2 ? "Type: Regression\n" : "Type: NeuralNetwork\nPredictionType: [Regression]\n";
    text += version <= 5 ? "Engine: torch\nModelFile: model.pt\nEngineOutputFields: [Prediction]\n"
                         : "Engine:\n  Name: torch\n  ModelFile: model.pt\n  OutputFields: [Prediction]\n";
    text += version <= 3 ? "PreProcessing:\n  - Normalize: {}\n"
                         : "PreProcessing:\n  - MakeFloat: {phase: Always}\n  - Normalize: {}\n";
    text += "Sampling:\n  SkipUnpadding: false\n";
    text += version <= 4 ? "  mirrorPadding: false\n" : "  PaddingMode: Clamp\n";
    if (version >= 7)
        text += "  EnsureInputImageMultipleOfDivisor: true\n";
    return text;
}

class ModelConfigurationTest : public testing::Test
{
protected:
    std::string write(std::string const& fileName, std::string const& text)
    {
        std::string const path = (m_folder.path().stdPath() / fileName).string();
        EXPECT_TRUE(Filesystem::File(Filesystem::Path(path)).writeText(text));
        return path;
    }
    std::unique_ptr<ModelConfiguration> load(std::string const& text,
                                             std::string const& fileName = "model.yaml")
    {
        return std::make_unique<ModelConfiguration>(write(fileName, text), PredictionOutput::Unknown);
    }
    std::string folder() const { return m_folder.path().str(); }

    Log::Capture m_capture;
    Filesystem::TemporaryDirectory m_folder{"modelconfig"};
};

TEST_F(ModelConfigurationTest, FullFileSetsEveryField)
{
    write("model.pt", "not a network");
    auto const config = load(kFullFile);
    ASSERT_EQ(config->status(), 0) << config->errorMessage().value_or("");
    EXPECT_FALSE(config->errorMessage().has_value());
    // The block is read (and kept), but a version-8 prediction splits through operations only.
    EXPECT_TRUE(m_capture.containsFragment("has no effect in a file of version 8: split with SplitIntoPatches"));
    EXPECT_EQ(config->version(), 8);
    EXPECT_EQ(config->upgradedVersion(), 8);
    EXPECT_EQ(config->name(), "Liver");
    EXPECT_EQ(config->description(), "liver segmentation");
    EXPECT_EQ(config->modelType(), ModelType::NeuralNetwork);
    EXPECT_TRUE(config->verbose());
    EXPECT_EQ(config->maxBatchSize(), 4);
    EXPECT_TRUE(config->mustCloneInputContainer());
    EXPECT_EQ(config->ringBufferSize(), std::optional<int>(3));
    EXPECT_FALSE(config->commercialUseAllowed());
    EXPECT_EQ(config->preprocessingInputFields(), (std::vector<std::string>{"Input", "Mask"}));
    EXPECT_EQ(config->predictionOutputTypes(),
              (std::vector<PredictionOutput>{PredictionOutput::Image, PredictionOutput::Vector}));
    EXPECT_EQ(config->predictionTypes(),
              (std::vector<PredictionType>{PredictionType::Classification, PredictionType::Regression}));
    EXPECT_EQ(config->engine(), "torch");
    // A relative model file is found next to the YAML file.
    EXPECT_EQ(Filesystem::Path(config->modelPath()).stdPath(), m_folder.path().stdPath() / "model.pt");
    EXPECT_EQ(config->engineOutputFields(), (std::vector<std::string>{"Prediction", "Score"}));
    EXPECT_TRUE(config->forceCPU());
    EXPECT_TRUE(config->getEngineProperties().paramOr("Verbose", false));
    EXPECT_TRUE(config->mustSplitImage());
    EXPECT_EQ(config->getSamplingParameters().paramOr("maxSize", Eigen::Vector3i::Zero().eval()),
              Eigen::Vector3i(64, 64, 32));
    EXPECT_EQ(config->acknowledgments().paramOr("Authors", ""), "A. Person");

    ASSERT_EQ(config->getPreProcessingOptions().size(), 2u);
    EXPECT_EQ(config->getPreProcessingOptions()[1].name, "Normalize");
    EXPECT_EQ(config->getPreProcessingOptions()[1].phase, Phase::Inference);
    // The file's list, then one label operation per label-name entry, in key order.
    auto const& post = config->getPostProcessingOptions();
    ASSERT_EQ(post.size(), 3u);
    EXPECT_EQ(post[0].name, "ArgMax");
    EXPECT_EQ(post[1].name, "SetLabelModality");
    EXPECT_EQ(post[1].phase, Phase::Always);
    EXPECT_EQ(post[1].properties.paramOr("apply_to", std::vector<std::string>{}),
              std::vector<std::string>{"Prediction"});
    EXPECT_EQ(post[1].properties.paramOr("label_names", std::vector<std::string>{}),
              (std::vector<std::string>{"Liver", "Tumour"}));
    EXPECT_EQ(post[2].properties.paramOr("apply_to", std::vector<std::string>{}),
              std::vector<std::string>{"Score"});
}

TEST_F(ModelConfigurationTest, MinimalFileKeepsTheDefaultsThatDecideHowItRuns)
{
    // Flat label names belong to the prediction field.
    auto const config = load(kMinimalFile + "LabelNames: [Background, Liver]\n");
    ASSERT_EQ(config->status(), 0) << config->errorMessage().value_or("");
    EXPECT_EQ(config->labelNames(),
              (std::map<std::string, std::vector<std::string>>{{"Prediction", {"Background", "Liver"}}}));
    EXPECT_EQ(config->maxBatchSize(), 1);
    EXPECT_TRUE(config->commercialUseAllowed());
    EXPECT_EQ(config->preprocessingInputFields(), std::vector<std::string>{"Input"});
    EXPECT_EQ(config->engineOutputFields(), std::vector<std::string>{"Prediction"});
    EXPECT_FALSE(config->mustSplitImage());

    // Without "PredictionOutput", the caller's default stands in.
    ModelConfiguration const vector(write("vector.yaml", "Version: 8\nEngine: {ModelFile: model.pt}\n"),
                                    PredictionOutput::Vector);
    ASSERT_EQ(vector.status(), 0) << vector.errorMessage().value_or("");
    EXPECT_EQ(vector.predictionOutputTypes(), std::vector<PredictionOutput>{PredictionOutput::Vector});
}

TEST_F(ModelConfigurationTest, TreeLoadsLikeTheFile)
{
    auto const fromFile = load(modelFileOfVersion(4));
    auto tree = PropertiesYAML::createFromString(modelFileOfVersion(4));
    ASSERT_TRUE(tree);
    ModelConfiguration const fromTree(*tree, folder() + "/model.yaml");
    ASSERT_EQ(fromTree.status(), 0) << fromTree.errorMessage().value_or("");
    EXPECT_EQ(fromTree.upgradedVersion(), 7);
    EXPECT_TRUE(fromTree == *fromFile);
    EXPECT_EQ(fromTree.modelPath(), fromFile->modelPath());
}

TEST_F(ModelConfigurationTest, SetForceCpuEmitsTheEngineSignalOnChangeOnly)
{
    auto config = load(kMinimalFile);
    int changes = 0;
    config->engineConfiguration().p_forceCPU.signalValueChanged.connect([&changes](bool) { ++changes; });
    config->setForceCPU(true);
    config->setForceCPU(true);
    EXPECT_TRUE(config->forceCPU());
    EXPECT_EQ(changes, 1);
}

// ---- Refused files ------------------------------------------------------------------------

struct BadFileCase
{
    std::string label;
    std::string fileName;
    std::string text;
    std::string message; // "{path}" stands for the absolute path of the file
};

class ModelConfigurationBadFile : public ModelConfigurationTest,
                                  public testing::WithParamInterface<BadFileCase>
{};

TEST_P(ModelConfigurationBadFile, HasStatusOneAndTheReason)
{
    BadFileCase const& c = GetParam();
    std::string const path = write(c.fileName, c.text);
    ModelConfiguration const config(path, PredictionOutput::Unknown);
    std::string expected = c.message;
    if (auto at = expected.find("{path}"); at != std::string::npos)
        expected.replace(at, 6, path);
    EXPECT_EQ(config.status(), 1);
    EXPECT_EQ(config.errorMessage().value_or("<none>"), expected);
}

std::string const kEngine = "Engine:\n  ModelFile: model.pt\n";

INSTANTIATE_TEST_SUITE_P(
    All, ModelConfigurationBadFile,
    testing::Values(
        BadFileCase{
            "YmlExtension", "model.yml", kMinimalFile,
            "Failed to open Config file: {path}. Config file should have .yaml extension and corresponding "
            "format."},
        BadFileCase{
            "ConfigTxt", "model.configtxt", kMinimalFile,
            "Models specified in .configtxt or .model files are not supported anymore, please use a .yaml "
            "based model."},
        BadFileCase{"NotYaml", "model.yaml", "Version: [8\n", "Could not parse {path} as YAML file"},
        BadFileCase{"MissingVersion", "model.yaml", "PredictionOutput: [Image]\n" + kEngine,
                    "Missing required configure parameter 'Version'"},
        BadFileCase{"UnreadableVersion", "model.yaml",
                    "Version: eight\nPredictionOutput: [Image]\n" + kEngine,
                    "Parameter 'Version' could not be parsed, please check the syntax"},
        BadFileCase{"UnreadableFlag", "model.yaml", kMinimalFile + "UpgradeToMLModelV2: maybe\n",
                    "Parameter 'UpgradeToMLModelV2' could not be parsed, please check the syntax"},
        BadFileCase{"BadModelType", "model.yaml", kMinimalFile + "Type: SVM\n",
                    "Parameter 'Type' could not be parsed, please check the syntax"},
        BadFileCase{"MissingEngineBlock", "model.yaml", "Version: 8\nPredictionOutput: [Image]\n",
                    "Missing `Engine` configuration"},
        BadFileCase{"EngineWithoutModelFile", "model.yaml",
                    "Version: 8\nPredictionOutput: [Image]\nEngine:\n  Name: torch\n",
                    "Missing required configure parameter 'ModelFile'"},
        BadFileCase{"NoPredictionOutput", "model.yaml", "Version: 8\n" + kEngine,
                    "'PredictionOutput' was not specified in the configuration file."},
        BadFileCase{"UnknownPredictionOutput", "model.yaml",
                    "Version: 8\nPredictionOutput: [Unknown]\n" + kEngine,
                    "'PredictionOutput' was not specified in the configuration file."},
        BadFileCase{
            "BadPredictionOutput", "model.yaml", "Version: 8\nPredictionOutput: [Mesh]\n" + kEngine,
            "Unknown prediction output 'Mesh', supported are ['Unknown', 'Vector', 'Image', 'Keypoints', "
            "'BoundingBoxes', 'Tensor']"},
        BadFileCase{"TooManyOutputs", "model.yaml",
                    "Version: 8\nPredictionOutput: [Image, Image]\n" + kEngine,
                    "Number of 'PredictionOutput': 2 does not match number of 'EngineOutputFields': 1."},
        BadFileCase{"TooManyPredictionTypes", "model.yaml",
                    kMinimalFile + "PredictionType: [Classification, Regression]\n",
                    "Number of 'PredictionType': 2 does not match number of engine output fields: 1."},
        BadFileCase{"BadPredictionType", "model.yaml", kMinimalFile + "PredictionType: [Segmentation]\n",
                    "Unknown prediction type 'Segmentation', supported are ['Unknown', 'Classification', "
                    "'Regression', 'ObjectDetection']"},
        BadFileCase{"LabelNamesOfUnknownField", "model.yaml",
                    kMinimalFile + "LabelNames:\n  Seg: [a]\n  Prediction: [b]\n",
                    "'LabelNames' keys must be contained in 'EngineOutputFields'. Found 'Seg' which is not."},
        BadFileCase{
            "MirrorPaddingInNewFile", "model.yaml", kMinimalFile + "Sampling:\n  MirrorPadding: true\n",
            "`MirrorPadding` is no longer supported from version 5 on. Please use `PaddingMode: [Mirror, "
            "Clamp, Zero]` instead."},
        BadFileCase{"BadPaddingMode", "model.yaml", kMinimalFile + "Sampling:\n  PaddingMode: Wrap\n",
                    "Got invalid padding mode `Wrap`. Please choose from Mirror, Zero, Clamp. "},
        BadFileCase{"UpgradeWithoutEngine", "model.yaml",
                    "Version: 5\nPredictionOutput: [Image]\nModelFile: m.pt\n", "Missing Engine"}),
    [](testing::TestParamInfo<BadFileCase> const& info) { return info.param.label; });

TEST_F(ModelConfigurationTest, MissingFileAndNegativeVersionAreRefused)
{
    ModelConfiguration const config(folder() + "/absent.yaml", PredictionOutput::Unknown);
    EXPECT_EQ(config.status(), 1);
    EXPECT_EQ(config.errorMessage().value_or(""),
              "Could not parse " + folder() + "/absent.yaml as YAML file");

    // A negative version names an upgrade that cannot exist.
    std::string const path = write("model.yaml", "Version: -1\nPredictionOutput: [Image]\n" + kEngine);
    MLTest::expectThrowWithMessage<std::runtime_error>(
        [&] { ModelConfiguration negative(path, PredictionOutput::Unknown); },
        "Upgrade function from Version -1 to Version 0 not implemented.");
}

// ---- Schema versions ----------------------------------------------------------------------

int upgradeNotices(Log::Capture const& capture)
{
    auto const records = capture.records();
    return static_cast<int>(std::ranges::count_if(records, [](Log::Record const& r) {
        return r.level == Log::Info && r.category == "ML.ModelConfiguration" &&
               r.message.starts_with("The model configuration will be upgraded to version 7, but the latest "
                                     "available version is 8\n");
    }));
}

std::string const kVersion7WithDivisor =
    "Version: 7\nPredictionOutput: [Image]\n" + kEngine + "Sampling:\n  DimensionDivisor: [16, 16, 1]\n";

TEST_F(ModelConfigurationTest, Version7BehavesAs7AndSaysSoOnceUnlessFlagged)
{
    auto const config = load(kVersion7WithDivisor);
    ASSERT_EQ(config->status(), 0) << config->errorMessage().value_or("");
    EXPECT_EQ(config->upgradedVersion(), 7);
    EXPECT_EQ(upgradeNotices(m_capture), 1);
    EXPECT_TRUE(m_capture.containsFragment("\tTo update the configuration and use the new behaviour, please "
                                           "set the flag `UpgradeToMLModelV2` to true"));
    // Still the implicit padding of the sampling block: no explicit operations.
    EXPECT_TRUE(config->getPreProcessingOptions().empty());
    EXPECT_TRUE(config->getPostProcessingOptions().empty());

    m_capture.clear();
    auto const flagged = load(kVersion7WithDivisor + "UpgradeToMLModelV2: true\n");
    ASSERT_EQ(flagged->status(), 0) << flagged->errorMessage().value_or("");
    EXPECT_EQ(flagged->upgradedVersion(), 8);
    EXPECT_EQ(flagged->version(), 7);
    ASSERT_EQ(flagged->getPreProcessingOptions().size(), 1u);
    EXPECT_EQ(flagged->getPreProcessingOptions()[0].name, "PadDimsToNextMultiple");
    ASSERT_EQ(flagged->getPostProcessingOptions().size(), 1u);
    EXPECT_EQ(flagged->getPostProcessingOptions()[0].name, "Inverse");

    // Newer schemas behave as the latest one, without a notice either.
    auto const newer = load("Version: 9\nPredictionOutput: [Image]\n" + kEngine);
    ASSERT_EQ(newer->status(), 0) << newer->errorMessage().value_or("");
    EXPECT_EQ(newer->version(), 9);
    EXPECT_EQ(newer->upgradedVersion(), 8);
    EXPECT_EQ(upgradeNotices(m_capture), 0);
}

class ModelConfigurationOldVersion : public ModelConfigurationTest, public testing::WithParamInterface<int>
{};

TEST_P(ModelConfigurationOldVersion, UpgradesToTheSameModelAsTheCurrentFile)
{
    int const version = GetParam();
    auto const old = load(modelFileOfVersion(version) + "UpgradeToMLModelV2: true\n", "old.yaml");
    auto const current = load(modelFileOfVersion(8), "current.yaml");
    ASSERT_EQ(old->status(), 0) << old->errorMessage().value_or("");
    ASSERT_EQ(current->status(), 0) << current->errorMessage().value_or("");
    EXPECT_EQ(old->upgradedVersion(), 8);
    EXPECT_TRUE(old->compareWith(*current, true));
    EXPECT_EQ(*old != *current, version != 8);
    EXPECT_EQ(old->predictionTypes(), std::vector<PredictionType>{PredictionType::Regression});
    EXPECT_EQ(old->engine(), "torch");
}

INSTANTIATE_TEST_SUITE_P(All, ModelConfigurationOldVersion, testing::Range(2, 9));

// ---- Saving -------------------------------------------------------------------------------

class ModelConfigurationSave : public ModelConfigurationTest, public testing::WithParamInterface<std::string>
{};

TEST_P(ModelConfigurationSave, SavedFileLoadsAsSchema8AndEqual)
{
    auto const original = load(GetParam(), "original.yaml");
    ASSERT_EQ(original->status(), 0) << original->errorMessage().value_or("");
    std::string const saved = folder() + "/saved.yaml";
    ASSERT_TRUE(original->save(saved));

    ModelConfiguration const reloaded(saved, PredictionOutput::Unknown);
    ASSERT_EQ(reloaded.status(), 0) << reloaded.errorMessage().value_or("");
    EXPECT_EQ(reloaded.upgradedVersion(), 8);
    EXPECT_GE(reloaded.version(), 8);
    // What the original gives once upgraded to 8, apart from "Version" and the flag.
    auto const upgraded = load(GetParam() + "UpgradeToMLModelV2: true\n", "upgraded.yaml");
    ASSERT_EQ(upgraded->status(), 0) << upgraded->errorMessage().value_or("");
    EXPECT_TRUE(reloaded.compareWith(*upgraded, true));
    // The label operations are not saved, so loading does not double them.
    EXPECT_EQ(reloaded.getPostProcessingOptions().size(), upgraded->getPostProcessingOptions().size());
}

std::string saveCaseName(testing::TestParamInfo<std::string> const& info)
{
    static char const* const kNames[] = {"Full", "Minimal", "Version7WithDivisor", "Version2", "Version5"};
    return kNames[info.index];
}

INSTANTIATE_TEST_SUITE_P(All, ModelConfigurationSave,
                         testing::Values(kFullFile, kMinimalFile, kVersion7WithDivisor, modelFileOfVersion(2),
                                         modelFileOfVersion(5)),
                         saveCaseName);

TEST_F(ModelConfigurationTest, SavingOneLabelEntryWritesItFlat)
{
    auto const config = load("Version: 8\nPredictionOutput: [Image]\nEngine:\n  ModelFile: model.pt\n"
                             "  OutputFields: [Seg]\nLabelNames:\n  Seg: [a, b]\n");
    ASSERT_EQ(config->status(), 0) << config->errorMessage().value_or("");
    std::string const saved = folder() + "/saved.yaml";
    ASSERT_TRUE(config->save(saved));
    ModelConfiguration const reloaded(saved, PredictionOutput::Unknown);
    EXPECT_EQ(reloaded.status(), 1);
    EXPECT_EQ(
        reloaded.errorMessage().value_or(""),
        "'LabelNames' keys must be contained in 'EngineOutputFields'. Found 'Prediction' which is not.");
}

TEST_F(ModelConfigurationTest, SaveFailsIntoAMissingFolderAndForAFailedConfiguration)
{
    std::string const path = folder() + "/absent/saved.yaml";
    EXPECT_FALSE(load(kMinimalFile)->save(path));
    EXPECT_TRUE(m_capture.contains("Could not save ModelConfiguration to output path: " + path,
                                   "ML.ModelConfiguration"));
    auto const failed = load("Version: 8\n" + kEngine);
    ASSERT_EQ(failed->status(), 1);
    EXPECT_FALSE(failed->save(folder() + "/saved.yaml"));
    EXPECT_FALSE(Filesystem::File(Filesystem::Path(folder() + "/saved.yaml")).exists());
}

// The enumeration names read in any case; values outside the enumerations are written as unknown.
TEST(ModelEnums, NamesReadInAnyCaseAndStrayValuesWriteAsUnknown)
{
    EXPECT_EQ(stringToModelType("RANDOMFOREST"), ModelType::RandomForest);
    EXPECT_EQ(stringToPredictionOutput("boundingboxes"), PredictionOutput::BoundingBoxes);
    EXPECT_EQ(stringToPredictionType("OBJECTDETECTION"), PredictionType::ObjectDetection);
    EXPECT_EQ(modelTypeToString(static_cast<ModelType>(7)), "unknown");
    EXPECT_EQ(predictionOutputToString(static_cast<PredictionOutput>(9)), "Unknown");
    EXPECT_EQ(predictionTypeToString(static_cast<PredictionType>(-5)), "Unknown");
    // "unknown" is no model type, although stray values are written so.
    MLTest::expectThrowWithMessage<ParamException>(
        [] { stringToModelType("unknown"); },
        "Unknown model type 'unknown', supported are ['RandomForest', 'NeuralNetwork']");
}

} // namespace
