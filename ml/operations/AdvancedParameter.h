#pragma once

// AdvancedParameter<T, Owner>: the parameter object through which operations, data loaders and
// the configuration classes of samplers, engines and models declare their keys.
//
// It is the host's Parameter<T> (value, default, name, deprecated names, change signal) plus:
//   - required: ParamRequired::Yes makes a missing key an error; a Properties tree may overrule
//     the declaration through the key's attribute "required" ("false" -> No, anything else ->
//     Yes);
//   - an owner, which it registers with on construction and whose name forms the log category
//     "ML.<owner name>" ("ML.AdvancedParameter" without an owner);
//   - for enumerations: text forms (enumToString, stringToEnum) and the list of allowed names.
//
//   AdvancedParameter<double, Operation> p_sigma = {"sigma", 1.0, this, ParamRequired::Yes};
//   AdvancedParameter<ParamUnit, Operation> p_unit = {"unit", ParamUnit::MM, this, ParamRequired::No,
//       paramUnitToString, stringToParamUnit, {"MM", "Fraction", "Voxel"}};
//
// Owner contract. Owner is any class with
//   void registerParameter(ParameterBase*);       called by the constructor when an owner is given
//   <something convertible to std::string> name() const;    forms the log category
// and, optionally, `void unregisterParameter(ParameterBase const*)`, which the destructor calls
// so that a parameter that dies before its owner leaves the owner's list (an owner that is a host
// Configurable is left by ParameterBase itself). Operation, DataLoader, SamplingConfiguration,
// EngineConfiguration and ModelConfiguration are owners. The owner must be complete where an
// AdvancedParameter is constructed, which is always the case for member parameters.
//
// configure(p) (null p: returns false):
//   1. the attribute "required" of the key, when present, replaces `required`;
//   2. deprecated names, in order: the first present with a readable value wins, with the warning
//      "Using deprecated parameter '<old>'. Please use: '<name>' instead." (deprecated names are
//      tried before the name on purpose: when both are given the deprecated one wins);
//   3. the name itself;
//   4. otherwise an error text: "Parameter '<key>' could not be parsed, please check the syntax"
//      when the key (or, failing that, a deprecated key) is present but unreadable, "Missing
//      required configure parameter '<name>'" when it is missing and required. With an owner the
//      text is logged at error level in the owner's category; then ParamException is thrown.
//      A missing optional key keeps the current value and returns false.
// A value that is read is stored through setValue, so the change signal fires on real changes
// only. Unlike the host's Parameter, configure THROWS on bad input: owners call it from their own
// configure, which catches ParamException and reports false (Operation::configureOnly does, and
// goes on with the next parameter so that every bad key is reported in one pass).
//
// Enumerations are read first as an integer (taken as the value, with no range check), then as
// a name through stringToEnum. A name without a stringToEnum, or one that stringToEnum rejects
// (its exception text is logged), is an unreadable value. configuration(p) writes an enumeration
// with an enumToString as its name, with the kind ParamType::Enumeration and the attribute
// "values" holding the allowed names joined by ","; without enumToString it writes the host's
// integer form. Everything else is the host's Parameter<T>::configuration.
//
// Copies. The owner keeps raw pointers to its parameters, so a plain copy would register nowhere
// and point at the wrong owner: the copy constructor is deleted. An owner that copies itself
// builds each parameter with AdvancedParameter(other, newOwner), which takes over the state and
// registers with the new owner.

#include "ml/operations/OperationEnums.h"
#include "ml/operations/ParamException.h"

#include "host/core/Configurable.h"
#include "host/core/Log.h"
#include "host/core/Parameter.h"
#include "host/core/Properties.h"
#include "host/core/String.h"

#include <concepts>
#include <exception>
#include <functional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace Velmoria::ML {

namespace detail {

// The text forms of an enumeration parameter; empty for every other type, so that plain
// parameters carry no unused function objects.
template <class T, bool = std::is_enum_v<T>>
struct EnumTextForms
{};

template <class T>
struct EnumTextForms<T, true>
{
    std::function<std::string(T)> enumToString;
    std::function<T(std::string const&)> stringToEnum;
    std::vector<std::string> values;
};

template <class Owner>
concept AdvancedParameterOwner = requires(Owner& owner, Owner const& constOwner, ParameterBase* parameter)
{
    owner.registerParameter(parameter);
    {
        constOwner.name()
        } -> std::convertible_to<std::string>;
};

} // namespace detail

