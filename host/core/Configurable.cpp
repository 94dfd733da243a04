#include "host/core/Configurable.h"

#include "host/core/Parameter.h"
#include "host/core/Properties.h"

#include <algorithm>
#include <cstdint>

namespace Velmoria {

namespace {

// A Configurable being copied on this thread whose parameters have not all been copied yet.
// Members are copied after the base, on the same thread, so a thread-local list is enough.
struct PendingCopy
{
    Configurable const* source;
    Configurable* target;
    std::size_t remaining;
};

thread_local std::vector<PendingCopy> t_pendingCopies;

std::uintptr_t address(void const* pointer)
{
    return reinterpret_cast<std::uintptr_t>(pointer);
}

} // namespace

Configurable::Configurable(Configurable const& other)
{
    if (!other.m_parameters.empty())
        t_pendingCopies.push_back({&other, this, other.m_parameters.size()});
}

Configurable& Configurable::operator=(Configurable const&)
{
    // Each object keeps its own registrations; the owners' assignment copies the values.
    return *this;
}

Configurable::~Configurable()
{
    for (ParameterBase* parameter : m_parameters)
        parameter->m_parent = nullptr;
    std::erase_if(t_pendingCopies,
                  [this](PendingCopy const& p) { return p.source == this || p.target == this; });
}

void Configurable::adoptCopiedParameter(ParameterBase* parameter, ParameterBase const& original)
{
    Configurable const* source = original.m_parent;
    if (!source)
        return;
    for (auto it = t_pendingCopies.rbegin(); it != t_pendingCopies.rend(); ++it) {
        // Same owner, and the copy sits where the original sits inside it: a member being copied
        // along with its owner, not some parameter copied elsewhere meanwhile.
        if (it->source != source ||
            address(&original) - address(source) != address(parameter) - address(it->target))
            continue;
        it->target->registerParameter(parameter);
        if (--it->remaining == 0)
            t_pendingCopies.erase(std::next(it).base());
        return;
    }
}

void Configurable::configure(Properties const* properties)
{
    if (!properties)
        return;
    for (ParameterBase* parameter : m_parameters)
        parameter->configure(properties);
}

void Configurable::configuration(Properties* properties) const
{
    if (!properties)
        return;
    for (ParameterBase const* parameter : m_parameters)
        parameter->configuration(properties);
}

void Configurable::configureDefaults()
{
    for (ParameterBase* parameter : m_parameters)
        parameter->setToDefault();
}

void Configurable::registerParameter(ParameterBase* parameter)
{
    if (!parameter)
        return;
    if (parameter->m_parent && parameter->m_parent != this)
        parameter->m_parent->unregisterParameter(parameter);
    if (std::find(m_parameters.begin(), m_parameters.end(), parameter) == m_parameters.end())
        m_parameters.push_back(parameter);
    parameter->m_parent = this;
}

void Configurable::unregisterParameter(ParameterBase const* parameter)
{
    auto it = std::find(m_parameters.begin(), m_parameters.end(), parameter);
    if (it == m_parameters.end())
        return;
    (*it)->m_parent = nullptr;
    m_parameters.erase(it);
}

ParameterBase* Configurable::parameter(std::string_view name) const
{
    for (ParameterBase* parameter : m_parameters)
        if (parameter->name() == name)
            return parameter;
    return nullptr;
}

} // namespace Velmoria
