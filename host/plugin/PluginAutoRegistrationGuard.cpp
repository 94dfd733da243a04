#include "host/plugin/PluginAutoRegistrationGuard.h"

#include "host/core/Log.h"

#include <algorithm>
#include <exception>
#include <mutex>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.PluginAutoRegistrationGuard";

struct Announced
{
    std::mutex mutex;
    std::vector<std::string> ids;
};

// Guards are static objects of plug-in libraries, constructed during dlopen: a function-local
// static is initialised on first use, whatever the order of static initialisation.
Announced& announced()
{
    static Announced instance;
    return instance;
}

} // namespace

PluginAutoRegistrationGuard::PluginAutoRegistrationGuard(std::function<std::string()> const& idFunction)
{
    try {
        if (idFunction)
            m_id = idFunction();
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "The id function of a plug-in threw: {}", e.what());
        m_id.clear();
    } catch (...) {
        VELMORIA_LOG_ERROR(kCategory, "The id function of a plug-in threw an unknown exception");
        m_id.clear();
    }
    if (m_id.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "A plug-in library announced itself without an id; it is not recorded");
        return;
    }
    auto& a = announced();
    std::lock_guard lock(a.mutex);
    a.ids.push_back(m_id);
}

PluginAutoRegistrationGuard::~PluginAutoRegistrationGuard()
{
    if (m_id.empty())
        return;
    auto& a = announced();
    std::lock_guard lock(a.mutex);
    // The latest announcement goes first: with two copies alive, the older stays listed.
    auto it = std::find(a.ids.rbegin(), a.ids.rend(), m_id);
    if (it != a.ids.rend())
        a.ids.erase(std::next(it).base());
}

std::vector<std::string> PluginAutoRegistrationGuard::announcedPlugins()
{
    auto& a = announced();
    std::lock_guard lock(a.mutex);
    return a.ids;
}

bool PluginAutoRegistrationGuard::isAnnounced(std::string const& id)
{
    auto& a = announced();
    std::lock_guard lock(a.mutex);
    return std::find(a.ids.begin(), a.ids.end(), id) != a.ids.end();
}

} // namespace Velmoria
