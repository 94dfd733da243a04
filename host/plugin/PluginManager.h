#pragma once

// PluginManager: finds, checks, loads, orders and initialises the plug-ins of a folder list, and
// unloads them again.
//
// Folders, in the order they are searched (searchFolders):
//   1. the folders given on the command line (`--plugin-dir`),
//   2. the folders of the environment variable VELMORIA_PLUGIN_PATH (':'-separated, empty entries
//      ignored),
//   3. the application's install folder.
// A folder named twice is searched once. A folder from 1 or 2 that does not exist is an error (the
// user named it); a missing install folder is only a warning (an application may run without any
// plug-in).
//
// Loading (load):
//   - Every file "lib*.so" of a folder, in natural name order, is a candidate. Its bytes are
//     searched for the magic string (PluginMagic.h) WITHOUT loading it: a file without the
//     marker is not a plug-in (libraries beside the plug-ins, the host library itself) and is
//     skipped; a malformed text or an incompatible hostversion is an error.
//   - The file is dlopen'ed (RTLD_NOW | RTLD_LOCAL) and must export velmoriaPluginId and
//     velmoriaCreatePlugin (PluginBase.h).
//   - A plug-in id found a second time (the same plug-in in a later folder) keeps the first
//     copy: the earlier folder wins, which is how a user overrides an installed plug-in. The
//     second copy is unloaded with a warning.
//   - The plug-in is created, handed the application controller (when one was set) and asked for
//     its dependencies(). Plug-ins are ordered by them (PluginOrder.h); "Velmoria.Stream" and
//     "Velmoria.Graph" (services built into the host) and plug-ins loaded by earlier calls count
//     as present.
//   - init() is called in that order. A plug-in whose init() returns non-zero or throws fails,
//     and so does every plug-in that depends on it.
//   Failed plug-ins are destroyed and their libraries closed at once; the others stay loaded
//   until unloadAll() (or the destructor), which destroys them in the reverse order of init()
//   and then closes their libraries.
//
// Errors never escape: load() returns a LoadResult with one Problem per file at fault, and logs
// each problem once (category "Host.PluginManager"), naming the file and, where known, the
// plug-in ids involved. Loading continues past a failed plug-in, so one run reports everything.
// Not thread-safe: load plug-ins from one thread, before the application starts its work.

#include "host/core/Filesystem.h"
#include "host/plugin/PluginMagic.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Velmoria {

class ApplicationController;
class PluginBase;

class PluginManager
{
public:
    enum class FolderOrigin
    {
        CommandLine,
        Environment,
        Install,
    };

    struct Folder
    {
        Filesystem::Path path;
        FolderOrigin origin = FolderOrigin::CommandLine;
    };

    struct Problem
    {
        // The file (or folder) at fault.
        Filesystem::Path path;
        // The plug-in's id when it was known.
        std::string pluginId;
        // The whole message, as logged.
        std::string message;
    };

    struct LoadResult
    {
        // Ids of the plug-ins initialised by this call, in init order.
        std::vector<std::string> loaded;
        // Files without the magic string.
        std::vector<Filesystem::Path> skipped;
        std::vector<Problem> errors;
        std::vector<Problem> warnings;
        bool ok() const { return errors.empty(); }
    };

    struct PluginInfo
    {
        std::string id;
        Filesystem::Path file;
        PluginMagic::Fields magic;
        std::vector<std::string> dependencies;
        PluginBase* plugin = nullptr;
    };

    static constexpr char const* kEnvironmentVariable = "VELMORIA_PLUGIN_PATH";

    // "Velmoria.Stream", "Velmoria.Graph".
    static std::vector<std::string> const& hostProvidedIds();

    // The folder list from the command line, the environment variable (read now) and the
    // install folder (left out when empty).
    static std::vector<Folder> searchFolders(std::vector<std::string> const& commandLineFolders,
                                             std::string const& installFolder);
    // The same with the variable's value given (nullopt: unset), for callers that have it.
    static std::vector<Folder> searchFolders(std::vector<std::string> const& commandLineFolders,
                                             std::optional<std::string> const& environmentValue,
                                             std::string const& installFolder);
    // "given on the command line", "from VELMORIA_PLUGIN_PATH", "the install folder".
    static std::string describe(FolderOrigin origin);
    // The folder of the plug-ins that ship with the host: "velmoria/plugins" beside the host
    // library itself (<prefix>/lib/velmoria/plugins once installed; the build folder mirrors that
    // layout). Found from the loaded library, so an installed prefix can move and applications
    // and programs built on the installed package need no path of their own.
    static std::string bundledFolder();

    PluginManager();
    ~PluginManager();
    PluginManager(PluginManager const&) = delete;
    PluginManager& operator=(PluginManager const&) = delete;

    // Given to each plug-in before init(); not owned, must outlive the plug-ins. Null: none.
    void setApplicationController(ApplicationController* controller);

    LoadResult load(std::vector<Folder> const& folders);
    // Loads these files as plug-ins (no folder scan; the same checks otherwise).
    LoadResult loadFiles(std::vector<Filesystem::Path> const& files);

    // Destroys the plug-ins in the reverse order of init(), then closes their libraries.
    void unloadAll();

    // Loaded plug-ins, in init order.
    std::vector<PluginInfo> plugins() const;
    PluginBase* plugin(std::string const& id) const;
    bool isLoaded(std::string const& id) const;

private:
    // One plug-in library with its plug-in object; a candidate until init() succeeded.
    struct Loaded;
    using Candidates = std::vector<std::unique_ptr<Loaded>>;

    void loadCandidates(std::vector<Filesystem::Path> const& files, LoadResult& result);
    std::unique_ptr<Loaded> open(Filesystem::Path const& file, Candidates const& earlier, LoadResult& result);
    void initialise(Candidates& candidates, LoadResult& result);
    Loaded const* find(std::string const& id) const;

    ApplicationController* m_controller = nullptr;
    // In init order.
    std::vector<std::unique_ptr<Loaded>> m_loaded;
};

} // namespace Velmoria
