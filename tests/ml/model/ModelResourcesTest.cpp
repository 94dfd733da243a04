// Resolution of model paths (file URLs, quotes, absolute paths, resources, paths next to the
// model's YAML file, the default model folder, the current directory) and the folder-serving
// resource repositories.

#include "ml/model/ModelResources.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"
#include "host/core/Settings.h"

#include <gtest/gtest.h>

#include <string>

namespace Velmoria::ML {
namespace {

// Placeholders in the cases: {T} is the test's temporary folder, {CWD} the current directory.
struct PathCase
{
    std::string label;
    std::string path;
    std::string basePath;
    std::string expected;
    bool logsDefaultFolder = false;
};

class ModelResourcesTest : public ::testing::TestWithParam<PathCase>
{
protected:
    void SetUp() override
    {
        auto const* test = ::testing::UnitTest::GetInstance()->current_test_info();
        m_folder = (Filesystem::tempDirectory() / ("velmoria-model-resources-" + std::string(test->name())))
                       .makeAbsolute();
        ASSERT_TRUE(Filesystem::createDirectories(m_folder / "models"));
        ASSERT_TRUE(Filesystem::createDirectories(m_folder / "yaml"));
        ASSERT_TRUE(Filesystem::createDirectories(m_folder / "defaults"));
        ASSERT_TRUE(Filesystem::File(m_folder / "models" / "net.pt").writeText("net"));
        ASSERT_TRUE(Filesystem::File(m_folder / "defaults" / "only-default.pt").writeText("default"));
        ByteBuffer bytes;
        bytes.copyFrom("res", 3);
        ASSERT_TRUE(m_repository.add("res/net.pt", bytes));
        Resource::addRepository(&m_repository);
        ASSERT_TRUE(Settings::get().setValue("ml/defaultModelFolder", (m_folder / "defaults").str()));
    }

    void TearDown() override
    {
        Settings::get().remove("ml/defaultModelFolder");
        Resource::removeRepository(&m_repository);
        Filesystem::Directory(m_folder).remove();
    }

    std::string expand(std::string text) const
    {
        replace(text, "{T}", m_folder.str());
        replace(text, "{CWD}", Filesystem::Path(".").makeAbsolute().str());
        return text;
    }

    static void replace(std::string& text, std::string const& from, std::string const& to)
    {
        for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
            text.replace(at, from.size(), to);
    }

    Filesystem::Path m_folder;
    Resource::MemoryRepository m_repository{"ModelResourcesTestRepository"};
};

TEST_P(ModelResourcesTest, ResolvesPath)
{
    PathCase const& c = GetParam();
    Log::Capture capture;
    std::string const resolved = modelPathToAbsoluteIfNotResource(expand(c.path), expand(c.basePath));
    EXPECT_EQ(Filesystem::Path(resolved), Filesystem::Path(expand(c.expected)));
    std::string const line = "Looking for model `" + expand(c.path) +
                             "` in default folder for ML models: " + (m_folder / "defaults").str();
    EXPECT_EQ(capture.contains(line, "ML.ModelResources"), c.logsDefaultFolder);
}

INSTANTIATE_TEST_SUITE_P(
    Rules, ModelResourcesTest,
    ::testing::Values(
        PathCase{"FileUrl", "file://{T}/models/net.pt", "", "{T}/models/net.pt"},
        PathCase{"Quoted", "\"{T}/models/net.pt\"", "", "{T}/models/net.pt"},
        PathCase{"QuotedFileUrl", "\"file://{T}/models/net.pt\"", "", "{T}/models/net.pt"},
        PathCase{"AbsoluteKeptEvenWhenMissing", "/no/such/model.pt", "{T}/yaml/model.yaml",
                 "/no/such/model.pt"},
        PathCase{"Resource", "res/net.pt", "{T}/yaml/model.yaml", "res/net.pt"},
        PathCase{"NextToYaml", "../models/net.pt", "{T}/yaml/model.yaml", "{T}/models/net.pt"},
        PathCase{"DefaultFolder", "only-default.pt", "{T}/yaml/model.yaml", "{T}/defaults/only-default.pt",
                 true},
        PathCase{"CurrentDirectory", "nothing-here.pt", "{T}/yaml/model.yaml", "{CWD}/nothing-here.pt", true},
        PathCase{"CurrentDirectoryWithoutBase", "sub/nothing.pt", "", "{CWD}/sub/nothing.pt", true}),
    [](auto const& info) { return info.param.label; });

TEST(ModelResourcesNoDefaultTest, WithoutDefaultFolderNothingIsLogged)
{
    Settings::get().remove("ml/defaultModelFolder");
    Log::Capture capture;
    EXPECT_EQ(modelPathToAbsoluteIfNotResource("x.pt"), Filesystem::Path("x.pt").makeAbsolute().str());
    EXPECT_FALSE(capture.containsFragment("default folder"));
}

// Both repositories serve a folder; an empty folder serves nothing, not the current directory.
template <class Repository>
class ModelRepositoryTest : public ::testing::Test
{};

using Repositories = ::testing::Types<Repository_MLModels, Repository_VelmoriaML>;
TYPED_TEST_SUITE(ModelRepositoryTest, Repositories);

TYPED_TEST(ModelRepositoryTest, ServesItsFolder)
{
    Filesystem::Path const folder =
        Filesystem::tempDirectory() /
        ("velmoria-model-repository-" + std::string(TypeParam::SettingKey).substr(3));
    ASSERT_TRUE(Filesystem::createDirectories(folder / "a"));
    ASSERT_TRUE(Filesystem::File(folder / "a" / "m.yaml").writeText("Version: 5"));

    TypeParam repository(folder);
    EXPECT_TRUE(repository.contains("a/m.yaml"));
    EXPECT_FALSE(repository.contains("a/missing.yaml"));
    EXPECT_FALSE(repository.contains("../a/m.yaml"));
    auto bytes = repository.query("a/m.yaml");
    ASSERT_TRUE(bytes.has_value());
    EXPECT_EQ(bytes->size(), 10U);
    Filesystem::Directory(folder).remove();
}

TYPED_TEST(ModelRepositoryTest, FolderComesFromSettingsAndEmptyServesNothing)
{
    Settings::get().remove(TypeParam::SettingKey);
    TypeParam unset;
    EXPECT_TRUE(unset.root().empty());
    // A file in the current directory must not become a resource.
    ASSERT_TRUE(Filesystem::File("velmoria-cwd-probe.txt").writeText("x"));
    EXPECT_FALSE(unset.contains("velmoria-cwd-probe.txt"));
    EXPECT_FALSE(unset.query("velmoria-cwd-probe.txt").has_value());
    Filesystem::File("velmoria-cwd-probe.txt").remove();

    ASSERT_TRUE(Settings::get().setValue(TypeParam::SettingKey, std::string("/opt/models")));
    TypeParam set;
    EXPECT_EQ(set.root(), Filesystem::Path("/opt/models"));
    Settings::get().remove(TypeParam::SettingKey);
}

TEST(ModelRepositoryRegistrationTest, RegistersBothOnce)
{
    registerModelRepositories();
    registerModelRepositories();
    int models = 0;
    int library = 0;
    for (Resource::Repository const* repository : Resource::repositories()) {
        models += repository->name() == "MLModels";
        library += repository->name() == "VelmoriaML";
    }
    EXPECT_EQ(models, 1);
    EXPECT_EQ(library, 1);
}

} // namespace
} // namespace Velmoria::ML
