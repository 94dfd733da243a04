#pragma once

// DataComponentList: the ordered, owning list of components of a Data object, at most one of a
// type.
//
// add() decides "the same type" by typeid, with one exception: a component whose demangled type
// name contains "PyDataComponent" (the one C++ class behind every component written in Python)
// is compared by id() instead, so that Python components of different ids live side by side
// while one with the same id replaces the old. A replacing component takes the position of the
// one it replaces, so that the order a user sees (and files keep) is stable.
//
// signalChanged fires exactly once per changing call (add, add(list), assign, remove, clear),
// never per component, so that listeners redraw once. Components derived from
// DataComponentWithParentInterface are told this list when they enter it (and again when the
// list is moved). Copying a list clones every component; the signal's connections are never
// copied or moved (they belong to the object that made them). Not thread-safe, like the Data
// that owns it.

#include "host/core/Signal.h"
#include "host/data/DataComponent.h"

#include <memory>
#include <typeinfo>
#include <vector>

namespace Velmoria {

class DataComponentList
{
public:
    DataComponentList() = default;
    DataComponentList(DataComponentList const& other);
    DataComponentList(DataComponentList&& other) noexcept;
    DataComponentList& operator=(DataComponentList const& other);
    DataComponentList& operator=(DataComponentList&& other) noexcept;
    ~DataComponentList() = default;

    // Adds `component`, replacing the one of the same type (see above). Returns the component
    // now in the list, or null (and changes nothing) for a null argument.
    template <class T>
    T* add(std::unique_ptr<T> component)
    {
        return static_cast<T*>(addComponent(std::unique_ptr<DataComponentBase>(std::move(component))));
    }
    // Adds clones of all of other's components (each replacing its type's one here).
    void add(DataComponentList const& other);
    // Replaces the whole content with clones of other's components.
    void assign(DataComponentList const& other);

    bool empty() const { return m_components.empty(); }
    int size() const { return static_cast<int>(m_components.size()); }

    // The component of exactly type T, else the first one that is a T; null when none.
    template <class T>
    T* get()
    {
        return dynamic_cast<T*>(
            find(typeid(T), [](DataComponentBase* c) { return dynamic_cast<T*>(c) != nullptr; }));
    }
    template <class T>
    T const* get() const
    {
        return const_cast<DataComponentList*>(this)->get<T>();
    }
    // The existing T, or a default-constructed one that is added.
    template <class T>
    T* getOrCreate()
    {
        if (T* existing = get<T>())
            return existing;
        return add(std::make_unique<T>());
    }
    // Removes the component of exactly type T. False when there is none.
    template <class T>
    bool remove()
    {
        return removeType(typeid(T));
    }

    std::vector<DataComponentBase*> all();
    std::vector<DataComponentBase const*> all() const;
    void clear();

    // Same number of components and, for each one here, an equal one there (order ignored:
    // there is at most one per type, so order carries no meaning for equality).
    bool operator==(DataComponentList const& other) const;

    Signal<> signalChanged;

    // True when add() compares this component by id() rather than by type.
    static bool comparesById(DataComponentBase const& component);

private:
    DataComponentBase* addComponent(std::unique_ptr<DataComponentBase> component);
    // Puts `component` in place of its type's one or at the end; no signal.
    DataComponentBase* insertOrReplace(std::unique_ptr<DataComponentBase> component);
    template <class Predicate>
    DataComponentBase* find(std::type_info const& exact, Predicate fallback)
    {
        for (auto& c : m_components)
            if (typeid(*c) == exact)
                return c.get();
        for (auto& c : m_components)
            if (fallback(c.get()))
                return c.get();
        return nullptr;
    }
    bool removeType(std::type_info const& type);
    void adoptAll();

    std::vector<std::unique_ptr<DataComponentBase>> m_components;
};

} // namespace Velmoria
