#include "host/core/Filesystem.h"

#include "host/core/Log.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <unordered_set>

using namespace Velmoria;
using namespace Velmoria::Filesystem;

namespace Velmoria::Filesystem {
// Readable paths in failure messages.
void PrintTo(Path const& path, std::ostream* out)
{
    *out << '"' << path.str() << '"';
}
} // namespace Velmoria::Filesystem

// ---------------------------------------------------------------------------------------------
// Path: lexical parts

struct PathPartsCase
{
    char const* path;
    char const* fileName;
    char const* baseName;
    char const* extension;
    char const* parentPath;
    char const* parentDirectory;
};

void PrintTo(PathPartsCase const& test, std::ostream* out)
{
    *out << '"' << test.path << '"';
}

class PathParts : public ::testing::TestWithParam<PathPartsCase>
{};

TEST_P(PathParts, MatchTheTable)
{
    PathPartsCase const& test = GetParam();
    Path const path(test.path);
    EXPECT_EQ(path.fileName(), test.fileName);
    EXPECT_EQ(path.baseName(), test.baseName);
    EXPECT_EQ(path.extension(), test.extension);
    EXPECT_EQ(path.parentPath().str(), test.parentPath);
    EXPECT_EQ(path.parentDirectory().str(), test.parentDirectory);
    // The name always splits into base name and extension.
    EXPECT_EQ(path.baseName() + path.extension(), path.fileName());
}

INSTANTIATE_TEST_SUITE_P(
    Table, PathParts,
    ::testing::Values(
        PathPartsCase{"a/b/c.txt", "c.txt", "c", ".txt", "a/b", "a/b"},
        PathPartsCase{"scan.nii.gz", "scan.nii.gz", "scan", ".nii.gz", "", ""},
        PathPartsCase{"/data/ct/scan.NII.GZ", "scan.NII.GZ", "scan", ".NII.GZ", "/data/ct", "/data/ct"},
        PathPartsCase{"archive.tar.gz", "archive.tar.gz", "archive", ".tar.gz", "", ""},
        PathPartsCase{"table.csv.zst", "table.csv.zst", "table", ".csv.zst", "", ""},
        PathPartsCase{"notes.gz", "notes.gz", "notes", ".gz", "", ""},
        PathPartsCase{"my.scan.v2.nii.gz", "my.scan.v2.nii.gz", "my.scan.v2", ".nii.gz", "", ""},
        PathPartsCase{"model.pt.bak", "model.pt.bak", "model.pt", ".bak", "", ""},
        PathPartsCase{".hidden", ".hidden", ".hidden", "", "", ""},
        PathPartsCase{".hidden.txt", ".hidden.txt", ".hidden", ".txt", "", ""},
        PathPartsCase{".nii.gz", ".nii.gz", ".nii", ".gz", "", ""},
        PathPartsCase{"a..gz", "a..gz", "a.", ".gz", "", ""},
        PathPartsCase{"file.", "file.", "file", ".", "", ""},
        PathPartsCase{"dir/", "dir", "dir", "", "dir", ""}, PathPartsCase{"a/b/", "b", "b", "", "a/b", "a"},
        PathPartsCase{"noext", "noext", "noext", "", "", ""}, PathPartsCase{"/", "", "", "", "/", "/"},
        PathPartsCase{"/scan.nii", "scan.nii", "scan", ".nii", "/", "/"},
        PathPartsCase{"..", "..", "..", "", "", ""}, PathPartsCase{"", "", "", "", "", ""}));

struct AppendCase
{
    char const* path;
    char const* text;
    char const* expected;
};

class PathAppend : public ::testing::TestWithParam<AppendCase>
{};

