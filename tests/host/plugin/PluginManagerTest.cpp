#include "host/plugin/PluginManager.h"

#include "host/algorithm/FactoryRegistry.h"
#include "host/core/Log.h"
#include "host/plugin/ApplicationController.h"
#include "host/plugin/PluginAutoRegistrationGuard.h"
#include "host/plugin/PluginBase.h"
#include "host/plugin/SharedLibrary.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ostream>

using namespace Velmoria;
using Folder = PluginManager::Folder;
using Origin = PluginManager::FolderOrigin;

namespace {

Filesystem::Path const kPlugins(VELMORIA_TEST_PLUGIN_DIR);
constexpr char const* kCategory = "Host.PluginManager";

std::string file(std::string const& scenario, std::string const& name)
{
    return (kPlugins / scenario / ("lib" + name + ".so")).str();
}

bool algorithmRegistered(std::string const& id)
{
    auto const factories = FactoryRegistry::get().factories();
    return std::any_of(factories.begin(), factories.end(),
                       [&](AlgorithmFactory* factory) { return factory->hasAlgorithm(id, false); });
}

std::vector<std::string> messages(std::vector<PluginManager::Problem> const& problems)
{
    std::vector<std::string> texts;
    for (auto const& problem : problems)
        texts.push_back(problem.message);
    return texts;
}

// Test plug-ins set this variable from a static initialiser, so it stays set after unloading.
bool everLoaded(std::string const& id)
{
    return std::getenv(("VELMORIA_TEST_PLUGIN_LOADED_" + id).c_str()) != nullptr;
}

class PluginManagerTest : public testing::Test
{
protected:
    Log::Capture m_capture;
    PluginManager m_manager;
};

TEST_F(PluginManagerTest, LoadsAFolderInDependencyOrderAndSkipsLibrariesWithoutMagic)
{
    auto const result = m_manager.load({{kPlugins / "good", Origin::CommandLine}});

    EXPECT_TRUE(result.ok()) << testing::PrintToString(messages(result.errors));
    EXPECT_TRUE(result.warnings.empty());
    // libTestConsumer.so comes first by name; its init() returns 7 unless the provider ran before.
    EXPECT_EQ(result.loaded, (std::vector<std::string>{"Test.Provider", "Test.Consumer"}));
    ASSERT_EQ(result.skipped.size(), 1u);
    EXPECT_EQ(result.skipped[0].str(), file("good", "TestNotAPlugin"));

    // The library without magic was never loaded: none of its code ran.
    EXPECT_FALSE(everLoaded("Test.NotAPlugin"));
    EXPECT_TRUE(everLoaded("Test.Provider"));
    EXPECT_TRUE(PluginAutoRegistrationGuard::isAnnounced("Test.Provider"));

    EXPECT_TRUE(algorithmRegistered("ProviderAlgorithm"));
    EXPECT_TRUE(algorithmRegistered("ConsumerAlgorithm"));

    auto const plugins = m_manager.plugins();
    ASSERT_EQ(plugins.size(), 2u);
    EXPECT_EQ(plugins[1].id, "Test.Consumer");
    EXPECT_EQ(plugins[1].file.str(), file("good", "TestConsumer"));
    EXPECT_EQ(plugins[1].magic.pluginVersion(), "1.0");
    EXPECT_EQ(plugins[1].dependencies,
              (std::vector<std::string>{"Test.Provider", "Velmoria.Stream", "Velmoria.Graph"}));
    ASSERT_NE(plugins[1].plugin, nullptr);
    EXPECT_EQ(plugins[1].plugin->description(), "Test plug-in Test.Consumer");
    EXPECT_EQ(m_manager.plugin("Test.Provider"), plugins[0].plugin);
    EXPECT_EQ(m_manager.plugin("Test.Absent"), nullptr);
    EXPECT_TRUE(m_manager.isLoaded("Test.Consumer"));
    EXPECT_EQ(m_capture.messages(Log::Error), std::vector<std::string>{});
}

TEST_F(PluginManagerTest, UnloadingDestroysPluginsAndClosesTheirLibraries)
{
    ASSERT_TRUE(m_manager.load({{kPlugins / "good", Origin::CommandLine}}).ok());
    ASSERT_TRUE(SharedLibrary::isLoaded(file("good", "TestProvider")));

    m_manager.unloadAll();

    EXPECT_TRUE(m_manager.plugins().empty());
    EXPECT_FALSE(m_manager.isLoaded("Test.Provider"));
    // The factories went with their plug-ins, out of the registry...
    EXPECT_FALSE(algorithmRegistered("ProviderAlgorithm"));
    EXPECT_FALSE(algorithmRegistered("ConsumerAlgorithm"));
    // ... and the libraries are gone (their static guards were destroyed).
    EXPECT_FALSE(PluginAutoRegistrationGuard::isAnnounced("Test.Provider"));
    EXPECT_FALSE(SharedLibrary::isLoaded(file("good", "TestProvider")));

    // A manager can load again afterwards.
    EXPECT_EQ(m_manager.load({{kPlugins / "good", Origin::CommandLine}}).loaded.size(), 2u);
}

// ---------------------------------------------------------------------------------------------
// Broken plug-ins: each scenario folder, what loads, and the exact errors.

struct BrokenCase
{
    std::string scenario;
    std::vector<std::string> loaded;
    // {file name without lib/.so, message with {file} for that file's path}
    std::vector<std::pair<std::string, std::string>> errors;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(BrokenCase const& c, std::ostream* os) { *os << c.scenario; }
};

class PluginManagerBrokenTest : public PluginManagerTest, public testing::WithParamInterface<BrokenCase>
{};

TEST_P(PluginManagerBrokenTest, ReportsEachBrokenPluginByFileAndLoadsTheRest)
{
    auto const& c = GetParam();
    auto const result = m_manager.load({{kPlugins / c.scenario, Origin::CommandLine}});

    EXPECT_FALSE(result.ok());
    EXPECT_EQ(result.loaded, c.loaded);
    std::vector<std::string> expected;
    for (auto const& [name, message] : c.errors) {
        auto const path = file(c.scenario, name);
        auto text = message;
        text.replace(text.find("{file}"), 6, path);
        expected.push_back(text);
        EXPECT_TRUE(m_capture.contains(text, kCategory)) << text;
    }
    auto actual = messages(result.errors);
    std::sort(actual.begin(), actual.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(actual, expected);
    for (auto const& problem : result.errors)
        EXPECT_TRUE(problem.path.str().starts_with((kPlugins / c.scenario).str())) << problem.path.str();

    // Nothing of a failed plug-in stays loaded.
    for (auto const& [name, message] : c.errors)
        EXPECT_FALSE(SharedLibrary::isLoaded(file(c.scenario, name))) << name;
    EXPECT_EQ(m_manager.plugins().size(), c.loaded.size());
    // A plug-in of another host version is refused before any of its code runs.
    EXPECT_EQ(everLoaded("Test.OldHost"), false);
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, PluginManagerBrokenTest,
    testing::Values(
        BrokenCase{
            "missing",
            {"Test.Standalone"},
            {{"TestOrphan",
              "Plug-in 'Test.Orphan' ({file}) depends on 'Test.Absent', which is not available"},
             {"TestOrphanUser",
              "Plug-in 'Test.OrphanUser' ({file}) depends on 'Test.Orphan', which could not be loaded"}}},
        BrokenCase{"initfail",
                   {},
                   {{"TestInitFails", "Plug-in 'Test.InitFails' ({file}): init() returned 3"},
                    {"TestInitThrows",
                     "Plug-in 'Test.InitThrows' ({file}): init() threw: the test plug-in refuses to start"},
                    {"TestAfterFailure", "Plug-in 'Test.AfterFailure' ({file}) depends on 'Test.InitFails', "
                                         "which could not be loaded"}}},
        BrokenCase{
            "cycle",
            {},
            {{"TestCycleA", "Plug-in 'Test.CycleA' ({file}) and plug-in 'Test.CycleB' depend on each other "
                            "(cycle: Test.CycleA -> Test.CycleB -> Test.CycleA)"},
             {"TestCycleB", "Plug-in 'Test.CycleB' ({file}) and plug-in 'Test.CycleA' depend on each other "
                            "(cycle: Test.CycleB -> Test.CycleA -> Test.CycleB)"}}},
        BrokenCase{
            "oldhost",
            {},
            {{"TestOldHost", "Plug-in file '{file}' cannot be used: it was built for host version 3.9.0, but "
                             "this host implements version 4.4.6"}}}),
    [](auto const& info) { return info.param.scenario; });

// In the next two, dlerror()'s text follows the fixed part of the message; only the fixed part is
// compared.
TEST_F(PluginManagerTest, APluginWithoutTheCreateFunctionIsRefusedAndUnloaded)
{
    auto const result = m_manager.load({{kPlugins / "noexport", Origin::CommandLine}});

    ASSERT_EQ(result.errors.size(), 1u);
    auto const prefix =
        "Plug-in file '" + file("noexport", "TestNoCreate") + "' does not export velmoriaCreatePlugin(): ";
    EXPECT_TRUE(result.errors[0].message.starts_with(prefix)) << result.errors[0].message;
    EXPECT_TRUE(m_capture.containsFragment(prefix));
    EXPECT_FALSE(SharedLibrary::isLoaded(file("noexport", "TestNoCreate")));
}

// A file with the marker that is no library is refused by the loader (whose reason follows the
// fixed part); one with a malformed magic string is refused without loading.
TEST_F(PluginManagerTest, FilesWithTheMarkerButNoPluginAreRefused)
{
    std::string const nul(1, '\0');
    std::pair<std::string, std::string> const cases[] = {
        {"not an ELF file " VELMORIA_PLUGIN_MAGIC_STRING("", "") + nul + "junk",
         "Could not load plug-in file '{file}': "},
        {VELMORIA_PLUGIN_MAGIC_MARKER "|buildflags=x" + nul,
         "Plug-in file '{file}' has a malformed magic string ('" VELMORIA_PLUGIN_MAGIC_MARKER
         "|buildflags=x'): there is no hostversion field"}};
    for (auto const& [bytes, message] : cases) {
        Filesystem::TemporaryDirectory folder("plugin-garbage");
        auto const path = folder.path() / "libGarbage.so";
        ASSERT_TRUE(Filesystem::File(path).writeBinary(ByteBufferView(bytes.data(), bytes.size())));
        auto text = message;
        text.replace(text.find("{file}"), 6, path.str());

        auto const result = m_manager.load({{folder.path(), Origin::Environment}});

        ASSERT_EQ(result.errors.size(), 1u);
        EXPECT_TRUE(result.errors[0].message.starts_with(text)) << result.errors[0].message;
        EXPECT_TRUE(m_capture.containsFragment(text));
        EXPECT_TRUE(result.loaded.empty());
    }
}

// ---------------------------------------------------------------------------------------------
// Folders

struct FolderCase
{
    std::string name;
    Origin origin;
    bool isError;
    std::string message; // {path} for the folder

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(FolderCase const& c, std::ostream* os) { *os << c.name; }
};

class PluginManagerFolderTest : public PluginManagerTest, public testing::WithParamInterface<FolderCase>
{};

TEST_P(PluginManagerFolderTest, AMissingFolderIsAnErrorUnlessItIsTheInstallFolder)
{
    auto const& c = GetParam();
    Filesystem::TemporaryDirectory temporary("plugin-folders");
    auto const missing = temporary.path() / "nowhere";
    auto text = c.message;
    text.replace(text.find("{path}"), 6, missing.str());

    auto const result = m_manager.load({{missing, c.origin}, {kPlugins / "good", Origin::Install}});

    EXPECT_EQ(messages(c.isError ? result.errors : result.warnings), std::vector<std::string>{text});
    EXPECT_TRUE((c.isError ? result.warnings : result.errors).empty());
    EXPECT_EQ(result.ok(), !c.isError);
    EXPECT_TRUE(m_capture.contains(text, kCategory));
    // The other folders are still searched.
    EXPECT_EQ(result.loaded.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(
    Origins, PluginManagerFolderTest,
    testing::Values(FolderCase{"CommandLine", Origin::CommandLine, true,
                               "Plug-in folder '{path}' (given on the command line) does not exist"},
                    FolderCase{"Environment", Origin::Environment, true,
                               "Plug-in folder '{path}' (from VELMORIA_PLUGIN_PATH) does not exist"},
                    FolderCase{"Install", Origin::Install, false,
                               "Plug-in folder '{path}' (the install folder) does not exist"}),
    [](auto const& info) { return info.param.name; });

TEST_F(PluginManagerTest, AFileGivenAsFolderIsAnError)
{
    auto const path = kPlugins / "good" / "libTestProvider.so";
    auto const result = m_manager.load({{path, Origin::CommandLine}});
    EXPECT_EQ(messages(result.errors),
              std::vector<std::string>{"Plug-in folder '" + path.str() +
                                       "' (given on the command line) is not a folder"});
    EXPECT_TRUE(result.loaded.empty());
}

TEST_F(PluginManagerTest, AFolderNamedTwiceIsSearchedOnce)
{
    auto const result = m_manager.load({{kPlugins / "good", Origin::CommandLine},
                                        {kPlugins / "good" / ".." / "good", Origin::Environment},
                                        {kPlugins / "good" / "", Origin::Install}});
    EXPECT_TRUE(result.ok());
    EXPECT_TRUE(result.warnings.empty()) << testing::PrintToString(messages(result.warnings));
    EXPECT_EQ(result.loaded.size(), 2u);
    EXPECT_EQ(result.skipped.size(), 1u);
}

TEST_F(PluginManagerTest, TheFirstCopyOfAPluginWinsAndTheSecondIsIgnoredWithAWarning)
{
    auto const result =
        m_manager.load({{kPlugins / "good", Origin::CommandLine}, {kPlugins / "duplicate", Origin::Install}});

    EXPECT_TRUE(result.ok());
    auto const expected = "Plug-in 'Test.Provider' (" + file("duplicate", "TestProviderCopy") +
                          ") is ignored: the same plug-in comes from '" + file("good", "TestProvider") +
                          "', which is searched first";
    EXPECT_EQ(messages(result.warnings), std::vector<std::string>{expected});
    EXPECT_TRUE(m_capture.contains(expected, kCategory));
    EXPECT_FALSE(algorithmRegistered("ProviderCopyAlgorithm"));
    EXPECT_FALSE(SharedLibrary::isLoaded(file("duplicate", "TestProviderCopy")));

    // A later call compares with what is loaded already.
    auto const again = m_manager.load({{kPlugins / "duplicate", Origin::CommandLine}});
    EXPECT_EQ(again.warnings.size(), 1u);
    EXPECT_TRUE(again.loaded.empty());
}

TEST_F(PluginManagerTest, PluginsLoadedEarlierSatisfyLaterDependencies)
{
    auto const consumerFirst = m_manager.loadFiles({file("good", "TestConsumer")});
    EXPECT_EQ(messages(consumerFirst.errors),
              std::vector<std::string>{"Plug-in 'Test.Consumer' (" + file("good", "TestConsumer") +
                                       ") depends on 'Test.Provider', which is not available"});

    EXPECT_EQ(m_manager.loadFiles({file("good", "TestProvider")}).loaded,
              std::vector<std::string>{"Test.Provider"});
    auto const consumer = m_manager.loadFiles({file("good", "TestConsumer")});
    EXPECT_TRUE(consumer.ok());
    EXPECT_EQ(consumer.loaded, std::vector<std::string>{"Test.Consumer"});
}

class RecordingController : public ApplicationController
{};

TEST_F(PluginManagerTest, EveryPluginReceivesTheApplicationController)
{
    RecordingController controller;
    m_manager.setApplicationController(&controller);
    ASSERT_TRUE(m_manager.load({{kPlugins / "good", Origin::CommandLine}}).ok());
    for (auto const& info : m_manager.plugins())
        EXPECT_EQ(info.plugin->applicationController(), &controller) << info.id;
}

// ---------------------------------------------------------------------------------------------
// searchFolders

struct SearchCase
{
    std::string name;
    std::vector<std::string> commandLine;
    std::optional<std::string> environment;
    std::string install;
    // "origin:path" with origin c / e / i.
    std::vector<std::string> expected;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(SearchCase const& c, std::ostream* os) { *os << c.name; }
};

class PluginManagerSearchTest : public testing::TestWithParam<SearchCase>
{};

TEST_P(PluginManagerSearchTest, CommandLineThenEnvironmentThenInstallFolder)
{
    auto const& c = GetParam();
    std::vector<std::string> actual;
    for (auto const& folder : PluginManager::searchFolders(c.commandLine, c.environment, c.install)) {
        char const origin = folder.origin == Origin::CommandLine   ? 'c'
                            : folder.origin == Origin::Environment ? 'e'
                                                                   : 'i';
        actual.push_back(std::string(1, origin) + ":" + folder.path.str());
    }
    EXPECT_EQ(actual, c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, PluginManagerSearchTest,
    testing::Values(
        SearchCase{
            "All", {"/a", "b"}, "/e1:/e2", "/opt/lib", {"c:/a", "c:b", "e:/e1", "e:/e2", "i:/opt/lib"}},
        SearchCase{"EnvironmentUnset", {}, std::nullopt, "/opt/lib", {"i:/opt/lib"}},
        SearchCase{"EmptyEntriesIgnored", {}, "::/e1::/e2:", "", {"e:/e1", "e:/e2"}},
        SearchCase{"EmptyEnvironment", {"/a"}, "", "", {"c:/a"}}),
    [](auto const& info) { return info.param.name; });

} // namespace
