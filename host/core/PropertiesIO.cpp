#include "host/core/PropertiesIO.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/String.h"

#include <pugixml.hpp>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <system_error>

namespace Velmoria {

namespace {

constexpr char const* kCategory = "Host.PropertiesIO";

// Whitespace-only text is a value when it is the only content of an element ("<item> </item>")
// and layout otherwise. Line ends are not normalised, so "\r" survives a round trip.
constexpr unsigned kParseFlags = (pugi::parse_default | pugi::parse_ws_pcdata_single) & ~pugi::parse_eol;

struct Position
{
    std::size_t line = 1;
    std::size_t column = 1;
};

Position positionOf(std::string_view buffer, std::ptrdiff_t offset)
{
    Position position;
    auto end = std::min<std::size_t>(offset < 0 ? 0 : static_cast<std::size_t>(offset), buffer.size());
    for (std::size_t i = 0; i < end; ++i) {
        if (buffer[i] == '\n') {
            ++position.line;
            position.column = 1;
        } else {
            ++position.column;
        }
    }
    return position;
}

bool isBlankText(char const* text)
{
    return String::trimView(text).empty();
}

// Maps XML elements onto a tree; stops at the first problem and keeps its description.
class Reader
{
public:
    Reader(std::string_view buffer, std::string source)
        : m_buffer(buffer)
        , m_source(std::move(source))
    {}

    std::string const& error() const { return m_error; }

    bool readTree(pugi::xml_node element, Properties& out)
    {
        for (pugi::xml_node child : element.children()) {
            if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) {
                if (!isBlankText(child.value()))
                    return fail(child, "text outside of a <param>");
                continue;
            }
            if (child.type() != pugi::node_element)
                continue;
            std::string_view name = child.name();
            if (name == "param") {
                if (!readParam(child, out))
                    return false;
            } else if (name == "property") {
                Properties* sub = out.addSubProperties(child.attribute("name").value());
                if (!readTree(child, *sub))
                    return false;
            } else {
                VELMORIA_LOG_WARNING(kCategory, "Ignoring unknown element <{}> in {} (line {})", name,
                                     m_source, line(child));
            }
        }
        return true;
    }

private:
    bool readParam(pugi::xml_node element, Properties& out)
    {
        pugi::xml_attribute nameAttribute = element.attribute("name");
        if (!nameAttribute)
            return fail(element, "<param> without a name");
        Properties::Param param;
        param.key = nameAttribute.value();

        if (pugi::xml_attribute type = element.attribute("type")) {
            if (!ValueText::parseNumber(type.value(), param.type))
                return fail(element,
                            "parameter '" + param.key + "' has the invalid type '" + type.value() + "'");
        }
        if (pugi::xml_attribute attributes = element.attribute("attributes")) {
            std::string why;
            if (!ValueText::parseAttributes(attributes.value(), param.attributes, &why))
                return fail(element, "parameter '" + param.key + "' has the invalid attributes '" +
                                         attributes.value() + "' (" + why + ")");
        }
        bool isList = false;
        if (pugi::xml_attribute list = element.attribute("list")) {
            if (!ValueText::parseBool(list.value(), isList))
                return fail(element,
                            "parameter '" + param.key + "' has the invalid list flag '" + list.value() + "'");
        }
        isList = isList || element.child("item");

        if (isList) {
            std::vector<std::string> items;
            for (pugi::xml_node child : element.children()) {
                if (child.type() == pugi::node_element && std::string_view(child.name()) == "item") {
                    std::string item;
                    if (!readText(child, item))
                        return false;
                    items.push_back(std::move(item));
                } else if (child.type() == pugi::node_element ||
                           ((child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) &&
                            !isBlankText(child.value()))) {
                    return fail(child,
                                "list parameter '" + param.key + "' holds something other than <item>s");
                }
            }
            param.value = ParamValue::fromList(std::move(items));
        } else {
            std::string text;
            if (!readText(element, text))
                return false;
            param.value = ParamValue::fromText(std::move(text));
        }

        if (out.contains(param.key))
            VELMORIA_LOG_WARNING(kCategory,
                                 "Parameter '{}' appears twice in {} (line {}); the later one is kept",
                                 param.key, m_source, line(element));
        out.setParamEntry(std::move(param));
        return true;
    }

    // The text content of an element that may hold only text.
    bool readText(pugi::xml_node element, std::string& out)
    {
        out.clear();
        for (pugi::xml_node child : element.children()) {
            if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
                out += child.value();
            else if (child.type() == pugi::node_element)
                return fail(child, std::string("unexpected element <") + child.name() +
                                       "> inside the value of <" + element.name() + ">");
        }
        return true;
    }

    std::size_t line(pugi::xml_node node) const { return positionOf(m_buffer, node.offset_debug()).line; }

    bool fail(pugi::xml_node node, std::string what)
    {
        m_error = what + " (line " + std::to_string(line(node)) + ")";
        return false;
    }

