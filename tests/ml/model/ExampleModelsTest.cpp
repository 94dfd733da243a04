// The model files under examples/models are what users copy to start their own, so they must
// keep loading as the schema, the parameter names and the operation catalogue evolve: each one
// loads without a warning, its operations exist and accept every key it gives them, and a
// saved copy loads back to the same configuration.

#include "ml/model/ModelConfiguration.h"
#include "ml/operations/OperationsSequence.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

using namespace Velmoria;
using namespace Velmoria::ML;

namespace {

struct ExampleModel
{
    std::string file;
    std::string modelFile;
    std::vector<PredictionOutput> outputs;
    std::map<std::string, std::vector<std::string>> labelNames;
    std::vector<std::string> preProcessing;
    std::vector<std::string> postProcessing;
};

// Failures name the file rather than dumping the parameter's bytes.
void PrintTo(ExampleModel const& example, std::ostream* out)
{
    *out << example.file;
}

std::string examplePath(std::string const& file)
{
    return std::string(VELMORIA_EXAMPLES_DIR) + "/models/" + file;
}

// Records at warning level or above, as "category: message", so that a failure shows them.
std::vector<std::string> warnings(Log::Capture const& capture)
{
    std::vector<std::string> result;
    for (Log::Record const& record : capture.records())
        if (record.level >= Log::Warning)
            result.push_back(record.category + ": " + record.message);
    return result;
}

class ExampleModels : public ::testing::TestWithParam<ExampleModel>
{
protected:
    static void SetUpTestSuite() { registerOperations(); }
};

TEST_P(ExampleModels, LoadBuildAndSaveWithoutWarnings)
{
    ExampleModel const& example = GetParam();
    Log::Capture capture;
    ModelConfiguration const configuration(examplePath(example.file));

    ASSERT_EQ(configuration.status(), 0) << configuration.errorMessage().value_or("");
    EXPECT_FALSE(configuration.errorMessage().has_value());
    EXPECT_EQ(configuration.upgradedVersion(), 8);
    EXPECT_EQ(configuration.engine(), "torch");
    EXPECT_EQ(configuration.engineConfiguration().rawModelFile, example.modelFile);
    EXPECT_TRUE(Filesystem::Path(configuration.modelPath()).isAbsolute()) << configuration.modelPath();
    EXPECT_EQ(configuration.predictionOutputTypes(), example.outputs);
    EXPECT_EQ(configuration.labelNames(), example.labelNames);

    OperationsSequence const pre(configuration.getPreProcessingOptions());
    OperationsSequence const post(configuration.getPostProcessingOptions());
    EXPECT_FALSE(pre.error().has_value()) << pre.error()->message;
    EXPECT_FALSE(post.error().has_value()) << post.error()->message;
    EXPECT_EQ(pre.getOperationNames(), example.preProcessing);
    // The label names add their SetLabelModality behind the listed steps.
    EXPECT_EQ(post.getOperationNames(), example.postProcessing);
    // Neither the upgrade notice, nor a deprecated or unread key, nor an unknown or misspelt
    // operation key (only a warning while an operation is configured).
    EXPECT_EQ(warnings(capture), std::vector<std::string>{});

    Filesystem::TemporaryFile const copy(".yaml");
    ASSERT_TRUE(copy.isValid());
    ASSERT_TRUE(configuration.save(copy.path().str()));
    ModelConfiguration const reloaded(copy.path().str());
    ASSERT_EQ(reloaded.status(), 0) << reloaded.errorMessage().value_or("");
    EXPECT_TRUE(reloaded == configuration);
    EXPECT_EQ(reloaded.engineConfiguration().rawModelFile, example.modelFile);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, ExampleModels,
    ::testing::Values(ExampleModel{"classifier2d.yaml",
                                   "classifier2d.pt",
                                   {PredictionOutput::Vector},
                                   {{"Prediction", {"Frontal", "Lateral"}}},
                                   {"MakeFloat", "ResampleDims", "NormalizeNormal"},
                                   {"Softmax", "SetLabelModality"}},
                      ExampleModel{"segmenter3d.yaml",
                                   "segmenter3d.pt",
                                   {PredictionOutput::Image},
                                   {{"Prediction", {"Background", "Liver", "Spleen", "Kidney"}}},
                                   {"MakeFloat", "Resample", "NormalizePercentile", "PadDimsToNextMultiple",
                                    "SplitIntoPatches"},
                                   {"RecombinePatches", "Softmax", "ArgMax", "Inverse", "SetLabelModality"}}),
    [](::testing::TestParamInfo<ExampleModel> const& info) {
        return info.param.file.substr(0, info.param.file.find('.'));
    });

} // namespace
