// The prediction driver with engines registered from the test code: the choice between batch and
// frame-by-frame execution, patch-wise prediction with and without recombination, output
// containers, the failures of loading and predicting, lazy engine creation and cancelling.

#include "ml/model/MachineLearningModel.h"

#include "ml/data/DataItem.h"
#include "ml/data/ImageElement.h"
#include "ml/data/components/ReferenceImageDataComponent.h"
#include "ml/model/Engine.h"
#include "ml/operations/OperationFactory.h"
#include "tests/ml/data/ImageSetFixtures.h"
#include "tests/ml/model/TestEngines.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Progress.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ML {
namespace {

constexpr char const* kCategory = "ML.MachineLearningModel";

using MLTest::DoublingEngine;

// Cancels the progress of the running test when the post-processing reaches it.
Progress* g_progressToCancel = nullptr;
class CancelOperation : public Operation
{
public:
    CancelOperation()
        : Operation("MlmCancel", ProcessingPolicy::Everything)
    {}
    void process(DataItem&) override
    {
        if (g_progressToCancel)
            g_progressToCancel->cancel();
    }
    using Operation::process;
};

// Records every task as it starts: description and total steps.
class RecordingProgress : public Progress
{
public:
    std::vector<std::pair<std::string, int>> started;

protected:
    void onTaskStarted(TaskInfo const& task) override
    {
        started.emplace_back(task.description, task.totalSteps);
    }
};

MLTest::FrameLayout layoutOf(Eigen::Vector3i const& size)
{
    MLTest::FrameLayout layout;
    layout.size = size;
    return layout;
}

std::shared_ptr<SharedImageSet> framesOf(int count, Eigen::Vector3i const& size)
{
    return MLTest::makeSet(count, layoutOf(size));
}

// A model file of schema 8 around `engine`; `extra` is appended as top-level YAML.
std::string modelText(std::string const& engine, std::string const& extra = "", int version = 8)
{
    return "Version: " + std::to_string(version) + "\nPredictionOutput: [Image]\nEngine:\n  Name: " + engine +
           "\n  ModelFile: net.pt\n" + extra;
}

std::string const kSplitAndRecombine = "PreProcessing:\n"
                                       "  - SplitIntoPatches: {patch_size: [4, 4, 2], patch_step_size: 1}\n"
                                       "PostProcessing:\n  - RecombinePatches: {}\n";

class MachineLearningModelTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        MLTest::registerTestEngines();
        OperationFactory& operations = getCppOperationFactory();
        if (!operations.hasType("MlmCancel"))
            operations.registerType<CancelOperation>("MlmCancel", makeUniqueOperation<CancelOperation>);
        DoublingEngine::calls.clear();
        DoublingEngine::constructed = 0;
        DoublingEngine::extraFrames = 0;
    }

    std::string write(std::string const& text)
    {
        std::string const path =
            (m_folder.path().stdPath() / ("model" + std::to_string(m_files++) + ".yaml")).string();
        EXPECT_TRUE(Filesystem::File(Filesystem::Path(path)).writeText(text));
        return path;
    }

    std::unique_ptr<MachineLearningModel> load(std::string const& text, bool lazy = false)
    {
        auto model = std::make_unique<MachineLearningModel>();
        auto const result = model->init(write(text), PredictionOutput::Image, lazy);
        EXPECT_EQ(result.status, 0) << result.message.value_or("");
        return result.status == 0 ? std::move(model) : nullptr;
    }

    static DataItem inputOf(std::shared_ptr<SharedImageSet> set)
    {
        DataItem item;
        item.set("Input", std::move(set));
        return item;
    }

    // Every value of `out` is twice the same value of `in`.
    static void expectDoubled(SharedImage const& in, SharedImage const& out)
    {
        ASSERT_EQ(in.dimensions(), out.dimensions());
        auto const* a = static_cast<float const*>(in.mem()->data());
        auto const* b = static_cast<float const*>(out.mem()->data());
        for (std::size_t i = 0; i < in.mem()->valueCount(); ++i)
            ASSERT_FLOAT_EQ(b[i], 2.0F * a[i]) << "value " << i;
    }

    Log::Capture m_capture;
    Filesystem::TemporaryDirectory m_folder{"mlmodel"};
    int m_files = 0;
};

