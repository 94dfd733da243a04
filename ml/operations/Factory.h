#pragma once

// Factory<Base, Args...>: creates objects derived from Base by their registered type name.
//
// Everything that a configuration file chooses by name (operations, engines, data readers,
// metrics) is created through one of these. A type is registered with a builder, a function
// from Args... to std::unique_ptr<T>; create() finds the builder by name and hands the result
// back as std::unique_ptr<Base>.
//
// Lookups of unknown names are not exceptional at this level: create() logs an error in
// category "ML.Factory" and returns null, and the caller decides what that means. Builders may
// throw; their exceptions pass through create() (a creator with an empty builder raises
// std::bad_function_call).
//
// Registering a name twice keeps the first builder unless setAllowReplacement(true) was
// called; both cases are logged as warnings, because a silently shadowed type is a hard bug to
// find. availableTypes() is sorted, so listings are stable.
//
// Like Registry, a factory is filled on the loading thread and only read afterwards; it holds no
// lock.

#include "host/core/Log.h"

#include <algorithm>
#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace detail {

// The abstract creator of one registered type.
template <class Base, class... Args>
class Creator
{
public:
    virtual ~Creator() = default;
    virtual std::unique_ptr<Base> create(Args&&... args) const = 0;
};

// The creator of type T: calls its builder and converts the result to Base.
template <class T, class Base, class... Args>
class CreatorImpl : public Creator<Base, Args...>
{
public:
    using BuilderFunc = std::function<std::unique_ptr<T>(Args...)>;

    explicit CreatorImpl(BuilderFunc builder)
        : m_builder(std::move(builder))
    {}

    // An empty builder throws std::bad_function_call, as std::function does.
    std::unique_ptr<Base> create(Args&&... args) const override
    {
        return m_builder(std::forward<Args>(args)...);
    }

private:
    BuilderFunc m_builder;
};

} // namespace detail

template <class Base, class... Args>
class Factory
{
public:
    template <class T>
    using BuilderFunc = std::function<std::unique_ptr<T>(Args...)>;

    Factory() = default;
    Factory(Factory const&) = delete;
    Factory& operator=(Factory const&) = delete;
    virtual ~Factory() = default;

    // Registers T under `name` (see the file comment for names registered twice).
    template <class T>
    requires std::derived_from<T, Base>
    void registerType(std::string const& name, BuilderFunc<T> builder)
    {
        auto creator = std::make_unique<detail::CreatorImpl<T, Base, Args...>>(std::move(builder));
        auto it = m_creators.find(name);
        if (it == m_creators.end()) {
            if (m_verbose)
                VELMORIA_LOG_INFO("ML.Factory", "Registering type: {}", name);
            m_creators.emplace(name, std::move(creator));
        } else if (m_allowReplacement) {
            VELMORIA_LOG_WARNING("ML.Factory", "Re-registration: '{}' is already registered", name);
            it->second = std::move(creator);
        } else {
            VELMORIA_LOG_WARNING("ML.Factory", "Skipping type registration: '{}' is already registered",
                                 name);
        }
    }

    // A new object of the type registered as `name`; null (logged) for an unknown name. The
    // builder's result is returned as it is, so a builder may return null too.
    virtual std::unique_ptr<Base> create(std::string const& name, Args... args) const
    {
        auto it = m_creators.find(name);
        if (it == m_creators.end()) {
            VELMORIA_LOG_ERROR("ML.Factory", "{} is not a registered type.", name);
            return nullptr;
        }
        return it->second->create(std::forward<Args>(args)...);
    }

    // The registered names, sorted.
    virtual std::vector<std::string> availableTypes() const
    {
        std::vector<std::string> names;
        names.reserve(m_creators.size());
        for (auto const& [name, creator] : m_creators)
            names.push_back(name);
        std::sort(names.begin(), names.end());
        return names;
    }

    virtual bool hasType(std::string const& name) const { return m_creators.contains(name); }

    // Log every registration at info level.
    void setVerbose(bool verbose) { m_verbose = verbose; }
    bool verbose() const { return m_verbose; }
    // Let a later registration replace an earlier one of the same name.
    void setAllowReplacement(bool allow) { m_allowReplacement = allow; }
    bool allowReplacement() const { return m_allowReplacement; }

private:
    std::unordered_map<std::string, std::unique_ptr<detail::Creator<Base, Args...>>> m_creators;
    bool m_allowReplacement = false;
    bool m_verbose = false;
};

} // namespace Velmoria::ML
