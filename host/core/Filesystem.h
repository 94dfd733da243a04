#pragma once

// Filesystem: paths, files and folders as the rest of Velmoria needs them, over std::filesystem.
//
// Nothing here throws. Every failing operation returns false / std::nullopt / null / an empty
// list and logs exactly one error line in category "Host.Filesystem" that names the path and
// the reason (the system's error text), so callers can pass the result on without re-wording.
//
// Path is purely lexical unless a function says it looks at the disk (exists, isFile, ...).
// Its parts follow what users of medical image files expect:
//
//   path            fileName      baseName   extension  parentPath  parentDirectory
//   "a/b/c.txt"     "c.txt"       "c"        ".txt"     "a/b"       "a/b"
//   "scan.nii.gz"   "scan.nii.gz" "scan"     ".nii.gz"  ""          ""
//   "dir/"          "dir"         "dir"      ""         "dir"       ""
//   ".hidden"       ".hidden"     ".hidden"  ""         ""          ""
//   "/"             ""            ""         ""         "/"         "/"
//
// - fileName() is the name of the item the path names; trailing separators do not count.
// - extension() includes the dot. When the last extension is a compression suffix (.gz, .zst,
//   .bz2, .xz, .lz4, case-insensitive) and the name has one more extension before it, both form
//   the extension: "scan.nii.gz" -> ".nii.gz", "table.csv.zst" -> ".csv.zst", "notes.gz" ->
//   ".gz". A leading dot never starts an extension (".hidden", ".nii.gz" -> ".gz").
//   baseName() is fileName() without extension().
// - parentPath() removes the last element as std::filesystem does, where a trailing separator
//   ends in an empty element: parentPath("a/b/") is "a/b". parentDirectory() is the folder that
//   contains the named item, so it ignores trailing separators: parentDirectory("a/b/") is "a".
//   Both are "" for a single relative element.
//
// Full-file writes (File::writeText, File::writeBinary, writeFileAtomically, AtomicFileWriter)
// replace the target atomically: they write a temporary file next to it, sync it to disk and
// rename it over the target, so readers (and a machine that crashes meanwhile) see the old or the
// new file, never half of one. Temporary files are named ".<name>.tmp-<pid>-<n>"; folder scans
// skip them as hidden files.

#include "host/core/ByteBuffer.h"
#include "host/core/Flags.h"

#include <compare>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria::Filesystem {

class Path
{
public:
    Path() = default;
    Path(std::string const& path)
        : m_path(path)
    {}
    Path(std::string_view path)
        : m_path(path)
    {}
    Path(char const* path)
        : m_path(path == nullptr ? "" : path)
    {}
    Path(std::filesystem::path path)
        : m_path(std::move(path))
    {}

    std::string str() const { return m_path.string(); }
    std::filesystem::path const& stdPath() const { return m_path; }
    explicit operator std::filesystem::path() const { return m_path; }
    bool empty() const { return m_path.empty(); }

    // On disk (false when the path cannot be examined).
    bool exists() const;
    bool isFile() const;
    bool isDirectory() const;

    bool isAbsolute() const { return m_path.is_absolute(); }
    bool isRelative() const { return m_path.is_relative(); }
    // Absolute against the current directory, and lexically normal ("a/./b/../c" -> "a/c").
    Path makeAbsolute() const;
    // "a/./b/../c" -> "a/c", without looking at the disk.
    Path lexicallyNormal() const;

    Path parentPath() const;
    Path parentDirectory() const;
    std::string fileName() const;
    std::string baseName() const;
    std::string extension() const;

    // Joins as std::filesystem does: an absolute right side replaces the left one.
    friend Path operator/(Path const& left, Path const& right) { return Path(left.m_path / right.m_path); }
    // Appends text to the name of the last element: "a/b" + ".bak" is "a/b.bak" (and so is
    // "a/b/" + ".bak").
    friend Path operator+(Path const& path, std::string_view text);

