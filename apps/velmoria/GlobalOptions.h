#pragma once

// GlobalOptions: the options every velmoria command shares, and what they set up before a
// command runs: the log threshold and the loaded plug-ins.
//
//   --plugin-dir DIR   a folder to search for plug-ins before VELMORIA_PLUGIN_PATH and the
//                      install folder; repeatable, searched in the order given
//   --log-level LEVEL  debug | info | warning | error (any case); messages below it are dropped
//   --strict           unknown keys and ignored blocks are errors (exit 1), not warnings

#include "host/plugin/PluginManager.h"

#include <CLI/App.hpp>

#include <string>
#include <vector>

namespace Velmoria::Cli {

struct GlobalOptions
{
    std::vector<std::string> pluginFolders;
    std::string logLevel = "info";
    bool strict = false;
    // The install folder; compiled in, tests and packagers may point it elsewhere.
    std::string installFolder;
};

void addGlobalOptions(CLI::App& app, GlobalOptions& options);

// The Log level of a --log-level value (validated by CLI11 already): 1 debug ... 4 error.
int logLevelNumber(std::string const& level);

// Sets the log threshold and loads the plug-ins. False when any plug-in folder or plug-in failed;
// the plug-in manager has logged each problem, naming the folder or file.
bool setUp(GlobalOptions const& options, PluginManager& plugins);

} // namespace Velmoria::Cli