// ---- Execution path choice ---------------------------------------------------------------------

struct PathCase
{
    std::string name;
    int maxBatchSize;
    int frames;
    Eigen::Vector3i size;
    bool mixedSizes; // frame 1 has another size than frame 0
    bool batchMode;
    std::vector<std::size_t> expectedBatches;
};

void PrintTo(PathCase const& c, std::ostream* os)
{
    *os << c.name;
}

class ExecutionPathTest : public MachineLearningModelTest, public ::testing::WithParamInterface<PathCase>
{};

TEST_P(ExecutionPathTest, EngineSeesExpectedBatchesAndEveryFrameIsPredicted)
{
    PathCase const& c = GetParam();
    auto model = load(modelText("doubler", "MaxBatchSize: " + std::to_string(c.maxBatchSize) + "\n"));
    ASSERT_NE(model, nullptr);
    MLTest::FrameLayout layout = layoutOf(c.size);
    auto input = MLTest::makeSet(c.frames, layout);
    if (c.mixedSizes) {
        layout.size = c.size + Eigen::Vector3i(1, 0, 0);
        input->replace(1, MLTest::makeFrame(layout));
    }

    int const level = Log::g_globalLevel;
    Log::g_globalLevel = 1;
    DataItem const output = model->predict(inputOf(input));
    Log::g_globalLevel = level;
    std::vector<std::size_t> batches;
    for (auto const& call : DoublingEngine::calls)
        batches.push_back(call.batch);
    EXPECT_EQ(batches, c.expectedBatches);
    EXPECT_TRUE(m_capture.contains(c.batchMode ? "Batch mode: true" : "Batch mode: false", kCategory));

    auto const* prediction = output.get<ImageElement>("Prediction");
    ASSERT_NE(prediction, nullptr);
    ASSERT_EQ(prediction->sis()->size(), c.frames);
    for (int f = 0; f < c.frames; ++f)
        expectDoubled(*input->get(f), *prediction->sis()->get(f));
    // The output container is a clone of the input set and points back at it.
    auto const* reference = prediction->sis()->components().get<ReferenceImageDataComponent>();
    ASSERT_NE(reference, nullptr);
    EXPECT_EQ(reference->reference, input);
    EXPECT_NE(output.components().get<ReferenceImageDataComponent>(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Paths, ExecutionPathTest,
    ::testing::Values(
        PathCase{"NoMaximumSendsWholeBatch", -1, 5, {4, 4, 1}, false, true, {5}},
        PathCase{"MaximumCutsBatches", 2, 5, {4, 4, 1}, false, true, {2, 2, 1}},
        PathCase{"MaximumAboveBatchIsOneCall", 10, 5, {4, 4, 1}, false, true, {5}},
        PathCase{"TwoDimensionalWithMaximumOneBatchesSingly", 1, 3, {4, 4, 1}, false, true, {1, 1, 1}},
        PathCase{"ThreeDimensionalWithMaximumOneRunsFrameByFrame", 1, 3, {4, 4, 2}, false, false, {1, 1, 1}},
        PathCase{"ThreeDimensionalWithLargerMaximumBatches", 4, 3, {4, 4, 2}, false, true, {3}},
        PathCase{"IncompatibleFramesRunFrameByFrame", -1, 2, {4, 4, 2}, true, false, {1, 1}}),
    [](auto const& info) { return info.param.name; });

// ---- Patches -----------------------------------------------------------------------------------

struct PatchCase
{
    std::string name;
    Eigen::Vector3i imageSize;
    Eigen::Vector3i patchSize;
    bool recombine;
    std::size_t expectedCalls;
    int expectedOutputFrames; // per input frame
    Eigen::Vector3i expectedOutputSize;
};

void PrintTo(PatchCase const& c, std::ostream* os)
{
    *os << c.name;
}

class PatchTest : public MachineLearningModelTest, public ::testing::WithParamInterface<PatchCase>
{};

TEST_P(PatchTest, PatchesArePredictedCroppedAndRecombined)
{
    PatchCase const& c = GetParam();
    Eigen::Vector3i const& p = c.patchSize;
    std::string text = modelText("doubler", "Verbose: true\nMaxBatchSize: 1\nPreProcessing:\n"
                                            "  - SplitIntoPatches: {patch_size: [" +
                                                std::to_string(p.x()) + ", " + std::to_string(p.y()) + ", " +
                                                std::to_string(p.z()) + "], patch_step_size: 1}\n");
    if (c.recombine)
        text += "PostProcessing:\n  - RecombinePatches: {}\n";
    auto model = load(text);
    ASSERT_NE(model, nullptr);
    auto input = framesOf(2, c.imageSize);

    DataItem const output = model->predict(inputOf(input));
    ASSERT_FALSE(output.empty()) << "prediction failed";
    EXPECT_EQ(DoublingEngine::calls.size(), 2 * c.expectedCalls);
    for (auto const& call : DoublingEngine::calls) {
        EXPECT_EQ(call.batch, 1U);
        EXPECT_EQ(call.dims, p) << "the engine always sees whole patches";
    }
    auto const* prediction = output.get<ImageElement>("Prediction");
    ASSERT_NE(prediction, nullptr);
    ASSERT_EQ(prediction->sis()->size(), 2 * c.expectedOutputFrames);
    for (auto const& frame : prediction->sis()->images())
        EXPECT_EQ(frame->dimensions(), c.expectedOutputSize);
    if (c.expectedOutputSize == c.imageSize)
        for (int f = 0; f < 2; ++f)
            expectDoubled(*input->get(f), *prediction->sis()->get(f));

    // The timings count every engine run, the stages never add up to more than the whole, and a
    // verbose model says where the time went.
    PredictionTimings const& timings = model->lastTimings();
    EXPECT_EQ(timings.engineRuns, DoublingEngine::calls.size());
    double const stages = timings.preprocessingMs + timings.splittingMs + timings.engineMs +
                          timings.recombinationMs + timings.postprocessingMs;
    EXPECT_GT(timings.totalMs, 0.0);
    EXPECT_LE(stages, timings.totalMs);
    EXPECT_DOUBLE_EQ(timings.outsideEngineMs(), timings.totalMs - timings.engineMs);
    EXPECT_TRUE(m_capture.containsFragment("Time spent in the engine: "));
    EXPECT_TRUE(m_capture.containsFragment("(" + std::to_string(DoublingEngine::calls.size()) +
                                           " runs); outside the engine: "));
}

// The last case has several patches, each padded along z (the volume is thinner than a patch):
// recombination places the padded predictions itself and gives the volume back.
INSTANTIATE_TEST_SUITE_P(
    Patches, PatchTest,
    ::testing::Values(
        PatchCase{"RecombinedIntoWholeImage", {8, 8, 2}, {4, 4, 2}, true, 4, 1, {8, 8, 2}},
        PatchCase{"WithoutRecombinationEveryPatchIsASample", {8, 8, 2}, {4, 4, 2}, false, 4, 4, {4, 4, 2}},
        PatchCase{"ImageSmallerThanPatchIsCroppedBack", {3, 3, 2}, {4, 4, 2}, true, 1, 1, {3, 3, 2}},
        PatchCase{"ImageSmallerThanPatchWithoutRecombination", {3, 3, 2}, {4, 4, 2}, false, 1, 1, {3, 3, 2}},
        PatchCase{"AxisShorterThanThePatchIsRecombined", {8, 8, 2}, {4, 4, 4}, true, 4, 1, {8, 8, 2}}),
    [](auto const& info) { return info.param.name; });

// Batch mode sends whole frames: the split is not applied, and the user is told so.
TEST_F(MachineLearningModelTest, BatchModeWarnsThatItDoesNotSplit)
{
    auto model = load(modelText("doubler", "MaxBatchSize: 4\n" + kSplitAndRecombine));
    ASSERT_NE(model, nullptr);
    ASSERT_FALSE(model->predict(inputOf(framesOf(1, {8, 8, 2}))).empty());
    ASSERT_EQ(DoublingEngine::calls.size(), 1U);
    EXPECT_EQ(DoublingEngine::calls[0].dims, Eigen::Vector3i(8, 8, 2)) << "the whole frame, not a patch";
    EXPECT_TRUE(m_capture.contains("MaxBatchSize 4 runs whole frames in batches: SplitIntoPatches and "
                                   "RecombinePatches are not applied. Set \"MaxBatchSize: 1\" to predict "
                                   "patch by patch.",
                                   kCategory));
}

// ---- Outputs -----------------------------------------------------------------------------------

TEST_F(MachineLearningModelTest, IgnoredOutputIsNeitherInResultNorInContainersOnBothPaths)
{
    std::string const text = "Version: 8\nMaxBatchSize: 1\nPredictionOutput: [Image, Tensor]\nEngine:\n"
                             "  Name: doubler\n  ModelFile: net.pt\n  OutputFields: [Prediction, Aux]\n"
                             "  OutputFieldsToIgnore: [Aux]\n";
    auto model = load(text);
    ASSERT_NE(model, nullptr);
    // The engine learns the declared kind of each output field, so that it can shape its result.
    std::vector<std::string> kinds;
    ASSERT_TRUE(model->engine()->config.engineSpecificParams.param("PredictionOutput", kinds));
    EXPECT_EQ(kinds, (std::vector<std::string>{"Image", "Tensor"}));
    DataItem const containers = model->setupOutputItemContainers();
    EXPECT_EQ(containers.elements().keys(), std::vector<std::string>{"Prediction"});

    for (int slices : {1, 2}) { // batch mode, frame by frame
        DoublingEngine::calls.clear();
        DataItem const output = model->predict(inputOf(framesOf(2, {4, 4, slices})));
        ASSERT_EQ(DoublingEngine::calls.size(), 2U);
        EXPECT_EQ(output.elements().keys(), std::vector<std::string>{"Prediction"}) << slices << " slices";
    }
}

TEST_F(MachineLearningModelTest, ImageSetOverloadReturnsTheFirstOutputAsAPlainSet)
{
    auto model = load(modelText("doubler", "MaxBatchSize: -1\n"));
    ASSERT_NE(model, nullptr);
    auto input = framesOf(2, {4, 4, 1});
    std::unique_ptr<SharedImageSet> const output = model->predict(*input);
    ASSERT_NE(output, nullptr);
    ASSERT_EQ(output->size(), 2);
    expectDoubled(*input->get(1), *output->get(1));
    EXPECT_TRUE(output->get(1)->matrixToWorld().isApprox(input->get(1)->matrixToWorld()));
}

// ---- Failures ----------------------------------------------------------------------------------

TEST_F(MachineLearningModelTest, FailedPredictionsAreEmptyAndSayWhy)
{
    struct Case
    {
        std::string text;
        bool lazy;
        DataItem input;
        std::string fragment;
    };
    Case const cases[] = {
        {modelText("thrower"), false, inputOf(framesOf(2, {4, 4, 1})),
         "Prediction failed: the network failed"},
        {modelText("thrower"), false, inputOf(framesOf(2, {4, 4, 2})),
         "Prediction failed: the network failed"},
        {modelText("doubler"), false, DataItem(), "Empty input."},
        {modelText("doubler", "MaxBatchSize: 0\n"), false, inputOf(framesOf(2, {4, 4, 1})),
         "Max batch size must be positive or -1 (no maximum batch size)."},
        {modelText("broken"), true, inputOf(framesOf(1, {4, 4, 1})),
         "Model cannot be run due to engine not being initialized"},
        // A file of schema 7 would need the legacy path; the flag upgrades it.
        {modelText("doubler", "MaxBatchSize: -1\n", 7), false, inputOf(framesOf(1, {4, 4, 1})),
         "legacy execution path 'executeBatch'"},
    };
    for (Case const& c : cases) {
        SCOPED_TRACE(c.fragment);
        auto model = load(c.text, c.lazy);
        ASSERT_NE(model, nullptr);
        m_capture.clear();
        EXPECT_TRUE(model->predict(c.input).empty());
        EXPECT_TRUE(m_capture.containsFragment(c.fragment));
    }
    EXPECT_TRUE(m_capture.containsFragment("\"UpgradeToMLModelV2: true\""));
    auto upgraded = load(modelText("doubler", "MaxBatchSize: -1\nUpgradeToMLModelV2: true\n", 7));
    ASSERT_NE(upgraded, nullptr);
    EXPECT_FALSE(upgraded->predict(inputOf(framesOf(1, {4, 4, 1}))).empty());

    // A network that returns more samples than it was given cannot be mapped back to them.
    DoublingEngine::extraFrames = 1;
    auto inventive = load(modelText("doubler"));
    ASSERT_NE(inventive, nullptr);
    m_capture.clear();
    EXPECT_TRUE(inventive->predict(inputOf(framesOf(1, {4, 4, 1}))).empty());
    EXPECT_TRUE(m_capture.containsFragment(
        "the network returned 2 samples in output field 'Prediction' for a batch of 1"));
    DoublingEngine::extraFrames = 0;
}

struct LoadFailure
{
    std::string name;
    std::string text;
    std::string expectedMessage; // a prefix of the message
};

void PrintTo(LoadFailure const& c, std::ostream* os)
{
    *os << c.name;
}

class LoadFailureTest : public MachineLearningModelTest, public ::testing::WithParamInterface<LoadFailure>
{};

TEST_P(LoadFailureTest, ReportedByEveryConstructionPath)
{
    LoadFailure const& c = GetParam();
    std::string const path = write(c.text);
    auto const result = MachineLearningModel::createWithStatus(path, PredictionOutput::Image);
    EXPECT_EQ(result.model, nullptr);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.message.value_or("").rfind(c.expectedMessage, 0), 0U) << result.message.value_or("");

    EXPECT_EQ(MachineLearningModel::create(path, PredictionOutput::Image), nullptr);
    EXPECT_TRUE(m_capture.contains(result.message.value_or("?"), kCategory));
    try {
        MachineLearningModel model(path, PredictionOutput::Image, false);
        ADD_FAILURE() << "expected MLModelException";
    } catch (MLModelException const& e) {
        EXPECT_EQ(std::string(e.what()), result.message.value_or(""));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, LoadFailureTest,
    ::testing::Values(
        LoadFailure{"NoEngineBlock", "Version: 8\nPredictionOutput: [Image]\n",
                    "Could not configure the model: "},
        LoadFailure{"UnknownOperation", modelText("doubler", "PreProcessing:\n  - NoSuchOperation: {}\n"),
                    "Could not create the pre-processing sequence: "},
        LoadFailure{"UnknownPostOperation",
                    modelText("doubler", "PostProcessing:\n  - NoSuchOperation: {}\n"),
                    "Could not create the post-processing sequence: "},
        LoadFailure{"RecombinationWithoutSplit",
                    modelText("doubler", "PostProcessing:\n  - RecombinePatches: {}\n"),
                    "Recombination was specified in the post-processing, but no splitting was defined in the "
                    "pre-processing."},
        LoadFailure{"EngineCannotBeBuilt", modelText("broken"), "Could not create engine 'broken'."},
        LoadFailure{"UnregisteredEngine", modelText("nonexistent"),
                    "Could not create engine 'nonexistent'."}),
    [](auto const& info) { return info.param.name; });

// ---- Lazy engine, cancel, references --------------------------------------------------------------

TEST_F(MachineLearningModelTest, LazyModelBuildsARegisteredEngineOnceAtTheFirstPrediction)
{
    MachineLearningModel unregistered;
    auto const result = unregistered.init(write(modelText("nonexistent")), PredictionOutput::Image, true);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.message.value_or(""),
              "Engine 'nonexistent' is not a registered type.\nPlease check that your C++ plugins are "
              "properly loaded or Python packages are installed in your current environment.");

    auto model = load(modelText("doubler", "MaxBatchSize: -1\n"), true);
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->engine(), nullptr);
    EXPECT_EQ(DoublingEngine::constructed, 0);
    EXPECT_FALSE(model->predict(inputOf(framesOf(1, {4, 4, 1}))).empty());
    EXPECT_NE(model->engine(), nullptr);
    EXPECT_FALSE(model->predict(inputOf(framesOf(1, {4, 4, 1}))).empty());
    EXPECT_EQ(DoublingEngine::constructed, 1) << "the engine is built once";
}