template <class T, class Owner>
class AdvancedParameter : public Parameter<T>
{
public:
    using EnumToString = std::function<std::string(T)>;
    using StringToEnum = std::function<T(std::string const&)>;

    AdvancedParameter(std::string const& name, T defaultValue, Owner* parent = nullptr,
                      ParamRequired required = ParamRequired::No, std::string deprecatedName = {})
        : Parameter<T>(name, std::move(defaultValue))
        , m_required(required)
        , m_owner(parent)
    {
        attach(std::move(deprecatedName));
    }

    // Enumerations with text forms; `values` lists the allowed names for forms and files.
    AdvancedParameter(std::string const& name, T defaultValue, Owner* parent, ParamRequired required,
                      EnumToString enumToString, StringToEnum stringToEnum,
                      std::vector<std::string> const& values) requires std::is_enum_v<T>
        : AdvancedParameter(name, std::move(defaultValue), parent, required, std::string(),
                            std::move(enumToString), std::move(stringToEnum), values)
    {}

    AdvancedParameter(std::string const& name, T defaultValue, Owner* parent, ParamRequired required,
                      std::string deprecatedName, EnumToString enumToString, StringToEnum stringToEnum,
                      std::vector<std::string> const& values) requires std::is_enum_v<T>
        : Parameter<T>(name, std::move(defaultValue)), m_required(required), m_owner(parent)
    {
        m_enum.enumToString = std::move(enumToString);
        m_enum.stringToEnum = std::move(stringToEnum);
        m_enum.values = values;
        if (!values.empty()) {
            this->setType(ParamType::withKind(this->type(), ParamType::Enumeration));
            this->setAttribute("values", String::join(values, ","));
        }
        attach(std::move(deprecatedName));
    }

    // Takes value, default, deprecated names, attributes, type, `required` and the text forms of
    // `other`, and registers with `newOwner` (when given).
    AdvancedParameter(AdvancedParameter const& other, Owner* newOwner)
        : Parameter<T>(other.name(), other.defaultValue())
        , m_required(other.m_required)
        , m_owner(newOwner)
        , m_enum(other.m_enum)
    {
        ParameterBase::operator=(other);
        this->setValue(other.value());
        attach({});
    }

    AdvancedParameter(AdvancedParameter const&) = delete;
    AdvancedParameter& operator=(AdvancedParameter const&) = delete;

    ~AdvancedParameter() override
    {
        if constexpr (!std::is_base_of_v<Configurable, Owner> &&
                      requires(Owner & owner, ParameterBase const* p) { owner.unregisterParameter(p); }) {
            if (m_owner)
                m_owner->unregisterParameter(this);
        }
    }

    AdvancedParameter& operator=(T const& value)
    {
        this->setValue(value);
        return *this;
    }

    ParamRequired required() const { return m_required; }
    void setRequired(ParamRequired required) { m_required = required; }
    Owner* owner() const { return m_owner; }

    EnumToString const& enumToString() const requires std::is_enum_v<T> { return m_enum.enumToString; }
    StringToEnum const& stringToEnum() const requires std::is_enum_v<T> { return m_enum.stringToEnum; }
    std::vector<std::string> const& values() const requires std::is_enum_v<T> { return m_enum.values; }

