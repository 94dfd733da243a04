#pragma once

// DataComponentFactory: the process-wide registry that turns a component id (as written in a
// file) back into an empty component of the right class, which then reads itself with
// configure(). Plug-ins fill it in their init(); readers ask it while loading.
//
// Registering an id that exists replaces its creator (a plug-in may override a host default)
// and logs it at information level. Registration and lookups are thread-safe; lookups only take
// a shared lock, so loaders on several threads do not serialise on the factory.

#include "host/data/DataComponent.h"

#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <vector>

namespace Velmoria {

class DataComponentFactory
{
public:
    using Creator = std::function<std::unique_ptr<DataComponentBase>()>;

    static DataComponentFactory& get();

    // True when `id` was new; false when an existing creator was replaced or the arguments were
    // unusable (empty id or creator: logged, nothing registered).
    bool registerComponent(std::string id, Creator creator);
    bool unregisterComponent(std::string const& id);
    bool isRegistered(std::string const& id) const;
    // A new component, or null with an error line when `id` is unknown or its creator fails.
    std::unique_ptr<DataComponentBase> create(std::string const& id) const;
    // Sorted.
    std::vector<std::string> registeredIds() const;

private:
    mutable std::shared_mutex m_mutex;
    std::map<std::string, Creator> m_creators;
};

} // namespace Velmoria
