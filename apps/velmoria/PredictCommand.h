#pragma once

// `velmoria predict`: runs a model on one item read from image files and writes the fields of
// the prediction to image files.
//
//   velmoria predict --model MODEL.yaml --input [FIELD=]FILE... --output [FIELD=]FILE...
//                    [--force-cpu] [--no-progress] [--timings]
//
// An input without FIELD= takes the next of the model's "PreprocessingInputFields" that no
// other input names; an output without FIELD= the first engine output field that is not
// ignored. Input fields are checked against the model before any file is read, so that a typo
// fails at once; output fields are checked against the prediction itself, since post-processing
// may add fields. A progress bar goes to standard error when it is a terminal. --timings prints
// a table of where the time went (reading, the model's stages, the engine, writing) on standard
// error after the files are written.

#include <CLI/App.hpp>

#include <string>
#include <vector>

namespace Velmoria::Cli {

class PredictCommand
{
public:
    explicit PredictCommand(CLI::App& app);

    bool selected() const;
    // Needs the plug-ins loaded (the engine and the operations come from them).
    int run() const;

private:
    int runUnguarded() const;

    CLI::App* m_command = nullptr;
    std::string m_model;
    std::vector<std::string> m_inputs;
    std::vector<std::string> m_outputs;
    bool m_forceCpu = false;
    bool m_noProgress = false;
    bool m_timings = false;
    bool m_overwrite = false;
};

} // namespace Velmoria::Cli
