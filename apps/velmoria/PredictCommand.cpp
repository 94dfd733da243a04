#include "apps/velmoria/PredictCommand.h"

#include "apps/velmoria/ExitCode.h"
#include "apps/velmoria/FieldArguments.h"
#include "apps/velmoria/ItemFiles.h"
#include "ml/model/MachineLearningModel.h"

#include "host/core/Log.h"
#include "host/core/Progress.h"
#include "host/core/String.h"
#include "host/core/Timer.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>

namespace Velmoria::Cli {

namespace {

constexpr char const* kCategory = "Cli.Predict";

std::vector<std::string> outputFields(ML::ModelConfiguration const& config)
{
    std::vector<std::string> fields;
    auto const& ignored = config.engineOutputFieldsToIgnore();
    for (auto const& field : config.engineOutputFields())
        if (std::find(ignored.begin(), ignored.end(), field) == ignored.end())
            fields.push_back(field);
    return fields;
}

// Standard error, not the log: the table is asked for and must show whatever the log level.
void printTimings(double readingMs, ML::PredictionTimings const& model, double writingMs)
{
    auto const row = [](char const* stage, double ms) {
        std::fprintf(stderr, "  %-16s %10.1f ms\n", stage, ms);
    };
    std::fprintf(stderr, "Timings:\n");
    row("reading", readingMs);
    row("pre-processing", model.preprocessingMs);
    row("splitting", model.splittingMs);
    row("engine", model.engineMs);
    row("recombination", model.recombinationMs);
    row("post-processing", model.postprocessingMs);
    row("other", model.totalMs - model.preprocessingMs - model.splittingMs - model.engineMs -
                     model.recombinationMs - model.postprocessingMs);
    row("writing", writingMs);
    double const outside = readingMs + model.outsideEngineMs() + writingMs;
    std::fprintf(stderr, "  engine runs: %zu; outside the engine: %.1f ms = %.1f%% of the engine time\n",
                 model.engineRuns, outside, model.engineMs > 0 ? 100.0 * outside / model.engineMs : 0.0);
}

} // namespace

PredictCommand::PredictCommand(CLI::App& app)
{
    m_command = app.add_subcommand("predict", "Run a model on image files and write its prediction");
    m_command->fallthrough();
    m_command->add_option("--model", m_model, "The model's YAML configuration file")->required();
    m_command
        ->add_option("--input", m_inputs,
                     "[FIELD=]FILE: an input image; FIELD defaults to the model's input fields in order")
        ->required();
    m_command
        ->add_option(
            "--output", m_outputs,
            "[FIELD=]FILE: a field of the prediction to write; FIELD defaults to the first output field")
        ->required();
    m_command->add_flag("--force-cpu", m_forceCpu, "Run the engine on the CPU even when a GPU is available");
    m_command->add_flag("--overwrite", m_overwrite, "Allow an output file to replace an input file");
    m_command->add_flag("--no-progress", m_noProgress, "Draw no progress bar");
    m_command->add_flag("--timings", m_timings,
                        "Print where the time went: reading, each stage of the model, the engine, writing");
}

bool PredictCommand::selected() const
{
    return m_command->parsed();
}

int PredictCommand::run() const
{
    // Whatever escapes the steps (a refusal deep in an operation, memory running out) is said
    // with the file it concerns, not as a bare text.
    try {
        return runUnguarded();
    } catch (std::bad_alloc const&) {
        VELMORIA_LOG_ERROR(kCategory,
                           "Predicting with the model '{}' on {} ran out of memory: the images (or the "
                           "patches and batches of a "
                           "model) are too large for this machine",
                           m_model, String::join(m_inputs, ", "));
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "Predicting with the model '{}' on {} failed: {}", m_model,
                           String::join(m_inputs, ", "), e.what());
    }
    return Failure;
}

int PredictCommand::runUnguarded() const
{
    auto model = ML::MachineLearningModel::create(m_model, ML::PredictionOutput::Image);
    if (!model) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load the model '{}'", m_model);
        return Failure;
    }
    auto& config = *model->config();
    if (m_forceCpu)
        config.setForceCPU(true);

    auto const& inputFields = config.preprocessingInputFields();
    auto const inputs = resolveFieldArguments(m_inputs, "--input", inputFields);
    if (!inputs)
        return Failure;
    for (auto const& input : *inputs) {
        if (std::find(inputFields.begin(), inputFields.end(), input.field) == inputFields.end()) {
            VELMORIA_LOG_ERROR(kCategory,
                               "Input field '{}' (file '{}') is not an input of the model '{}'; it takes: {}",
                               input.field, input.file, m_model, String::join(inputFields, ", "));
            return Failure;
        }
    }
    auto const defaultOutputs = outputFields(config);
    // Only the first output field is a default: several unnamed outputs would be a guess.
    std::vector<std::string> outputDefault;
    if (!defaultOutputs.empty())
        outputDefault.push_back(defaultOutputs.front());
    auto const outputs = resolveFieldArguments(m_outputs, "--output", outputDefault);
    if (!outputs || !checkOutputFiles(*outputs, {*inputs}, m_overwrite))
        return Failure;

    Timer reading;
    ML::DataItem item;
    if (!readFields(*inputs, FieldRole::Input, item))
        return Failure;
    double const readingMs = reading.getPassedMs();

    std::unique_ptr<Progress> progress;
    if (!m_noProgress && isatty(fileno(stderr)))
        progress = std::make_unique<TextProgress>(stderr, TextProgress::Style::Bar);
    model->setProgress(progress.get());
    auto const prediction = model->predict(item);
    model->setProgress(nullptr);
    if (prediction.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "The model '{}' gave no prediction", m_model);
        return Failure;
    }
    Timer writing;
    if (!writeFields(*outputs, prediction))
        return Failure;
    if (m_timings)
        printTimings(readingMs, model->lastTimings(), writing.getPassedMs());
    return Success;
}

} // namespace Velmoria::Cli
