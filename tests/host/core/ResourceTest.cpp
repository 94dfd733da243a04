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

TEST_F(ResourceRegistry, FirstRegisteredRepositoryWinsUntilRemoved)
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

    EXPECT_TRUE(removeRepository(&first));
    EXPECT_EQ(text(query("shared.yaml")), "from second");
    EXPECT_FALSE(removeRepository(&first));
    EXPECT_TRUE(removeRepository(&second));
    EXPECT_EQ(locate("shared.yaml"), std::nullopt);
}

TEST_F(ResourceRegistry, BadRegistrationsAndMissingResourcesAreReported)
{
    MemoryRepository repository("memory");
    repository.add("present.txt", bytes("here"));
    Log::Capture capture;
    add(repository);
    addRepository(&repository);
    addRepository(nullptr);
    EXPECT_EQ(repositories().size(), m_before.size() + 1);
    EXPECT_TRUE(capture.contains("Resource repository 'memory' is already registered", "Host.Resource"));
    EXPECT_TRUE(capture.contains("Ignoring the registration of a null resource repository", "Host.Resource"));

    capture.clear();
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
    std::atomic<int> wrong{0};
    std::atomic<bool> done{false};
    std::thread reader([&] {
        for (int i = 0; i < 5000; ++i) {
            auto const coming = text(query("coming.txt"));
            if (text(query("stable.txt")) != "stable" || (coming && *coming != "coming and going"))
                ++wrong;
        }
        done = true;
    });
    while (!done) {
        // Destroyed right after removal: removeRepository must have waited for lookups in it.
        auto transient = std::make_unique<MemoryRepository>("transient");
        transient->add("coming.txt", bytes("coming and going"));
        addRepository(transient.get());
        EXPECT_TRUE(removeRepository(transient.get()));
    }
    reader.join();
    EXPECT_EQ(wrong.load(), 0);
}

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

TEST_F(ResourceFolder, ServesNestedFilesButNoFolders)
{
    FolderRepository repository("folder", m_root);
    EXPECT_TRUE(repository.contains("./models//unet/config.yaml"));
    EXPECT_EQ(text(repository.query("top.txt")), "top");
    EXPECT_FALSE(repository.contains("models/unet"));
    addRepository(&repository);
    EXPECT_EQ(locate("models/unet/config.yaml"), "folder");
    EXPECT_EQ(text(query("models/unet/config.yaml")), "channels: 3");
    EXPECT_TRUE(removeRepository(&repository));

    Log::Capture capture;
    EXPECT_FALSE(repository.contains("models/unet/missing.yaml"));
    EXPECT_EQ(repository.query("models/unet/missing.yaml"), std::nullopt);
    EXPECT_TRUE(capture.containsFragment("models/unet/missing.yaml"));
}

TEST_F(ResourceFolder, NamesEscapingTheRootAreRejectedWithAReason)
{
    FolderRepository const folder("folder", m_root);
    MemoryRepository memory("memory");
    for (std::string const& name :
         std::vector<std::string>{"../secret.txt", "models/../../secret.txt", "models/..", "/etc/passwd",
                                  (m_temporary.path() / "secret.txt").str(), "", ".", "./", "//"}) {
        SCOPED_TRACE(name);
        Log::Capture capture;
        EXPECT_EQ(normalizeName(name), std::nullopt);
        EXPECT_FALSE(folder.contains(name));
        EXPECT_EQ(folder.query(name), std::nullopt);
        EXPECT_FALSE(memory.add(name, bytes("x")));
        EXPECT_FALSE(memory.contains(name));
        // query and add explain the refusal, naming the repository and the name.
        auto const messages = capture.messages();
        ASSERT_EQ(messages.size(), 2u);
        EXPECT_NE(messages[0].find("'folder' refuses '" + name + "'"), std::string::npos) << messages[0];
        EXPECT_NE(messages[1].find("'" + name + "' to resource repository 'memory'"), std::string::npos)
            << messages[1];
    }
    EXPECT_TRUE(memory.names().empty());
}

TEST(ResourceMemory, AddReplaceRemove)
{
    MemoryRepository repository("embedded");
    ASSERT_TRUE(repository.add("shaders/blur.glsl", bytes("v1")));
    ASSERT_TRUE(repository.add("./shaders//blur.glsl", bytes("v2"))); // the same name: replaces
    EXPECT_EQ(normalizeName("a/.hidden/..b"), "a/.hidden/..b");
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
