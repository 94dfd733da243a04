#include "host/plugin/PluginManager.h"

#include "host/core/Log.h"
#include "host/core/String.h"
#include "host/plugin/PluginBase.h"
#include "host/plugin/PluginOrder.h"
#include "host/plugin/SharedLibrary.h"

#include <dlfcn.h>
#include <fmt/core.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <set>
#include <system_error>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.PluginManager";
constexpr char const* kLibraryPattern = "lib*.so";

// Runs plug-in code; whatever it throws becomes `error` ("<what> threw: <reason>").
template <typename Function>
bool guarded(std::string const& what, std::string& error, Function&& function)
{
    try {
        function();
        return true;
    } catch (std::exception const& e) {
        error = fmt::format("{} threw: {}", what, e.what());
    } catch (...) {
        error = fmt::format("{} threw an unknown exception", what);
    }
    return false;
}

// The same folder or file reached by two spellings (a link, "a/../a") is used once.
std::string identity(Filesystem::Path const& path)
{
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(path.stdPath(), error);
    return error ? path.makeAbsolute().str() : canonical.string();
}

void addError(PluginManager::LoadResult& result, Filesystem::Path path, std::string pluginId,
              std::string message)
{
    VELMORIA_LOG_ERROR(kCategory, "{}", message);
    result.errors.push_back({std::move(path), std::move(pluginId), std::move(message)});
}

void addWarning(PluginManager::LoadResult& result, Filesystem::Path path, std::string pluginId,
                std::string message)
{
    VELMORIA_LOG_WARNING(kCategory, "{}", message);
    result.warnings.push_back({std::move(path), std::move(pluginId), std::move(message)});
}

} // namespace

struct PluginManager::Loaded
{
    Filesystem::Path file;
    PluginMagic::Fields magic;
    SharedLibrary library;
    std::string id;
    std::vector<std::string> dependencies;
    std::unique_ptr<PluginBase> plugin;

    // The plug-in object is code of the library: it goes first.
    ~Loaded()
    {
        plugin.reset();
        library.close();
    }

    // "'Velmoria.ML' (/opt/velmoria/lib/libVelmoriaML.so)": how messages name a plug-in.
    std::string name() const { return fmt::format("'{}' ({})", id, file.str()); }
};

std::vector<std::string> const& PluginManager::hostProvidedIds()
{
    static std::vector<std::string> const ids{"Velmoria.Stream", "Velmoria.Graph"};
    return ids;
}

std::vector<PluginManager::Folder>
PluginManager::searchFolders(std::vector<std::string> const& commandLineFolders,
                             std::string const& installFolder)
{
    char const* value = std::getenv(kEnvironmentVariable);
    return searchFolders(commandLineFolders, value ? std::optional<std::string>(value) : std::nullopt,
                         installFolder);
}

std::vector<PluginManager::Folder>
PluginManager::searchFolders(std::vector<std::string> const& commandLineFolders,
                             std::optional<std::string> const& environmentValue,
                             std::string const& installFolder)
{
    std::vector<Folder> folders;
    for (auto const& folder : commandLineFolders)
        folders.push_back({folder, FolderOrigin::CommandLine});
    if (environmentValue) {
        for (auto const& folder : String::split(*environmentValue, ':', true))
            folders.push_back({folder, FolderOrigin::Environment});
    }
    if (!installFolder.empty())
        folders.push_back({installFolder, FolderOrigin::Install});
    return folders;
}

std::string PluginManager::bundledFolder()
{
    // dladdr names the file this function was loaded from, whatever the loader's search found.
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&PluginManager::bundledFolder), &info) == 0 || !info.dli_fname)
        return {};
    std::error_code error;
    auto const library = std::filesystem::canonical(info.dli_fname, error);
    if (error)
        return {};
    return (library.parent_path() / "velmoria" / "plugins").string();
}