TEST_F(MachineLearningModelTest, FrameAndPatchLoopsReportNestedTasks)
{
    auto model = load(modelText("doubler", "MaxBatchSize: 1\n" + kSplitAndRecombine));
    ASSERT_NE(model, nullptr);
    RecordingProgress progress;
    model->setProgress(&progress);
    ASSERT_FALSE(model->predict(inputOf(framesOf(2, {8, 8, 2}))).empty());
    using Started = std::vector<std::pair<std::string, int>>;
    EXPECT_EQ(progress.started, (Started{{"Pre-processing input...", 6},
                                         {"Processing input frames...", 2},
                                         {"Predicting image parts...", 4},
                                         {"Predicting image parts...", 4}}));
}

TEST_F(MachineLearningModelTest, CancelDiscardsTheResultWhenEverItComes)
{
    // Before the frame loop: no engine runs.
    auto model = load(modelText("doubler", "MaxBatchSize: 1\n"));
    ASSERT_NE(model, nullptr);
    Progress cancelled;
    model->setProgress(&cancelled);
    cancelled.cancel();
    EXPECT_TRUE(model->predict(inputOf(framesOf(3, {4, 4, 2}))).empty());
    EXPECT_TRUE(DoublingEngine::calls.empty());
    EXPECT_TRUE(m_capture.contains("No prediction was returned.", kCategory));

    // During the post-processing: the prediction ran, but its result is dropped.
    model = load(modelText("doubler", "PostProcessing:\n  - MlmCancel: {}\n"));
    ASSERT_NE(model, nullptr);
    Progress progress;
    model->setProgress(&progress);
    g_progressToCancel = &progress;
    DataItem const output = model->predict(inputOf(framesOf(2, {4, 4, 1})));
    g_progressToCancel = nullptr;
    EXPECT_EQ(DoublingEngine::calls.size(), 2U) << "the prediction itself ran";
    EXPECT_TRUE(output.empty());
    EXPECT_TRUE(m_capture.contains("Prediction was cancelled.", kCategory));
    EXPECT_TRUE(progress.activeTasks().empty()) << "every task ends with the prediction";
}

