#include "host/core/Properties.h"

#include "host/core/Log.h"

#include <algorithm>

namespace Velmoria {

namespace {
constexpr char const* kCategory = "Host.Properties";
}

Properties::Properties() = default;

Properties::Properties(std::string name)
    : m_name(std::move(name))
{}

Properties::Properties(std::initializer_list<std::pair<std::string, PropertiesDetail::StringAccepter>> values)
{
    for (auto const& [key, accepter] : values)
        storeValue(key, accepter.value(), accepter.kind());
}

Properties::Properties(Properties const& other)
    : m_name(other.m_name)
    , m_params(other.m_params)
{
    m_subProperties.reserve(other.m_subProperties.size());
    for (auto const& sub : other.m_subProperties)
        m_subProperties.push_back(std::make_unique<Properties>(*sub));
}

Properties::Properties(Properties&& other) noexcept = default;

Properties& Properties::operator=(Properties const& other)
{
    if (this != &other) {
        Properties copy(other);
        *this = std::move(copy);
    }
    return *this;
}

Properties& Properties::operator=(Properties&& other) noexcept = default;

Properties::~Properties() = default;

// ---- Values -------------------------------------------------------------------------------------

Properties::Param* Properties::find(std::string_view key)
{
    auto it = std::find_if(m_params.begin(), m_params.end(), [key](Param const& p) { return p.key == key; });
    return it == m_params.end() ? nullptr : &*it;
}

Properties::Param const* Properties::findParam(std::string_view key) const
{
    return const_cast<Properties*>(this)->find(key);
}

void Properties::storeValue(std::string_view key, ParamValue value, int kind)
{
    Param* param = find(key);
    if (!param) {
        m_params.push_back(Param{std::string(key), std::move(value), kind, {}});
        return;
    }
    param->value = std::move(value);
    if (ParamType::kind(param->type) == ParamType::Default)
        param->type = ParamType::withKind(param->type, kind);
}

void Properties::setDefaultAttribute(std::string_view key, std::string text)
{
    Param* param = find(key);
    if (!param)
        return;
    for (auto& [name, value] : param->attributes) {
        if (name == "default") {
            value = std::move(text);
            return;
        }
    }
    param->attributes.emplace_back("default", std::move(text));
}

void Properties::setParam(std::string_view key, char const* text)
{
    storeValue(key, ParamValue::fromText(text ? text : ""), ParamType::String);
}

void Properties::setParam(std::string_view key, std::string const& text, char const* defaultText)
{
    storeValue(key, ParamValue::fromText(text), ParamType::String);
    setDefaultAttribute(key, defaultText ? defaultText : "");
}

void Properties::setParamValue(std::string_view key, ParamValue value)
{
    storeValue(key, std::move(value), ParamType::Default);
}

void Properties::setParamEntry(Param entry)
{
    if (Param* param = find(entry.key))
        *param = std::move(entry);
    else
        m_params.push_back(std::move(entry));
}

ParamValue const* Properties::paramValue(std::string_view key) const
{
    Param const* param = findParam(key);
    return param ? &param->value : nullptr;
}

std::string Properties::paramValueText(std::string_view key) const
{
    Param const* param = findParam(key);
    return param && !param->value.isList() ? param->value.text : std::string();
}

bool Properties::paramIsList(std::string_view key) const
{
    Param const* param = findParam(key);
    return param && param->value.isList();
}

bool Properties::removeParam(std::string_view key)
{
    auto it = std::find_if(m_params.begin(), m_params.end(), [key](Param const& p) { return p.key == key; });
    if (it == m_params.end())
        return false;
    m_params.erase(it);
    return true;
}

bool Properties::renameParam(std::string_view oldKey, std::string_view newKey)
{
    Param* param = find(oldKey);
    if (!param)
        return false;
    if (oldKey == newKey)
        return true;
    if (find(newKey))
        return false;
    param->key = std::string(newKey);
    return true;
}

std::vector<std::string> Properties::paramKeys() const
{
    std::vector<std::string> keys;
    keys.reserve(m_params.size());
    for (Param const& param : m_params)
        keys.push_back(param.key);
    return keys;
}

// ---- Types and attributes -----------------------------------------------------------------------

int Properties::paramType(std::string_view key) const
{
    Param const* param = findParam(key);
    return param ? param->type : ParamType::Default;
}

bool Properties::setParamType(std::string_view key, int type)
{
    Param* param = find(key);
    if (!param)
        return false;
    param->type = type;
    return true;
}

ParamAttributes Properties::paramAttributes(std::string_view key) const
{
    Param const* param = findParam(key);
    return param ? param->attributes : ParamAttributes{};
}

std::optional<std::string> Properties::paramAttribute(std::string_view key, std::string_view name) const
{
    Param const* param = findParam(key);
    if (!param)
        return std::nullopt;
    for (auto const& [attributeName, value] : param->attributes)
        if (attributeName == name)
            return value;
    return std::nullopt;
}

void Properties::applyHiddenAttribute(Param& param)
{
    // The last "hidden" entry decides, as later entries override earlier ones everywhere else.
    for (auto it = param.attributes.rbegin(); it != param.attributes.rend(); ++it) {
        if (it->first != "hidden")
            continue;
        bool hidden = false;
        if (ValueText::parseBool(it->second, hidden))
            param.type = hidden ? (param.type | ParamType::Hidden) : (param.type & ~ParamType::Hidden);
        return;
    }
}

bool Properties::setParamAttributes(std::string_view key, std::string_view attributeText)
{
    Param* param = find(key);
    if (!param)
        return false;
    ParamAttributes attributes;
    std::string error;
    if (!ValueText::parseAttributes(attributeText, attributes, &error)) {
        VELMORIA_LOG_WARNING(kCategory, "Could not read the attributes '{}' of parameter '{}': {}",
                             attributeText, key, error);
        return false;
    }
    param->attributes = std::move(attributes);
    applyHiddenAttribute(*param);
    return true;
}

bool Properties::setParamAttributes(std::string_view key, ParamAttributes attributes)
{
    Param* param = find(key);
    if (!param)
        return false;
    param->attributes = std::move(attributes);
    applyHiddenAttribute(*param);
    return true;
}

bool Properties::addParamAttribute(std::string_view key, std::string name, std::string value)
{
    Param* param = find(key);
    if (!param)
        return false;
    param->attributes.emplace_back(std::move(name), std::move(value));
    applyHiddenAttribute(*param);
    return true;
}

bool Properties::setAttributes(std::vector<std::pair<std::string, std::string>> const& keyAttributeTexts)
{
    bool ok = true;
    for (auto const& [key, text] : keyAttributeTexts)
        ok = setParamAttributes(key, std::string_view(text)) && ok;
    return ok;
}

// ---- Whole tree and sub-trees -------------------------------------------------------------------

void Properties::clear()
{
    m_params.clear();
    m_subProperties.clear();
}

Properties* Properties::addSubProperties(std::string name)
{
    return addSubProperties(std::make_unique<Properties>(std::move(name)));
}

Properties* Properties::addSubProperties(std::unique_ptr<Properties> properties)
{
    if (!properties)
        return nullptr;
    m_subProperties.push_back(std::move(properties));
    return m_subProperties.back().get();
}

Properties* Properties::insertSubProperties(std::unique_ptr<Properties> properties, int index)
{
    if (!properties)
        return nullptr;
    auto position = std::clamp<std::ptrdiff_t>(index, 0, static_cast<std::ptrdiff_t>(m_subProperties.size()));
    return m_subProperties.insert(m_subProperties.begin() + position, std::move(properties))->get();
}

std::vector<Properties*> Properties::subProperties()
{
    std::vector<Properties*> result;
    result.reserve(m_subProperties.size());
    for (auto const& sub : m_subProperties)
        result.push_back(sub.get());
    return result;
}

std::vector<Properties const*> Properties::subProperties() const
{
    std::vector<Properties const*> result;
    result.reserve(m_subProperties.size());
    for (auto const& sub : m_subProperties)
        result.push_back(sub.get());
    return result;
}

std::vector<Properties*> Properties::subProperties(std::string_view name)
{
    std::vector<Properties*> result;
    for (auto const& sub : m_subProperties)
        if (sub->m_name == name)
            result.push_back(sub.get());
    return result;
}

std::vector<Properties const*> Properties::subProperties(std::string_view name) const
{
    std::vector<Properties const*> result;
    for (auto const& sub : m_subProperties)
        if (sub->m_name == name)
            result.push_back(sub.get());
    return result;
}

Properties* Properties::subProperties(std::string_view name, bool create)
{
    for (auto const& sub : m_subProperties)
        if (sub->m_name == name)
            return sub.get();
    return create ? addSubProperties(std::string(name)) : nullptr;
}

Properties const* Properties::findSubProperties(std::string_view name) const
{
    for (auto const& sub : m_subProperties)
        if (sub->m_name == name)
            return sub.get();
    return nullptr;
}

bool Properties::deleteSubProperty(Properties const* properties)
{
    return extractSubProperty(properties) != nullptr;
}

std::unique_ptr<Properties> Properties::extractSubProperty(Properties const* properties)
{
    auto it = std::find_if(m_subProperties.begin(), m_subProperties.end(),
                           [properties](auto const& sub) { return sub.get() == properties; });
    if (properties == nullptr || it == m_subProperties.end())
        return nullptr;
    std::unique_ptr<Properties> result = std::move(*it);
    m_subProperties.erase(it);
    return result;
}

void Properties::removeEmptySubProperties()
{
    for (auto const& sub : m_subProperties)
        sub->removeEmptySubProperties();
    std::erase_if(m_subProperties, [](auto const& sub) { return sub->isEmpty(); });
}

// ---- Merging and comparing ----------------------------------------------------------------------

void Properties::copyFrom(Properties const& other, int flags,
                          std::function<bool(std::string_view)> const& filter)
{
    if (&other == this) {
        // Appending our own sub-trees while walking them would never end; work on a snapshot.
        Properties snapshot(other);
        copyFrom(snapshot, flags, filter);
        return;
    }
    if (flags & CopyName)
        m_name = other.m_name;

    for (Param const& source : other.m_params) {
        if (filter && !filter(source.key))
            continue;
        Param* target = find(source.key);
        if (!target) {
            if (!(flags & CopyValues))
                continue;
            m_params.push_back(Param{source.key, source.value, ParamType::Default, {}});
            target = &m_params.back();
        } else if (flags & CopyValues) {
            target->value = source.value;
        }
        if (flags & CopyTypes)
            target->type = source.type;
        if (flags & CopyAttributes)
            target->attributes = source.attributes;
    }

    if (!(flags & (CopySubProperties | MergeSubProperties)))
        return;
    // The targets are looked up among the sub-trees that were here before, so two same-named
    // trees of `other` never merge into one.
    std::vector<Properties*> existing = subProperties();
    for (auto const& sub : other.m_subProperties) {
        if (flags & MergeSubProperties) {
            std::size_t occurrence = 0;
            for (auto const& earlier : other.m_subProperties) {
                if (earlier.get() == sub.get())
                    break;
                if (earlier->m_name == sub->m_name)
                    ++occurrence;
            }
            Properties* target = nullptr;
            for (Properties* candidate : existing) {
                if (candidate->m_name != sub->m_name)
                    continue;
                if (occurrence == 0) {
                    target = candidate;
                    break;
                }
                --occurrence;
            }
            if (target) {
                target->copyFrom(*sub, flags & ~CopyName);
                continue;
            }
        }
        m_subProperties.push_back(std::make_unique<Properties>(*sub));
    }
}

bool Properties::compareWith(Properties const& other, int flags) const
{
    if ((flags & CompareName) && m_name != other.m_name)
        return false;
    if (m_params.size() != other.m_params.size() || m_subProperties.size() != other.m_subProperties.size())
        return false;
    // Keys are unique and the counts equal, so finding each of ours there proves equal key sets.
    for (std::size_t i = 0; i < m_params.size(); ++i) {
        Param const& mine = m_params[i];
        Param const* theirs = (flags & CompareOrder) ? &other.m_params[i] : other.findParam(mine.key);
        if (!theirs || theirs->key != mine.key || theirs->value != mine.value)
            return false;
        if ((flags & CompareTypes) && theirs->type != mine.type)
            return false;
        if ((flags & CompareAttributes) && theirs->attributes != mine.attributes)
            return false;
    }
    for (std::size_t i = 0; i < m_subProperties.size(); ++i)
        if (!m_subProperties[i]->compareWith(*other.m_subProperties[i], flags | CompareName))
            return false;
    return true;
}

std::string Properties::describe() const
{
    std::string out;
    describe(out, 0);
    return out;
}

void Properties::describe(std::string& out, int depth) const
{
    std::string const indent(static_cast<std::size_t>(depth) * 4, ' ');
    out += indent + "'" + m_name + "'\n";
    for (Param const& param : m_params) {
        out += indent + "    " + param.key + " = ";
        if (param.value.isList()) {
            out += "[";
            for (std::size_t i = 0; i < param.value.list->size(); ++i)
                out += (i > 0 ? ", \"" : "\"") + (*param.value.list)[i] + "\"";
            out += "]";
        } else
            out += "\"" + param.value.text + "\"";
        if (param.type != ParamType::Default)
            out += " type " + std::to_string(param.type);
        if (!param.attributes.empty())
            out += " {" + ValueText::writeAttributes(param.attributes) + "}";
        out += '\n';
    }
    for (auto const& sub : m_subProperties)
        sub->describe(out, depth + 1);
}

} // namespace Velmoria