    // Element-wise, as std::filesystem::path compares ("a//b" equals "a/b").
    friend bool operator==(Path const& a, Path const& b) { return a.m_path == b.m_path; }
    friend std::strong_ordering operator<=>(Path const& a, Path const& b)
    {
        return a.m_path.compare(b.m_path) <=> 0;
    }

private:
    std::filesystem::path m_path;
};

// How files are opened: text is the default; on the platforms we build for both read the same
// bytes, the flag documents intent and matters elsewhere.
enum class OpenMode : unsigned
{
    Text = 0,
    Binary = 1,
    // For openForWriting: append instead of truncating.
    Append = 2,
};
using OpenModes = Flags<OpenMode>;

enum class CopyOption : unsigned
{
    None = 0,
    // Replace an existing target file (otherwise copying onto an existing file fails).
    Overwrite = 1,
    // Create the target's missing parent folders.
    CreateDirectories = 2,
};
using CopyOptions = Flags<CopyOption>;

class File
{
public:
    File() = default;
    explicit File(Path path)
        : m_path(std::move(path))
    {}

    Path const& path() const { return m_path; }

    // True for a regular file (or a link to one); false for folders and missing paths.
    bool exists() const;
    // Creates an empty file when none exists; an existing file is left unchanged. Creates no
    // folders. True when the file exists afterwards.
    bool create() const;
    // True when no file is left at the path afterwards (a missing file is not an error).
    bool remove() const;
    // Bytes; nullopt (logged) when the file cannot be examined.
    std::optional<std::uintmax_t> size() const;
    std::optional<std::filesystem::file_time_type> lastModified() const;

    // The whole file.
    std::optional<std::string> readText() const;
    // The lines without their line ends ("\n" or "\r\n"); a final line end does not start
    // another line, so "a\nb\n" and "a\nb" both give {"a", "b"}, and an empty file gives {}.
    std::optional<std::vector<std::string>> readLines() const;
    std::optional<ByteBuffer> readBinary() const;

    // Replace the file atomically. The lines form is each line followed by "\n".
    bool writeText(std::string_view text) const;
    bool writeText(std::vector<std::string> const& lines) const;
    bool writeBinary(ByteBufferView data) const;

    // Append at the end, creating the file when needed (not atomic).
    bool appendText(std::string_view text) const;
    bool appendText(std::vector<std::string> const& lines) const;

    // Null (logged) on failure. Writing truncates unless OpenMode::Append is given.
    std::unique_ptr<std::istream> openForReading(OpenModes mode = OpenMode::Text) const;
    std::unique_ptr<std::ostream> openForWriting(OpenModes mode = OpenMode::Text) const;

    // Copies the file to `target`; when `target` is an existing folder, into it under the same
    // name. Fails when the target file exists unless CopyOption::Overwrite is given.
    bool copyTo(Path const& target, CopyOptions options = CopyOption::None) const;

private:
    Path m_path;
};

// What Directory::scan lists.
enum class ScanOption : unsigned
{
    Files = 1,
    Directories = 2,
    // Descend into sub-folders (not into linked folders); results carry their relative path.
    Recursive = 4,
    // Include names that start with a dot (and descend into such folders).
    Hidden = 8,
    // Match the patterns ignoring ASCII case.
    IgnoreCase = 16,
};
using ScanOptions = Flags<ScanOption>;

enum class SortOption : unsigned
{
    None = 0,
    // Natural order of the path below the scanned folder: digit runs compare as numbers and
    // letters ignore case first, so "img2" < "img10" < "Img11".
    Name = 1,
    // Oldest first; equal times by name.
    Time = 2,
    // Smallest first; equal sizes by name.
    Size = 4,
    // Reverses the order chosen above.
    Reverse = 8,
};
using SortOptions = Flags<SortOption>;

struct ScanFilter
{
    // Glob patterns (fnmatch: *, ?, [abc]) matched against an entry's file name, separated by
    // ';': "*.nii;*.nii.gz". Empty or "*" matches every name.
    std::string patterns = "*";
    ScanOptions options = ScanOption::Files;
};

