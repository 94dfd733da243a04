// Runs `velmoria predict` and `velmoria process` as a user would: image files written with
// ImageFiles go in, the files the program writes are read back and compared voxel by voxel.

#include "tests/ml/TestHelpers.h"

#include "host/core/Filesystem.h"
#include "host/core/String.h"
#include "host/image/SharedImageSet.h"
#include "host/image/TypedImage.h"
#include "host/io/ImageFiles.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <ostream>

using namespace Velmoria;

namespace {

struct CommandRun
{
    int exitCode = -1;
    std::string err;
};

Eigen::Vector3i const kSize(4, 3, 2);
int const kCount = 24;

// The input intensities: -5 .. 18, so that doubling and clipping both have work to do.
std::vector<double> inputValues()
{
    std::vector<double> values;
    for (int i = 0; i < kCount; ++i)
        values.push_back(i - 5.0);
    return values;
}

// Labels 0, 1, 2 repeating.
std::vector<double> labelValues()
{
    std::vector<double> values;
    for (int i = 0; i < kCount; ++i)
        values.push_back(i % 3);
    return values;
}

// The values of the only frame of `path` as doubles; empty when it cannot be read or is neither
// float nor unsigned 8-bit (the only types these tests write).
std::vector<double> readValues(std::string const& path)
{
    auto const images = ImageFiles::read(path);
    if (!images || images->size() != 1)
        return {};
    std::vector<double> values;
    auto const* mem = images->get(0)->mem();
    if (auto const* floats = dynamic_cast<TypedImage<float> const*>(mem)) {
        for (int i = 0; i < kCount; ++i)
            values.push_back(floats->value(static_cast<std::size_t>(i)));
    } else if (auto const* bytes = dynamic_cast<TypedImage<std::uint8_t> const*>(mem)) {
        for (int i = 0; i < kCount; ++i)
            values.push_back(bytes->value(static_cast<std::size_t>(i)));
    }
    return values;
}

class VelmoriaCommandTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_folder.isValid());
        ASSERT_TRUE(ImageFiles::write(SharedImageSet(MLTest::placedFrame<float>(kSize, 1, inputValues())),
                                      path("input.nii")));
        ASSERT_TRUE(ImageFiles::write(
            SharedImageSet(MLTest::placedFrame<std::uint8_t>(kSize, 1, labelValues())), path("labels.nii")));
    }

    std::string path(std::string const& name) const { return (m_folder.path() / name).str(); }

    void writeText(std::string const& name, std::string const& text) const
    {
        ASSERT_TRUE(Filesystem::File(path(name)).writeText(text));
    }

    // "{dir}" in an argument stands for the test's folder. VELMORIA_PLUGIN_PATH is unset so that
    // the plug-ins come from the build's library folder only.
    CommandRun velmoria(std::vector<std::string> const& arguments) const
    {
        std::string command = "env -u VELMORIA_PLUGIN_PATH '" VELMORIA_CLI "'";
        for (auto const& argument : arguments)
            command += " '" + String::replaceAllCopy(argument, "{dir}", m_folder.path().str()) + "'";
        command += " >/dev/null 2>'" + path("err.txt") + "'";
        CommandRun run;
        int const status = std::system(command.c_str());
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.err = Filesystem::File(path("err.txt")).readText().value_or("<no error file>");
        return run;
    }

    // The geometry of the written output equals the input's, as both files hold it.
    void expectSameGeometry(std::string const& output) const
    {
        auto const in = ImageFiles::read(path("input.nii"));
        auto const out = ImageFiles::read(output);
        ASSERT_TRUE(in && out);
        EXPECT_TRUE(out->get(0)->matrixToWorld().isApprox(in->get(0)->matrixToWorld(), 1e-6))
            << out->get(0)->matrixToWorld();
        EXPECT_TRUE(out->get(0)->spacing().isApprox(in->get(0)->spacing(), 1e-6));
        EXPECT_EQ(out->get(0)->descriptor().dimensions(), in->get(0)->descriptor().dimensions());
    }

    Filesystem::TemporaryDirectory m_folder{"velmoria-commands"};
};

