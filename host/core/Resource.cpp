#include "host/core/Resource.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace Velmoria::Resource {

namespace {

constexpr char const* kCategory = "Host.Resource";

// The registry lives in a function so that repositories registered while other libraries are
// being loaded (before or after this library's own statics) always find it constructed.
struct Registry
{
    std::shared_mutex mutex;
    std::vector<Repository*> repositories;
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

// Why a name is invalid, or empty when it is fine; fills `normalised` when it is.
std::string validate(std::string_view path, std::string& normalised)
{
    if (path.empty())
        return "the name is empty";
    if (path.front() == '/')
        return "the name is an absolute path";
    std::vector<std::string> parts;
    for (auto& part : String::split(path, '/', true)) {
        if (part == ".")
            continue;
        if (part == "..")
            return "the name reaches outside the repository ('..')";
        parts.push_back(std::move(part));
    }
    if (parts.empty())
        return "the name names no resource";
    normalised = String::join(parts, "/");
    return {};
}

} // namespace

Repository::~Repository() = default;

std::optional<std::string> normalizeName(std::string_view path)
{
    std::string normalised;
    if (!validate(path, normalised).empty())
        return std::nullopt;
    return normalised;
}

void addRepository(Repository* repository)
{
    if (repository == nullptr) {
        VELMORIA_LOG_WARNING(kCategory, "Ignoring the registration of a null resource repository");
        return;
    }
    Registry& instance = registry();
    std::unique_lock lock(instance.mutex);
    if (std::find(instance.repositories.begin(), instance.repositories.end(), repository) !=
        instance.repositories.end()) {
        lock.unlock();
        VELMORIA_LOG_WARNING(kCategory, "Resource repository '{}' is already registered", repository->name());
        return;
    }
    instance.repositories.push_back(repository);
}

bool removeRepository(Repository* repository)
{
    Registry& instance = registry();
    std::unique_lock lock(instance.mutex);
    auto const found = std::find(instance.repositories.begin(), instance.repositories.end(), repository);
    if (found == instance.repositories.end())
        return false;
    instance.repositories.erase(found);
    return true;
}

std::vector<Repository*> repositories()
{
    Registry& instance = registry();
    std::shared_lock lock(instance.mutex);
    return instance.repositories;
}

std::optional<std::string> locate(std::string_view path)
{
    // The shared lock is held while repositories answer, so that removeRepository cannot return
    // (and the owner destroy the repository) in the middle of a lookup.
    Registry& instance = registry();
    std::shared_lock lock(instance.mutex);
    for (Repository* repository : instance.repositories) {
        if (repository->contains(path))
            return repository->name();
    }
    return std::nullopt;
}

std::optional<ByteBuffer> query(std::string_view path)
{
    {
        Registry& instance = registry();
        std::shared_lock lock(instance.mutex);
        for (Repository* repository : instance.repositories) {
            if (repository->contains(path))
                return repository->query(path);
        }
    }
    VELMORIA_LOG_WARNING(kCategory, "No resource repository holds '{}'", path);
    return std::nullopt;
}

// -------------------------------------------------------------------------------------------

FolderRepository::FolderRepository(std::string name, Filesystem::Path root)
    : m_name(std::move(name))
    , m_root(std::move(root))
{}

std::optional<Filesystem::Path> FolderRepository::resolve(std::string_view path) const
{
    auto const normalised = normalizeName(path);
    if (!normalised)
        return std::nullopt;
    return m_root / *normalised;
}

bool FolderRepository::contains(std::string_view path) const
{
    auto const file = resolve(path);
    return file && file->isFile();
}

std::optional<ByteBuffer> FolderRepository::query(std::string_view path) const
{
    std::string normalised;
    std::string const why = validate(path, normalised);
    if (!why.empty()) {
        VELMORIA_LOG_WARNING(kCategory, "Resource repository '{}' refuses '{}': {}", m_name, path, why);
        return std::nullopt;
    }
    Filesystem::File const file(m_root / normalised);
    if (!file.exists()) {
        VELMORIA_LOG_WARNING(kCategory, "Resource repository '{}' holds no '{}' (no file '{}')", m_name, path,
                             file.path().str());
        return std::nullopt;
    }
    return file.readBinary();
}

// -------------------------------------------------------------------------------------------

MemoryRepository::MemoryRepository(std::string name)
    : m_name(std::move(name))
{}

bool MemoryRepository::contains(std::string_view path) const
{
    auto const normalised = normalizeName(path);
    if (!normalised)
        return false;
    std::shared_lock lock(m_mutex);
    return m_resources.find(*normalised) != m_resources.end();
}

std::optional<ByteBuffer> MemoryRepository::query(std::string_view path) const
{
    std::string normalised;
    std::string const why = validate(path, normalised);
    if (!why.empty()) {
        VELMORIA_LOG_WARNING(kCategory, "Resource repository '{}' refuses '{}': {}", m_name, path, why);
        return std::nullopt;
    }
    {
        std::shared_lock lock(m_mutex);
        auto const found = m_resources.find(normalised);
        if (found != m_resources.end())
            return found->second;
    }
    VELMORIA_LOG_WARNING(kCategory, "Resource repository '{}' holds no '{}'", m_name, path);
    return std::nullopt;
}

bool MemoryRepository::add(std::string_view path, ByteBuffer data)
{
    std::string normalised;
    std::string const why = validate(path, normalised);
    if (!why.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Could not add '{}' to resource repository '{}': {}", path, m_name,
                           why);
        return false;
    }
    std::unique_lock lock(m_mutex);
    m_resources.insert_or_assign(std::move(normalised), std::move(data));
    return true;
}

bool MemoryRepository::remove(std::string_view path)
{
    auto const normalised = normalizeName(path);
    if (!normalised)
        return false;
    std::unique_lock lock(m_mutex);
    return m_resources.erase(*normalised) > 0;
}

std::vector<std::string> MemoryRepository::names() const
{
    std::shared_lock lock(m_mutex);
    std::vector<std::string> result;
    result.reserve(m_resources.size());
    for (auto const& [name, data] : m_resources)
        result.push_back(name);
    return result;
}

} // namespace Velmoria::Resource