// Natural order of two names, as used by SortOption::Name: negative, zero or positive.
int compareNatural(std::string_view a, std::string_view b);

class Directory
{
public:
    Directory() = default;
    explicit Directory(Path path)
        : m_path(std::move(path))
    {}

    Path const& path() const { return m_path; }

    bool exists() const;
    // Creates the folder and its missing parents; true when the folder exists afterwards.
    bool create() const;
    // The matching entries as paths that start with path() ("dir/sub/a.nii"). Empty (logged)
    // when the folder cannot be read.
    std::vector<Path> scan(ScanFilter const& filter = {}, SortOptions sort = SortOption::Name) const;
    // Removes everything inside, keeps the folder itself.
    bool removeContents() const;
    // Removes the folder with everything inside; true when nothing is left at the path.
    bool remove() const;

private:
    Path m_path;
};

// Creates the folder and its missing parents; true when it exists afterwards.
bool createDirectories(Path const& path);
// The system's folder for temporary files (TMPDIR when set).
Path tempDirectory();

// Replaces `target` atomically with `data`. The temporary file lies in the target's folder
// (a rename is only atomic within one file system) and is removed on failure. The new file has
// the permissions of the file it replaces, or the usual ones of a new file.
bool writeFileAtomically(Path const& target, ByteBufferView data);

// For writers that stream a file (containers written block by block): write to stream(), then
// commit() to replace the target atomically. Without a commit, the destructor removes the
// temporary file and the target stays as it was.
class AtomicFileWriter
{
public:
    explicit AtomicFileWriter(Path target, OpenModes mode = OpenMode::Binary);
    ~AtomicFileWriter();
    AtomicFileWriter(AtomicFileWriter const&) = delete;
    AtomicFileWriter& operator=(AtomicFileWriter const&) = delete;

    // False (logged at construction) when the temporary file could not be created.
    bool isOpen() const { return m_stream != nullptr; }
    // Only valid while isOpen().
    std::ostream& stream() { return *m_stream; }
    Path const& target() const { return m_target; }
    // Flushes, syncs and renames onto the target. False (logged) when any step fails or the
    // stream went bad; the temporary file is removed then.
    bool commit();
    // Drops what was written; the target stays as it was.
    void discard();

private:
    Path m_target;
    Path m_temporary;
    std::unique_ptr<std::ostream> m_stream;
};

// A unique empty file in tempDirectory() (or in `folder`), removed in the destructor. The name
// ends in `suffix` (".nii.gz") so that loaders that look at extensions accept it. When the file
// cannot be created, path() is empty and the failure is logged.
class TemporaryFile
{
public:
    explicit TemporaryFile(std::string_view suffix = {}, Path const& folder = {});
    ~TemporaryFile();
    TemporaryFile(TemporaryFile&& other) noexcept;
    TemporaryFile& operator=(TemporaryFile&& other) noexcept;
    TemporaryFile(TemporaryFile const&) = delete;
    TemporaryFile& operator=(TemporaryFile const&) = delete;

    Path const& path() const { return m_path; }
    bool isValid() const { return !m_path.empty(); }
    // Stops owning the file: it is not removed, and the path is returned.
    Path release();

private:
    Path m_path;
};

// A unique empty folder in tempDirectory() (or in `folder`), removed with its contents in the
// destructor. The name starts with `prefix`.
class TemporaryDirectory
{
public:
    explicit TemporaryDirectory(std::string_view prefix = "velmoria", Path const& folder = {});
    ~TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory&& other) noexcept;
    TemporaryDirectory& operator=(TemporaryDirectory&& other) noexcept;
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;

    Path const& path() const { return m_path; }
    bool isValid() const { return !m_path.empty(); }
    Path release();

private:
    Path m_path;
};

} // namespace Velmoria::Filesystem

template <>
struct std::hash<Velmoria::Filesystem::Path>
{
    std::size_t operator()(Velmoria::Filesystem::Path const& path) const noexcept
    {
        return std::filesystem::hash_value(path.stdPath());
    }
};