std::string PluginManager::describe(FolderOrigin origin)
{
    switch (origin) {
    case FolderOrigin::CommandLine:
        return "given on the command line";
    case FolderOrigin::Environment:
        return fmt::format("from {}", kEnvironmentVariable);
    case FolderOrigin::Install:
        return "the install folder";
    }
    return "of unknown origin";
}

PluginManager::PluginManager() = default;

PluginManager::~PluginManager()
{
    unloadAll();
}

void PluginManager::setApplicationController(ApplicationController* controller)
{
    m_controller = controller;
}

PluginManager::LoadResult PluginManager::load(std::vector<Folder> const& folders)
{
    LoadResult result;
    try {
        std::set<std::string> seenFolders;
        std::set<std::string> seenFiles;
        std::vector<Filesystem::Path> files;
        for (auto const& folder : folders) {
            if (!seenFolders.insert(identity(folder.path)).second) {
                VELMORIA_LOG_DEBUG(kCategory, "Plug-in folder '{}' ({}) was searched already",
                                   folder.path.str(), describe(folder.origin));
                continue;
            }
            if (!folder.path.exists()) {
                auto message = fmt::format("Plug-in folder '{}' ({}) does not exist", folder.path.str(),
                                           describe(folder.origin));
                // Nobody asked for the install folder by name: an application may run without it.
                if (folder.origin == FolderOrigin::Install)
                    addWarning(result, folder.path, {}, std::move(message));
                else
                    addError(result, folder.path, {}, std::move(message));
                continue;
            }
            if (!folder.path.isDirectory()) {
                addError(result, folder.path, {},
                         fmt::format("Plug-in folder '{}' ({}) is not a folder", folder.path.str(),
                                     describe(folder.origin)));
                continue;
            }
            VELMORIA_LOG_DEBUG(kCategory, "Searching plug-in folder '{}' ({})", folder.path.str(),
                               describe(folder.origin));
            auto const entries =
                Filesystem::Directory(folder.path).scan({kLibraryPattern, Filesystem::ScanOption::Files});
            for (auto const& file : entries) {
                if (seenFiles.insert(identity(file)).second)
                    files.push_back(file);
            }
        }
        loadCandidates(files, result);
    } catch (std::exception const& e) {
        addError(result, {}, {}, fmt::format("Loading plug-ins failed: {}", e.what()));
    }
    return result;
}

PluginManager::LoadResult PluginManager::loadFiles(std::vector<Filesystem::Path> const& files)
{
    LoadResult result;
    try {
        loadCandidates(files, result);
    } catch (std::exception const& e) {
        addError(result, {}, {}, fmt::format("Loading plug-ins failed: {}", e.what()));
    }
    return result;
}

void PluginManager::loadCandidates(std::vector<Filesystem::Path> const& files, LoadResult& result)
{
    Candidates candidates;
    for (auto const& file : files) {
        if (auto candidate = open(file, candidates, result))
            candidates.push_back(std::move(candidate));
    }
    initialise(candidates, result);
}

