// Runs the built velmoria program as a user would and checks its exit code and output.

#include "host/core/Filesystem.h"
#include "host/core/String.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <ostream>

using namespace Velmoria;

namespace {

std::string const kPlugins = VELMORIA_TEST_PLUGIN_DIR;

struct Run
{
    int exitCode = -1;
    std::string out;
    std::string err;
};

std::string substitute(std::string text)
{
    return String::replaceAllCopy(text, "{plugins}", kPlugins);
}

// `environment`: "NAME=value" set for the run; VELMORIA_PLUGIN_PATH is unset otherwise, so the
// caller's environment cannot change the result.
Run runVelmoria(std::vector<std::string> const& arguments, std::string const& environment)
{
    Filesystem::TemporaryDirectory folder("velmoria-cli");
    auto const out = folder.path() / "out.txt";
    auto const err = folder.path() / "err.txt";
    std::string command = "env -u VELMORIA_PLUGIN_PATH " + substitute(environment) + " '" VELMORIA_CLI "'";
    for (auto const& argument : arguments)
        command += " '" + substitute(argument) + "'";
    command += " >'" + out.str() + "' 2>'" + err.str() + "'";

    Run run;
    int const status = std::system(command.c_str());
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = Filesystem::File(out).readText().value_or("<no output file>");
    run.err = Filesystem::File(err).readText().value_or("<no error file>");
    return run;
}

struct CliCase
{
    std::string name;
    std::vector<std::string> arguments;
    int exitCode;
    std::vector<std::string> outContains = {};
    std::vector<std::string> errContains = {};
    std::vector<std::string> errLacks = {};
    std::string environment = {};
    // Failures print no result.
    bool outEmpty = false;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(CliCase const& c, std::ostream* os) { *os << c.name; }
};

class VelmoriaCliTest : public testing::TestWithParam<CliCase>
{};

TEST_P(VelmoriaCliTest, ExitCodeAndOutput)
{
    auto const& c = GetParam();
    auto const run = runVelmoria(c.arguments, c.environment);

    EXPECT_EQ(run.exitCode, c.exitCode) << "stdout:\n" << run.out << "\nstderr:\n" << run.err;
    for (auto const& fragment : c.outContains)
        EXPECT_TRUE(String::contains(run.out, substitute(fragment))) << substitute(fragment) << "\nstdout:\n"
                                                                     << run.out;
    for (auto const& fragment : c.errContains)
        EXPECT_TRUE(String::contains(run.err, substitute(fragment))) << substitute(fragment) << "\nstderr:\n"
                                                                     << run.err;
    for (auto const& fragment : c.errLacks)
        EXPECT_FALSE(String::contains(run.err, substitute(fragment))) << substitute(fragment) << "\nstderr:\n"
                                                                      << run.err;
    if (c.outEmpty) {
        EXPECT_EQ(run.out, "");
    }
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, VelmoriaCliTest,
    testing::Values(
        // Information about the program itself.
        CliCase{"Version", {"--version"}, 0, {"velmoria " VELMORIA_VERSION "\n"}},
        CliCase{"Help", {"--help"}, 0, {"--plugin-dir", "--log-level", "--version", "info"}},
        CliCase{"InfoHelp",
                {"info", "--help"},
                0,
                {"plugins, operations, samplers, loaders, engines, metrics, algorithms"}},
        // Usage errors: exit code 2, a message naming the culprit.
        CliCase{"UnknownOption", {"--frobnicate", "info"}, 2, {}, {"--frobnicate"}, {}, {}, true},
        CliCase{"NoCommand", {}, 2, {}, {"subcommand"}, {}, {}, true},
        CliCase{"UnknownCommand", {"predictt"}, 2, {}, {"predictt"}, {}, {}, true},
        CliCase{"UnknownKind", {"info", "widgets"}, 2, {}, {"widgets"}, {}, {}, true},
        CliCase{"UnknownLogLevel", {"--log-level", "loud", "info"}, 2, {}, {"loud"}, {}, {}, true},
        CliCase{"PluginDirWithoutValue", {"info", "--plugin-dir"}, 2, {}, {"--plugin-dir"}, {}, {}, true},
        // Failures: exit code 1, the folder or file named.
        CliCase{"UnknownPluginFolder",
                {"--plugin-dir", "/nonexistent/velmoria-plugins", "info"},
                1,
                {},
                {"Plug-in folder '/nonexistent/velmoria-plugins' (given on the command line) does not exist"},
                {},
                {},
                true},
        CliCase{"UnknownFolderInEnvironment",
                {"info"},
                1,
                {},
                {"Plug-in folder '/nonexistent/env-plugins' (from VELMORIA_PLUGIN_PATH) does not exist"},
                {},
                "VELMORIA_PLUGIN_PATH=/nonexistent/env-plugins",
                true},
        CliCase{"BrokenPlugin",
                {"--plugin-dir", "{plugins}/initfail", "info", "plugins"},
                1,
                {},
                {"Plug-in 'Test.InitFails' ({plugins}/initfail/libTestInitFails.so): init() returned 3"},
                {},
                {},
                true},
        CliCase{"GarbageFromOneFolderFailsTheRun",
                {"--plugin-dir", "{plugins}/good", "--plugin-dir", "{plugins}/missing", "info"},
                1,
                {},
                {"depends on 'Test.Absent', which is not available"},
                {},
                {},
                true},
        // Listings.
        CliCase{"Plugins",
                {"--plugin-dir", "{plugins}/good", "info", "plugins"},
                0,
                {"Plug-ins (", "\n  Test.Consumer - Test plug-in Test.Consumer\n  Test.Provider - Test "
                               "plug-in Test.Provider\n"}},
        CliCase{"Algorithms",
                {"--plugin-dir", "{plugins}/good", "info", "algorithms"},
                0,
                {"Algorithms (", "\n  ConsumerAlgorithm\n", "\n  ProviderAlgorithm\n"}},
        CliCase{"OneKindOnly", {"--plugin-dir", "{plugins}/good", "info", "engines"}, 0, {"Engines ("}},
        CliCase{"OptionsAfterTheCommand",
                {"info", "plugins", "--plugin-dir", "{plugins}/good"},
                0,
                {"  Test.Provider - Test plug-in Test.Provider\n"}},
        CliCase{"FolderFromEnvironment",
                {"info", "plugins"},
                0,
                {"  Test.Provider - Test plug-in Test.Provider\n"},
                {},
                {},
                // Empty entries are ignored.
                "VELMORIA_PLUGIN_PATH=::{plugins}/good:"},
        // --log-level: debug shows the skipped library, error hides the duplicate's warning.
        CliCase{"DebugLevel",
                {"--log-level", "DEBUG", "--plugin-dir", "{plugins}/good", "info", "plugins"},
                0,
                {},
                {"Skipping '{plugins}/good/libTestNotAPlugin.so': it has no plug-in magic string"}},
        CliCase{"ErrorLevel",
                {"--log-level", "error", "--plugin-dir", "{plugins}/good", "--plugin-dir",
                 "{plugins}/duplicate", "info"},
                0,
                {},
                {},
                {"is ignored"}},
        CliCase{"WarningsShownByDefault",
                {"--plugin-dir", "{plugins}/good", "--plugin-dir", "{plugins}/duplicate", "info", "plugins"},
                0,
                {},
                {"is ignored: the same plug-in comes from '{plugins}/good/libTestProvider.so'"}}),
    [](auto const& info) { return info.param.name; });

TEST(VelmoriaCliListingTest, WithoutAKindEveryKindIsListedInOrder)
{
    auto const run = runVelmoria({"--plugin-dir", "{plugins}/good", "info"}, "");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::size_t previous = 0;
    for (std::string heading : {"Plug-ins (", "Operations (", "Samplers (", "Loaders (", "Engines (",
                                "Metrics (", "Algorithms ("}) {
        auto const position = run.out.find(heading);
        ASSERT_NE(position, std::string::npos) << heading << "\n" << run.out;
        EXPECT_GE(position, previous) << heading;
        previous = position;
    }
    // Kinds are separated by one empty line, and each heading counts its entries.
    EXPECT_TRUE(String::contains(run.out, "\n\nOperations (")) << run.out;
    EXPECT_TRUE(String::contains(run.out, "\n\nMetrics (")) << run.out;
}

} // namespace
