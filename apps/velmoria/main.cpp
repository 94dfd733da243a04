// velmoria: the command-line host of Velmoria ML.
//
//   velmoria [--plugin-dir DIR]... [--log-level LEVEL] <command> [arguments]
//   velmoria --version | --help
//
// Every command first loads the plug-ins (GlobalOptions.h); a plug-in folder that does not exist
// or a plug-in that cannot be loaded stops the run with exit code 1 before the command starts,
// because a command run without a plug-in it expects would fail later and less clearly. Exit
// codes: ExitCode.h. Messages go to standard error, results to standard output.

#include "apps/velmoria/ExitCode.h"
#include "apps/velmoria/GlobalOptions.h"
#include "apps/velmoria/InfoCommand.h"
#include "apps/velmoria/PredictCommand.h"
#include "apps/velmoria/ProcessCommand.h"
#include "ml/operations/Operation.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <exception>
#include <iostream>

namespace {

int run(int argc, char** argv)
{
    using namespace Velmoria::Cli;

    CLI::App app{"velmoria: runs machine-learning models and processing on medical images", "velmoria"};
    app.set_version_flag("--version", "velmoria " VELMORIA_VERSION);
    app.require_subcommand(1);

    GlobalOptions options;
    options.installFolder = Velmoria::PluginManager::bundledFolder();
    addGlobalOptions(app, options);
    InfoCommand info(app);
    PredictCommand predict(app);
    ProcessCommand process(app);

    try {
        app.parse(argc, argv);
    } catch (CLI::RequiredError const& e) {
        // CLI11 checks for a missing command before it looks at unexpected words, so a mistyped
        // command would be reported as "a subcommand is required"; name the word instead.
        auto const extra = app.remaining();
        if (app.get_subcommands().empty() && !extra.empty()) {
            std::cerr << "Unknown command: " << extra.front() << "\nRun with --help for more information.\n";
            return Usage;
        }
        return app.exit(e) == 0 ? Success : Usage;
    } catch (CLI::ParseError const& e) {
        // --help and --version arrive here too, as "errors" with exit code 0.
        return app.exit(e) == 0 ? Success : Usage;
    }

    Velmoria::PluginManager plugins;
    if (!setUp(options, plugins))
        return Failure;
    Velmoria::ML::Operation::setStrict(options.strict);
    if (info.selected())
        return info.run(plugins, std::cout);
    if (predict.selected())
        return predict.run();
    if (process.selected())
        return process.run();
    return Usage; // not reached: CLI11 requires one command
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (std::exception const& e) {
        std::cerr << "velmoria: " << e.what() << '\n';
    } catch (...) {
        std::cerr << "velmoria: unknown error\n";
    }
    return Velmoria::Cli::Failure;
}
