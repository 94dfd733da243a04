#include "host/core/Filesystem.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <fnmatch.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

// File contents are read and written through POSIX calls rather than std streams where the
// reason of a failure matters: streams only say "failed", while every failure here has to name
// its cause in the log.

namespace Velmoria::Filesystem {

namespace fs = std::filesystem;

namespace {

constexpr char const* kCategory = "Host.Filesystem";

void logFailure(std::string_view action, Path const& path, std::string_view reason)
{
    VELMORIA_LOG_ERROR(kCategory, "Could not {} '{}': {}", action, path.str(), reason);
}

std::string errnoText(int error)
{
    return std::error_code(error, std::generic_category()).message();
}

// The text of a path without trailing separators; a root stays a root.
std::string_view withoutTrailingSeparators(std::string_view text)
{
    while (text.size() > 1 && text.back() == '/')
        text.remove_suffix(1);
    return text;
}

bool isCompressionSuffix(std::string_view extension)
{
    constexpr std::array<std::string_view, 5> kSuffixes = {".gz", ".zst", ".bz2", ".xz", ".lz4"};
    return std::any_of(kSuffixes.begin(), kSuffixes.end(),
                       [&](std::string_view suffix) { return String::equalsIgnoreCase(extension, suffix); });
}

// Position of the extension in a file name, or npos.
std::size_t extensionStart(std::string_view name)
{
    if (name.empty() || name == "." || name == "..")
        return std::string_view::npos;
    std::size_t const last = name.rfind('.');
    if (last == std::string_view::npos || last == 0)
        return std::string_view::npos;
    if (isCompressionSuffix(name.substr(last))) {
        std::size_t const inner = name.rfind('.', last - 1);
        // The inner extension must have a name of its own: "a..gz" is ".gz".
        if (inner != std::string_view::npos && inner > 0 && inner + 1 < last)
            return inner;
    }
    return last;
}

int closeQuietly(int fd)
{
    return fd >= 0 ? ::close(fd) : 0;
}

// Writes everything, retrying after interruptions and short writes; errno is set on failure.
bool writeAll(int fd, void const* data, std::size_t size)
{
    auto const* bytes = static_cast<char const*>(data);
    while (size > 0) {
        ssize_t const written = ::write(fd, bytes, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

// Reads a whole file into a std::string or a ByteBuffer (anything with resize/data/size).
template <typename Container>
std::optional<Container> readWhole(Path const& path)
{
    int const fd = ::open(path.str().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        logFailure("read file", path, errnoText(errno));
        return std::nullopt;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
        int const error = S_ISDIR(info.st_mode) ? EISDIR : errno;
        closeQuietly(fd);
        logFailure("read file", path, errnoText(error));
        return std::nullopt;
    }
    // The size is a hint only: files of /proc report 0, and a file may grow while we read.
    Container contents;
    std::size_t used = 0;
    contents.resize(std::max<std::size_t>(static_cast<std::size_t>(info.st_size) + 1, 4096));
    while (true) {
        if (used == contents.size())
            contents.resize(contents.size() * 2);
        ssize_t const got =
            ::read(fd, reinterpret_cast<char*>(contents.data()) + used, contents.size() - used);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            int const error = errno;
            closeQuietly(fd);
            logFailure("read file", path, errnoText(error));
            return std::nullopt;
        }
        if (got == 0)
            break;
        used += static_cast<std::size_t>(got);
    }
    closeQuietly(fd);
    contents.resize(used);
    return contents;
}

bool appendWhole(Path const& path, std::string_view text)
{
    int const fd = ::open(path.str().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
        logFailure("append to file", path, errnoText(errno));
        return false;
    }
    bool const written = writeAll(fd, text.data(), text.size());
    int const error = errno;
    if (::close(fd) != 0 || !written) {
        logFailure("append to file", path, errnoText(written ? errno : error));
        return false;
    }
    return true;
}

std::string joinLines(std::vector<std::string> const& lines)
{
    std::string text;
    std::size_t total = 0;
    for (auto const& line : lines)
        total += line.size() + 1;
    text.reserve(total);
    for (auto const& line : lines) {
        text += line;
        text += '\n';
    }
    return text;
}

// Creates an empty, exclusive temporary file next to `target` and returns its path and open
// descriptor. The name starts with a dot so that folder scans skip it, and holds the process id
// and a counter so that concurrent writers (threads or processes) never share one.
struct Temporary
{
    Path path;
    int fd = -1;
};

std::optional<Temporary> createTemporaryBeside(Path const& target, std::string_view action)
{
    static std::atomic<unsigned> counter{0};
    Path const folder = target.parentDirectory();
    std::string const name = target.fileName();
    if (name.empty()) {
        logFailure(action, target, "the path names no file");
        return std::nullopt;
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string const temporaryName =
            fmt::format(".{}.tmp-{}-{}", name, static_cast<long>(::getpid()), counter.fetch_add(1));
        Path const candidate = folder.empty() ? Path(temporaryName) : folder / temporaryName;
        // 0666 lets the umask decide, as for any new file.
        int const fd = ::open(candidate.str().c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd >= 0) {
            // A replaced file keeps its permissions.
            struct stat info = {};
            if (::stat(target.str().c_str(), &info) == 0 && S_ISREG(info.st_mode))
                (void)::fchmod(fd, info.st_mode & 07777);
            return Temporary{candidate, fd};
        }
        if (errno != EEXIST) {
            logFailure(action, target, errnoText(errno));
            return std::nullopt;
        }
    }
    logFailure(action, target, "no unused temporary name next to it");
    return std::nullopt;
}

// Syncs the temporary file and renames it onto the target; removes it on failure.
bool syncAndRename(Temporary const& temporary, Path const& target, std::string_view action)
{
    int error = 0;
    int const fd = ::open(temporary.path.str().c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0)
        error = errno;
    closeQuietly(fd);
    if (error == 0 && ::rename(temporary.path.str().c_str(), target.str().c_str()) != 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporary.path.str().c_str());
        logFailure(action, target, errnoText(error));
        return false;
    }
    return true;
}

std::ios::openmode streamMode(OpenModes mode)
{
    return mode.test(OpenMode::Binary) ? std::ios::binary : std::ios::openmode{};
}

} // namespace

// -------------------------------------------------------------------------------------------
// Path

bool Path::exists() const
{
    std::error_code error;
    return fs::exists(m_path, error);
}

bool Path::isFile() const
{
    std::error_code error;
    return fs::is_regular_file(m_path, error);
}

bool Path::isDirectory() const
{
    std::error_code error;
    return fs::is_directory(m_path, error);
}

Path Path::makeAbsolute() const
{
    std::error_code error;
    fs::path absolute = fs::absolute(m_path, error);
    if (error) {
        logFailure("make absolute", *this, error.message());
        return lexicallyNormal();
    }
    return Path(absolute.lexically_normal());
}

Path Path::lexicallyNormal() const
{
    return Path(m_path.lexically_normal());
}

Path Path::parentPath() const
{
    return Path(m_path.parent_path());
}

Path Path::parentDirectory() const
{
    std::string const text = m_path.string();
    return Path(fs::path(withoutTrailingSeparators(text)).parent_path());
}

std::string Path::fileName() const
{
    std::string const text = m_path.string();
    return fs::path(withoutTrailingSeparators(text)).filename().string();
}

std::string Path::baseName() const
{
    std::string name = fileName();
    std::size_t const start = extensionStart(name);
    if (start != std::string::npos)
        name.resize(start);
    return name;
}

std::string Path::extension() const
{
    std::string const name = fileName();
    std::size_t const start = extensionStart(name);
    return start == std::string::npos ? std::string() : name.substr(start);
}

Path operator+(Path const& path, std::string_view text)
{
    std::string const current = path.str();
    std::string joined(withoutTrailingSeparators(current));
    joined += text;
    return Path(joined);
}

// -------------------------------------------------------------------------------------------
// File

bool File::exists() const
{
    return m_path.isFile();
}

bool File::create() const
{
    // No O_TRUNC: an existing file keeps its contents.
    int const fd = ::open(m_path.str().c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        logFailure("create file", m_path, errnoText(errno));
        return false;
    }
    closeQuietly(fd);
    return true;
}

bool File::remove() const
{
    std::error_code error;
    auto const status = fs::symlink_status(m_path.stdPath(), error);
    if (!fs::exists(status))
        return true;
    if (fs::is_directory(status)) {
        logFailure("remove file", m_path, errnoText(EISDIR));
        return false;
    }
    if (!fs::remove(m_path.stdPath(), error) && error) {
        logFailure("remove file", m_path, error.message());
        return false;
    }
    return true;
}

std::optional<std::uintmax_t> File::size() const
{
    std::error_code error;
    std::uintmax_t const bytes = fs::file_size(m_path.stdPath(), error);
    if (error) {
        logFailure("get the size of file", m_path, error.message());
        return std::nullopt;
    }
    return bytes;
}

std::optional<fs::file_time_type> File::lastModified() const
{
    std::error_code error;
    auto const time = fs::last_write_time(m_path.stdPath(), error);
    if (error) {
        logFailure("get the modification time of file", m_path, error.message());
        return std::nullopt;
    }
    return time;
}

std::optional<std::string> File::readText() const
{
    return readWhole<std::string>(m_path);
}

std::optional<std::vector<std::string>> File::readLines() const
{
    auto text = readText();
    if (!text)
        return std::nullopt;
    std::vector<std::string> lines;
    std::string_view rest = *text;
    while (!rest.empty()) {
        std::size_t const end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        lines.emplace_back(line);
        if (end == std::string_view::npos)
            break;
        rest.remove_prefix(end + 1);
    }
    return lines;
}

std::optional<ByteBuffer> File::readBinary() const
{
    return readWhole<ByteBuffer>(m_path);
}

bool File::writeText(std::string_view text) const
{
    return writeFileAtomically(m_path, ByteBufferView(text));
}

bool File::writeText(std::vector<std::string> const& lines) const
{
    return writeText(joinLines(lines));
}

bool File::writeBinary(ByteBufferView data) const
{
    return writeFileAtomically(m_path, data);
}

bool File::appendText(std::string_view text) const
{
    return appendWhole(m_path, text);
}

bool File::appendText(std::vector<std::string> const& lines) const
{
    return appendWhole(m_path, joinLines(lines));
}

std::unique_ptr<std::istream> File::openForReading(OpenModes mode) const
{
    // An ifstream "opens" a folder on Linux and fails only when read.
    if (m_path.isDirectory()) {
        logFailure("open file for reading", m_path, errnoText(EISDIR));
        return nullptr;
    }
    errno = 0;
    auto stream = std::make_unique<std::ifstream>(m_path.stdPath(), std::ios::in | streamMode(mode));
    if (!stream->is_open()) {
        logFailure("open file for reading", m_path, errno != 0 ? errnoText(errno) : "unknown error");
        return nullptr;
    }
    return stream;
}

std::unique_ptr<std::ostream> File::openForWriting(OpenModes mode) const
{
    if (m_path.isDirectory()) {
        logFailure("open file for writing", m_path, errnoText(EISDIR));
        return nullptr;
    }
    std::ios::openmode const how =
        std::ios::out | streamMode(mode) | (mode.test(OpenMode::Append) ? std::ios::app : std::ios::trunc);
    errno = 0;
    auto stream = std::make_unique<std::ofstream>(m_path.stdPath(), how);
    if (!stream->is_open()) {
        logFailure("open file for writing", m_path, errno != 0 ? errnoText(errno) : "unknown error");
        return nullptr;
    }
    return stream;
}

bool File::copyTo(Path const& target, CopyOptions options) const
{
    Path const destination = target.isDirectory() ? target / m_path.fileName() : target;
    auto const fail = [&](std::string const& reason) {
        VELMORIA_LOG_ERROR(kCategory, "Could not copy file '{}' to '{}': {}", m_path.str(), destination.str(),
                           reason);
        return false;
    };
    if (!m_path.isFile())
        return fail(m_path.exists() ? "not a regular file" : errnoText(ENOENT));
    if (options.test(CopyOption::CreateDirectories) && !destination.parentPath().empty() &&
        !createDirectories(destination.parentPath()))
        return false;
    std::error_code error;
    auto const how =
        options.test(CopyOption::Overwrite) ? fs::copy_options::overwrite_existing : fs::copy_options::none;
    fs::copy_file(m_path.stdPath(), destination.stdPath(), how, error);
    if (error)
        return fail(error.message());
    return true;
}

// -------------------------------------------------------------------------------------------
// Directory

int compareNatural(std::string_view a, std::string_view b)
{
    auto const isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    auto const lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            // Compare digit runs as numbers of any length: without leading zeros, the longer
            // run is the larger number, and runs of equal length compare as text.
            while (i < a.size() && a[i] == '0')
                ++i;
            while (j < b.size() && b[j] == '0')
                ++j;
            std::size_t const startA = i;
            std::size_t const startB = j;
            while (i < a.size() && isDigit(a[i]))
                ++i;
            while (j < b.size() && isDigit(b[j]))
                ++j;
            std::size_t const lengthA = i - startA;
            std::size_t const lengthB = j - startB;
            if (lengthA != lengthB)
                return lengthA < lengthB ? -1 : 1;
            int const digits = a.substr(startA, lengthA).compare(b.substr(startB, lengthB));
            if (digits != 0)
                return digits < 0 ? -1 : 1;
            continue;
        }
        char const ca = lower(a[i]);
        char const cb = lower(b[j]);
        if (ca != cb)
            return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    if (i < a.size())
        return 1;
    if (j < b.size())
        return -1;
    // Equal but for case or leading zeros: the plain text decides, so that the order is total.
    int const plain = a.compare(b);
    return plain < 0 ? -1 : (plain > 0 ? 1 : 0);
}

bool Directory::exists() const
{
    return m_path.isDirectory();
}

bool Directory::create() const
{
    return createDirectories(m_path);
}

namespace {

struct ScanEntry
{
    Path path;
    std::string relative;
    fs::file_time_type time;
    std::uintmax_t size = 0;
};

bool matchesAny(std::vector<std::string> const& patterns, std::string const& name, bool ignoreCase)
{
    if (patterns.empty())
        return true;
    int const flags = ignoreCase ? FNM_CASEFOLD : 0;
    return std::any_of(patterns.begin(), patterns.end(), [&](std::string const& pattern) {
        return ::fnmatch(pattern.c_str(), name.c_str(), flags) == 0;
    });
}

void sortEntries(std::vector<ScanEntry>& entries, SortOptions sort)
{
    auto const byName = [](ScanEntry const& a, ScanEntry const& b) {
        return compareNatural(a.relative, b.relative) < 0;
    };
    if (sort.test(SortOption::Time)) {
        std::sort(entries.begin(), entries.end(), [&](ScanEntry const& a, ScanEntry const& b) {
            return a.time != b.time ? a.time < b.time : byName(a, b);
        });
    } else if (sort.test(SortOption::Size)) {
        std::sort(entries.begin(), entries.end(), [&](ScanEntry const& a, ScanEntry const& b) {
            return a.size != b.size ? a.size < b.size : byName(a, b);
        });
    } else if (sort.test(SortOption::Name)) {
        std::sort(entries.begin(), entries.end(), byName);
    }
    if (sort.test(SortOption::Reverse))
        std::reverse(entries.begin(), entries.end());
}

} // namespace

std::vector<Path> Directory::scan(ScanFilter const& filter, SortOptions sort) const
{
    std::error_code error;
    if (!fs::is_directory(m_path.stdPath(), error)) {
        std::string const reason =
            error ? error.message() : (m_path.exists() ? errnoText(ENOTDIR) : errnoText(ENOENT));
        logFailure("scan folder", m_path, reason);
        return {};
    }

    std::vector<std::string> patterns;
    for (auto const& part : String::split(filter.patterns, ';', true)) {
        std::string pattern = String::trimCopy(part);
        if (pattern == "*") {
            patterns.clear();
            break;
        }
        if (!pattern.empty())
            patterns.push_back(std::move(pattern));
    }
    ScanOptions const options = filter.options;
    bool const wantFiles = options.test(ScanOption::Files);
    bool const wantFolders = options.test(ScanOption::Directories);
    bool const hidden = options.test(ScanOption::Hidden);
    bool const ignoreCase = options.test(ScanOption::IgnoreCase);

    std::vector<ScanEntry> entries;
    // Returns false to skip descending into this entry.
    auto const visit = [&](fs::directory_entry const& entry) {
        std::string const name = entry.path().filename().string();
        if (!hidden && name.starts_with('.'))
            return false;
        std::error_code typeError;
        bool const isFolder = entry.is_directory(typeError);
        bool const isFile = !isFolder && entry.is_regular_file(typeError);
        if (((isFolder && wantFolders) || (isFile && wantFiles)) && matchesAny(patterns, name, ignoreCase)) {
            ScanEntry found{
                Path(entry.path()), entry.path().lexically_relative(m_path.stdPath()).string(), {}, 0};
            std::error_code ignored;
            if (sort.test(SortOption::Time))
                found.time = entry.last_write_time(ignored);
            if (sort.test(SortOption::Size) && isFile)
                found.size = entry.file_size(ignored);
            entries.push_back(std::move(found));
        }
        return true;
    };

    auto const iteration = fs::directory_options::skip_permission_denied;
    if (options.test(ScanOption::Recursive)) {
        fs::recursive_directory_iterator it(m_path.stdPath(), iteration, error);
        for (; !error && it != fs::recursive_directory_iterator(); it.increment(error)) {
            if (!visit(*it))
                it.disable_recursion_pending();
        }
    } else {
        fs::directory_iterator it(m_path.stdPath(), iteration, error);
        for (; !error && it != fs::directory_iterator(); it.increment(error))
            visit(*it);
    }
    if (error) {
        logFailure("scan folder", m_path, error.message());
        return {};
    }

    sortEntries(entries, sort);
    std::vector<Path> result;
    result.reserve(entries.size());
    for (auto& entry : entries)
        result.push_back(std::move(entry.path));
    return result;
}

bool Directory::removeContents() const
{
    std::error_code error;
    fs::directory_iterator it(m_path.stdPath(), error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        fs::remove_all(it->path(), error);
        if (error) {
            logFailure("remove the contents of folder", m_path,
                       fmt::format("'{}': {}", it->path().string(), error.message()));
            return false;
        }
    }
    if (error) {
        logFailure("remove the contents of folder", m_path, error.message());
        return false;
    }
    return true;
}

bool Directory::remove() const
{
    std::error_code error;
    auto const status = fs::symlink_status(m_path.stdPath(), error);
    if (!fs::exists(status))
        return true;
    if (!fs::is_directory(status)) {
        logFailure("remove folder", m_path, errnoText(ENOTDIR));
        return false;
    }
    fs::remove_all(m_path.stdPath(), error);
    if (error) {
        logFailure("remove folder", m_path, error.message());
        return false;
    }
    return true;
}

// -------------------------------------------------------------------------------------------
// Free functions

bool createDirectories(Path const& path)
{
    if (path.empty()) {
        logFailure("create folder", path, "the path is empty");
        return false;
    }
    std::error_code error;
    fs::create_directories(path.stdPath(), error);
    // create_directories reports success inconsistently for trailing separators, so the
    // outcome is judged by what is on disk.
    if (path.isDirectory())
        return true;
    logFailure("create folder", path, error ? error.message() : errnoText(EEXIST));
    return false;
}

Path tempDirectory()
{
    std::error_code error;
    fs::path folder = fs::temp_directory_path(error);
    if (error) {
        VELMORIA_LOG_ERROR(kCategory, "Could not find the folder for temporary files: {}; using '/tmp'",
                           error.message());
        return Path("/tmp");
    }
    return Path(folder);
}

bool writeFileAtomically(Path const& target, ByteBufferView data)
{
    auto temporary = createTemporaryBeside(target, "write file");
    if (!temporary)
        return false;
    bool const written = writeAll(temporary->fd, data.data(), data.size());
    int error = written ? 0 : errno;
    if (::close(temporary->fd) != 0 && error == 0)
        error = errno;
    if (error != 0) {
        ::unlink(temporary->path.str().c_str());
        logFailure("write file", target, errnoText(error));
        return false;
    }
    return syncAndRename(*temporary, target, "write file");
}

// -------------------------------------------------------------------------------------------
// AtomicFileWriter

AtomicFileWriter::AtomicFileWriter(Path target, OpenModes mode)
    : m_target(std::move(target))
{
    auto temporary = createTemporaryBeside(m_target, "write file");
    if (!temporary)
        return;
    closeQuietly(temporary->fd);
    m_temporary = temporary->path;
    errno = 0;
    auto stream = std::make_unique<std::ofstream>(m_temporary.stdPath(),
                                                  std::ios::out | std::ios::trunc | streamMode(mode));
    if (!stream->is_open()) {
        logFailure("write file", m_target, errno != 0 ? errnoText(errno) : "unknown error");
        ::unlink(m_temporary.str().c_str());
        m_temporary = Path();
        return;
    }
    m_stream = std::move(stream);
}

AtomicFileWriter::~AtomicFileWriter()
{
    discard();
}

bool AtomicFileWriter::commit()
{
    if (!m_stream) {
        logFailure("write file", m_target, "the temporary file is not open");
        return false;
    }
    auto& file = static_cast<std::ofstream&>(*m_stream);
    file.flush();
    bool const good = file.good();
    file.close();
    if (!good || file.fail()) {
        m_stream.reset();
        ::unlink(m_temporary.str().c_str());
        m_temporary = Path();
        logFailure("write file", m_target, "writing to the temporary file failed");
        return false;
    }
    m_stream.reset();
    Temporary const temporary{m_temporary, -1};
    m_temporary = Path();
    return syncAndRename(temporary, m_target, "write file");
}

void AtomicFileWriter::discard()
{
    m_stream.reset();
    if (!m_temporary.empty()) {
        ::unlink(m_temporary.str().c_str());
        m_temporary = Path();
    }
}

// -------------------------------------------------------------------------------------------
// TemporaryFile, TemporaryDirectory

namespace {

Path folderOrTemp(Path const& folder)
{
    return folder.empty() ? tempDirectory() : folder;
}

void removeQuietly(Path const& path, bool recursive)
{
    if (path.empty())
        return;
    std::error_code error;
    if (recursive)
        fs::remove_all(path.stdPath(), error);
    else
        fs::remove(path.stdPath(), error);
    if (error)
        VELMORIA_LOG_WARNING(kCategory, "Could not remove temporary '{}': {}", path.str(), error.message());
}

} // namespace

TemporaryFile::TemporaryFile(std::string_view suffix, Path const& folder)
{
    Path const where = folderOrTemp(folder);
    if (suffix.find('/') != std::string_view::npos) {
        logFailure("create a temporary file in", where,
                   fmt::format("the suffix '{}' contains a '/'", suffix));
        return;
    }
    std::string pattern = (where / ("velmoria-XXXXXX" + std::string(suffix))).str();
    // mkstemps picks the unique name and creates the file in one step, which no std facility does.
    int const fd = ::mkstemps(pattern.data(), static_cast<int>(suffix.size()));
    if (fd < 0) {
        logFailure("create a temporary file in", where, errnoText(errno));
        return;
    }
    closeQuietly(fd);
    m_path = Path(pattern);
}

TemporaryFile::~TemporaryFile()
{
    removeQuietly(m_path, false);
}

TemporaryFile::TemporaryFile(TemporaryFile&& other) noexcept
    : m_path(std::exchange(other.m_path, Path()))
{}

TemporaryFile& TemporaryFile::operator=(TemporaryFile&& other) noexcept
{
    if (this != &other) {
        removeQuietly(m_path, false);
        m_path = std::exchange(other.m_path, Path());
    }
    return *this;
}

Path TemporaryFile::release()
{
    return std::exchange(m_path, Path());
}

TemporaryDirectory::TemporaryDirectory(std::string_view prefix, Path const& folder)
{
    Path const where = folderOrTemp(folder);
    if (prefix.find('/') != std::string_view::npos) {
        logFailure("create a temporary folder in", where,
                   fmt::format("the prefix '{}' contains a '/'", prefix));
        return;
    }
    std::string pattern = (where / (std::string(prefix) + "-XXXXXX")).str();
    if (::mkdtemp(pattern.data()) == nullptr) {
        logFailure("create a temporary folder in", where, errnoText(errno));
        return;
    }
    m_path = Path(pattern);
}

TemporaryDirectory::~TemporaryDirectory()
{
    removeQuietly(m_path, true);
}

TemporaryDirectory::TemporaryDirectory(TemporaryDirectory&& other) noexcept
    : m_path(std::exchange(other.m_path, Path()))
{}

TemporaryDirectory& TemporaryDirectory::operator=(TemporaryDirectory&& other) noexcept
{
    if (this != &other) {
        removeQuietly(m_path, true);
        m_path = std::exchange(other.m_path, Path());
    }
    return *this;
}

Path TemporaryDirectory::release()
{
    return std::exchange(m_path, Path());
}

} // namespace Velmoria::Filesystem
