// The ML library as the host sees it: loaded through the plug-in manager with a real dlopen of
// the built libVelmoriaML.so, with its magic string in read-only data, its id and description,
// and the names it registers.

#include "ml/data/DataItem.h"
#include "ml/data/KeypointSet.h"
#include "ml/operations/OperationFactory.h"
#include "ml/plugin/MLFactories.h"
#include "ml/plugin/Registrations.h"

#include "host/core/Log.h"
#include "host/data/DataComponentFactory.h"
#include "host/plugin/PluginBase.h"
#include "host/plugin/PluginManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <string>

using namespace Velmoria;

namespace {

std::string const kLibrary = std::string(VELMORIA_LIBRARY_DIR) + "/libVelmoriaML.so";
std::string const kMagic = "__VELMORIA_PLUGIN_V2_MAGIC_STRING__|hostversion=4.4.6|buildflags=GLIBCXX_DEBUG:_"
                           "GLIBCXX_DEBUG|pluginversion=";

// The standard output of a shell command.
std::string run(std::string const& command)
{
    std::string output;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    if (!pipe)
        return output;
    std::array<char, 4096> buffer{};
    while (std::size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe.get()))
        output.append(buffer.data(), n);
    return output;
}

bool contains(std::vector<std::string> const& names, std::string const& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

// One manager for the whole suite: the library stays loaded, as in a host.
class MLPluginTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        s_manager = new PluginManager();
        Log::Capture quiet; // the install folder holds libraries that are not plug-ins
        s_result = new PluginManager::LoadResult(
            s_manager->load({{VELMORIA_LIBRARY_DIR, PluginManager::FolderOrigin::CommandLine}}));
    }
    static void TearDownTestSuite()
    {
        delete s_result;
        delete s_manager;
    }

    static PluginManager* s_manager;
    static PluginManager::LoadResult* s_result;
};

PluginManager* MLPluginTest::s_manager = nullptr;
PluginManager::LoadResult* MLPluginTest::s_result = nullptr;

} // namespace

TEST_F(MLPluginTest, LoadsThroughThePluginManager)
{
    ASSERT_TRUE(s_result->ok()) << (s_result->errors.empty() ? "" : s_result->errors.front().message);
    EXPECT_TRUE(contains(s_result->loaded, "Velmoria.ML"));
    PluginBase* plugin = s_manager->plugin("Velmoria.ML");
    ASSERT_NE(plugin, nullptr);
    EXPECT_EQ(plugin->description(), "Plugin for executing machine learning models on medical images");
    EXPECT_EQ(plugin->dependencies(), (std::vector<std::string>{"Velmoria.Stream", "Velmoria.Graph"}));
    EXPECT_FALSE(plugin->author().empty());
}

TEST_F(MLPluginTest, InitRegistersTheOperationsButNotUnmarkAsTarget)
{
    auto names = ML::getCppOperationFactory().availableTypes();
    for (auto const& name : ML::registeredOperationNames())
        EXPECT_TRUE(contains(names, name)) << name;
    EXPECT_TRUE(contains(names, "MarkAsTarget"));
    EXPECT_TRUE(contains(names, "Rename"));
    EXPECT_FALSE(contains(names, "UnmarkAsTarget"));
    EXPECT_TRUE(DataComponentFactory::get().isRegistered("TargetTag"));
}

TEST_F(MLPluginTest, RegisteredOperationsAreCreatedByNameAndConfigured)
{
    Properties properties;
    properties.setParam("source", std::vector<std::string>{"a"});
    properties.setParam("target", std::vector<std::string>{"b"});
    auto rename = ML::Operation::createFromFactories({"Rename", properties, ML::Phase::Always});
    ASSERT_NE(rename, nullptr);
    EXPECT_EQ(rename->name(), "Rename");
}

TEST(MLPluginFile, MagicStringIsInReadOnlyData)
{
    EXPECT_NE(run("strings -a '" + kLibrary + "'").find(kMagic), std::string::npos);
    // The symbol that holds it lies in .rodata.
    std::string symbols = run("objdump -t '" + kLibrary + "' | grep velmoriaPluginMagic");
    EXPECT_NE(symbols.find(".rodata"), std::string::npos) << symbols;
    std::string exported = run("nm -D --defined-only '" + kLibrary + "'");
    EXPECT_NE(exported.find("velmoriaCreatePlugin"), std::string::npos);
    EXPECT_NE(exported.find("velmoriaPluginId"), std::string::npos);
}

TEST(MLAnnotationFactory, DescribesIconsAndClonesTheLibrarysData)
{
    MLAnnotationFactory factory;
    EXPECT_EQ(factory.name(), "DataAnnotation");
    ML::KeypointSet keypoints(ML::KeypointSet::Keypoints{{{Eigen::Vector3d(1, 2, 3)}}});
    ML::DataItem item;
    EXPECT_EQ(factory.dataDescription(keypoints), "KeypointSet");
    EXPECT_EQ(factory.dataIconPath(keypoints), ":/KeypointSet.svg");
    EXPECT_EQ(factory.dataDescription(item), "DataItem");
    EXPECT_EQ(factory.dataIconPath(item), "IconImageSet.png") << "no resource prefix for the item's icon";

    auto copy = factory.cloneData(&keypoints);
    auto* copied = dynamic_cast<ML::KeypointSet*>(copy.get());
    ASSERT_NE(copied, nullptr);
    EXPECT_TRUE(copied->isEqual(keypoints));
    EXPECT_NE(copied, &keypoints);
    EXPECT_EQ(factory.cloneData(nullptr), nullptr);
    EXPECT_EQ(factory.createDataAnnotation("anything", item), nullptr);
    EXPECT_TRUE(factory.compatibleDataAnnotations(item).empty());
}
