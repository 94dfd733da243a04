#pragma once

// PluginAutoRegistrationGuard: a plug-in library announces itself to the host while it is being
// loaded, before the host has called anything in it:
//
//   static Velmoria::PluginAutoRegistrationGuard s_guard(&MyPlugin::id);
//
// The guard asks the function for the id and records it in a process-wide list of announced
// plug-ins; its destructor (when the library is unloaded) takes the id out again. The list tells
// a host which plug-in libraries are in the process, however they got there (linked directly, or
// loaded by a PluginManager), and lets the manager check that a library announced the id it
// exports. An id announced twice (two copies of one plug-in) is listed twice, so that unloading
// one copy leaves the other listed.
//
// Construction never throws: an id function that throws or returns an empty id is logged and
// announces nothing.

#include <functional>
#include <string>
#include <vector>

namespace Velmoria {

class PluginAutoRegistrationGuard
{
public:
    explicit PluginAutoRegistrationGuard(std::function<std::string()> const& idFunction);
    ~PluginAutoRegistrationGuard();
    PluginAutoRegistrationGuard(PluginAutoRegistrationGuard const&) = delete;
    PluginAutoRegistrationGuard& operator=(PluginAutoRegistrationGuard const&) = delete;

    // Empty when the id function failed.
    std::string const& id() const { return m_id; }

    // The ids of the guards alive now, in the order they were constructed.
    static std::vector<std::string> announcedPlugins();
    static bool isAnnounced(std::string const& id);

private:
    std::string m_id;
};

} // namespace Velmoria