    // See the file comment. Throws ParamException for a missing required or unreadable key.
    bool configure(Properties const* properties) override
    {
        if (!properties)
            return false;
        std::string const& key = this->name();

        for (auto const& [attribute, value] : properties->paramAttributes(key)) {
            if (attribute == "required") {
                m_required = value == "false" ? ParamRequired::No : ParamRequired::Yes;
                break;
            }
        }

        std::string const* unreadableDeprecated = nullptr;
        for (std::string const& old : this->deprecatedNames()) {
            if (!properties->contains(old))
                continue;
            T value = this->value();
            if (readParam(*properties, old, value)) {
                VELMORIA_LOG_WARNING(logCategory(),
                                     "Using deprecated parameter '{}'. Please use: '{}' instead.", old, key);
                this->setValue(std::move(value));
                return true;
            }
            if (!unreadableDeprecated)
                unreadableDeprecated = &old;
        }

        T value = this->value();
        if (readParam(*properties, key, value)) {
            this->setValue(std::move(value));
            return true;
        }

        std::string error;
        if (properties->contains(key))
            error = "Parameter '" + key + "' could not be parsed, please check the syntax";
        else if (unreadableDeprecated)
            // A value under an old name that cannot be read is as wrong as one under the new
            // name; ignoring it would silently keep the default.
            error = "Parameter '" + *unreadableDeprecated + "' could not be parsed, please check the syntax";
        else if (m_required == ParamRequired::Yes)
            error = "Missing required configure parameter '" + key + "'";
        else
            return false;

        if (m_owner)
            VELMORIA_LOG_ERROR(logCategory(), "{}", error);
        throw ParamException(error);
    }

    void configuration(Properties* properties) const override
    {
        if (!properties)
            return;
        if constexpr (std::is_enum_v<T>) {
            if (m_enum.enumToString && writeEnumByName(*properties))
                return;
        }
        Parameter<T>::configuration(properties);
    }

private:
    void attach(std::string deprecatedName)
    {
        if (m_owner) {
            static_assert(detail::AdvancedParameterOwner<Owner>,
                          "AdvancedParameter: Owner needs registerParameter(ParameterBase*) and name() "
                          "(see the owner contract in AdvancedParameter.h)");
            m_owner->registerParameter(this);
        }
        if (!deprecatedName.empty())
            this->addDeprecatedName(std::move(deprecatedName));
    }

    std::string logCategory() const
    {
        if (m_owner)
            return "ML." + std::string(m_owner->name());
        return "ML.AdvancedParameter";
    }

    // True and `out` set when the key holds a value of T (for enumerations: an integer, or a
    // name that stringToEnum accepts).
    bool readParam(Properties const& properties, std::string const& key, T& out) const
    {
        if constexpr (std::is_enum_v<T>) {
            if (properties.param(key, out))
                return true;
            std::string text;
            if (!properties.param(key, text))
                return false;
            if (!m_enum.stringToEnum) {
                VELMORIA_LOG_ERROR(
                    logCategory(),
                    "Enum Parameter `{}` is stored as string, but no string to enum function was given. "
                    "Please "
                    "instantiate your Enum Parameter as e.g. `AdvancedParameter<MyEnumClass, MyParentClass> "
                    "p_myParam = {{\"name\", MyEnumClass::FirstValue, this, ParamRequired::No, "
                    "myEnumToStringLambda, myStringToEnumLambda, {{\"FirstValue\", \"SecondValue\", "
                    "\"ThirdValue\"}}}};",
                    this->name());
                return false;
            }
            try {
                out = m_enum.stringToEnum(text);
                return true;
            } catch (std::exception const& e) {
                // The converter's text names the accepted values; the caller adds which key failed.
                VELMORIA_LOG_ERROR(logCategory(), "{}", e.what());
                return false;
            }
        } else {
            return properties.param(key, out);
        }
    }

    // False when enumToString refused the value; the caller then writes the integer form.
    bool writeEnumByName(Properties& properties) const requires std::is_enum_v<T>
    {
        std::string text;
        std::string defaultText;
        try {
            text = m_enum.enumToString(this->value());
            defaultText = m_enum.enumToString(this->defaultValue());
        } catch (std::exception const&) {
            return false;
        }
        std::string const& key = this->name();
        properties.setParam(key, text);
        this->writeMetadata(&properties, ParamType::Enumeration, std::move(defaultText));
        properties.setParamType(key, ParamType::withKind(properties.paramType(key), ParamType::Enumeration));
        if (!properties.paramAttribute(key, "values"))
            properties.addParamAttribute(key, "values", String::join(m_enum.values, ","));
        return true;
    }

    ParamRequired m_required;
    Owner* m_owner;
    [[no_unique_address]] detail::EnumTextForms<T> m_enum;
};

} // namespace Velmoria::ML
