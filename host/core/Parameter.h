#pragma once

// Parameters: named members of a Configurable that read themselves from and write themselves to
// Properties.
//
// ParameterBase holds what every parameter has: a name (its key), a label for forms, custom
// attributes, deprecated names (old keys that still configure it), a ParamType (the kind and
// flags such as Hidden; 0 = the kind that fits the value), and its parent Configurable, which
// it registers with on construction and leaves on destruction.
//
// Parameter<T> holds a value and a default of any type with a ValueText form (bool, numbers,
// enumerations, strings, fixed Eigen vectors and matrices, lists, optionals).
//   - configure(p) reads the deprecated names first, in order, then the name itself; the first
//     readable one wins (so a layer that reports deprecated keys sees the same precedence). A
//     key that is present but unreadable logs a warning in "Host.Parameter" naming the key and
//     its text, and changes nothing.
//   - configuration(p) writes the value, the type (its own, or the kind of T) and the
//     attributes, in this order: "label" (when set), the custom attributes, one
//     "deprecatedName" per deprecated name, "default" with the default's text.
//   - signalValueChanged fires after a real change only (NaN = NaN, -0 != +0).
//
// SubProperty<T> holds a Configurable T that is stored as a sub-tree named after the
// parameter: configuration() appends that sub-tree and lets T write into it; configure() lets T
// read the first sub-tree of that name (or of a deprecated name).
//
// Copies: see Configurable.h. A copied parameter has the original's value, default, label,
// attributes, deprecated names and type, no signal connections, and registers with the copy of
// its owner when the owner is copied.

