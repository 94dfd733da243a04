#include "host/data/DataComponentList.h"

#include "host/core/Log.h"
#include "host/core/Platform.h"

#include <algorithm>

namespace Velmoria {

namespace {

void tellParent(DataComponentBase* component, DataComponentList* list)
{
    if (auto* child = dynamic_cast<DataComponentWithParentInterface*>(component))
        child->setParentList(list);
}

bool sameSlot(DataComponentBase const& existing, DataComponentBase const& added)
{
    if (DataComponentList::comparesById(added))
        return DataComponentList::comparesById(existing) && existing.id() == added.id();
    return typeid(existing) == typeid(added);
}

} // namespace

DataComponentList::DataComponentList(DataComponentList const& other)
{
    for (auto const& c : other.m_components)
        insertOrReplace(c->clone());
}

DataComponentList::DataComponentList(DataComponentList&& other) noexcept
    : m_components(std::move(other.m_components))
{
    other.m_components.clear();
    adoptAll();
}

DataComponentList& DataComponentList::operator=(DataComponentList const& other)
{
    if (&other != this)
        assign(other);
    return *this;
}

DataComponentList& DataComponentList::operator=(DataComponentList&& other) noexcept
{
    if (&other == this)
        return *this;
    m_components = std::move(other.m_components);
    other.m_components.clear();
    adoptAll();
    signalChanged.emitSignal();
    return *this;
}

bool DataComponentList::comparesById(DataComponentBase const& component)
{
    return Platform::demangleTypeName(typeid(component)).find("PyDataComponent") != std::string::npos;
}

DataComponentBase* DataComponentList::insertOrReplace(std::unique_ptr<DataComponentBase> component)
{
    DataComponentBase* added = component.get();
    auto it = std::find_if(m_components.begin(), m_components.end(),
                           [&](auto const& existing) { return sameSlot(*existing, *added); });
    if (it != m_components.end())
        *it = std::move(component);
    else
        m_components.push_back(std::move(component));
    tellParent(added, this);
    return added;
}

DataComponentBase* DataComponentList::addComponent(std::unique_ptr<DataComponentBase> component)
{
    if (!component) {
        VELMORIA_LOG_WARNING("Host.DataComponentList", "Ignoring a null component");
        return nullptr;
    }
    DataComponentBase* added = insertOrReplace(std::move(component));
    signalChanged.emitSignal();
    return added;
}

void DataComponentList::add(DataComponentList const& other)
{
    if (&other == this || other.empty())
        return;
    for (auto const& c : other.m_components)
        insertOrReplace(c->clone());
    signalChanged.emitSignal();
}

void DataComponentList::assign(DataComponentList const& other)
{
    if (&other == this)
        return;
    std::vector<std::unique_ptr<DataComponentBase>> old;
    old.swap(m_components);
    for (auto const& c : other.m_components)
        insertOrReplace(c->clone());
    signalChanged.emitSignal();
}

bool DataComponentList::removeType(std::type_info const& type)
{
    auto it = std::find_if(m_components.begin(), m_components.end(),
                           [&](auto const& c) { return typeid(*c) == type; });
    if (it == m_components.end())
        return false;
    m_components.erase(it);
    signalChanged.emitSignal();
    return true;
}

std::vector<DataComponentBase*> DataComponentList::all()
{
    std::vector<DataComponentBase*> result;
    result.reserve(m_components.size());
    for (auto& c : m_components)
        result.push_back(c.get());
    return result;
}

std::vector<DataComponentBase const*> DataComponentList::all() const
{
    std::vector<DataComponentBase const*> result;
    result.reserve(m_components.size());
    for (auto const& c : m_components)
        result.push_back(c.get());
    return result;
}

void DataComponentList::clear()
{
    if (m_components.empty())
        return;
    m_components.clear();
    signalChanged.emitSignal();
}

bool DataComponentList::operator==(DataComponentList const& other) const
{
    if (m_components.size() != other.m_components.size())
        return false;
    return std::all_of(m_components.begin(), m_components.end(), [&](auto const& mine) {
        return std::any_of(other.m_components.begin(), other.m_components.end(),
                           [&](auto const& theirs) { return mine->equals(*theirs); });
    });
}

void DataComponentList::adoptAll()
{
    for (auto& c : m_components)
        tellParent(c.get(), this);
}

} // namespace Velmoria
