#include "host/core/Resource.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

using namespace Velmoria;
using namespace Velmoria::Resource;
using Velmoria::Filesystem::File;
using Velmoria::Filesystem::Path;

namespace {

ByteBuffer bytes(std::string_view text)
{
    return ByteBufferView(text).copy();
}

std::optional<std::string> text(std::optional<ByteBuffer> const& data)
{
    if (!data)
        return std::nullopt;
    return data->toString();
}

} // namespace

// Registers repositories for one test and removes them afterwards, so that tests do not leak
// registrations into each other (the registry is process-wide).
class ResourceRegistry : public ::testing::Test
{
protected:
    void SetUp() override { m_before = repositories(); }
    void TearDown() override
    {
        for (Repository* repository : m_added)
            removeRepository(repository);
        EXPECT_EQ(repositories(), m_before);
    }
    void add(Repository& repository)
    {
        addRepository(&repository);
        m_added.push_back(&repository);
    }

    std::vector<Repository*> m_before;
    std::vector<Repository*> m_added;
};

TEST_F(ResourceRegistry, FirstRegisteredRepositoryWins)
{
    MemoryRepository first("first");
    MemoryRepository second("second");
    ASSERT_TRUE(first.add("shared.yaml", bytes("from first")));
    ASSERT_TRUE(second.add("shared.yaml", bytes("from second")));
    ASSERT_TRUE(second.add("models/only-second.pt", bytes("model")));
    add(first);
    add(second);

    EXPECT_EQ(locate("shared.yaml"), "first");
    EXPECT_EQ(text(query("shared.yaml")), "from first");
    EXPECT_EQ(locate("models/only-second.pt"), "second");
    EXPECT_EQ(text(query("models//./only-second.pt")), "model");

    std::vector<Repository*> expected = m_before;
    expected.push_back(&first);
    expected.push_back(&second);
    EXPECT_EQ(repositories(), expected);
}

TEST_F(ResourceRegistry, RemovedRepositoriesAreNoLongerAsked)
{
    MemoryRepository first("first");
    MemoryRepository second("second");
    first.add("shared.yaml", bytes("from first"));
    second.add("shared.yaml", bytes("from second"));
    add(first);
    add(second);

    EXPECT_TRUE(removeRepository(&first));
    EXPECT_EQ(locate("shared.yaml"), "second");
    EXPECT_EQ(text(query("shared.yaml")), "from second");
    EXPECT_FALSE(removeRepository(&first));
    EXPECT_TRUE(removeRepository(&second));
    EXPECT_EQ(locate("shared.yaml"), std::nullopt);
}

TEST_F(ResourceRegistry, NullAndDuplicateRegistrationsAreIgnored)
{
    MemoryRepository repository("twice");
    Log::Capture capture;
    add(repository);
    addRepository(&repository);
    addRepository(nullptr);
    EXPECT_EQ(repositories().size(), m_before.size() + 1);
    EXPECT_TRUE(capture.contains("Resource repository 'twice' is already registered", "Host.Resource"));
    EXPECT_TRUE(capture.contains("Ignoring the registration of a null resource repository", "Host.Resource"));
    EXPECT_TRUE(removeRepository(&repository));
    EXPECT_FALSE(removeRepository(&repository));
}

TEST_F(ResourceRegistry, MissingResourcesGiveNothing)
{
    MemoryRepository repository("memory");
    repository.add("present.txt", bytes("here"));
    add(repository);
    Log::Capture capture;
    EXPECT_EQ(locate("absent.txt"), std::nullopt);
    EXPECT_TRUE(capture.messages().empty()); // locate only asks
    EXPECT_EQ(query("absent.txt"), std::nullopt);
    EXPECT_TRUE(capture.contains("No resource repository holds 'absent.txt'", "Host.Resource"));
    EXPECT_EQ(query("../present.txt"), std::nullopt);
}

TEST_F(ResourceRegistry, QueriesWhileRepositoriesComeAndGo)
{
    MemoryRepository stable("stable");
    stable.add("stable.txt", bytes("stable"));
    add(stable);
    Log::Capture capture; // the misses below warn

    constexpr int kReaders = 3;
    std::atomic<int> finished{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t) {
        readers.emplace_back([&] {
            for (int i = 0; i < 3000; ++i) {
                if (text(query("stable.txt")) != "stable")
                    ++wrong;
                auto const coming = text(query("coming.txt"));
                if (coming && *coming != "coming and going")
                    ++wrong;
            }
            ++finished;
        });
    }
    for (int i = 0; finished.load() < kReaders; ++i) {
        // Destroyed right after removal: removeRepository must have waited for lookups in it.
        auto transient = std::make_unique<MemoryRepository>("transient");
        transient->add("coming.txt", bytes("coming and going"));
        addRepository(transient.get());
        if (i % 50 == 0) {
            EXPECT_EQ(text(query("coming.txt")), "coming and going");
        }
        EXPECT_TRUE(removeRepository(transient.get()));
    }
    for (auto& reader : readers)
        reader.join();
    EXPECT_EQ(wrong.load(), 0);
}

// ---------------------------------------------------------------------------------------------

