#pragma once

// Registry<T>: a named collection of owned objects of one kind.
//
// Its main use is to hold several factories side by side (the native operation factory
// "CppOperationFactory" and, later, one of a scripting layer), and named item functions and
// predicates that map and filter loaders refer to by name. A process-wide instance is
// Singleton<Registry<T>>::instance().
//
// Items are kept in registration order, and getAllItems()/availableItems() list them in that
// order: when two factories know the same type name, the one registered first (the native one,
// registered while the plug-in loads) deterministically wins. A registry holds a handful of
// items, so a vector searched linearly serves better than a map.
//
// Unknown names are logged at error level in category "ML.Registry". Only getItem() throws
// (std::out_of_range, after its log line); everything else reports through its return value.
// Pointers from getAllItems() stay valid until their item is unregistered.
//
// No lock guards the registry: items are registered on the plug-in's loading thread before
// anything reads them, and later lookups are read-only.

#include "host/core/Log.h"

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Velmoria::ML {

template <class T>
class Registry
{
public:
    Registry() = default;
    Registry(Registry const&) = delete;
    Registry& operator=(Registry const&) = delete;

    bool hasItem(std::string const& name) const { return find(name) != m_items.end(); }

    // The item of that name. Throws std::out_of_range (after an error line) for an unknown
    // name: a caller that is not sure asks hasItem() first.
    T& getItem(std::string const& name) { return *at(name); }
    T const& getItem(std::string const& name) const { return *at(name); }

    // False (logged) when the name is taken, in which case the old item stays, or when `item`
    // is null.
    bool registerItem(std::string const& name, std::unique_ptr<T> item)
    {
        if (hasItem(name)) {
            VELMORIA_LOG_ERROR("ML.Registry", "Item '{}' already registered", name);
            return false;
        }
        if (!item) {
            VELMORIA_LOG_ERROR("ML.Registry", "Item '{}' is null and was not registered", name);
            return false;
        }
        m_items.emplace_back(name, std::move(item));
        return true;
    }

    // False (logged) when the name is unknown.
    bool unregisterItem(std::string const& name)
    {
        auto it = find(name);
        if (it == m_items.end()) {
            VELMORIA_LOG_ERROR("ML.Registry", "Item '{}' not registered", name);
            return false;
        }
        m_items.erase(it);
        return true;
    }

    void unregisterAllItems() { m_items.clear(); }

    std::vector<std::string> availableItems() const
    {
        std::vector<std::string> names;
        names.reserve(m_items.size());
        for (auto const& [name, item] : m_items)
            names.push_back(name);
        return names;
    }

    std::vector<std::pair<std::string, T*>> getAllItems()
    {
        std::vector<std::pair<std::string, T*>> items;
        items.reserve(m_items.size());
        for (auto const& [name, item] : m_items)
            items.emplace_back(name, item.get());
        return items;
    }
    std::vector<std::pair<std::string, T const*>> getAllItems() const
    {
        std::vector<std::pair<std::string, T const*>> items;
        items.reserve(m_items.size());
        for (auto const& [name, item] : m_items)
            items.emplace_back(name, item.get());
        return items;
    }

private:
    using Entry = std::pair<std::string, std::unique_ptr<T>>;

    typename std::vector<Entry>::const_iterator find(std::string const& name) const
    {
        for (auto it = m_items.begin(); it != m_items.end(); ++it)
            if (it->first == name)
                return it;
        return m_items.end();
    }

    T* at(std::string const& name) const
    {
        auto it = find(name);
        if (it == m_items.end()) {
            VELMORIA_LOG_ERROR("ML.Registry", "{} is not a registered item.", name);
            // The text of std::unordered_map::at, which callers written against a map expect.
            throw std::out_of_range("_Map_base::at");
        }
        return it->second.get();
    }

    std::vector<Entry> m_items;
};

class DataItem;

// Named functions applied to every item by map loaders, and named predicates of filter
// loaders.
using ItemFunction = std::function<void(DataItem&)>;
using ItemPredicate = std::function<bool(DataItem const&)>;
using ItemFunctionRegistry = Registry<ItemFunction>;
using ItemPredicateRegistry = Registry<ItemPredicate>;

// Instantiated once, in libVelmoriaML (Registry.cpp), so that the process-wide instances are
// shared by every library that uses them.
extern template class Registry<ItemFunction>;
extern template class Registry<ItemPredicate>;

// The process-wide registries (Singleton<...>::instance()).
ItemFunctionRegistry& itemFunctionRegistry();
ItemPredicateRegistry& itemPredicateRegistry();

} // namespace Velmoria::ML