std::unique_ptr<PluginManager::Loaded> PluginManager::open(Filesystem::Path const& file,
                                                           Candidates const& earlier, LoadResult& result)
{
    using Status = PluginMagic::ScanResult::Status;
    auto const path = file.str();

    // Everything up to dlopen looks at bytes only: no code of the file runs before it has
    // proved to be a plug-in for this host.
    auto const scan = PluginMagic::findInFile(file);
    switch (scan.status) {
    case Status::Unreadable:
        addError(result, file, {}, fmt::format("Could not read plug-in file '{}': {}", path, scan.error));
        return nullptr;
    case Status::NotFound:
        VELMORIA_LOG_DEBUG(kCategory, "Skipping '{}': it has no plug-in magic string", path);
        result.skipped.push_back(file);
        return nullptr;
    case Status::Unterminated:
        addError(result, file, {},
                 fmt::format("Plug-in file '{}' has a magic string without an end within {} bytes", path,
                             PluginMagic::kMaxFieldsLength));
        return nullptr;
    case Status::Found:
        break;
    }
    auto parsed = PluginMagic::parse(scan.text);
    if (!parsed.ok()) {
        addError(result, file, {},
                 fmt::format("Plug-in file '{}' has a malformed magic string ('{}'): {}", path, scan.text,
                             parsed.error));
        return nullptr;
    }
    std::string why;
    if (!PluginMagic::isCompatibleHostVersion(parsed.fields->hostVersion(), &why)) {
        addError(result, file, {}, fmt::format("Plug-in file '{}' cannot be used: {}", path, why));
        return nullptr;
    }

    auto candidate = std::make_unique<Loaded>();
    candidate->file = file;
    candidate->magic = std::move(*parsed.fields);
    if (!candidate->library.open(file, &why)) {
        addError(result, file, {}, fmt::format("Could not load plug-in file '{}': {}", path, why));
        return nullptr;
    }
    auto const idFunction =
        reinterpret_cast<PluginIdFunction>(candidate->library.symbol(kPluginIdSymbol, &why));
    if (!idFunction) {
        addError(result, file, {},
                 fmt::format("Plug-in file '{}' does not export {}(): {}", path, kPluginIdSymbol, why));
        return nullptr;
    }
    auto const createFunction =
        reinterpret_cast<CreatePluginFunction>(candidate->library.symbol(kCreatePluginSymbol, &why));
    if (!createFunction) {
        addError(result, file, {},
                 fmt::format("Plug-in file '{}' does not export {}(): {}", path, kCreatePluginSymbol, why));
        return nullptr;
    }

    if (!guarded(fmt::format("{}()", kPluginIdSymbol), why, [&] {
            char const* id = idFunction();
            candidate->id = id ? id : "";
        })) {
        addError(result, file, {}, fmt::format("Plug-in file '{}': {}", path, why));
        return nullptr;
    }
    if (candidate->id.empty()) {
        addError(result, file, {},
                 fmt::format("Plug-in file '{}': {}() returned no id", path, kPluginIdSymbol));
        return nullptr;
    }

    Loaded const* first = find(candidate->id);
    for (auto const& other : earlier) {
        if (!first && other->id == candidate->id)
            first = other.get();
    }
    if (first) {
        addWarning(
            result, file, candidate->id,
            fmt::format("Plug-in {} is ignored: the same plug-in comes from '{}', which is searched first",
                        candidate->name(), first->file.str()));
        return nullptr;
    }

    if (!guarded(fmt::format("{}()", kCreatePluginSymbol), why,
                 [&] { candidate->plugin.reset(createFunction()); })) {
        addError(result, file, candidate->id, fmt::format("Plug-in {}: {}", candidate->name(), why));
        return nullptr;
    }
    if (!candidate->plugin) {
        addError(result, file, candidate->id,
                 fmt::format("Plug-in {}: {}() returned null", candidate->name(), kCreatePluginSymbol));
        return nullptr;
    }
    if (m_controller && !guarded("setApplicationController()", why,
                                 [&] { candidate->plugin->setApplicationController(*m_controller); })) {
        addError(result, file, candidate->id, fmt::format("Plug-in {}: {}", candidate->name(), why));
        return nullptr;
    }
    if (!guarded("dependencies()", why,
                 [&] { candidate->dependencies = candidate->plugin->dependencies(); })) {
        addError(result, file, candidate->id, fmt::format("Plug-in {}: {}", candidate->name(), why));
        return nullptr;
    }
    return candidate;
}

