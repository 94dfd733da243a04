#pragma once

// `velmoria process`: runs a processing list on one item read from image files and writes
// fields of the result to image files.
//
//   velmoria process --config LIST.yaml [--section NAME] --input [FIELD=]FILE...
//                    [--label [FIELD=]FILE...] --output [FIELD=]FILE...
//                    [--phase training|validation|inference|always] [--seed N]
//
// LIST.yaml is a YAML list of operations, or, with --section, a file of named lists of which
// NAME is run. Inputs default to the field "image", labels to "label"; labels are read as label
// maps and tagged as targets. An output without FIELD= writes "image". Only the operations whose
// phases include --phase (default inference) run; --seed gives every operation the same seed
// so that random operations repeat.

#include <CLI/App.hpp>

#include <optional>
#include <string>
#include <vector>

namespace Velmoria::Cli {

class ProcessCommand
{
public:
    explicit ProcessCommand(CLI::App& app);

    bool selected() const;
    // Needs the plug-ins loaded (the operations come from them).
    int run() const;

private:
    int runUnguarded() const;

    CLI::App* m_command = nullptr;
    std::string m_config;
    std::string m_section;
    std::vector<std::string> m_inputs;
    std::vector<std::string> m_labels;
    std::vector<std::string> m_outputs;
    std::string m_phase = "inference";
    std::optional<unsigned int> m_seed;
    bool m_overwrite = false;
};

} // namespace Velmoria::Cli