TEST_F(MachineLearningModelTest, ReferenceImageFollowsComponentThenCompatibleElements)
{
    auto first = framesOf(2, {4, 4, 1});
    auto same = framesOf(2, {4, 4, 1});
    DataItem item = inputOf(first);
    item.set("Other", same);
    EXPECT_EQ(MachineLearningModel::maybeGetReferenceImage(item), first);

    // Incompatible elements: the reason names both fields and their grids.
    item.set("Other", framesOf(2, {5, 4, 1}));
    std::string why;
    EXPECT_EQ(MachineLearningModel::maybeGetReferenceImage(item, &why), nullptr);
    EXPECT_TRUE(String::contains(why, "'Input' has 4x4x1 pixels of 1x2x3 mm at (0, 0, 0), 'Other' has 5x4x1"))
        << why;
    item.set("Other", framesOf(3, {4, 4, 1}));
    EXPECT_EQ(MachineLearningModel::maybeGetReferenceImage(item, &why), nullptr);
    EXPECT_EQ(why, "field 'Input' has 2 frames and field 'Other' has 3");

    item.components().add(std::make_unique<ReferenceImageDataComponent>(same));
    EXPECT_EQ(MachineLearningModel::maybeGetReferenceImage(item), same) << "the component wins";
    EXPECT_EQ(MachineLearningModel::maybeGetReferenceImage(DataItem()), nullptr);
}

} // namespace
} // namespace Velmoria::ML