void PluginManager::initialise(Candidates& candidates, LoadResult& result)
{
    std::vector<PluginNode> nodes;
    for (auto const& candidate : candidates)
        nodes.push_back({candidate->id, candidate->dependencies});
    std::set<std::string> present(hostProvidedIds().begin(), hostProvidedIds().end());
    for (auto const& loaded : m_loaded)
        present.insert(loaded->id);

    auto const order = orderPlugins(nodes, present);
    std::set<std::string> failed;
    auto fail = [&](Loaded& candidate, std::string message) {
        addError(result, candidate.file, candidate.id, std::move(message));
        failed.insert(candidate.id);
        candidate.plugin.reset();
        candidate.library.close();
    };
    auto dependsOnFailed = [&](Loaded& candidate, std::string const& dependency) {
        fail(candidate, fmt::format("Plug-in {} depends on '{}', which could not be loaded", candidate.name(),
                                    dependency));
    };

    for (auto const& problem : order.problems) {
        auto& candidate = *candidates[problem.index];
        switch (problem.kind) {
        case PluginOrderProblem::Kind::MissingDependency:
            fail(candidate, fmt::format("Plug-in {} depends on '{}', which is not available",
                                        candidate.name(), problem.dependency));
            break;
        case PluginOrderProblem::Kind::FailedDependency:
            dependsOnFailed(candidate, problem.dependency);
            break;
        case PluginOrderProblem::Kind::Cycle:
            if (problem.cycle.size() <= 2)
                fail(candidate, fmt::format("Plug-in {} depends on itself", candidate.name()));
            else
                fail(candidate,
                     fmt::format("Plug-in {} and plug-in '{}' depend on each other (cycle: {})",
                                 candidate.name(), problem.dependency, String::join(problem.cycle, " -> ")));
            break;
        }
    }

    for (auto const index : order.order) {
        auto& candidate = *candidates[index];
        auto const failedDependency =
            std::find_if(candidate.dependencies.begin(), candidate.dependencies.end(),
                         [&](std::string const& dependency) { return failed.count(dependency) > 0; });
        if (failedDependency != candidate.dependencies.end()) {
            dependsOnFailed(candidate, *failedDependency);
            continue;
        }
        int code = 0;
        std::string why;
        if (!guarded("init()", why, [&] { code = candidate.plugin->init(); })) {
            fail(candidate, fmt::format("Plug-in {}: {}", candidate.name(), why));
            continue;
        }
        if (code != 0) {
            fail(candidate, fmt::format("Plug-in {}: init() returned {}", candidate.name(), code));
            continue;
        }
        VELMORIA_LOG_DEBUG(kCategory, "Loaded plug-in {}", candidate.name());
        result.loaded.push_back(candidate.id);
        m_loaded.push_back(std::move(candidates[index]));
    }
}

void PluginManager::unloadAll()
{
    // All plug-in objects first, newest first, while every library's code is still there: a
    // plug-in's destructor may run code of a plug-in it depends on (unregistering from it), and
    // objects a dependent left behind in a registry may need their own library to go away.
    for (auto it = m_loaded.rbegin(); it != m_loaded.rend(); ++it) {
        VELMORIA_LOG_DEBUG(kCategory, "Unloading plug-in {}", (*it)->name());
        (*it)->plugin.reset();
    }
    for (auto it = m_loaded.rbegin(); it != m_loaded.rend(); ++it)
        (*it)->library.close();
    m_loaded.clear();
}

std::vector<PluginManager::PluginInfo> PluginManager::plugins() const
{
    std::vector<PluginInfo> infos;
    for (auto const& loaded : m_loaded)
        infos.push_back(
            {loaded->id, loaded->file, loaded->magic, loaded->dependencies, loaded->plugin.get()});
    return infos;
}

PluginBase* PluginManager::plugin(std::string const& id) const
{
    auto const* loaded = find(id);
    return loaded ? loaded->plugin.get() : nullptr;
}

bool PluginManager::isLoaded(std::string const& id) const
{
    return find(id) != nullptr;
}

PluginManager::Loaded const* PluginManager::find(std::string const& id) const
{
    for (auto const& loaded : m_loaded) {
        if (loaded->id == id)
            return loaded.get();
    }
    return nullptr;
}

} // namespace Velmoria
