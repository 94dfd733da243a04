#include "apps/velmoria/GlobalOptions.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <CLI/Validators.hpp>

namespace Velmoria::Cli {

namespace {

std::vector<std::string> const kLevels{"debug", "info", "warning", "error"};

} // namespace

void addGlobalOptions(CLI::App& app, GlobalOptions& options)
{
    // One folder per occurrence: "--plugin-dir a info" must not read "info" as a second folder.
    app.add_option("--plugin-dir", options.pluginFolders,
                   "Folder to search for plug-ins (repeatable; searched before VELMORIA_PLUGIN_PATH and the "
                   "install folder)")
        ->type_name("DIR")
        ->allow_extra_args(false);
    app.add_option("--log-level", options.logLevel, "Lowest level of messages shown on standard error")
        ->type_name("LEVEL")
        ->transform(CLI::IsMember(kLevels, CLI::ignore_case))
        ->default_str("info");
    app.add_flag(
        "--strict", options.strict,
        "Unknown keys and ignored blocks of model files and processing lists are errors, not warnings");
}

int logLevelNumber(std::string const& level)
{
    auto const lower = String::toLowerCopy(level);
    for (std::size_t i = 0; i < kLevels.size(); ++i) {
        if (kLevels[i] == lower)
            return static_cast<int>(i) + Log::Debug;
    }
    return Log::Info;
}

bool setUp(GlobalOptions const& options, PluginManager& plugins)
{
    Log::g_globalLevel = logLevelNumber(options.logLevel);
    auto const folders = PluginManager::searchFolders(options.pluginFolders, options.installFolder);
    return plugins.load(folders).ok();
}

} // namespace Velmoria::Cli