class ResourceFolder : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_temporary.isValid());
        m_root = m_temporary.path() / "root";
        ASSERT_TRUE(Filesystem::createDirectories(m_root / "models/unet"));
        ASSERT_TRUE(File(m_root / "models/unet/config.yaml").writeText("channels: 3"));
        ASSERT_TRUE(File(m_root / "top.txt").writeText("top"));
        // Next to the root: what an escape would reach.
        ASSERT_TRUE(File(m_temporary.path() / "secret.txt").writeText("secret"));
    }

    Filesystem::TemporaryDirectory m_temporary;
    Path m_root;
};

TEST_F(ResourceFolder, ServesNestedFiles)
{
    FolderRepository const repository("folder", m_root);
    EXPECT_EQ(repository.name(), "folder");
    EXPECT_TRUE(repository.contains("models/unet/config.yaml"));
    EXPECT_TRUE(repository.contains("./models//unet/config.yaml"));
    EXPECT_TRUE(repository.contains("top.txt"));
    EXPECT_EQ(text(repository.query("models/unet/config.yaml")), "channels: 3");
    EXPECT_EQ(text(repository.query("top.txt")), "top");
    // Folders are not resources.
    EXPECT_FALSE(repository.contains("models/unet"));
    EXPECT_FALSE(repository.contains("models/unet/missing.yaml"));

    Log::Capture capture;
    EXPECT_EQ(repository.query("models/unet/missing.yaml"), std::nullopt);
    EXPECT_TRUE(capture.containsFragment("models/unet/missing.yaml"));
}

TEST_F(ResourceFolder, ServesThroughTheRegistry)
{
    FolderRepository repository("folder", m_root);
    addRepository(&repository);
    EXPECT_EQ(locate("models/unet/config.yaml"), "folder");
    EXPECT_EQ(text(query("models/unet/config.yaml")), "channels: 3");
    EXPECT_TRUE(removeRepository(&repository));
}

class ResourceEscape : public ResourceFolder, public ::testing::WithParamInterface<std::string>
{};

TEST_P(ResourceEscape, IsRejected)
{
    // "{secret}" stands for the absolute path of the file next to the root.
    std::string name = GetParam();
    if (name == "{secret}")
        name = (m_temporary.path() / "secret.txt").str();
    FolderRepository const folder("folder", m_root);
    MemoryRepository memory("memory");
    Log::Capture capture;
    EXPECT_EQ(normalizeName(name), std::nullopt);
    EXPECT_FALSE(folder.contains(name));
    EXPECT_EQ(folder.query(name), std::nullopt);
    EXPECT_FALSE(memory.add(name, bytes("x")));
    EXPECT_FALSE(memory.contains(name));
    EXPECT_TRUE(memory.names().empty());
    // query and add explain the refusal, naming the repository and the name.
    auto const messages = capture.messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_NE(messages[0].find("'folder' refuses '" + name + "'"), std::string::npos) << messages[0];
    EXPECT_NE(messages[1].find("'" + name + "' to resource repository 'memory'"), std::string::npos)
        << messages[1];
}

INSTANTIATE_TEST_SUITE_P(Names, ResourceEscape,
                         ::testing::Values("../secret.txt", "models/../../secret.txt", "models/..",
                                           "/etc/passwd", "{secret}", "", ".", "./", "//"));

struct NormalizeCase
{
    char const* name;
    char const* normalised;
};

class ResourceNormalize : public ::testing::TestWithParam<NormalizeCase>
{};

TEST_P(ResourceNormalize, DropsEmptyAndDotElements)
{
    EXPECT_EQ(normalizeName(GetParam().name), GetParam().normalised);
}

INSTANTIATE_TEST_SUITE_P(Names, ResourceNormalize,
                         ::testing::Values(NormalizeCase{"a/b", "a/b"}, NormalizeCase{"a//b", "a/b"},
                                           NormalizeCase{"./a/./b/", "a/b"},
                                           NormalizeCase{"model.pt", "model.pt"},
                                           NormalizeCase{"a/.hidden", "a/.hidden"},
                                           NormalizeCase{"a/..b", "a/..b"}));

TEST(ResourceMemory, AddReplaceRemove)
{
    MemoryRepository repository("embedded");
    EXPECT_EQ(repository.name(), "embedded");
    ASSERT_TRUE(repository.add("shaders/blur.glsl", bytes("v1")));
    ASSERT_TRUE(repository.add("./shaders//blur.glsl", bytes("v2"))); // same name: replaces
    ASSERT_TRUE(repository.add("a.yaml", bytes("")));
    EXPECT_EQ(repository.names(), (std::vector<std::string>{"a.yaml", "shaders/blur.glsl"}));
    EXPECT_EQ(text(repository.query("shaders/blur.glsl")), "v2");
    EXPECT_EQ(text(repository.query("a.yaml")), ""); // empty, but present
    EXPECT_TRUE(repository.remove("shaders/./blur.glsl"));
    EXPECT_FALSE(repository.remove("shaders/blur.glsl"));
    EXPECT_FALSE(repository.contains("shaders/blur.glsl"));

    Log::Capture capture;
    EXPECT_EQ(repository.query("shaders/blur.glsl"), std::nullopt);
    EXPECT_TRUE(
        capture.contains("Resource repository 'embedded' holds no 'shaders/blur.glsl'", "Host.Resource"));
}
