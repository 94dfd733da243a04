#include "host/core/Parameter.h"

#include "host/core/Log.h"
#include "host/core/String.h"

#include <algorithm>

namespace Velmoria {

namespace {
constexpr char const* kCategory = "Host.Parameter";
}

ParameterBase::ParameterBase(std::string name, Configurable* parent)
    : m_name(std::move(name))
{
    if (parent)
        parent->registerParameter(this);
}

ParameterBase::ParameterBase(ParameterBase const& other)
    : m_name(other.m_name)
    , m_label(other.m_label)
    , m_attributes(other.m_attributes)
    , m_deprecatedNames(other.m_deprecatedNames)
    , m_type(other.m_type)
{
    Configurable::adoptCopiedParameter(this, other);
}

ParameterBase& ParameterBase::operator=(ParameterBase const& other)
{
    m_label = other.m_label;
    m_attributes = other.m_attributes;
    m_deprecatedNames = other.m_deprecatedNames;
    m_type = other.m_type;
    return *this;
}

ParameterBase::~ParameterBase()
{
    if (m_parent)
        m_parent->unregisterParameter(this);
}

void ParameterBase::setAttribute(std::string key, std::string value)
{
    for (auto& [name, existing] : m_attributes) {
        if (name == key) {
            existing = std::move(value);
            return;
        }
    }
    m_attributes.emplace_back(std::move(key), std::move(value));
}

void ParameterBase::addDeprecatedName(std::string name)
{
    if (name.empty() || name == m_name ||
        std::find(m_deprecatedNames.begin(), m_deprecatedNames.end(), name) != m_deprecatedNames.end())
        return;
    m_deprecatedNames.push_back(std::move(name));
}

void ParameterBase::setParentFromCopy(ParameterBase const& other, Configurable* newParent)
{
    if (&other != this) {
        ParameterBase::operator=(other);
        copyValueFrom(other);
    }
    if (newParent)
        newParent->registerParameter(this);
}

void ParameterBase::writeMetadata(Properties* properties, int valueKind, std::string defaultText) const
{
    int type = m_type;
    if (ParamType::kind(type) == ParamType::Default)
        type = ParamType::withKind(type, valueKind);
    properties->setParamType(m_name, type);

    ParamAttributes attributes;
    if (!m_label.empty())
        attributes.emplace_back("label", m_label);
    attributes.insert(attributes.end(), m_attributes.begin(), m_attributes.end());
    for (std::string const& old : m_deprecatedNames)
        attributes.emplace_back("deprecatedName", old);
    attributes.emplace_back("default", std::move(defaultText));
    properties->setParamAttributes(m_name, std::move(attributes));
}

void ParameterBase::warnUnreadable(Properties const& properties, std::string const& key,
                                   std::string const& typeName) const
{
    ParamValue const* value = properties.paramValue(key);
    std::string text;
    if (value && value->isList())
        text = "[" + String::join(*value->list, ", ") + "]";
    else if (value)
        text = value->text;
    VELMORIA_LOG_WARNING(kCategory, "Could not read parameter '{}': '{}' is not a valid {}", key, text,
                         typeName);
}

void ParameterBase::noteDeprecatedUse(std::string const& key) const
{
    VELMORIA_LOG_WARNING(kCategory, "Using deprecated parameter '{}'. Please use '{}' instead.", key, m_name);
}

} // namespace Velmoria