// ---- process ------------------------------------------------------------------------------

struct ProcessCase
{
    std::string name;
    std::string list;
    std::vector<std::string> arguments;
    std::function<double(double)> expected;
    // With --label: the expected label values; the image is checked as above.
    bool withLabel = false;
    std::vector<std::string> errContains = {};

    friend void PrintTo(ProcessCase const& c, std::ostream* os) { *os << c.name; }
};

class VelmoriaProcessTest : public VelmoriaCommandTest, public testing::WithParamInterface<ProcessCase>
{};

TEST_P(VelmoriaProcessTest, WritesTheProcessedImage)
{
    auto const& c = GetParam();
    writeText("list.yaml", c.list);
    std::vector<std::string> arguments = {"process",         "--config", "{dir}/list.yaml", "--input",
                                          "{dir}/input.nii", "--output", "{dir}/out.nii"};
    arguments.insert(arguments.end(), c.arguments.begin(), c.arguments.end());
    if (c.withLabel)
        arguments.insert(arguments.end(),
                         {"--label", "{dir}/labels.nii", "--output", "label={dir}/label-out.nii"});

    auto const run = velmoria(arguments);
    ASSERT_EQ(run.exitCode, 0) << run.err;

    auto const values = readValues(path("out.nii"));
    ASSERT_EQ(values.size(), static_cast<std::size_t>(kCount));
    auto const input = inputValues();
    for (int i = 0; i < kCount; ++i)
        EXPECT_DOUBLE_EQ(values[i], c.expected(input[i])) << "voxel " << i << " input " << input[i];
    expectSameGeometry(path("out.nii"));
    if (c.withLabel) {
        // The label went in as a target: the intensity mapping left it alone.
        EXPECT_EQ(readValues(path("label-out.nii")), labelValues());
    }
    for (auto const& fragment : c.errContains)
        EXPECT_TRUE(String::contains(run.err, fragment)) << fragment << "\nstderr:\n" << run.err;
}

std::string const kTwoSteps = "- LinearIntensityMapping: {factor: 2}\n- Clip: {min: 0, max: 10}\n";
std::string const kSections =
    "first:\n  - LinearIntensityMapping: {factor: 3}\n"
    "second:\n  - LinearIntensityMapping: {factor: 2}\n  - Clip: {min: 0, max: 10}\n";
std::string const kTrainingOnly = "- LinearIntensityMapping: {factor: 2}\n"
                                  "- LinearIntensityMapping: {factor: 5, phase: training}\n";

double doubledAndClipped(double x)
{
    return std::min(std::max(2 * x, 0.0), 10.0);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, VelmoriaProcessTest,
    testing::Values(
        ProcessCase{"TwoSteps", kTwoSteps, {}, doubledAndClipped},
        ProcessCase{"NamedFields", kTwoSteps, {"--phase", "always", "--seed", "7"}, doubledAndClipped},
        ProcessCase{"Section", kSections, {"--section", "second"}, doubledAndClipped},
        ProcessCase{"OtherSection", kSections, {"--section", "first"}, [](double x) { return 3 * x; }},
        // The short form of bare names is a list of operations with their defaults, not a value.
        ProcessCase{"ShortFormSection",
                    "short:\n  - Clip\n",
                    {"--section", "short"},
                    [](double x) { return std::min(std::max(x, 0.0), 1.0); }},
        // A misspelt key is a warning with the key that was meant; the default is used.
        ProcessCase{
            "MisspeltKey",
            "- Clip: {min: 0, maxx: 10}\n",
            {},
            [](double x) { return std::min(std::max(x, 0.0), 1.0); },
            false,
            {"Parameter 'maxx' was specified but not used", "Clip: did you mean 'max' instead of 'maxx'?"}},
        ProcessCase{
            "InferenceSkipsTraining",
            kTrainingOnly,
            {},
            [](double x) { return 2 * x; },
            false,
            {"Skipped in phase inference: LinearIntensityMapping (Training); --phase training runs it"}},
        ProcessCase{"TrainingPhase", kTrainingOnly, {"--phase", "Training"}, [](double x) { return 10 * x; }},
        ProcessCase{"LabelIsATarget", kTwoSteps, {}, doubledAndClipped, true}),
    [](auto const& info) { return info.param.name; });

