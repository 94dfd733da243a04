#include "host/data/DataComponentFactory.h"

#include "host/core/Log.h"

#include <exception>
#include <mutex>

namespace Velmoria {

DataComponentFactory& DataComponentFactory::get()
{
    static DataComponentFactory factory;
    return factory;
}

bool DataComponentFactory::registerComponent(std::string id, Creator creator)
{
    if (id.empty() || !creator) {
        VELMORIA_LOG_ERROR("Host.DataComponentFactory", "Cannot register component '{}': {}", id,
                           id.empty() ? "the id is empty" : "the creator is empty");
        return false;
    }
    std::unique_lock lock(m_mutex);
    auto [it, inserted] = m_creators.insert_or_assign(std::move(id), std::move(creator));
    if (!inserted)
        VELMORIA_LOG_INFO("Host.DataComponentFactory", "Replacing the creator of component '{}'", it->first);
    return inserted;
}

bool DataComponentFactory::unregisterComponent(std::string const& id)
{
    std::unique_lock lock(m_mutex);
    return m_creators.erase(id) > 0;
}

bool DataComponentFactory::isRegistered(std::string const& id) const
{
    std::shared_lock lock(m_mutex);
    return m_creators.count(id) > 0;
}

std::unique_ptr<DataComponentBase> DataComponentFactory::create(std::string const& id) const
{
    Creator creator;
    {
        std::shared_lock lock(m_mutex);
        auto it = m_creators.find(id);
        if (it != m_creators.end())
            creator = it->second;
    }
    if (!creator) {
        VELMORIA_LOG_ERROR("Host.DataComponentFactory", "Unknown data component id '{}'", id);
        return nullptr;
    }
    // The creator runs outside the lock: it may itself look components up.
    std::unique_ptr<DataComponentBase> component;
    try {
        component = creator();
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR("Host.DataComponentFactory", "The creator of data component '{}' failed: {}", id,
                           e.what());
        return nullptr;
    }
    if (!component)
        VELMORIA_LOG_ERROR("Host.DataComponentFactory", "The creator of data component '{}' returned null",
                           id);
    return component;
}

std::vector<std::string> DataComponentFactory::registeredIds() const
{
    std::shared_lock lock(m_mutex);
    std::vector<std::string> ids;
    ids.reserve(m_creators.size());
    for (auto const& [id, creator] : m_creators)
        ids.push_back(id);
    return ids;
}

} // namespace Velmoria