#include "host/core/Configurable.h"
#include "host/core/Properties.h"
#include "host/core/Signal.h"
#include "host/core/ValueText.h"

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria {

class ParameterBase
{
public:
    explicit ParameterBase(std::string name, Configurable* parent = nullptr);
    ParameterBase(ParameterBase const& other);
    // Copies label, attributes, deprecated names and type; keeps name and parent.
    ParameterBase& operator=(ParameterBase const& other);
    virtual ~ParameterBase();

    std::string const& name() const { return m_name; }
    Configurable* parent() const { return m_parent; }

    std::string const& label() const { return m_label; }
    void setLabel(std::string label) { m_label = std::move(label); }

    // Sets the attribute (replacing an earlier one of that key) that configuration() writes.
    void setAttribute(std::string key, std::string value);
    ParamAttributes const& attributes() const { return m_attributes; }

    // An old key that still configures this parameter (ignored when empty or already known).
    void addDeprecatedName(std::string name);
    std::vector<std::string> const& deprecatedNames() const { return m_deprecatedNames; }

    // A ParamType: 0 lets configuration() use the kind of the value; flags (Hidden) are kept.
    int type() const { return m_type; }
    void setType(int type) { m_type = type; }

    // For owners that build their parameters afresh in their copy constructor: takes label,
    // attributes, deprecated names, type, value and default from `other` (a parameter of the
    // same class), and registers with `newParent` when given.
    void setParentFromCopy(ParameterBase const& other, Configurable* newParent = nullptr);

    // True when a value was read.
    virtual bool configure(Properties const* properties) = 0;
    virtual void configuration(Properties* properties) const = 0;
    virtual void setToDefault() = 0;

protected:
    // Value and default, when `other` holds the same type.
    virtual void copyValueFrom(ParameterBase const& other) = 0;
    // Writes type and attributes of the key name(), which must exist in `properties`.
    void writeMetadata(Properties* properties, int valueKind, std::string defaultText) const;
    // The warning about a present but unreadable key.
    void warnUnreadable(Properties const& properties, std::string const& key,
                        std::string const& typeName) const;
    void noteDeprecatedUse(std::string const& key) const;

private:
    friend class Configurable;

    std::string m_name;
    std::string m_label;
    ParamAttributes m_attributes;
    std::vector<std::string> m_deprecatedNames;
    int m_type = ParamType::Default;
    Configurable* m_parent = nullptr;
};

template <class T>
class Parameter : public ParameterBase
{
    static_assert(ValueText::Supported<T> && !std::is_pointer_v<T> && !std::is_array_v<T>,
                  "Parameter<T> needs a type with a text form (see ValueText.h)");

public:
    Parameter(std::string name, T defaultValue, Configurable* parent = nullptr)
        : ParameterBase(std::move(name), parent)
        , m_value(defaultValue)
        , m_defaultValue(std::move(defaultValue))
    {}
    Parameter(Parameter const& other)
        : ParameterBase(other)
        , m_value(other.m_value)
        , m_defaultValue(other.m_defaultValue)
    {}
    Parameter& operator=(Parameter const& other)
    {
        if (this != &other) {
            ParameterBase::operator=(other);
            m_defaultValue = other.m_defaultValue;
            setValue(other.m_value);
        }
        return *this;
    }
    Parameter& operator=(T const& value)
    {
        setValue(value);
        return *this;
    }

    T const& value() const { return m_value; }
    operator T const&() const { return m_value; }
    T const& defaultValue() const { return m_defaultValue; }
    void setDefaultValue(T defaultValue) { m_defaultValue = std::move(defaultValue); }

    // True (and signalValueChanged emitted) when the value changed.
    bool setValue(T value)
    {
        if (ValueText::sameValue(value, m_value))
            return false;
        m_value = std::move(value);
        signalValueChanged.emitSignal(m_value);
        return true;
    }

    bool configure(Properties const* properties) override
    {
        if (!properties)
            return false;
        for (std::string const& old : deprecatedNames())
            if (read(*properties, old)) {
                noteDeprecatedUse(old);
                return true;
            }
        return read(*properties, name());
    }

    void configuration(Properties* properties) const override
    {
        if (!properties)
            return;
        properties->setParam(name(), m_value);
        writeMetadata(properties, ParamType::kindOf<T>(), ValueText::toText(m_defaultValue));
    }

    void setToDefault() override { setValue(m_defaultValue); }

    Signal<T const&> signalValueChanged;

protected:
    void copyValueFrom(ParameterBase const& other) override
    {
        if (auto const* same = dynamic_cast<Parameter<T> const*>(&other)) {
            m_defaultValue = same->m_defaultValue;
            setValue(same->m_value);
        }
    }

private:
    bool read(Properties const& properties, std::string const& key)
    {
        if (!properties.contains(key))
            return false;
        T value = m_value;
        if (!properties.param(key, value)) {
            warnUnreadable(properties, key, ValueText::typeName<T>());
            return false;
        }
        setValue(std::move(value));
        return true;
    }

    T m_value;
    T m_defaultValue;
};

template <class T>
class SubProperty : public ParameterBase
{
    static_assert(std::is_base_of_v<Configurable, T>, "SubProperty<T> needs a Configurable T");

public:
    explicit SubProperty(std::string name, Configurable* parent = nullptr)
        : ParameterBase(std::move(name), parent)
    {}
    SubProperty(std::string name, T value, Configurable* parent)
        : ParameterBase(std::move(name), parent)
        , m_value(std::move(value))
    {}
    SubProperty(SubProperty const& other) = default;
    SubProperty& operator=(SubProperty const& other) = default;

    T& value() { return m_value; }
    T const& value() const { return m_value; }
    T* operator->() { return &m_value; }
    T const* operator->() const { return &m_value; }
    T& operator*() { return m_value; }
    T const& operator*() const { return m_value; }

    // True when a sub-tree of the name (or a deprecated name) was there.
    bool configure(Properties const* properties) override
    {
        if (!properties)
            return false;
        for (std::string const& old : deprecatedNames())
            if (Properties const* sub = properties->findSubProperties(old)) {
                noteDeprecatedUse(old);
                m_value.configure(sub);
                return true;
            }
        Properties const* sub = properties->findSubProperties(name());
        if (!sub)
            return false;
        m_value.configure(sub);
        return true;
    }

    void configuration(Properties* properties) const override
    {
        if (properties)
            m_value.configuration(properties->addSubProperties(name()));
    }

    void setToDefault() override { m_value.configureDefaults(); }

protected:
    void copyValueFrom(ParameterBase const& other) override
    {
        if (auto const* same = dynamic_cast<SubProperty<T> const*>(&other))
            m_value = same->m_value;
    }

private:
    T m_value;
};

} // namespace Velmoria