    std::string_view m_buffer;
    std::string m_source;
    std::string m_error;
};

// `source` names the input in messages: "'path'" or "XML text".
std::unique_ptr<Properties> parse(std::string_view xml, std::string const& source,
                                  std::string const& rootName)
{
    pugi::xml_document document;
    pugi::xml_parse_result result =
        document.load_buffer(xml.data(), xml.size(), kParseFlags, pugi::encoding_utf8);
    if (!result) {
        Position position = positionOf(xml, result.offset);
        VELMORIA_LOG_ERROR(kCategory,
                           "Could not load properties from {}: {} at offset {} (line {}, column {})", source,
                           result.description(), result.offset, position.line, position.column);
        return nullptr;
    }
    pugi::xml_node root = document.document_element();
    if (!root) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: there is no root element", source);
        return nullptr;
    }
    if (!rootName.empty() && rootName != root.name()) {
        VELMORIA_LOG_ERROR(kCategory,
                           "Could not load properties from {}: the root element is <{}>, expected <{}>",
                           source, root.name(), rootName);
        return nullptr;
    }
    if (pugi::xml_attribute version = root.attribute("version")) {
        // Later minor versions may add things a reader can skip; another major version cannot
        // be read as this one.
        if (!String::startsWith(version.value(), "1.") && std::string_view(version.value()) != "1") {
            VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: unsupported file version '{}'",
                               source, version.value());
            return nullptr;
        }
    }
    auto properties = std::make_unique<Properties>(root.attribute("name").value());
    Reader reader(xml, source);
    if (!reader.readTree(root, *properties)) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: {}", source, reader.error());
        return nullptr;
    }
    return properties;
}

void writeTree(pugi::xml_node element, Properties const& properties)
{
    for (Properties::Param const& param : properties.params()) {
        pugi::xml_node node = element.append_child("param");
        node.append_attribute("name").set_value(param.key.c_str());
        if (param.type != ParamType::Default)
            node.append_attribute("type").set_value(param.type);
        if (!param.attributes.empty())
            node.append_attribute("attributes")
                .set_value(ValueText::writeAttributes(param.attributes).c_str());
        if (param.value.isList()) {
            if (param.value.list->empty())
                node.append_attribute("list").set_value("true");
            for (std::string const& item : *param.value.list) {
                pugi::xml_node itemNode = node.append_child("item");
                if (!item.empty())
                    itemNode.append_child(pugi::node_pcdata).set_value(item.c_str());
            }
        } else if (!param.value.text.empty()) {
            node.append_child(pugi::node_pcdata).set_value(param.value.text.c_str());
        }
    }
    for (Properties const* sub : properties.subProperties()) {
        pugi::xml_node node = element.append_child("property");
        if (!sub->name().empty())
            node.append_attribute("name").set_value(sub->name().c_str());
        writeTree(node, *sub);
    }
}

std::string describeFile(std::string const& path)
{
    return "'" + path + "'";
}

} // namespace

std::unique_ptr<Properties> PropertiesIO::loadFromXML(std::string const& path, std::string const& rootName)
{
    std::string const source = describeFile(path);
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: the file does not exist", source);
        return nullptr;
    }
    if (!std::filesystem::is_regular_file(path, error)) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: it is not a regular file", source);
        return nullptr;
    }
    std::optional<std::string> text = Filesystem::File(path).readText();
    if (!text) {
        VELMORIA_LOG_ERROR(kCategory, "Could not load properties from {}: the file could not be read",
                           source);
        return nullptr;
    }
    return parse(*text, source, rootName);
}

bool PropertiesIO::loadFromXML(Properties& out, std::string const& path, std::string const& rootName)
{
    std::unique_ptr<Properties> properties = loadFromXML(path, rootName);
    if (!properties)
        return false;
    out = std::move(*properties);
    return true;
}

std::unique_ptr<Properties> PropertiesIO::loadFromXMLString(std::string_view xml, std::string const& rootName)
{
    return parse(xml, "XML text", rootName);
}

bool PropertiesIO::loadFromXMLString(Properties& out, std::string_view xml, std::string const& rootName)
{
    std::unique_ptr<Properties> properties = loadFromXMLString(xml, rootName);
    if (!properties)
        return false;
    out = std::move(*properties);
    return true;
}

std::string PropertiesIO::saveToXMLString(Properties const& properties, int format,
                                          std::string const& rootName)
{
    pugi::xml_document document;
    pugi::xml_node root = document.append_child(rootName.empty() ? DefaultRootName : rootName.c_str());
    root.append_attribute("version").set_value(FileVersion);
    if (!properties.name().empty())
        root.append_attribute("name").set_value(properties.name().c_str());
    writeTree(root, properties);

    std::ostringstream stream;
    unsigned const flags = format == Compact ? pugi::format_raw : pugi::format_indent;
    document.save(stream, "    ", flags, pugi::encoding_utf8);
    return stream.str();
}

bool PropertiesIO::saveToXML(Properties const& properties, std::string const& path, int format,
                             std::string const& rootName)
{
    if (path.empty()) {
        VELMORIA_LOG_ERROR(kCategory, "Could not save properties: the file path is empty");
        return false;
    }
    // File::writeText writes a temporary file beside the target and renames it over the target.
    if (!Filesystem::File(path).writeText(saveToXMLString(properties, format, rootName))) {
        VELMORIA_LOG_ERROR(kCategory, "Could not save properties to {}", describeFile(path));
        return false;
    }
    return true;
}

} // namespace Velmoria
