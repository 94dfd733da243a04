#pragma once

// Resource: named data (models, YAML files, shaders) served by repositories that plug-ins and
// applications register, so that code asks for "models/unet.pt" without knowing whether the bytes
// come from a folder, from memory or from data compiled into a library.
//
// Names are relative, '/'-separated paths. Repositories see them normalised: empty and "."
// elements dropped ("a//./b" is "a/b"). A name that is empty, absolute or has a ".." element
// is invalid everywhere: no repository holds it, so a resource name can never reach outside a
// repository's root.
//
// The registry is process-wide and thread-safe. Registration does not take ownership: the
// registrant keeps its repository alive while it is registered and removes it before destroying
// it (a plug-in does so when it is unloaded). removeRepository waits for lookups in progress,
// so the repository may be destroyed as soon as it returns. A repository must not call the
// registry from its own contains() or query().
//
// Lookups ask the repositories in order of registration; the first one that holds a name wins.

#include "host/core/ByteBuffer.h"
#include "host/core/Filesystem.h"

#include <map>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Velmoria::Resource {

class Repository
{
public:
    virtual ~Repository();
    // Shown in logs and by Resource::locate.
    virtual std::string name() const = 0;
    virtual bool contains(std::string_view path) const = 0;
    // The bytes of the resource, or nullopt when this repository does not hold it or fails to
    // read it (the repository logs why).
    virtual std::optional<ByteBuffer> query(std::string_view path) const = 0;
};

// The normalised form of a resource name, or nullopt when it is invalid (see above).
std::optional<std::string> normalizeName(std::string_view path);

// A null or already registered repository is ignored (with a warning).
void addRepository(Repository* repository);
// True when the repository was registered.
bool removeRepository(Repository* repository);
// The registered repositories, in order of registration.
std::vector<Repository*> repositories();

// The name of the first repository that holds `path`; nullopt when none does (nothing logged:
// this is a question, not a request).
std::optional<std::string> locate(std::string_view path);
// The bytes from the first repository that holds `path`; nullopt, with a warning in category
// "Host.Resource" naming the path, when none does.
std::optional<ByteBuffer> query(std::string_view path);

// Serves the files below a folder: the resource "a/b.yaml" is the file <root>/a/b.yaml. Links
// inside the folder are followed; they were put there by the folder's owner.
class FolderRepository : public Repository
{
public:
    FolderRepository(std::string name, Filesystem::Path root);

    std::string name() const override { return m_name; }
    Filesystem::Path const& root() const { return m_root; }
    bool contains(std::string_view path) const override;
    std::optional<ByteBuffer> query(std::string_view path) const override;

private:
    std::optional<Filesystem::Path> resolve(std::string_view path) const;

    std::string m_name;
    Filesystem::Path m_root;
};

// Serves bytes held in memory: embedded data and tests. Thread-safe.
class MemoryRepository : public Repository
{
public:
    explicit MemoryRepository(std::string name);

    std::string name() const override { return m_name; }
    bool contains(std::string_view path) const override;
    std::optional<ByteBuffer> query(std::string_view path) const override;

    // Adds or replaces a resource; false (logged) for an invalid name.
    bool add(std::string_view path, ByteBuffer data);
    // True when the resource was there.
    bool remove(std::string_view path);
    // The normalised names held, sorted.
    std::vector<std::string> names() const;

private:
    std::string m_name;
    mutable std::shared_mutex m_mutex;
    std::map<std::string, ByteBuffer, std::less<>> m_resources;
};

} // namespace Velmoria::Resource