// Inputs go through the host's loader: a folder of DICOM files is an input like a file, and
// its geometry reaches the output.
TEST_F(VelmoriaCommandTest, ProcessReadsADicomFolder)
{
    std::vector<double> values = inputValues();
    ASSERT_TRUE(Filesystem::Directory(path("dicom")).create());
    ASSERT_TRUE(ImageFiles::write(SharedImageSet(MLTest::placedFrame<std::int16_t>(kSize, 1, values)),
                                  path("dicom/volume.dcm")));
    writeText("list.yaml", "- MakeFloat: {}\n- LinearIntensityMapping: {factor: 2}\n");

    auto const run = velmoria(
        {"process", "--config", "{dir}/list.yaml", "--input", "{dir}/dicom", "--output", "{dir}/out.nii"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto const out = readValues(path("out.nii"));
    ASSERT_EQ(out.size(), values.size());
    for (std::size_t i = 0; i < values.size(); ++i)
        EXPECT_DOUBLE_EQ(out[i], 2 * values[i]) << "voxel " << i;
    expectSameGeometry(path("out.nii"));
}

// ---- failures -----------------------------------------------------------------------------

struct CommandCase
{
    std::string name;
    std::vector<std::string> arguments;
    int exitCode;
    std::vector<std::string> errContains = {};
    bool needsTorch = false;

    friend void PrintTo(CommandCase const& c, std::ostream* os) { *os << c.name; }
};

class VelmoriaCommandFailureTest : public VelmoriaCommandTest, public testing::WithParamInterface<CommandCase>
{
protected:
    void SetUp() override
    {
        VelmoriaCommandTest::SetUp();
        writeText("list.yaml", kSections);
        writeText("unknown.yaml", "- NoSuchOperation: {}\n");
        writeText("no-artefact.yaml",
                  "Version: 8\nName: lost\nType: NeuralNetwork\nPredictionOutput: [Image]\n"
                  "Engine:\n  Name: torch\n  ModelFile: nothere.pt\n");
        writeText("negative-patch.yaml",
                  "Version: 8\nName: patches\nType: NeuralNetwork\nPredictionOutput: [Image]\n"
                  "Engine:\n  Name: torch\n  ModelFile: " VELMORIA_TORCH_MODELS_DIR
                  "/double.pt\n  ForceCPU: true\n"
                  "PreProcessing:\n  - SplitIntoPatches: {patch_size: [-16, -16, -16]}\n"
                  "PostProcessing:\n  - RecombinePatches\n");
        // Nine levels of nine aliases: 387 million values from a few hundred bytes.
        std::string bomb = "a0: &a0 [x, x, x, x, x, x, x, x, x]\n";
        for (int level = 1; level <= 9; ++level)
            bomb +=
                fmt::format("a{0}: &a{0} [*a{1}, *a{1}, *a{1}, *a{1}, *a{1}, *a{1}, *a{1}, *a{1}, *a{1}]\n",
                            level, level - 1);
        writeText("bomb.yaml",
                  "- Clip:\n    min: 0\n    " + String::replaceAllCopy(bomb, "\n", "\n    ") + "\n");
        writeText("typo.yaml", "- Clip: {min: 0, maxx: 10}\n");
        writeText("sampling.yaml",
                  "Version: 8\nName: doubler\nType: NeuralNetwork\nPredictionOutput: [Image]\n"
                  "Engine:\n  Name: torch\n  ModelFile: " VELMORIA_TORCH_MODELS_DIR "/double.pt\n"
                  "Sampling:\n  MaxSizeSubdivision: [8, 8, 8]\n");
        writeText("map-key.yaml", "- Clip: {min: 0, [a, b]: 1, max: 5}\n");
        // Parameters that would turn every voxel into Inf or NaN.
        writeText("hostile.yaml",
                  "zero_scale:\n  - MakeFloat\n  - AdjustShiftScale: {shift: [1], scale: [0]}\n"
                  "equal_percentiles:\n  - NormalizePercentile: {min_percentile: 0.5, "
                  "max_percentile: 0.5}\n");
        writeText("model.yaml",
                  "Version: 8\nName: doubler\nType: NeuralNetwork\nPredictionOutput: [Image]\n"
                  "Engine:\n  Name: torch\n  ModelFile: " VELMORIA_TORCH_MODELS_DIR "/double.pt\n"
                  "  ForceCPU: true\n  InputFields: [Input]\n  OutputFields: [Prediction]\n");
    }
};

TEST_P(VelmoriaCommandFailureTest, ExitCodeAndMessage)
{
    auto const& c = GetParam();
#ifndef VELMORIA_TEST_HAS_TORCH
    if (c.needsTorch)
        GTEST_SKIP() << "The torch engine plug-in is not built (LibTorch was not found)";
#endif
    auto const run = velmoria(c.arguments);
    EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
    for (auto const& fragment : c.errContains) {
        auto const expected = String::replaceAllCopy(fragment, "{dir}", m_folder.path().str());
        EXPECT_TRUE(String::contains(run.err, expected)) << expected << "\nstderr:\n" << run.err;
    }
    EXPECT_FALSE(Filesystem::File(path("out.nii")).exists()) << "a failed run wrote its output";
    EXPECT_EQ(readValues(path("input.nii")), inputValues()) << "a failed run changed its input";
    for (auto const& entry : std::filesystem::directory_iterator(m_folder.path().stdPath())) {
        std::string const name = entry.path().filename().string();
        EXPECT_TRUE(name.find(".velmoria-") == std::string::npos &&
                    name.find(".writing-") == std::string::npos)
            << "a temporary file was left behind: " << name;
    }
}

std::vector<std::string> processArguments(std::vector<std::string> extra)
{
    std::vector<std::string> arguments = {"process", "--config", "{dir}/list.yaml", "--section", "second"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

std::vector<std::string> predictArguments(std::vector<std::string> extra)
{
    std::vector<std::string> arguments = {"predict", "--model", "{dir}/model.yaml"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return arguments;
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, VelmoriaCommandFailureTest,
    testing::Values(
        // Usage errors.
        CommandCase{
            "PredictWithoutModel", {"predict", "--input", "a.nii", "--output", "b.nii"}, 2, {"--model"}},
        CommandCase{
            "PredictWithoutOutput", {"predict", "--model", "m.yaml", "--input", "a.nii"}, 2, {"--output"}},
        CommandCase{
            "ProcessWithoutConfig", {"process", "--input", "a.nii", "--output", "b.nii"}, 2, {"--config"}},
        CommandCase{"UnknownPhase",
                    processArguments({"--input", "a.nii", "--output", "b.nii", "--phase", "sometimes"}),
                    2,
                    {"sometimes"}},
        CommandCase{"SeedNotANumber",
                    processArguments({"--input", "a.nii", "--output", "b.nii", "--seed", "x1"}),
                    2,
                    {"x1"}},
        // Process failures name the file, field or section.
        CommandCase{"MissingList",
                    {"process", "--config", "{dir}/none.yaml", "--input", "{dir}/input.nii", "--output",
                     "{dir}/out.nii"},
                    1,
                    {"{dir}/none.yaml"}},
        CommandCase{"MissingSection",
                    {"process", "--config", "{dir}/list.yaml", "--section", "third", "--input",
                     "{dir}/input.nii", "--output", "{dir}/out.nii"},
                    1,
                    {"has no section 'third'; it has: first, second"}},
        CommandCase{
            "SectionsButNoSection",
            {"process", "--config", "{dir}/list.yaml", "--input", "{dir}/input.nii", "--output",
             "{dir}/out.nii"},
            1,
            {"The processing list '{dir}/list.yaml' has sections: first, second. Choose one with --section"}},
        // YAML that cannot be read whole is refused, not run with the keys before the fault.
        CommandCase{
            "KeyThatIsAList",
            {"process", "--config", "{dir}/map-key.yaml", "--input", "{dir}/input.nii", "--output",
             "{dir}/out.nii"},
            1,
            {"Failed to create Properties from YAML", "Could not read the YAML of '{dir}/map-key.yaml'"}},
        CommandCase{"AliasBomb",
                    {"process", "--config", "{dir}/bomb.yaml", "--input", "{dir}/input.nii", "--output",
                     "{dir}/out.nii"},
                    1,
                    {"the YAML expands to more than 10000000 values",
                     "Could not read the YAML of '{dir}/bomb.yaml'"}},
        CommandCase{"UnknownOperation",
                    {"process", "--config", "{dir}/unknown.yaml", "--input", "{dir}/input.nii", "--output",
                     "{dir}/out.nii"},
                    1,
                    {"NoSuchOperation"}},
        CommandCase{"MissingInputFile",
                    processArguments({"--input", "{dir}/absent.nii", "--output", "{dir}/out.nii"}),
                    1,
                    {"Could not read file '{dir}/absent.nii' for field 'image'"}},
        CommandCase{"UnknownOutputField",
                    processArguments({"--input", "{dir}/input.nii", "--output", "mask={dir}/out.nii"}),
                    1,
                    {"No field 'mask' to write to '{dir}/out.nii'; the result has: image"}},
        // A writer that cannot write says so and the run fails, whatever the image library
        // reports on its own.
        CommandCase{"OutputFolderMissing",
                    processArguments({"--input", "{dir}/input.nii", "--output", "{dir}/nowhere/out.nii"}),
                    1,
                    {"Cannot write field 'image' to '{dir}/nowhere/out.nii': the folder '{dir}/nowhere' "
                     "does not exist"}},
        // Outputs are checked before anything runs: an input is never overwritten by accident,
        // and two fields never race for one file.
        CommandCase{"OutputIsTheInput",
                    processArguments({"--input", "{dir}/input.nii", "--output", "{dir}/./input.nii"}),
                    1,
                    {"is the input file of field 'image'; it would be overwritten", "--overwrite"}},
        CommandCase{"TwoFieldsOneFile",
                    processArguments({"--input", "{dir}/input.nii", "--label", "{dir}/labels.nii", "--output",
                                      "{dir}/out.nii", "--output", "label={dir}/out.nii"}),
                    1,
                    {"Fields 'image' and 'label' are both written to '{dir}/out.nii'"}},
        // All outputs or none: the image is written only if the label can be too.
        CommandCase{"SecondOutputCannotBeWritten",
                    processArguments({"--input", "{dir}/input.nii", "--label", "{dir}/labels.nii", "--output",
                                      "{dir}/out.nii", "--output", "label={dir}/label.jpg"}),
                    1,
                    {"Could not write field 'label' to file '{dir}/label.jpg'"}},
        CommandCase{"ImageToScoreFile",
                    processArguments({"--input", "{dir}/input.nii", "--output", "{dir}/scores.json"}),
                    1,
                    {"Field 'image' holds a Image element; '{dir}/scores.json' is a score file"}},
        CommandCase{"ZeroScale",
                    {"process", "--config", "{dir}/hostile.yaml", "--section", "zero_scale", "--input",
                     "{dir}/input.nii", "--output", "{dir}/out.nii"},
                    1,
                    {"AdjustShiftScale", "'scale' 0 (entry 0) would make the image infinite"}},
        CommandCase{"EqualPercentiles",
                    {"process", "--config", "{dir}/hostile.yaml", "--section", "equal_percentiles", "--input",
                     "{dir}/input.nii", "--output", "{dir}/out.nii"},
                    1,
                    {"NormalizePercentile", "'min_percentile' and 'max_percentile' are both 0.5"}},
        CommandCase{"FieldTwice",
                    processArguments({"--input", "image={dir}/input.nii", "--input", "image={dir}/labels.nii",
                                      "--output", "{dir}/out.nii"}),
                    1,
                    {"Field 'image' is given more than once in --input (file '{dir}/labels.nii')"}},
        CommandCase{"SecondFileWithoutField",
                    processArguments({"--input", "{dir}/input.nii", "--input", "{dir}/labels.nii", "--output",
                                      "{dir}/out.nii"}),
                    1,
                    {"File '{dir}/labels.nii' of --input has no field"}},
        CommandCase{"InputAndLabelShareAField",
                    processArguments({"--input", "x={dir}/input.nii", "--label", "x={dir}/labels.nii",
                                      "--output", "x={dir}/out.nii"}),
                    1,
                    {"Field 'x' is given by --input"}},
        CommandCase{"NoFileAfterField",
                    processArguments({"--input", "image=", "--output", "{dir}/out.nii"}),
                    1,
                    {"Argument 'image=' of --input names no file"}},
        // Predict failures.
        CommandCase{"MissingModel",
                    {"predict", "--model", "{dir}/absent.yaml", "--input", "{dir}/input.nii", "--output",
                     "{dir}/out.nii"},
                    1,
                    {"{dir}/absent.yaml"}},
        CommandCase{
            "ArtefactNowhere",
            {"predict", "--model", "{dir}/no-artefact.yaml", "--input", "{dir}/input.nii", "--output",
             "{dir}/out.nii"},
            1,
            {"Model file 'nothere.pt' of engine 'torch' was not found; looked at: resource 'nothere.pt'",
             "; {dir}/nothere.pt (next to the YAML file); ", "nothere.pt (the working folder)"},
            true},
        // A refusal from deep inside the model names the model and the input it was given.
        CommandCase{
            "NegativePatchSize",
            {"predict", "--model", "{dir}/negative-patch.yaml", "--input", "{dir}/input.nii", "--output",
             "{dir}/out.nii"},
            1,
            {"Predicting with the model '{dir}/negative-patch.yaml' on {dir}/input.nii failed: ROI size "
             "-16x-16x-16 must be positive."},
            true},
        // --strict: what is a warning otherwise stops the run before it starts.
        CommandCase{"StrictMisspeltKey",
                    {"--strict", "process", "--config", "{dir}/typo.yaml", "--input", "{dir}/input.nii",
                     "--output", "{dir}/out.nii"},
                    1,
                    {"Parameter 'maxx' was specified but not used", "did you mean 'max' instead of 'maxx'?"}},
        CommandCase{"StrictIgnoredBlock",
                    {"--strict", "predict", "--model", "{dir}/sampling.yaml", "--input", "{dir}/input.nii",
                     "--output", "{dir}/out.nii"},
                    1,
                    {"The 'Sampling' block of '{dir}/sampling.yaml' has no effect"},
                    true},
        CommandCase{"UnknownInputField",
                    predictArguments({"--input", "Bogus={dir}/input.nii", "--output", "{dir}/out.nii"}),
                    1,
                    {"Input field 'Bogus' (file '{dir}/input.nii') is not an input of the model"},
                    true},
        CommandCase{"UnknownPredictionField",
                    predictArguments({"--input", "{dir}/input.nii", "--output", "Bogus={dir}/out.nii"}),
                    1,
                    {"No field 'Bogus' to write to '{dir}/out.nii'"},
                    true},
        CommandCase{"MissingPredictInput",
                    predictArguments({"--input", "{dir}/absent.nii", "--output", "{dir}/out.nii"}),
                    1,
                    {"Could not read file '{dir}/absent.nii' for field 'Input'"},
                    true},
        CommandCase{"PredictionFolderMissing",
                    predictArguments({"--input", "{dir}/input.nii", "--output", "{dir}/nowhere/out.nii.gz"}),
                    1,
                    {"the folder '{dir}/nowhere' does not exist"},
                    true},
        CommandCase{"TooManyInputs",
                    predictArguments({"--input", "{dir}/input.nii", "--input", "{dir}/labels.nii", "--output",
                                      "{dir}/out.nii"}),
                    1,
                    {"File '{dir}/labels.nii' of --input has no field"},
                    true}),
    [](auto const& info) { return info.param.name; });

// ---- predict ------------------------------------------------------------------------------

class VelmoriaPredictTest : public VelmoriaCommandFailureTest
{};

TEST_P(VelmoriaPredictTest, DoublesTheImageAndKeepsItsGeometry)
{
#ifndef VELMORIA_TEST_HAS_TORCH
    GTEST_SKIP() << "The torch engine plug-in is not built (LibTorch was not found)";
#endif
    // The same model with the short form of a processing list: "PostProcessing: [Clip]" clips
    // the doubled values to [0, 1].
    writeText("short-form.yaml",
              "Version: 8\nName: doubler\nType: NeuralNetwork\nPredictionOutput: [Image]\n"
              "Engine:\n  Name: torch\n  ModelFile: " VELMORIA_TORCH_MODELS_DIR "/double.pt\n"
              "  ForceCPU: true\n  InputFields: [Input]\n  OutputFields: [Prediction]\n"
              "PostProcessing:\n  - Clip\n");
    bool const clipped = GetParam().name == "ShortFormPostProcessing";
    auto const run = velmoria(GetParam().arguments);
    ASSERT_EQ(run.exitCode, 0) << run.err;
    auto const values = readValues(path("out.nii"));
    ASSERT_EQ(values.size(), static_cast<std::size_t>(kCount));
    auto const input = inputValues();
    for (int i = 0; i < kCount; ++i)
        EXPECT_FLOAT_EQ(values[i], clipped ? std::min(std::max(2 * input[i], 0.0), 1.0) : 2 * input[i])
            << "voxel " << i;
    expectSameGeometry(path("out.nii"));
    // Files are written under a temporary name and renamed: none of those may stay behind.
    for (auto const& entry : std::filesystem::directory_iterator(m_folder.path().stdPath()))
        EXPECT_EQ(entry.path().filename().string().find(".writing-"), std::string::npos) << entry.path();
    for (auto const& fragment : GetParam().errContains)
        EXPECT_TRUE(String::contains(run.err, fragment)) << fragment << "\nstderr:\n" << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    FieldForms, VelmoriaPredictTest,
    testing::Values(
        CommandCase{"DefaultFields",
                    predictArguments({"--input", "{dir}/input.nii", "--output", "{dir}/out.nii"}), 0},
        CommandCase{"ShortFormPostProcessing",
                    {"predict", "--model", "{dir}/short-form.yaml", "--input", "{dir}/input.nii", "--output",
                     "{dir}/out.nii"},
                    0},
        CommandCase{"NamedFields",
                    predictArguments({"--input", "Input={dir}/input.nii", "--output",
                                      "Prediction={dir}/out.nii", "--force-cpu", "--no-progress"}),
                    0},
        // One engine run (the model does not split); the table names every stage.
        CommandCase{
            "WithTimings",
            predictArguments({"--input", "{dir}/input.nii", "--output", "{dir}/out.nii", "--timings"}),
            0,
            {"Timings:", "  reading ", "  engine ", "  writing ", "engine runs: 1; outside the engine: "}}),
    [](auto const& info) { return info.param.name; });

// A classifier's scores go to .json and .csv files keyed by the class names of "LabelNames".
// The network gives the mean and the maximum of the image, so the scores are known exactly.
TEST_F(VelmoriaCommandTest, PredictWritesNamedScores)
{
#ifndef VELMORIA_TEST_HAS_TORCH
    GTEST_SKIP() << "The torch engine plug-in is not built (LibTorch was not found)";
#endif
    writeText("classifier.yaml",
              "Version: 8\nName: scores\nType: NeuralNetwork\nPredictionType: [Classification]\n"
              "PredictionOutput: [Vector]\nLabelNames: [Mean, \"Max, all\"]\n"
              "Engine:\n  Name: torch\n  ModelFile: " VELMORIA_TORCH_MODELS_DIR "/class_scores.pt\n"
              "  ForceCPU: true\n  InputFields: [Input]\n  OutputFields: [Prediction]\n");
    for (std::string const file : {"scores.json", "scores.csv"}) {
        auto const run = velmoria({"predict", "--model", "{dir}/classifier.yaml", "--input",
                                   "{dir}/input.nii", "--output", "{dir}/" + file});
        ASSERT_EQ(run.exitCode, 0) << run.err;
    }
    // Input values -5 .. 18: mean 6.5, maximum 18.
    EXPECT_EQ(Filesystem::File(path("scores.json")).readText().value_or(""),
              "{\n  \"Mean\": 6.5,\n  \"Max, all\": 18.0\n}\n");
    EXPECT_EQ(Filesystem::File(path("scores.csv")).readText().value_or(""), "Mean,\"Max, all\"\n6.5,18\n");
}

// CT windowing on an int16 scan: without MakeFloat the fractions are cut off, and the operation
// says so once, naming the field, the pixel type and the cure; with it the values are right.
TEST_F(VelmoriaCommandTest, IntegerImagesThatLoseValuesAreReported)
{
    ASSERT_TRUE(ImageFiles::write(SharedImageSet(MLTest::placedFrame<std::int16_t>(kSize, 1, inputValues())),
                                  path("ct.nii")));
    std::string const window = "- Clip: {min: -2, max: 10}\n- AdjustShiftScale: {shift: [2], scale: [12]}\n";
    for (bool const makeFloat : {false, true}) {
        SCOPED_TRACE(makeFloat ? "with MakeFloat" : "on int16");
        writeText("window.yaml", (makeFloat ? "- MakeFloat\n" : "") + window);
        auto const run = velmoria({"process", "--config", "{dir}/window.yaml", "--input", "{dir}/ct.nii",
                                   "--output", "{dir}/out.nii"});
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_EQ(
            String::contains(run.err, "of field 'image' did not fit its pixel type int16 and were changed"),
            !makeFloat)
            << run.err;
        EXPECT_EQ(String::contains(run.err, "put MakeFloat before AdjustShiftScale"), !makeFloat) << run.err;
        if (makeFloat) {
            auto const values = readValues(path("out.nii"));
            ASSERT_EQ(values.size(), static_cast<std::size_t>(kCount));
            for (int i = 0; i < kCount; ++i)
                EXPECT_FLOAT_EQ(values[i], (std::clamp(inputValues()[i], -2.0, 10.0) + 2) / 12)
                    << "voxel " << i;
        }
    }
}

// `process` takes the input as the reference image, as `predict` does: ResampleToInput brings a
// resampled image back onto the input's grid.
TEST_F(VelmoriaCommandTest, ProcessGoesBackToTheInputGrid)
{
    writeText("list.yaml", "- MakeFloat\n- ResampleDims: {target_dims: [7, 5, 3]}\n- ResampleToInput\n");
    auto const run = velmoria({"process", "--config", "{dir}/list.yaml", "--input", "{dir}/input.nii",
                               "--output", "{dir}/out.nii"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    expectSameGeometry(path("out.nii"));
}

} // namespace
