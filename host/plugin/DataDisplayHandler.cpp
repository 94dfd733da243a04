#include "host/plugin/DataDisplayHandler.h"

#include "host/core/Log.h"

#include <algorithm>
#include <exception>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.DataDisplayHandlerFactory";

struct Entry
{
    std::string name;
    DataDisplayHandlerFactory::Creator creator;
};

// A vector rather than a map: lookups are rare and the registration order matters for
// handlerFor().
struct Registry
{
    std::shared_mutex mutex;
    std::vector<Entry> entries;

    std::vector<Entry>::iterator find(std::string const& name)
    {
        return std::find_if(entries.begin(), entries.end(), [&](Entry const& e) { return e.name == name; });
    }
};

Registry& registry()
{
    static Registry instance;
    return instance;
}

// Creators are plug-in code: whatever they throw is reported, never passed on to the host.
std::unique_ptr<DataDisplayHandler> callCreator(std::string const& name,
                                                DataDisplayHandlerFactory::Creator const& creator)
{
    try {
        auto handler = creator();
        if (!handler)
            VELMORIA_LOG_ERROR(kCategory, "The creator of display handler '{}' returned null", name);
        return handler;
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(kCategory, "The creator of display handler '{}' threw: {}", name, e.what());
    } catch (...) {
        VELMORIA_LOG_ERROR(kCategory, "The creator of display handler '{}' threw an unknown exception", name);
    }
    return nullptr;
}

} // namespace

DataDisplayHandler::~DataDisplayHandler() = default;

bool DataDisplayHandlerFactory::registerHandler(std::string name, Creator creator)
{
    if (name.empty() || !creator) {
        VELMORIA_LOG_ERROR(kCategory, "Cannot register display handler '{}': {}", name,
                           name.empty() ? "the name is empty" : "the creator is empty");
        return false;
    }
    auto& r = registry();
    std::unique_lock lock(r.mutex);
    if (auto it = r.find(name); it != r.entries.end()) {
        it->creator = std::move(creator);
        VELMORIA_LOG_INFO(kCategory,
                          "Display handler '{}' was registered again; the new creator replaces the old one",
                          name);
        return false;
    }
    r.entries.push_back({std::move(name), std::move(creator)});
    return true;
}

bool DataDisplayHandlerFactory::unregisterHandler(std::string const& name)
{
    auto& r = registry();
    std::unique_lock lock(r.mutex);
    auto it = r.find(name);
    if (it == r.entries.end())
        return false;
    r.entries.erase(it);
    return true;
}

bool DataDisplayHandlerFactory::isRegistered(std::string const& name)
{
    auto& r = registry();
    std::shared_lock lock(r.mutex);
    return r.find(name) != r.entries.end();
}

std::unique_ptr<DataDisplayHandler> DataDisplayHandlerFactory::create(std::string const& name)
{
    Creator creator;
    {
        auto& r = registry();
        std::shared_lock lock(r.mutex);
        if (auto it = r.find(name); it != r.entries.end())
            creator = it->creator;
    }
    if (!creator) {
        VELMORIA_LOG_ERROR(kCategory, "Unknown display handler '{}'", name);
        return nullptr;
    }
    // Called without the lock: a creator may itself look at the registry.
    return callCreator(name, creator);
}

std::unique_ptr<DataDisplayHandler> DataDisplayHandlerFactory::handlerFor(Data const& data)
{
    std::vector<Entry> entries;
    {
        auto& r = registry();
        std::shared_lock lock(r.mutex);
        entries = r.entries;
    }
    for (auto const& entry : entries) {
        auto handler = callCreator(entry.name, entry.creator);
        if (handler && handler->canDisplay(data))
            return handler;
    }
    return nullptr;
}

std::vector<std::string> DataDisplayHandlerFactory::registeredNames()
{
    auto& r = registry();
    std::shared_lock lock(r.mutex);
    std::vector<std::string> names;
    names.reserve(r.entries.size());
    for (auto const& entry : r.entries)
        names.push_back(entry.name);
    return names;
}

} // namespace Velmoria
