#pragma once

// Data components: small configurable records that hang on a Data object or an image frame
// (label names, provenance, what a padding step did, ...), kept in a DataComponentList.
//
// - DataComponentBase is the interface. Its virtual operations, in order: id(), configure(),
//   configuration(), clone(), assign(), equals(). id() names the record in files and in the
//   DataComponentFactory.
// - DataComponent<T> is the CRTP mix-in that implements clone/assign/equals from T's copy
//   constructor, copy assignment and operator==:
//
//     class LabelNames : public DataComponent<LabelNames>
//     {
//     public:
//         std::string id() const override { return "LabelNames"; }
//         bool operator==(LabelNames const& o) const { return names == o.names; }
//         std::vector<std::string> names;
//     };
//
//   assign() with a component of another dynamic type changes nothing and returns false;
//   equals() with another dynamic type returns false. Types are compared exactly (typeid), so a
//   class derived from T must derive from DataComponent<Derived, T> to clone without slicing.
// - Persistence markers: a component is saved with its data unless it also derives from
//   TemporaryDataComponent (caches, display state). PersistentDataComponent states the default
//   explicitly. isPersistent(component) is the one question writers ask.
// - DataComponentWithParentInterface: a component that needs to see its siblings is told the
//   DataComponentList that holds it. Copying such a component never copies the back-reference:
//   the copy belongs to no list until one adopts it.

#include "host/core/Configurable.h"

#include <memory>
#include <string>
#include <typeinfo>

namespace Velmoria {

class DataComponentList;

class DataComponentBase : public Configurable
{
public:
    DataComponentBase() = default;
    DataComponentBase(DataComponentBase const&) = default;
    DataComponentBase& operator=(DataComponentBase const&) = default;
    ~DataComponentBase() override = default;

    // The name of the record in files and in the DataComponentFactory.
    virtual std::string id() const = 0;
    // Reads the record's registered parameters (Configurable's behaviour unless overridden).
    void configure(Properties const* properties) override { Configurable::configure(properties); }
    void configuration(Properties* properties) const override { Configurable::configuration(properties); }
    // A deep copy of the same dynamic type.
    virtual std::unique_ptr<DataComponentBase> clone() const = 0;
    // Copies `other` into this when both have the same dynamic type; otherwise false, unchanged.
    virtual bool assign(DataComponentBase const& other) = 0;
    // True when `other` has the same dynamic type and equal content.
    virtual bool equals(DataComponentBase const& other) const = 0;
};

// Marks a component that is written with its data (the default for unmarked components).
class PersistentDataComponent
{};

// Marks a component that lives only in memory: writers skip it.
class TemporaryDataComponent
{};

// False only for components marked TemporaryDataComponent.
bool isPersistent(DataComponentBase const& component);

// A component that is told which list holds it (set on add, cleared never: a removed component
// is destroyed). The copy constructor and assignment leave the back-reference alone.
class DataComponentWithParentInterface
{
public:
    DataComponentWithParentInterface() = default;
    DataComponentWithParentInterface(DataComponentWithParentInterface const&) {}
    DataComponentWithParentInterface& operator=(DataComponentWithParentInterface const&) { return *this; }
    virtual ~DataComponentWithParentInterface() = default;

    // Called by DataComponentList when the component is added or the list is moved.
    virtual void setParentList(DataComponentList* list) { m_parentList = list; }
    DataComponentList* parentList() const { return m_parentList; }

private:
    DataComponentList* m_parentList = nullptr;
};

template <class T, class Base = DataComponentBase>
class DataComponent : public Base
{
public:
    std::unique_ptr<DataComponentBase> clone() const override
    {
        return std::make_unique<T>(static_cast<T const&>(*this));
    }

    bool assign(DataComponentBase const& other) override
    {
        if (typeid(other) != typeid(T) || typeid(*this) != typeid(T))
            return false;
        if (&other != this)
            static_cast<T&>(*this) = static_cast<T const&>(other);
        return true;
    }

    bool equals(DataComponentBase const& other) const override
    {
        if (typeid(other) != typeid(T) || typeid(*this) != typeid(T))
            return false;
        return static_cast<T const&>(*this) == static_cast<T const&>(other);
    }
};

} // namespace Velmoria
