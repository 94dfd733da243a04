#include "host/plugin/PluginMagic.h"

#include "host/core/Filesystem.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

using namespace Velmoria;
using Status = PluginMagic::ScanResult::Status;

namespace {

std::string const kMarker(PluginMagic::kMarker);

// ---------------------------------------------------------------------------------------------
// parse

struct ParseCase
{
    std::string name;
    std::string text;
    bool ok;
    // Parsed fields "key=value" joined by ';' when ok, else a fragment of the error.
    std::string expected;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(ParseCase const& c, std::ostream* os) { *os << c.name; }
};

class PluginMagicParseTest : public testing::TestWithParam<ParseCase>
{};

TEST_P(PluginMagicParseTest, ReadsFieldsOrExplainsWhy)
{
    auto const& c = GetParam();
    auto const result = PluginMagic::parse(c.text);
    ASSERT_EQ(result.ok(), c.ok) << result.error;
    if (c.ok) {
        EXPECT_TRUE(result.error.empty());
        std::string fields;
        for (auto const& [key, value] : result.fields->entries)
            fields += (fields.empty() ? "" : ";") + key + "=" + value;
        EXPECT_EQ(fields, c.expected);
    } else {
        EXPECT_NE(result.error.find(c.expected), std::string::npos) << result.error;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Texts, PluginMagicParseTest,
    testing::Values(
        ParseCase{"ThreeFields",
                  kMarker + "|hostversion=4.4.6|buildflags=GLIBCXX_DEBUG:_GLIBCXX_DEBUG|pluginversion=", true,
                  "hostversion=4.4.6;buildflags=GLIBCXX_DEBUG:_GLIBCXX_DEBUG;pluginversion="},
        ParseCase{"UnknownFieldKept", kMarker + "|hostversion=4.1|future=x=y", true,
                  "hostversion=4.1;future=x=y"},
        ParseCase{"NoMarker", "|hostversion=4.4.6", false, "does not start with"},
        ParseCase{"MarkerAlone", kMarker, false, "not followed by '|'"},
        ParseCase{"MarkerThenText", kMarker + "hostversion=4.4.6", false, "not followed by '|'"},
        ParseCase{"FieldWithoutEquals", kMarker + "|hostversion=4.4.6|debug", false,
                  "the field 'debug' has no '='"},
        ParseCase{"EmptyKey", kMarker + "|hostversion=4.4.6|=1", false, "the field '=1' has an empty key"},
        ParseCase{"NoHostVersion", kMarker + "|buildflags=|pluginversion=1", false, "no hostversion field"}),
    [](auto const& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// isCompatibleHostVersion

struct VersionCase
{
    std::string version;
    bool compatible;
    std::string whyFragment;

    // Failures name the case instead of dumping its bytes.
    friend void PrintTo(VersionCase const& c, std::ostream* os) { *os << c.version; }
};

class PluginMagicVersionTest : public testing::TestWithParam<VersionCase>
{};

TEST_P(PluginMagicVersionTest, AcceptsTheSameMajorVersionOnly)
{
    auto const& c = GetParam();
    std::string why;
    EXPECT_EQ(PluginMagic::isCompatibleHostVersion(c.version, &why), c.compatible) << c.version;
    if (c.compatible) {
        EXPECT_TRUE(why.empty()) << why;
    } else {
        EXPECT_NE(why.find(c.whyFragment), std::string::npos) << why;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Versions, PluginMagicVersionTest,
    testing::Values(VersionCase{"4.4.6", true, ""}, VersionCase{"4", true, ""},
                    VersionCase{"4.9.12-rc1", true, ""},
                    VersionCase{"3.9.0", false,
                                "built for host version 3.9.0, but this host implements version 4.4.6"},
                    VersionCase{"5.0.0", false, "built for host version 5.0.0"},
                    VersionCase{"44.4", false, "built for host version 44.4"},
                    VersionCase{"", false, "hostversion '' is not a version number"},
                    VersionCase{"v4.4", false, "hostversion 'v4.4' is not a version number"},
                    VersionCase{"4x.1", false, "hostversion '4x.1' is not a version number"}));

// ---------------------------------------------------------------------------------------------
// findInFile

class PluginMagicScanTest : public testing::Test
{
protected:
    Filesystem::Path write(std::string const& name, std::string const& bytes)
    {
        auto const path = m_folder.path() / name;
        EXPECT_TRUE(Filesystem::File(path).writeBinary(ByteBufferView(bytes.data(), bytes.size())));
        return path;
    }

    static std::string junk(std::size_t size)
    {
        std::string bytes(size, '\0');
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<char>((i * 131 + 7) % 251);
        return bytes;
    }

    Filesystem::TemporaryDirectory m_folder{"plugin-magic"};
};

TEST_F(PluginMagicScanTest, FindsTheTextUpToItsEnd)
{
    std::string const magic = kMarker + "|hostversion=4.4.6|buildflags=|pluginversion=3";
    auto const path = write("libA.so", junk(1000) + magic + std::string(1, '\0') + junk(1000));
    auto const scan = PluginMagic::findInFile(path);
    EXPECT_EQ(scan.status, Status::Found);
    EXPECT_EQ(scan.text, magic);
}

// The scan reads in chunks of 1 MiB: a marker split by a chunk boundary must still be found.
class PluginMagicChunkTest : public PluginMagicScanTest, public testing::WithParamInterface<std::size_t>
{};

TEST_P(PluginMagicChunkTest, FindsTheMarkerAcrossChunkBoundaries)
{
    std::size_t const offset = GetParam();
    std::string const magic = kMarker + "|hostversion=4.1";
    auto const path = write("libB.so", junk(offset) + magic + std::string(1, '\0') + junk(100));
    auto const scan = PluginMagic::findInFile(path);
    EXPECT_EQ(scan.status, Status::Found) << "offset " << offset;
    EXPECT_EQ(scan.text, magic);
}

std::size_t const kMiB = std::size_t(1) << 20;
INSTANTIATE_TEST_SUITE_P(Offsets, PluginMagicChunkTest,
                         testing::Values(0, kMiB - 10, kMiB - 1, kMiB, kMiB - kMarker.size(), 2 * kMiB + 3));

TEST_F(PluginMagicScanTest, SkipsTheBareMarkerAndFindsTheRealTextBehindIt)
{
    // The host library holds the bare marker as a constant; only "marker|" marks a plug-in.
    std::string const magic = kMarker + "|hostversion=4.4.6";
    auto const path = write("libC.so", kMarker + std::string(1, '\0') + junk(50) + kMarker + "x" +
                                           std::string(1, '\0') + magic + std::string(1, '\0'));
    auto const scan = PluginMagic::findInFile(path);
    EXPECT_EQ(scan.status, Status::Found);
    EXPECT_EQ(scan.text, magic);
}

TEST_F(PluginMagicScanTest, ReportsMissingUnterminatedAndUnreadableText)
{
    std::string const nul(1, '\0');
    auto const longText = kMarker + "|hostversion=" + std::string(PluginMagic::kMaxFieldsLength, '4');
    std::pair<std::string, Status> const cases[] = {
        {junk(5000), Status::NotFound},
        {"", Status::NotFound},
        {kMarker + nul, Status::NotFound},
        {longText + nul, Status::Unterminated},
        {junk(10) + kMarker + "|hostversion=4", Status::Unterminated}, // cut off by the end of the file
    };
    for (auto const& [bytes, status] : cases)
        EXPECT_EQ(PluginMagic::findInFile(write("libD.so", bytes)).status, status)
            << bytes.size() << " bytes";

    auto const scan = PluginMagic::findInFile(m_folder.path() / "missing.so");
    EXPECT_EQ(scan.status, Status::Unreadable);
    EXPECT_EQ(scan.error, "No such file or directory");
}

TEST(PluginMagicLibraryTest, TheHostLibraryIsNotAPluginButABuiltPluginIs)
{
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&PluginMagic::parse), &info), 0);
    auto const host = PluginMagic::findInFile(info.dli_fname);
    EXPECT_EQ(host.status, Status::NotFound) << info.dli_fname << ": " << host.text;

    auto const plugin =
        PluginMagic::findInFile(Filesystem::Path(VELMORIA_TEST_PLUGIN_DIR) / "good/libTestProvider.so");
    ASSERT_EQ(plugin.status, Status::Found);
    auto const parsed = PluginMagic::parse(plugin.text);
    ASSERT_TRUE(parsed.ok()) << parsed.error;
    EXPECT_EQ(parsed.fields->hostVersion(), PluginMagic::kHostVersion);
    EXPECT_EQ(parsed.fields->buildFlags(), "TEST");
    EXPECT_EQ(parsed.fields->pluginVersion(), "1.0");
}

} // namespace
