#include "apps/velmoria/ProcessCommand.h"

#include "apps/velmoria/ExitCode.h"
#include "apps/velmoria/FieldArguments.h"
#include "apps/velmoria/ItemFiles.h"
#include "ml/operations/OperationsSequence.h"
#include "ml/operations/Phase.h"
#include "ml/operations/ProcessingSpecs.h"
#include "ml/operations/PropertiesYAML.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <CLI/Validators.hpp>
#include <fmt/format.h>

#include <exception>
#include <new>

namespace Velmoria::Cli {

namespace {

constexpr char const* kCategory = "Cli.Process";

// The names of the sections of a file of named lists; empty for a file that is one list (its
// top-level names are operations, or it is a sequence).
std::vector<std::string> sectionNames(Properties const& tree)
{
    std::vector<std::string> sections;
    for (auto const* sub : tree.subProperties()) {
        if (sub->name().empty() || ML::Operation::isRegistered(sub->name()))
            return {};
        sections.push_back(sub->name());
    }
    for (auto const& param : tree.params()) {
        if (ML::Operation::isRegistered(param.key))
            return {};
        sections.push_back(param.key);
    }
    return sections;
}

// The specs of the whole file, or of its section `section`; null (logged) on failure.
std::optional<std::vector<ML::Operation::Specs>> loadSpecs(std::string const& path,
                                                           std::string const& section)
{
    auto const tree = ML::PropertiesYAML::createFromFile(path);
    if (!tree) {
        VELMORIA_LOG_ERROR(kCategory, "Could not read the processing list '{}'", path);
        return std::nullopt;
    }
    try {
        if (section.empty()) {
            if (auto const sections = sectionNames(*tree); !sections.empty()) {
                VELMORIA_LOG_ERROR(kCategory,
                                   "The processing list '{}' has sections: {}. Choose one with --section",
                                   path, String::join(sections, ", "));
                return std::nullopt;
            }
            return ML::propertyToProcessingSpecs(*tree);
        }
        if (auto specs = ML::namedProcessingList(*tree, section))
            return specs;
        std::vector<std::string> sections;
        for (auto const* sub : tree->subProperties())
            sections.push_back(sub->name());
        VELMORIA_LOG_ERROR(kCategory, "The processing list '{}' has no section '{}'; it has: {}", path,
                           section, sections.empty() ? std::string("none") : String::join(sections, ", "));
        return std::nullopt;
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "The processing list '{}' is not valid: {}", path, e.what());
        return std::nullopt;
    }
}

// One line naming the steps that `phase` leaves out, and a phase that would run them, so that a
// list that seems to do nothing explains itself.
void reportSkippedSteps(ML::OperationsSequence const& sequence, ML::Phase phase)
{
    auto const names = sequence.getOperationNames();
    auto const phases = sequence.phases();
    std::vector<std::string> skipped;
    ML::Phase wanted{};
    for (std::size_t i = 0; i < names.size() && i < phases.size(); ++i) {
        if (ML::includesPhase(phases[i], phase))
            continue;
        skipped.push_back(fmt::format("{} ({})", names[i], ML::phaseToString(phases[i])));
        wanted |= phases[i];
    }
    if (skipped.empty())
        return;
    // The first phase of the skipped steps' masks, in the order training, validation, inference.
    std::string option = "training";
    if (!ML::includesPhase(wanted, ML::Phase::Training))
        option = ML::includesPhase(wanted, ML::Phase::Validation) ? "validation" : "inference";
    VELMORIA_LOG_INFO(kCategory, "Skipped in phase {}: {}; --phase {} runs {}",
                      String::toLowerCopy(ML::phaseToString(phase)), String::join(skipped, ", "), option,
                      skipped.size() == 1 ? "it" : "them");
}

} // namespace

ProcessCommand::ProcessCommand(CLI::App& app)
{
    m_command = app.add_subcommand("process", "Run a processing list on image files and write the result");
    m_command->fallthrough();
    m_command->add_option("--config", m_config, "The processing list (YAML)")->required();
    m_command->add_option("--section", m_section, "The named list of the file to run");
    m_command->add_option("--input", m_inputs, "[FIELD=]FILE: an input image; FIELD defaults to 'image'")
        ->required();
    m_command->add_option("--label", m_labels,
                          "[FIELD=]FILE: a label map, read as target; FIELD defaults to 'label'");
    m_command->add_option("--output", m_outputs, "[FIELD=]FILE: a field to write; FIELD defaults to 'image'")
        ->required();
    m_command->add_option("--phase", m_phase, "The phase the operations run for (default: inference)")
        ->check(CLI::IsMember({"training", "validation", "inference", "always"}, CLI::ignore_case));
    m_command->add_option("--seed", m_seed, "Seed of every operation's random numbers");
    m_command->add_flag("--overwrite", m_overwrite, "Allow an output file to replace an input file");
}

bool ProcessCommand::selected() const
{
    return m_command->parsed();
}

int ProcessCommand::run() const
{
    // Whatever escapes the steps (a refusal deep in an operation, memory running out) is said
    // with the file it concerns, not as a bare text.
    try {
        return runUnguarded();
    } catch (std::bad_alloc const&) {
        VELMORIA_LOG_ERROR(
            kCategory,
            "Processing with '{}' on {} ran out of memory: the images (or the patches and batches of a "
            "model) are too large for this machine",
            m_config, String::join(m_inputs, ", "));
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "Processing with '{}' on {} failed: {}", m_config,
                           String::join(m_inputs, ", "), e.what());
    }
    return Failure;
}

int ProcessCommand::runUnguarded() const
{
    auto const inputs = resolveFieldArguments(m_inputs, "--input", {"image"});
    auto const labels = resolveFieldArguments(m_labels, "--label", {"label"});
    auto const outputs = resolveFieldArguments(m_outputs, "--output", {"image"});
    if (!inputs || !labels || !outputs)
        return Failure;
    for (auto const& label : *labels) {
        for (auto const& input : *inputs) {
            if (input.field == label.field) {
                VELMORIA_LOG_ERROR(kCategory, "Field '{}' is given by --input ('{}') and by --label ('{}')",
                                   label.field, input.file, label.file);
                return Failure;
            }
        }
    }

    auto const specs = loadSpecs(m_config, m_section);
    if (!specs)
        return Failure;
    ML::OperationsSequence sequence(*specs);
    if (sequence.error()) {
        VELMORIA_LOG_ERROR(kCategory, "Could not build the processing list '{}': {}", m_config,
                           sequence.error()->message);
        return Failure;
    }
    if (m_seed)
        sequence.setOperationSeeds(*m_seed);

    if (!checkOutputFiles(*outputs, {*inputs, *labels}, m_overwrite))
        return Failure;

    ML::DataItem item;
    if (!readFields(*inputs, FieldRole::Input, item) || !readFields(*labels, FieldRole::Target, item))
        return Failure;
    setInputAsReference(item, inputs->front().field);
    ML::Phase const phase = ML::stringToPhase(m_phase);
    reportSkippedSteps(sequence, phase);
    if (auto const error = sequence.process(item, phase)) {
        VELMORIA_LOG_ERROR(kCategory, "Processing with '{}' failed: {}", m_config, error->message);
        return Failure;
    }
    return writeFields(*outputs, item) ? Success : Failure;
}

} // namespace Velmoria::Cli
