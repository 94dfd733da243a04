#include "host/core/Filesystem.h"

#include "host/core/Log.h"
#include "host/core/String.h"

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

namespace {

std::vector<std::string> words(char const* text)
{
    return String::split(text, ' ', true);
}

TEST(Path, LexicalPartsMatchTheTable)
{
    struct Case
    {
        char const* path;
        char const* fileName;
        char const* baseName;
        char const* extension;
        char const* parentPath;
        char const* parentDirectory;
    };
    for (Case const& test :
         {Case{"a/b/c.txt", "c.txt", "c", ".txt", "a/b", "a/b"},
          Case{"scan.nii.gz", "scan.nii.gz", "scan", ".nii.gz", "", ""},
          Case{"/data/ct/scan.NII.GZ", "scan.NII.GZ", "scan", ".NII.GZ", "/data/ct", "/data/ct"},
          Case{"table.csv.zst", "table.csv.zst", "table", ".csv.zst", "", ""},
          Case{"notes.gz", "notes.gz", "notes", ".gz", "", ""},
          Case{"model.pt.bak", "model.pt.bak", "model.pt", ".bak", "", ""},
          Case{".hidden", ".hidden", ".hidden", "", "", ""},
          Case{".nii.gz", ".nii.gz", ".nii", ".gz", "", ""}, Case{"a..gz", "a..gz", "a.", ".gz", "", ""},
          Case{"file.", "file.", "file", ".", "", ""}, Case{"a/b/", "b", "b", "", "a/b", "a"},
          Case{"/", "", "", "", "/", "/"}, Case{"..", "..", "..", "", "", ""},
          Case{"", "", "", "", "", ""}}) {
        SCOPED_TRACE(test.path);
        Path const path(test.path);
        EXPECT_EQ(path.fileName(), test.fileName);
        EXPECT_EQ(path.baseName(), test.baseName);
        EXPECT_EQ(path.extension(), test.extension);
        EXPECT_EQ(path.parentPath().str(), test.parentPath);
        EXPECT_EQ(path.parentDirectory().str(), test.parentDirectory);
    }
}

TEST(Path, AppendJoinNormaliseAndCompare)
{
    EXPECT_EQ((Path("a/b/") + ".bak").str(), "a/b.bak");
    EXPECT_EQ((Path("/") + "x").str(), "/x");
    EXPECT_EQ((Path("a/") / "b").str(), "a/b");
    EXPECT_EQ((Path("a") / "/abs").str(), "/abs");
    EXPECT_EQ(Path("x/./y/../z.nii").makeAbsolute(), Path(std::filesystem::current_path() / "x/z.nii"));
    EXPECT_EQ(Path("a/./b/../c").lexicallyNormal().str(), "a/c");
    EXPECT_TRUE(Path("x").isRelative());
    EXPECT_FALSE(Path("x").isAbsolute());
    EXPECT_EQ(static_cast<std::filesystem::path>(Path("a//b")), std::filesystem::path("a/b"));
    // Comparison and hashing go element by element.
    EXPECT_TRUE(Path("a/b") == "a//b");
    EXPECT_LT(Path("a/b"), Path("a/c"));
    EXPECT_EQ((std::set<Path>{"b", "a", "a//b", "a/b"}).size(), 3u);
    EXPECT_EQ((std::unordered_set<Path>{"x/y", "x//y", "z"}).size(), 2u);
}

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

TEST_F(FilesystemOnDisk, TextAndBinaryRoundTrip)
{
    File const file(at("text.txt"));
    ASSERT_TRUE(file.appendText("start\n")); // creates the file
    ASSERT_TRUE(file.appendText(std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(file.readText(), "start\none\ntwo\n");
    EXPECT_FALSE(at("text.txt/below").exists());
    EXPECT_FALSE(File(m_folder.path()).exists()) << "a folder is no file";
    std::string const text = "first line\nsecond line\n\x01\xff utf-8: \xc3\xa4";
    ASSERT_TRUE(file.writeText(text));
    EXPECT_EQ(file.readText(), text);
    EXPECT_EQ(file.size(), text.size());
    ASSERT_TRUE(file.writeText(std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(file.readText(), "a\n\nb\n");
    // Lines end at LF or CRLF, not at a lone CR; the last one needs no line end.
    ASSERT_TRUE(file.writeText("a\r\nb\rc\n\n\nx"));
    EXPECT_EQ(file.readLines(), (std::vector<std::string>{"a", "b\rc", "", "", "x"}));

    ByteBuffer data(256 * 3);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    ASSERT_TRUE(file.writeBinary(data));
    EXPECT_TRUE(file.readBinary() == data);
    EXPECT_TRUE(file.lastModified().has_value());
    ASSERT_TRUE(file.writeBinary(ByteBufferView()));
    EXPECT_EQ(file.readLines(), std::vector<std::string>{});
}

TEST_F(FilesystemOnDisk, AtomicWritesReplaceTheFileAndLeaveOnlyTheTarget)
{
    File const file = fileWith("target.vmf", "old contents");
    ASSERT_EQ(::chmod(file.path().str().c_str(), 0640), 0);
    // A reader that opened the old file keeps reading the old contents: the new file is a new
    // file, renamed over the old name, not the old one rewritten in place.
    std::ifstream reader(file.path().stdPath());
    ASSERT_TRUE(reader.is_open());
    ASSERT_TRUE(file.writeBinary(ByteBufferView(std::string_view("new contents"))));
    std::string const seen((std::istreambuf_iterator<char>(reader)), std::istreambuf_iterator<char>());
    EXPECT_EQ(seen, "old contents");
    EXPECT_EQ(file.readText(), "new contents");
    struct stat info = {};
    ASSERT_EQ(::stat(file.path().str().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0640u) << "the replaced file's permissions are kept";
    EXPECT_EQ(allNames(), std::vector<std::string>{"target.vmf"});
}

TEST_F(FilesystemOnDisk, AtomicFileWriterCommitsOrLeavesTheTargetAlone)
{
    File const file = fileWith("stream.vmf", "previous");
    {
        AtomicFileWriter discarded(file.path()); // no commit: the destructor discards
        ASSERT_TRUE(discarded.isOpen());
        discarded.stream() << "half-written";
    }
    EXPECT_EQ(file.readText(), "previous");
    AtomicFileWriter writer(file.path());
    writer.stream() << "committed";
    EXPECT_EQ(file.readText(), "previous");
    ASSERT_TRUE(writer.commit());
    EXPECT_EQ(file.readText(), "committed");
    EXPECT_EQ(allNames(), std::vector<std::string>{"stream.vmf"});

    Log::Capture capture;
    AtomicFileWriter nowhere(at("missing/folder/out.vmf"));
    EXPECT_FALSE(nowhere.isOpen());
    EXPECT_FALSE(nowhere.commit());
    EXPECT_TRUE(capture.containsFragment(at("missing/folder/out.vmf").str()));
}

TEST_F(FilesystemOnDisk, CreateAndRemoveFilesAndFolders)
{
    File const file(at("empty.dat"));
    ASSERT_TRUE(file.create());
    EXPECT_EQ(file.size(), 0u);
    File const full = fileWith("full.txt", "keep me");
    EXPECT_TRUE(full.create());
    EXPECT_EQ(full.readText(), "keep me");
    EXPECT_TRUE(file.remove());
    EXPECT_FALSE(file.exists());
    EXPECT_TRUE(file.remove()); // already gone

    EXPECT_TRUE(createDirectories(at("x/y/z/"))); // trailing separator
    EXPECT_TRUE(Directory(at("x/y/z")).exists());
    EXPECT_TRUE(Directory(at("p/q")).create());
    fileWith("tree/a/b/c.txt", "c");
    ASSERT_TRUE(Directory(at("tree")).remove());
    EXPECT_FALSE(at("tree").exists());
    EXPECT_TRUE(Directory(at("tree")).remove()); // already gone

    // Files and folders are not mistaken for each other.
    Log::Capture capture;
    EXPECT_FALSE(File(at("x")).remove());
    EXPECT_TRUE(at("x").isDirectory());
    EXPECT_FALSE(Directory(full.path()).remove());
    EXPECT_EQ(full.readText(), "keep me");
    EXPECT_TRUE(capture.containsFragment(full.path().str()));
    EXPECT_FALSE(createDirectories(Path()));

    Directory const folder(m_folder.path());
    ASSERT_TRUE(folder.removeContents());
    EXPECT_TRUE(folder.exists());
    EXPECT_TRUE(allNames().empty());
}

TEST_F(FilesystemOnDisk, StreamsForReadingAndAppending)
{
    File const file = fileWith("stream.bin", "one");
    auto out = file.openForWriting({OpenMode::Binary, OpenMode::Append});
    ASSERT_NE(out, nullptr);
    *out << "two" << std::flush;
    auto in = file.openForReading(OpenMode::Binary);
    ASSERT_NE(in, nullptr);
    std::string contents;
    *in >> contents;
    EXPECT_EQ(contents, "onetwo");
}

TEST_F(FilesystemOnDisk, CopyRespectsOverwriteAndNamesTheFailingPath)
{
    File const source = fileWith("source.txt", "new");
    File const target = fileWith("target.txt", "old");
    Log::Capture capture;
    EXPECT_FALSE(source.copyTo(target.path()));
    EXPECT_EQ(target.readText(), "old");
    EXPECT_TRUE(capture.containsFragment(target.path().str()));
    EXPECT_TRUE(source.copyTo(target.path(), CopyOption::Overwrite));
    EXPECT_EQ(target.readText(), "new");
    EXPECT_TRUE(source.copyTo(m_folder.path() / "made/for/it/copy.txt", CopyOption::CreateDirectories));
    EXPECT_TRUE(source.copyTo(at("made"))) << "into a folder";
    EXPECT_EQ(allNames(), (std::vector<std::string>{"made", "source.txt", "target.txt"}));
    EXPECT_EQ(File(at("made/source.txt")).readText(), "new");
    EXPECT_FALSE(File(at("absent.txt")).copyTo(at("x.txt")));
    EXPECT_TRUE(capture.containsFragment(at("absent.txt").str()));
}

// Each operation on a path that cannot work gives an empty result and one error line that names
// the path. (Tests may run as root, so unreadable files are made with folders and files in the
// way, not with permissions.)
TEST_F(FilesystemOnDisk, FailureGivesAnEmptyResultAndOneLogLineNamingThePath)
{
    struct Case
    {
        char const* operation;
        char const* path; // below the folder, which holds "file.txt" and "folder"
        std::function<bool(File const&)> fails;
    };
    std::vector<Case> const cases = {
        {"readText", "missing.txt", [](File const& f) { return !f.readText(); }},
        {"readText", "folder", [](File const& f) { return !f.readText(); }},
        {"readLines", "file.txt/inner.txt", [](File const& f) { return !f.readLines(); }},
        {"readBinary", "folder", [](File const& f) { return !f.readBinary(); }},
        {"writeText", "file.txt/inner.txt", [](File const& f) { return !f.writeText("x"); }},
        {"writeBinary", "folder",
         [](File const& f) { return !f.writeBinary(ByteBufferView(std::string_view("x"))); }},
        {"appendText", "folder", [](File const& f) { return !f.appendText("x"); }},
        {"appendText", "file.txt/inner.txt", [](File const& f) { return !f.appendText("x"); }},
        {"create", "file.txt/inner.txt", [](File const& f) { return !f.create(); }},
        {"create", "no/such/folder.txt", [](File const& f) { return !f.create(); }},
        {"size", "missing.txt", [](File const& f) { return !f.size(); }},
        {"size", "folder", [](File const& f) { return !f.size(); }},
        {"lastModified", "missing.txt", [](File const& f) { return !f.lastModified(); }},
        {"openForReading", "missing.txt", [](File const& f) { return f.openForReading() == nullptr; }},
        {"openForReading", "folder", [](File const& f) { return f.openForReading() == nullptr; }},
        {"openForWriting", "file.txt/inner.txt", [](File const& f) { return f.openForWriting() == nullptr; }},
        {"openForWriting", "folder",
         [](File const& f) { return f.openForWriting(OpenMode::Binary) == nullptr; }},
        {"scan", "missing.txt", [](File const& f) { return Directory(f.path()).scan().empty(); }},
        {"scan", "file.txt/inner.txt", [](File const& f) { return Directory(f.path()).scan().empty(); }},
        {"createDirectories", "file.txt/inner.txt",
         [](File const& f) { return !createDirectories(f.path()); }}};
    fileWith("file.txt", "contents");
    ASSERT_TRUE(createDirectories(at("folder")));
    for (Case const& test : cases) {
        SCOPED_TRACE(std::string(test.operation) + " on " + test.path);
        Path const path = at(test.path);
        Log::Capture capture;
        EXPECT_TRUE(test.fails(File(path)));
        auto const errors = capture.records();
        ASSERT_EQ(errors.size(), 1u);
        EXPECT_EQ(errors[0].level, Log::Error);
        EXPECT_EQ(errors[0].category, "Host.Filesystem");
        EXPECT_NE(errors[0].message.find("'" + path.str() + "'"), std::string::npos) << errors[0].message;
    }
    // Nothing was created, not even a temporary file of a failed write.
    EXPECT_EQ(allNames(), (std::vector<std::string>{"file.txt", "folder"}));
    EXPECT_EQ(File(at("file.txt")).readText(), "contents");
}

TEST(Filesystem, NaturalOrderComparesNumbersAsNumbersAndIsStrict)
{
    EXPECT_LT(compareNatural("img10", "Img11"), 0);
    EXPECT_GT(compareNatural("img10", "img2"), 0);
    EXPECT_LT(compareNatural("file99999999999999999999", "file100000000000000000000"), 0);
    // Equal but for case or leading zeros: still a strict order, consistent both ways.
    EXPECT_EQ(compareNatural("a", "A"), -compareNatural("A", "a"));
    EXPECT_NE(compareNatural("img01", "img1"), 0);
    EXPECT_EQ(compareNatural("img01", "img1"), -compareNatural("img1", "img01"));
    std::vector<std::string> names = {"s10", "S2", "s1", "s02", "t", "s", "s"};
    std::sort(names.begin(), names.end(),
              [](std::string const& a, std::string const& b) { return compareNatural(a, b) < 0; });
    EXPECT_EQ(names, words("s s s1 S2 s02 s10 t"));
}

TEST_F(FilesystemOnDisk, ScanListsWhatTheFilterAsksFor)
{
    for (char const* name : {"img10.nii.gz", "img2.nii.gz", "img1.nii", "notes.txt", ".hidden.nii.gz",
                             "sub/img3.nii.gz", "sub/deeper/img4.NII.GZ", ".git/config"})
        fileWith(name, name);
    ASSERT_TRUE(createDirectories(at("Sub2")));
    struct Case
    {
        char const* patterns;
        ScanOptions options;
        SortOptions sort;
        char const* expected; // relative to the scanned folder, separated by blanks
    };
    ScanOptions const files = ScanOption::Files;
    ScanOptions const recursive = files | ScanOption::Recursive;
    SortOptions const byName = SortOption::Name;
    for (Case const& test :
         {Case{"*.nii.gz", files, byName, "img2.nii.gz img10.nii.gz"},
          Case{"*.nii; *.nii.gz", files, byName, "img1.nii img2.nii.gz img10.nii.gz"},
          Case{"*", files, byName | SortOption::Reverse, "notes.txt img10.nii.gz img2.nii.gz img1.nii"},
          Case{"", files | ScanOption::Directories, byName,
               "img1.nii img2.nii.gz img10.nii.gz notes.txt sub Sub2"},
          Case{"*.nii.gz", recursive, byName, "img2.nii.gz img10.nii.gz sub/img3.nii.gz"},
          Case{"*.nii.gz", recursive | ScanOption::IgnoreCase, byName,
               "img2.nii.gz img10.nii.gz sub/deeper/img4.NII.GZ sub/img3.nii.gz"},
          Case{"*", ScanOptions(ScanOption::Directories) | ScanOption::Recursive, byName,
               "sub sub/deeper Sub2"},
          Case{"*.nii.gz", files | ScanOption::Hidden, byName, ".hidden.nii.gz img2.nii.gz img10.nii.gz"},
          Case{
              "*", recursive | ScanOption::Hidden, byName,
              ".git/config .hidden.nii.gz img1.nii img2.nii.gz img10.nii.gz notes.txt sub/deeper/img4.NII.GZ "
              "sub/img3.nii.gz"},
          Case{"img[12].*", files, byName, "img1.nii img2.nii.gz"}}) {
        SCOPED_TRACE(std::string(test.patterns) + ", options " + std::to_string(test.options.value()));
        Log::Capture capture;
        std::vector<std::string> relative;
        for (Path const& path : Directory(m_folder.path()).scan({test.patterns, test.options}, test.sort)) {
            EXPECT_EQ(path.str().rfind(m_folder.path().str() + "/", 0), 0u) << path.str();
            relative.push_back(path.stdPath().lexically_relative(m_folder.path().stdPath()).string());
        }
        EXPECT_EQ(relative, words(test.expected));
        EXPECT_TRUE(capture.messages().empty());
    }
}

TEST_F(FilesystemOnDisk, ScanSortsByTimeAndSize)
{
    auto const now = std::filesystem::file_time_type::clock::now();
    std::vector<std::pair<char const*, int>> const files = {{"a.txt", 3}, {"b.txt", 1}, {"c.txt", 2}};
    for (auto const& [name, age] : files) {
        File const file = fileWith(name, std::string(static_cast<std::size_t>(age) * 10, 'x'));
        std::filesystem::last_write_time(file.path().stdPath(), now - std::chrono::hours(age));
    }
    auto const names = [](std::vector<Path> const& paths) {
        std::string result;
        for (auto const& path : paths)
            result += path.fileName() + " ";
        return result;
    };
    Directory const folder(m_folder.path());
    EXPECT_EQ(names(folder.scan({}, SortOption::Time)), "a.txt c.txt b.txt ");
    EXPECT_EQ(names(folder.scan({}, {SortOption::Time, SortOption::Reverse})), "b.txt c.txt a.txt ");
    EXPECT_EQ(names(folder.scan({}, SortOption::Size)), "b.txt c.txt a.txt ");
    EXPECT_EQ(folder.scan({}, SortOption::None).size(), 3u);
}

TEST(TemporaryFile, IsUniqueEmptyAndRemovedByItsLastOwner)
{
    Path kept;
    {
        TemporaryFile const first(".nii.gz");
        TemporaryFile const second(".nii.gz");
        ASSERT_TRUE(first.isValid());
        EXPECT_NE(first.path(), second.path());
        EXPECT_EQ(File(first.path()).size(), 0u);
        EXPECT_EQ(first.path().extension(), ".nii.gz");
        kept = first.path();
    }
    EXPECT_FALSE(kept.exists());

    TemporaryFile original;
    Path const path = original.path();
    {
        TemporaryFile assigned;
        Path const replaced = assigned.path();
        assigned = TemporaryFile(std::move(original));
        EXPECT_FALSE(replaced.exists()); // its own file went away when it took the other one
        EXPECT_TRUE(path.isFile());
    }
    EXPECT_FALSE(path.exists());
    TemporaryFile released;
    Path const keep = released.release();
    EXPECT_TRUE(File(keep).remove());

    Log::Capture capture;
    EXPECT_FALSE(TemporaryFile("a/b").isValid());
    EXPECT_FALSE(TemporaryFile(".txt", Path("/nonexistent/folder/for/velmoria")).isValid());
    EXPECT_EQ(capture.messages(Log::Error).size(), 2u);
    EXPECT_TRUE(capture.containsFragment("/nonexistent/folder/for/velmoria"));
}

TEST(TemporaryDirectory, IsRemovedWithItsContentsAndHonoursTmpdir)
{
    Path kept;
    {
        TemporaryDirectory const folder("scan-test");
        ASSERT_TRUE(folder.isValid());
        EXPECT_EQ(folder.path().fileName().rfind("scan-test-", 0), 0u);
        char const* previous = std::getenv("TMPDIR");
        std::string const saved = previous != nullptr ? previous : "";
        ::setenv("TMPDIR", folder.path().str().c_str(), 1);
        TemporaryFile const inside(".tmp");
        if (previous != nullptr)
            ::setenv("TMPDIR", saved.c_str(), 1);
        else
            ::unsetenv("TMPDIR");
        EXPECT_EQ(inside.path().parentPath(), folder.path());
        TemporaryDirectory inner("inner", folder.path());
        TemporaryDirectory moved(std::move(inner));
        ASSERT_TRUE(File(moved.path() / "b.txt").writeText("b"));
        moved.release(); // left to the outer folder
        kept = folder.path();
    }
    EXPECT_FALSE(kept.exists());
}

} // namespace