TEST_P(PathAppend, ExtendsTheLastElement)
{
    EXPECT_EQ((Path(GetParam().path) + GetParam().text).str(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Table, PathAppend,
                         ::testing::Values(AppendCase{"a/b", ".bak", "a/b.bak"},
                                           AppendCase{"a/b/", ".bak", "a/b.bak"},
                                           AppendCase{"scan.nii", ".gz", "scan.nii.gz"},
                                           AppendCase{"/", "x", "/x"}, AppendCase{"", ".bak", ".bak"}));

TEST(Path, JoinFollowsStdFilesystem)
{
    EXPECT_EQ((Path("a") / "b").str(), "a/b");
    EXPECT_EQ((Path("a/") / "b").str(), "a/b");
    EXPECT_EQ((Path("a") / "/abs").str(), "/abs");
    EXPECT_EQ((Path() / "b").str(), "b");
}

TEST(Path, ComparisonIsElementWise)
{
    EXPECT_EQ(Path("a//b"), Path("a/b"));
    EXPECT_NE(Path("a/b"), Path("a/c"));
    EXPECT_TRUE(Path("a/b") == "a/b");
    EXPECT_LT(Path("a/b"), Path("a/c"));
    EXPECT_EQ(std::hash<Path>()(Path("a//b")), std::hash<Path>()(Path("a/b")));
    std::set<Path> const ordered = {"b", "a", "a//b", "a/b"};
    EXPECT_EQ(ordered.size(), 3u);
    EXPECT_EQ(*ordered.begin(), Path("a"));
    std::unordered_set<Path> const hashed = {"x/y", "x//y", "z"};
    EXPECT_EQ(hashed.size(), 2u);
    EXPECT_EQ(static_cast<std::filesystem::path>(Path("a/b")), std::filesystem::path("a/b"));
}

TEST(Path, MakeAbsoluteIsLexicallyNormal)
{
    Path const relative("x/./y/../z.nii");
    EXPECT_TRUE(relative.isRelative());
    EXPECT_FALSE(relative.isAbsolute());
    Path const absolute = relative.makeAbsolute();
    EXPECT_TRUE(absolute.isAbsolute());
    EXPECT_EQ(absolute, Path(std::filesystem::current_path() / "x/z.nii"));
    EXPECT_EQ(Path("/a/b/../c").makeAbsolute().str(), "/a/c");
    EXPECT_EQ(Path("a/./b/../c").lexicallyNormal().str(), "a/c");
}

// ---------------------------------------------------------------------------------------------
// Files and folders on disk

class FilesystemOnDisk : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_folder.isValid()); }

    Path at(std::string const& relative) const { return m_folder.path() / relative; }
    File fileWith(std::string const& relative, std::string_view text) const
    {
        File file(at(relative));
        EXPECT_TRUE(createDirectories(file.path().parentPath()));
        EXPECT_TRUE(file.writeText(text));
        return file;
    }
    // Every name in the folder, hidden ones included.
    std::vector<std::string> allNames() const
    {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(m_folder.path().stdPath()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    TemporaryDirectory m_folder;
};

TEST_F(FilesystemOnDisk, PathQueriesLookAtTheDisk)
{
    File const file = fileWith("file.txt", "x");
    EXPECT_TRUE(file.path().exists());
    EXPECT_TRUE(file.path().isFile());
    EXPECT_FALSE(file.path().isDirectory());
    EXPECT_TRUE(m_folder.path().isDirectory());
    EXPECT_FALSE(m_folder.path().isFile());
    EXPECT_FALSE(at("missing").exists());
    EXPECT_FALSE(at("file.txt/below").exists());
    EXPECT_TRUE(file.exists());
    EXPECT_FALSE(File(m_folder.path()).exists());
}

TEST_F(FilesystemOnDisk, TextRoundTrip)
{
    File const file(at("text.txt"));
    std::string const text = "first line\nsecond line\n\x01\xff utf-8: \xc3\xa4";
    ASSERT_TRUE(file.writeText(text));
    EXPECT_EQ(file.readText(), text);
    EXPECT_EQ(file.size(), text.size());

    ASSERT_TRUE(file.writeText(std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(file.readText(), "a\n\nb\n");
    EXPECT_EQ(file.readLines(), (std::vector<std::string>{"a", "", "b"}));

    ASSERT_TRUE(file.writeText(std::vector<std::string>{}));
    EXPECT_EQ(file.readText(), "");
    EXPECT_EQ(file.readLines(), std::vector<std::string>{});
}

struct LinesCase
{
    char const* text;
    std::vector<std::string> lines;
};

class FilesystemReadLines : public FilesystemOnDisk, public ::testing::WithParamInterface<LinesCase>
{};

TEST_P(FilesystemReadLines, SplitsAtLineEnds)
{
    File const file = fileWith("lines.txt", GetParam().text);
    EXPECT_EQ(file.readLines(), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(Table, FilesystemReadLines,
                         ::testing::Values(LinesCase{"a\nb\n", {"a", "b"}}, LinesCase{"a\nb", {"a", "b"}},
                                           LinesCase{"a\r\nb\r\n", {"a", "b"}}, LinesCase{"\n", {""}},
                                           LinesCase{"\n\nx", {"", "", "x"}}, LinesCase{"", {}},
                                           LinesCase{"a\rb\n", {"a\rb"}}));

TEST_F(FilesystemOnDisk, AppendCreatesAndExtends)
{
    File const file(at("log.txt"));
    ASSERT_TRUE(file.appendText("start\n"));
    ASSERT_TRUE(file.appendText(std::vector<std::string>{"one", "two"}));
    ASSERT_TRUE(file.appendText(""));
    EXPECT_EQ(file.readText(), "start\none\ntwo\n");
}

TEST_F(FilesystemOnDisk, BinaryRoundTripKeepsEveryByte)
{
    ByteBuffer data(256 * 3);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    File const file(at("data.bin"));
    ASSERT_TRUE(file.writeBinary(data));
    auto const read = file.readBinary();
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(*read == data);
    EXPECT_EQ(file.size(), data.size());
    EXPECT_TRUE(file.lastModified().has_value());

    ASSERT_TRUE(file.writeBinary(ByteBufferView()));
    EXPECT_EQ(file.readBinary()->size(), 0u);
}

TEST_F(FilesystemOnDisk, AtomicWritesLeaveOnlyTheTarget)
{
    File const file(at("target.vmf"));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(file.writeBinary(ByteBufferView(std::string(100 * i, 'x'))));
    ASSERT_TRUE(file.writeText("text"));
    EXPECT_EQ(allNames(), std::vector<std::string>{"target.vmf"});

    // A failed write (the target is a folder) removes its temporary file as well.
    ASSERT_TRUE(createDirectories(at("folder")));
    Log::Capture capture;
    EXPECT_FALSE(File(at("folder")).writeBinary(ByteBufferView(std::string_view("data"))));
    EXPECT_EQ(allNames(), (std::vector<std::string>{"folder", "target.vmf"}));
    EXPECT_EQ(capture.messages(Log::Error).size(), 1u);
}

TEST_F(FilesystemOnDisk, AtomicWriteReplacesTheFileInsteadOfOverwritingIt)
{
    File const file = fileWith("model.yaml", "old contents");
    // A reader that opened the old file keeps reading the old contents: the new file is a new
    // file, renamed over the old name, not the old one rewritten in place.
    std::ifstream reader(file.path().stdPath());
    ASSERT_TRUE(reader.is_open());
    ASSERT_TRUE(file.writeText("new contents"));
    std::string const seen((std::istreambuf_iterator<char>(reader)), std::istreambuf_iterator<char>());
    EXPECT_EQ(seen, "old contents");
    EXPECT_EQ(file.readText(), "new contents");
}

TEST_F(FilesystemOnDisk, AtomicWriteKeepsThePermissionsOfTheReplacedFile)
{
    File const file = fileWith("settings.xml", "v1");
    ASSERT_EQ(::chmod(file.path().str().c_str(), 0640), 0);
    ASSERT_TRUE(file.writeText("v2"));
    struct stat info = {};
    ASSERT_EQ(::stat(file.path().str().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u);
}

TEST_F(FilesystemOnDisk, AtomicFileWriterCommitsOrLeavesTheTargetAlone)
{
    File const file = fileWith("stream.vmf", "previous");
    {
        AtomicFileWriter writer(file.path());
        ASSERT_TRUE(writer.isOpen());
        writer.stream() << "half-written";
        // No commit: the destructor discards.
    }
    EXPECT_EQ(file.readText(), "previous");
    EXPECT_EQ(allNames(), std::vector<std::string>{"stream.vmf"});
    {
        AtomicFileWriter writer(file.path());
        writer.stream() << "block 1;"
                        << "block 2";
        EXPECT_EQ(file.readText(), "previous");
        ASSERT_TRUE(writer.commit());
    }
    EXPECT_EQ(file.readText(), "block 1;block 2");
    EXPECT_EQ(allNames(), std::vector<std::string>{"stream.vmf"});

    Log::Capture capture;
    AtomicFileWriter nowhere(at("missing/folder/out.vmf"));
    EXPECT_FALSE(nowhere.isOpen());
    EXPECT_FALSE(nowhere.commit());
    EXPECT_TRUE(capture.containsFragment(at("missing/folder/out.vmf").str()));
}

TEST_F(FilesystemOnDisk, CreateAndRemoveFiles)
{
    File const file(at("empty.dat"));
    ASSERT_TRUE(file.create());
    EXPECT_TRUE(file.exists());
    EXPECT_EQ(file.size(), 0u);

    File const full = fileWith("full.txt", "keep me");
    EXPECT_TRUE(full.create());
    EXPECT_EQ(full.readText(), "keep me");

    EXPECT_TRUE(file.remove());
    EXPECT_FALSE(file.exists());
    EXPECT_TRUE(file.remove()); // already gone

    // create() makes no folders.
    Log::Capture capture;
    EXPECT_FALSE(File(at("no/such/folder.txt")).create());
    EXPECT_FALSE(at("no").exists());
    // remove() does not touch folders.
    ASSERT_TRUE(createDirectories(at("folder")));
    EXPECT_FALSE(File(at("folder")).remove());
    EXPECT_TRUE(at("folder").isDirectory());
    EXPECT_EQ(capture.messages(Log::Error).size(), 2u);
}

TEST_F(FilesystemOnDisk, StreamsForReadingAndWriting)
{
    File const file(at("stream.bin"));
    {
        auto out = file.openForWriting(OpenMode::Binary);
        ASSERT_NE(out, nullptr);
        *out << "one";
    }
    {
        auto out = file.openForWriting({OpenMode::Binary, OpenMode::Append});
        ASSERT_NE(out, nullptr);
        *out << "two";
    }
    auto in = file.openForReading(OpenMode::Binary);
    ASSERT_NE(in, nullptr);
    std::string contents;
    *in >> contents;
    EXPECT_EQ(contents, "onetwo");
    {
        auto out = file.openForWriting();
        ASSERT_NE(out, nullptr);
        *out << "3";
    }
    EXPECT_EQ(file.readText(), "3");
}

TEST_F(FilesystemOnDisk, CopyRespectsOverwrite)
{
    File const source = fileWith("source.txt", "new");
    File const target = fileWith("target.txt", "old");
    {
        Log::Capture capture;
        EXPECT_FALSE(source.copyTo(target.path()));
        EXPECT_EQ(target.readText(), "old");
        ASSERT_EQ(capture.messages(Log::Error).size(), 1u);
        EXPECT_TRUE(capture.containsFragment(target.path().str()));
    }
    EXPECT_TRUE(source.copyTo(target.path(), CopyOption::Overwrite));
    EXPECT_EQ(target.readText(), "new");

    ASSERT_TRUE(createDirectories(at("into")));
    EXPECT_TRUE(source.copyTo(at("into")));
    EXPECT_EQ(File(at("into/source.txt")).readText(), "new");

    EXPECT_TRUE(source.copyTo(at("made/for/it/copy.txt"), CopyOption::CreateDirectories));
    EXPECT_EQ(File(at("made/for/it/copy.txt")).readText(), "new");

    Log::Capture capture;
    EXPECT_FALSE(File(at("absent.txt")).copyTo(at("x.txt")));
    EXPECT_FALSE(at("x.txt").exists());
    EXPECT_TRUE(capture.containsFragment(at("absent.txt").str()));
}

// Each operation on a path that cannot work gives an empty result and one error line that names
// the path. (Tests may run as root, so unreadable files are made with folders and files in the
// way, not with permissions.)
enum class BadPath
{
    Missing,  // <folder>/missing.txt
    Folder,   // <folder>/folder
    UnderFile // <folder>/file.txt/inner.txt
};

struct FailureCase
{
    char const* name;
    BadPath where;
    // True when the operation reported failure.
    std::function<bool(File const&)> fails;
};

class FilesystemFailure : public FilesystemOnDisk, public ::testing::WithParamInterface<FailureCase>
{};

TEST_P(FilesystemFailure, GivesAnEmptyResultAndOneLogLineNamingThePath)
{
    fileWith("file.txt", "contents");
    ASSERT_TRUE(createDirectories(at("folder")));
    Path const path = GetParam().where == BadPath::Missing  ? at("missing.txt")
                      : GetParam().where == BadPath::Folder ? at("folder")
                                                            : at("file.txt/inner.txt");
    Log::Capture capture;
    EXPECT_TRUE(GetParam().fails(File(path)));
    auto const errors = capture.records();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].level, Log::Error);
    EXPECT_EQ(errors[0].category, "Host.Filesystem");
    EXPECT_NE(errors[0].message.find("'" + path.str() + "'"), std::string::npos) << errors[0].message;
    // The existing file next to it is untouched.
    EXPECT_EQ(File(at("file.txt")).readText(), "contents");
}

INSTANTIATE_TEST_SUITE_P(
    Operations, FilesystemFailure,
    ::testing::Values(
        FailureCase{"ReadTextMissing", BadPath::Missing, [](File const& f) { return !f.readText(); }},
        FailureCase{"ReadTextFolder", BadPath::Folder, [](File const& f) { return !f.readText(); }},
        FailureCase{"ReadLinesUnderFile", BadPath::UnderFile, [](File const& f) { return !f.readLines(); }},
        FailureCase{"ReadBinaryFolder", BadPath::Folder, [](File const& f) { return !f.readBinary(); }},
        FailureCase{"WriteTextUnderFile", BadPath::UnderFile,
                    [](File const& f) { return !f.writeText("x"); }},
        FailureCase{"WriteBinaryFolder", BadPath::Folder,
                    [](File const& f) { return !f.writeBinary(ByteBufferView(std::string_view("x"))); }},
        FailureCase{"AppendFolder", BadPath::Folder, [](File const& f) { return !f.appendText("x"); }},
        FailureCase{"AppendUnderFile", BadPath::UnderFile, [](File const& f) { return !f.appendText("x"); }},
        FailureCase{"CreateUnderFile", BadPath::UnderFile, [](File const& f) { return !f.create(); }},
        FailureCase{"SizeMissing", BadPath::Missing, [](File const& f) { return !f.size(); }},
        FailureCase{"SizeFolder", BadPath::Folder, [](File const& f) { return !f.size(); }},
        FailureCase{"LastModifiedMissing", BadPath::Missing, [](File const& f) { return !f.lastModified(); }},
        FailureCase{"OpenForReadingMissing", BadPath::Missing,
                    [](File const& f) { return f.openForReading() == nullptr; }},
        FailureCase{"OpenForReadingFolder", BadPath::Folder,
                    [](File const& f) { return f.openForReading() == nullptr; }},
        FailureCase{"OpenForWritingUnderFile", BadPath::UnderFile,
                    [](File const& f) { return f.openForWriting() == nullptr; }},
        FailureCase{"OpenForWritingFolder", BadPath::Folder,
                    [](File const& f) { return f.openForWriting(OpenMode::Binary) == nullptr; }},
        FailureCase{"ScanMissing", BadPath::Missing,
                    [](File const& f) { return Directory(f.path()).scan().empty(); }},
        FailureCase{"ScanUnderFile", BadPath::UnderFile,
                    [](File const& f) { return Directory(f.path()).scan().empty(); }},
        FailureCase{"CreateDirectoriesUnderFile", BadPath::UnderFile,
                    [](File const& f) { return !createDirectories(f.path()); }}),
    [](auto const& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------------------------
// Directory scans

TEST(Filesystem, NaturalOrder)
{
    EXPECT_LT(compareNatural("img2", "img10"), 0);
    EXPECT_GT(compareNatural("img10", "img2"), 0);
    EXPECT_LT(compareNatural("img10", "Img11"), 0);
    EXPECT_LT(compareNatural("x9y", "x10y"), 0);
    EXPECT_LT(compareNatural("", "a"), 0);
    EXPECT_EQ(compareNatural("abc", "abc"), 0);
    EXPECT_LT(compareNatural("file99999999999999999999", "file100000000000000000000"), 0);
    // Equal but for case or leading zeros: still a strict order, consistent both ways.
    EXPECT_NE(compareNatural("a", "A"), 0);
    EXPECT_EQ(compareNatural("a", "A"), -compareNatural("A", "a"));
    EXPECT_NE(compareNatural("img01", "img1"), 0);
    EXPECT_EQ(compareNatural("img01", "img1"), -compareNatural("img1", "img01"));
    EXPECT_LT(compareNatural("img01", "img2"), 0);

    std::vector<std::string> names = {"s10", "S2", "s1", "s02", "t", "s"};
    std::sort(names.begin(), names.end(),
              [](std::string const& a, std::string const& b) { return compareNatural(a, b) < 0; });
    EXPECT_EQ(names, (std::vector<std::string>{"s", "s1", "S2", "s02", "s10", "t"}));
}

struct ScanCase
{
    char const* name;
    char const* patterns;
    ScanOptions options;
    SortOptions sort;
    std::vector<std::string> expected; // relative to the scanned folder
};

class FilesystemScan : public FilesystemOnDisk, public ::testing::WithParamInterface<ScanCase>
{
protected:
    void SetUp() override
    {
        FilesystemOnDisk::SetUp();
        for (char const* name : {"img10.nii.gz", "img2.nii.gz", "img1.nii", "notes.txt", ".hidden.nii.gz",
                                 "sub/img3.nii.gz", "sub/deeper/img4.NII.GZ", ".git/config"})
            fileWith(name, name);
        ASSERT_TRUE(createDirectories(at("Sub2")));
    }
};

TEST_P(FilesystemScan, ListsWhatTheFilterAsksFor)
{
    ScanCase const& test = GetParam();
    Log::Capture capture;
    std::vector<Path> const found = Directory(m_folder.path()).scan({test.patterns, test.options}, test.sort);
    std::vector<std::string> relative;
    for (Path const& path : found) {
        EXPECT_EQ(path.str().rfind(m_folder.path().str() + "/", 0), 0u) << path.str();
        relative.push_back(path.stdPath().lexically_relative(m_folder.path().stdPath()).string());
    }
    if (test.sort.empty())
        std::sort(relative.begin(), relative.end());
    EXPECT_EQ(relative, test.expected);
    EXPECT_TRUE(capture.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, FilesystemScan,
    ::testing::Values(
        ScanCase{
            "OnePattern", "*.nii.gz", ScanOption::Files, SortOption::Name, {"img2.nii.gz", "img10.nii.gz"}},
        ScanCase{"TwoPatterns",
                 "*.nii; *.nii.gz",
                 ScanOption::Files,
                 SortOption::Name,
                 {"img1.nii", "img2.nii.gz", "img10.nii.gz"}},
        ScanCase{"Reverse",
                 "*",
                 ScanOption::Files,
                 {SortOption::Name, SortOption::Reverse},
                 {"notes.txt", "img10.nii.gz", "img2.nii.gz", "img1.nii"}},
        ScanCase{"Unsorted",
                 "",
                 ScanOption::Files,
                 SortOption::None,
                 {"img1.nii", "img10.nii.gz", "img2.nii.gz", "notes.txt"}},
        ScanCase{"Folders", "*", ScanOption::Directories, SortOption::Name, {"sub", "Sub2"}},
        ScanCase{"FilesAndFolders",
                 "",
                 {ScanOption::Files, ScanOption::Directories},
                 SortOption::Name,
                 {"img1.nii", "img2.nii.gz", "img10.nii.gz", "notes.txt", "sub", "Sub2"}},
        ScanCase{"Recursive",
                 "*.nii.gz",
                 {ScanOption::Files, ScanOption::Recursive},
                 SortOption::Name,
                 {"img2.nii.gz", "img10.nii.gz", "sub/img3.nii.gz"}},
        ScanCase{"RecursiveIgnoringCase",
                 "*.nii.gz",
                 {ScanOption::Files, ScanOption::Recursive, ScanOption::IgnoreCase},
                 SortOption::Name,
                 {"img2.nii.gz", "img10.nii.gz", "sub/deeper/img4.NII.GZ", "sub/img3.nii.gz"}},
        ScanCase{"RecursiveFolders",
                 "*",
                 {ScanOption::Directories, ScanOption::Recursive},
                 SortOption::Name,
                 {"sub", "sub/deeper", "Sub2"}},
        ScanCase{"Hidden",
                 "*.nii.gz",
                 {ScanOption::Files, ScanOption::Hidden},
                 SortOption::Name,
                 {".hidden.nii.gz", "img2.nii.gz", "img10.nii.gz"}},
        ScanCase{"RecursiveHidden",
                 "*",
                 {ScanOption::Files, ScanOption::Recursive, ScanOption::Hidden},
                 SortOption::Name,
                 {".git/config", ".hidden.nii.gz", "img1.nii", "img2.nii.gz", "img10.nii.gz", "notes.txt",
                  "sub/deeper/img4.NII.GZ", "sub/img3.nii.gz"}},
        ScanCase{"NothingMatches", "*.dcm", ScanOption::Files, SortOption::Name, {}},
        ScanCase{"Bracket", "img[12].*", ScanOption::Files, SortOption::Name, {"img1.nii", "img2.nii.gz"}}),
    [](auto const& info) { return std::string(info.param.name); });

TEST_F(FilesystemOnDisk, ScanSortsByTimeAndSize)
{
    auto const now = std::filesystem::file_time_type::clock::now();
    std::vector<std::pair<char const*, int>> const files = {{"a.txt", 3}, {"b.txt", 1}, {"c.txt", 2}};
    for (auto const& [name, age] : files) {
        File const file = fileWith(name, std::string(static_cast<std::size_t>(age) * 10, 'x'));
        std::filesystem::last_write_time(file.path().stdPath(), now - std::chrono::hours(age));
    }
    auto const names = [](std::vector<Path> const& paths) {
        std::vector<std::string> result;
        for (auto const& path : paths)
            result.push_back(path.fileName());
        return result;
    };
    Directory const folder(m_folder.path());
    EXPECT_EQ(names(folder.scan({}, SortOption::Time)),
              (std::vector<std::string>{"a.txt", "c.txt", "b.txt"}));
    EXPECT_EQ(names(folder.scan({}, {SortOption::Time, SortOption::Reverse})),
              (std::vector<std::string>{"b.txt", "c.txt", "a.txt"}));
    EXPECT_EQ(names(folder.scan({}, SortOption::Size)),
              (std::vector<std::string>{"b.txt", "c.txt", "a.txt"}));
}

TEST_F(FilesystemOnDisk, RemoveContentsKeepsTheFolder)
{
    fileWith("a.txt", "a");
    fileWith("sub/deeper/b.txt", "b");
    fileWith(".hidden", "h");
    Directory const folder(m_folder.path());
    ASSERT_TRUE(folder.removeContents());
    EXPECT_TRUE(folder.exists());
    EXPECT_TRUE(allNames().empty());
    EXPECT_TRUE(folder.removeContents());
}

TEST_F(FilesystemOnDisk, RemoveFolders)
{
    fileWith("tree/a/b/c.txt", "c");
    Directory const tree(at("tree"));
    ASSERT_TRUE(tree.remove());
    EXPECT_FALSE(at("tree").exists());
    EXPECT_TRUE(tree.remove()); // already gone

    File const file = fileWith("plain.txt", "keep");
    Log::Capture capture;
    EXPECT_FALSE(Directory(file.path()).remove());
    EXPECT_EQ(file.readText(), "keep");
    EXPECT_TRUE(capture.containsFragment(file.path().str()));
}

TEST_F(FilesystemOnDisk, CreateDirectoriesMakesParents)
{
    EXPECT_TRUE(createDirectories(at("x/y/z")));
    EXPECT_TRUE(at("x/y/z").isDirectory());
    EXPECT_TRUE(createDirectories(at("x/y/z/"))); // exists already, trailing separator
    EXPECT_TRUE(Directory(at("p/q")).create());
    EXPECT_TRUE(Directory(at("p/q")).exists());
    Log::Capture capture;
    EXPECT_FALSE(createDirectories(Path()));
    EXPECT_EQ(capture.messages(Log::Error).size(), 1u);
}

// ---------------------------------------------------------------------------------------------
// Temporary files and folders

TEST(TemporaryFile, IsUniqueEmptyAndRemoved)
{
    Path kept;
    {
        TemporaryFile const first(".nii.gz");
        TemporaryFile const second(".nii.gz");
        ASSERT_TRUE(first.isValid());
        EXPECT_NE(first.path(), second.path());
        EXPECT_TRUE(first.path().isFile());
        EXPECT_EQ(File(first.path()).size(), 0u);
        EXPECT_EQ(first.path().extension(), ".nii.gz");
        EXPECT_EQ(first.path().parentPath(), tempDirectory());
        kept = first.path();
    }
    EXPECT_FALSE(kept.exists());
}

TEST(TemporaryFile, MoveTransfersOwnership)
{
    TemporaryFile original;
    Path const path = original.path();
    ASSERT_TRUE(path.isFile());
    {
        TemporaryFile moved(std::move(original));
        EXPECT_FALSE(original.isValid()); // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(moved.path(), path);
        TemporaryFile assigned;
        Path const replaced = assigned.path();
        assigned = std::move(moved);
        EXPECT_FALSE(replaced.exists()); // its own file went away when it took the other one
        EXPECT_TRUE(path.isFile());
    }
    EXPECT_FALSE(path.exists());

    TemporaryFile released;
    Path const keep = released.release();
    EXPECT_FALSE(released.isValid());
    EXPECT_TRUE(keep.isFile());
    EXPECT_TRUE(File(keep).remove());
}

TEST(TemporaryFile, BadSuffixOrFolderIsLogged)
{
    Log::Capture capture;
    TemporaryFile const slash("a/b");
    EXPECT_FALSE(slash.isValid());
    TemporaryFile const nowhere(".txt", Path("/nonexistent/folder/for/velmoria"));
    EXPECT_FALSE(nowhere.isValid());
    EXPECT_EQ(capture.messages(Log::Error).size(), 2u);
    EXPECT_TRUE(capture.containsFragment("/nonexistent/folder/for/velmoria"));
}

TEST(TemporaryDirectory, IsRemovedWithItsContents)
{
    Path kept;
    {
        TemporaryDirectory const folder("scan-test");
        ASSERT_TRUE(folder.isValid());
        EXPECT_TRUE(folder.path().isDirectory());
        EXPECT_EQ(folder.path().fileName().rfind("scan-test-", 0), 0u);
        ASSERT_TRUE(createDirectories(folder.path() / "a"));
        ASSERT_TRUE(File(folder.path() / "a/b.txt").writeText("b"));
        TemporaryFile const inside(".tmp", folder.path());
        EXPECT_EQ(inside.path().parentPath(), folder.path());
        kept = folder.path();
    }
    EXPECT_FALSE(kept.exists());

    TemporaryDirectory first;
    Path const path = first.path();
    TemporaryDirectory second(std::move(first));
    EXPECT_FALSE(first.isValid()); // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(second.path(), path);
    EXPECT_TRUE(path.isDirectory());
}

TEST(Filesystem, TempDirectoryHonoursTmpdir)
{
    TemporaryDirectory const folder;
    ASSERT_TRUE(folder.isValid());
    char const* previous = std::getenv("TMPDIR");
    std::string const saved = previous != nullptr ? previous : "";
    ::setenv("TMPDIR", folder.path().str().c_str(), 1);
    Path const chosen = tempDirectory();
    TemporaryFile const file;
    if (previous != nullptr)
        ::setenv("TMPDIR", saved.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    EXPECT_EQ(chosen, folder.path());
    EXPECT_EQ(file.path().parentPath(), folder.path());
}
