#pragma once

// PluginBase: what the host knows of every plug-in, and the two C functions a plug-in library
// exports so that the host can find it without knowing any of its C++ symbols.
//
// A plug-in library (see docs/plugins.md) contains:
//   - the magic string (PluginMagic.h, VELMORIA_DEFINE_PLUGIN_MAGIC), found in the file's bytes
//     before the host loads anything;
//   - extern "C" char const* velmoriaPluginId(): the plug-in's id ("Velmoria.ML"), a text that
//     lives as long as the library;
//   - extern "C" Velmoria::PluginBase* velmoriaCreatePlugin(): a new plug-in object, owned by
//     the caller (the host deletes it before unloading the library).
//
// The id is deliberately not a virtual of PluginBase: the host needs it before it creates the
// plug-in (to skip a second copy of a plug-in it already has), so it is a static property of
// the library. The host then calls, in this order: setApplicationController(), dependencies(),
// and, once every plug-in named there is initialised, init(). A non-zero result of init() or an
// exception thrown from any of these marks the plug-in as failed; the host reports it and
// unloads the library.

#include <string>
#include <vector>

namespace Velmoria {

class ApplicationController;

class PluginBase
{
public:
    PluginBase() = default;
    PluginBase(PluginBase const&) = delete;
    PluginBase& operator=(PluginBase const&) = delete;
    virtual ~PluginBase();

    virtual std::string author() const { return {}; }
    virtual std::string description() const { return {}; }
    // Ids of the plug-ins that must be initialised before this one. "Velmoria.Stream" and
    // "Velmoria.Graph" name services built into the host and are always present.
    virtual std::vector<std::string> dependencies() const { return {}; }
    // Registers what the plug-in offers. 0 on success; anything else is an error code that the
    // host reports.
    virtual int init() = 0;
    virtual void setApplicationController(ApplicationController& controller) { m_controller = &controller; }

    // The controller last given to setApplicationController, or null.
    ApplicationController* applicationController() const { return m_controller; }

private:
    ApplicationController* m_controller = nullptr;
};

// The exported functions, as the host resolves them.
using CreatePluginFunction = PluginBase* (*)();
using PluginIdFunction = char const* (*)();
inline constexpr char const* kCreatePluginSymbol = "velmoriaCreatePlugin";
inline constexpr char const* kPluginIdSymbol = "velmoriaPluginId";

} // namespace Velmoria

// Marks the two exported functions of a plug-in library:
//   VELMORIA_PLUGIN_EXPORT char const* velmoriaPluginId() { return "My.Plugin"; }
//   VELMORIA_PLUGIN_EXPORT Velmoria::PluginBase* velmoriaCreatePlugin() { return new MyPlugin; }
#define VELMORIA_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
