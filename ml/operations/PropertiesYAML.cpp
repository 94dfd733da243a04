#include "ml/operations/PropertiesYAML.h"

#include "host/core/Filesystem.h"
#include "host/core/Log.h"
#include "host/core/Resource.h"
#include "host/core/String.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <filesystem>
#include <locale>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Velmoria::ML {

namespace {

constexpr char const* Category = "ML.PropertiesYAML";

// ---------------------------------------------------------------------------------------------
// Reading

// YAML aliases let a few lines stand for billions of nodes ("billion laughs"): every walk over
// the parsed tree pays one unit per node it visits, from a budget far above any real model file
// or processing list, and stops with an error when it is spent.
constexpr std::int64_t kNodeBudget = 10'000'000;
thread_local std::int64_t t_nodesLeft = kNodeBudget;

void visitNode()
{
    if (--t_nodesLeft < 0)
        throw std::runtime_error(fmt::format("the YAML expands to more than {} values; aliases that repeat "
                                             "aliases are refused",
                                             kNodeBudget));
}

// The text of a scalar; "" for a null node (yaml-cpp turns "~" and "null" into null nodes).
std::string scalarText(YAML::Node const& node)
{
    return node.IsScalar() ? node.Scalar() : std::string();
}

// True when `text` holds one or more numbers and nothing else, read the way a C++ stream reads
// floating-point numbers. The classic locale keeps "1.5" a number whatever the user's locale.
bool holdsOnlyNumbers(std::string const& text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    double value = 0.0;
    int count = 0;
    while (stream >> value)
        ++count;
    return count > 0 && stream.eof();
}

// Scalars and nulls are simple, maps are not; a sequence is simple when its elements are and
// every nested sequence has the style `style` (when one is given). A block list of flow rows is
// therefore not simple, and is read as sub-trees rather than as a matrix.
bool isSimple(YAML::Node const& node, std::optional<YAML::EmitterStyle::value> style = std::nullopt)
{
    visitNode();
    if (node.IsMap())
        return false;
    if (!node.IsSequence())
        return true;
    if (style && node.Style() != *style)
        return false;
    for (auto const& element : node)
        if (!isSimple(element, style))
            return false;
    return true;
}

bool isNumericSequence(YAML::Node const& node)
{
    visitNode();
    for (auto const& element : node) {
        if (element.IsSequence()) {
            if (!isNumericSequence(element))
                return false;
        } else if (!element.IsScalar() || !holdsOnlyNumbers(element.Scalar())) {
            return false;
        }
    }
    return true;
}

// The numbers of a numeric node at any depth, as their texts.
void appendNumberTokens(YAML::Node const& node, std::vector<std::string>& tokens)
{
    visitNode();
    if (node.IsSequence()) {
        for (auto const& element : node)
            appendNumberTokens(element, tokens);
    } else {
        auto parts = String::splitWhitespace(node.Scalar());
        tokens.insert(tokens.end(), parts.begin(), parts.end());
    }
}

void appendScalarTexts(YAML::Node const& node, std::vector<std::string>& texts)
{
    visitNode();
    if (node.IsSequence()) {
        for (auto const& element : node)
            appendScalarTexts(element, texts);
    } else {
        texts.push_back(scalarText(node));
    }
}

// A simple sequence value: numbers as the text form of a vector ("1 2 3") or a matrix
// ("[1 2, 3 4]"), anything else as a list value.
void storeSequence(Properties& properties, std::string const& key, YAML::Node const& sequence)
{
    if (!isNumericSequence(sequence)) {
        std::vector<std::string> items;
        appendScalarTexts(sequence, items);
        properties.setParam(key, items);
        return;
    }
    bool const isMatrix = sequence.size() > 0 && sequence.begin()->IsSequence();
    if (!isMatrix) {
        std::vector<std::string> tokens;
        appendNumberTokens(sequence, tokens);
        properties.setParam(key, String::join(tokens, " "));
        return;
    }
    std::vector<std::string> rows;
    for (auto const& row : sequence) {
        std::vector<std::string> tokens;
        appendNumberTokens(row, tokens);
        rows.push_back(String::join(tokens, " "));
    }
    properties.setParam(key, "[" + String::join(rows, ", ") + "]");
}

void insertNode(YAML::Node const& node, Properties& properties, bool nameFromFirstKey)
{
    visitNode();
    if (node.IsSequence()) {
        for (auto const& element : node)
            insertNode(element, *properties.addSubProperties(""), true);
        return;
    }
    if (!node.IsMap()) {
        properties.setName(scalarText(node));
        return;
    }

    // "Name: {parameters}": the one key names the tree, or opens a sub-tree of a named one.
    if (node.size() == 1) {
        auto const entry = *node.begin();
        YAML::Node const value = entry.second;
        if (!isSimple(value, value.Style())) {
            auto const key = entry.first.as<std::string>();
            if (key == PropertiesYAML::SubPropertiesKey) {
                insertNode(value, properties, false);
            } else if (properties.name().empty()) {
                properties.setName(key);
                insertNode(value, properties, false);
            } else {
                insertNode(value, *properties.addSubProperties(key), false);
            }
            return;
        }
    }

    for (auto const& entry : node) {
        auto const key = entry.first.as<std::string>();
        YAML::Node const value = entry.second;
        if (key == PropertiesYAML::SubPropertiesKey) {
            insertNode(value, properties, false);
            continue;
        }
        // The first key of a list item names the item, and still stores its value below.
        if (properties.name().empty() && nameFromFirstKey)
            properties.setName(key);
        if (!isSimple(value, value.Style()))
            insertNode(value, *properties.addSubProperties(key), false);
        else if (value.IsNull())
            continue;
        else if (value.IsSequence())
            storeSequence(properties, key, value);
        else
            properties.setParam(key, value.Scalar());
    }
}

// ---------------------------------------------------------------------------------------------
// Writing

// yaml-cpp's emitter decides whether a text can stand plain or needs quotes ("a: b", "~",
// " x", "[1"), and how lists must be quoted inside brackets; writing those rules by hand would
// duplicate the YAML grammar.
std::string emitScalar(std::string const& text)
{
    if (text.empty())
        return "\"\"";
    YAML::Emitter emitter;
    emitter << text;
    return emitter.c_str();
}

std::string emitList(std::vector<std::string> const& items)
{
    YAML::Emitter emitter;
    emitter << YAML::Flow << YAML::BeginSeq;
    for (auto const& item : items)
        emitter << item;
    emitter << YAML::EndSeq;
    return emitter.c_str();
}

// The rows of a matrix text "[1 0, 0 1]" when it is one (bracketed, every entry a number).
std::optional<std::vector<std::vector<std::string>>> matrixRows(std::string const& text)
{
    if (text.size() < 2 || text.front() != '[' || text.back() != ']')
        return std::nullopt;
    ValueText::Detail::Rows rows;
    if (!ValueText::Detail::splitRows(text, rows) || rows.rows.empty())
        return std::nullopt;
    std::vector<std::vector<std::string>> result;
    for (auto const& row : rows.rows) {
        auto& out = result.emplace_back();
        for (auto token : row) {
            out.emplace_back(token);
            if (!holdsOnlyNumbers(out.back()))
                return std::nullopt;
        }
    }
    return result;
}

std::string emitValue(ParamValue const& value)
{
    if (value.isList())
        return emitList(*value.list);
    if (auto rows = matrixRows(value.text)) {
        YAML::Emitter emitter;
        emitter << YAML::Flow << YAML::BeginSeq;
        for (auto const& row : *rows) {
            emitter << YAML::BeginSeq;
            for (auto const& number : row)
                emitter << number;
            emitter << YAML::EndSeq;
        }
        emitter << YAML::EndSeq;
        return emitter.c_str();
    }
    return emitScalar(value.text);
}

bool isWritten(Properties::Param const& param)
{
    return !ParamType::isHidden(param.type) && ParamType::kind(param.type) != ParamType::Label;
}

std::string indentation(int level)
{
    return std::string(static_cast<std::size_t>(level * PropertiesYAML::IndentWidth), ' ');
}

void writeTree(Properties const& properties, int level, std::string& out)
{
    bool hasParams = false;
    for (auto const& param : properties.params())
        hasParams = hasParams || isWritten(param);
    bool const hasSubProperties = properties.subPropertiesCount() > 0;

    int contentLevel = level;
    if (!properties.name().empty()) {
        out += indentation(level) + emitScalar(properties.name());
        if (hasParams || hasSubProperties)
            out += ':';
        out += '\n';
        contentLevel = level + 1;
    }
    for (auto const& param : properties.params())
        if (isWritten(param))
            out += indentation(contentLevel) + emitScalar(param.key) + ": " + emitValue(param.value) + '\n';
    if (!hasSubProperties)
        return;

    out += indentation(contentLevel) + PropertiesYAML::SubPropertiesKey + ":\n";
    int const itemLevel = contentLevel + 1;
    std::size_t const dashColumn = static_cast<std::size_t>(itemLevel * PropertiesYAML::IndentWidth - 2);
    for (auto const* sub : properties.subProperties()) {
        std::string item;
        writeTree(*sub, itemLevel, item);
        if (item.empty())
            item = indentation(itemLevel) + "{}\n"; // an unnamed tree with nothing to write
        item.replace(dashColumn, 2, "- ");
        out += item;
    }
}

std::unique_ptr<Properties> loadText(std::string const& text, std::string const& source, char const* what)
{
    auto properties = PropertiesYAML::createFromString(text);
    if (!properties) {
        VELMORIA_LOG_ERROR(Category, "Could not read the YAML of '{}'", source);
        return nullptr;
    }
    VELMORIA_LOG_DEBUG(Category, "{}", what);
    return properties;
}

} // namespace

std::unique_ptr<Properties> PropertiesYAML::createFromString(std::string const& text)
{
    YAML::Node node;
    try {
        std::istringstream stream(text);
        node = YAML::Load(stream);
    } catch (std::exception const& e) {
        VELMORIA_LOG_ERROR(Category, "Yaml Parse error: {}", e.what());
        return nullptr;
    }
    return createFromNode(node);
}

std::unique_ptr<Properties> PropertiesYAML::createFromFile(std::string const& path)
{
    Filesystem::File file(path);
    if (!file.exists()) {
        VELMORIA_LOG_ERROR(Category, "Couldn't open file {}\n", path);
        return nullptr;
    }
    // Model files and processing lists are a few kB; a file of this size is not one of them, and
    // parsing it would take the memory of the machine.
    constexpr std::uintmax_t kLargest = 64u << 20;
    std::error_code error;
    if (auto const size = std::filesystem::file_size(path, error); !error && size > kLargest) {
        VELMORIA_LOG_ERROR(Category,
                           "Could not read the YAML of '{}': it is {} MiB, above the {} MiB that are read",
                           path, size >> 20, kLargest >> 20);
        return nullptr;
    }
    auto text = file.readText();
    if (!text)
        return nullptr; // the file layer logged why
    return loadText(*text, path, "Loading from File");
}

std::unique_ptr<Properties> PropertiesYAML::createFromResource(std::string const& name, bool reportMissing)
{
    if (!reportMissing && !Resource::locate(name))
        return nullptr;
    auto bytes = Resource::query(name);
    if (!bytes) {
        VELMORIA_LOG_ERROR(Category, "Couldn't open file Resource {}\n", name);
        return nullptr;
    }
    return loadText(bytes->toString(), name, "Loading from Resource");
}

std::unique_ptr<Properties> PropertiesYAML::createFromResourceOrFile(std::string const& path)
{
    if (Filesystem::Path(path).isAbsolute())
        return createFromFile(path);
    return createFromResource(path);
}

std::unique_ptr<Properties> PropertiesYAML::createFromNode(YAML::Node const& node)
{
    if (!node.IsDefined()) {
        VELMORIA_LOG_ERROR(Category, "YAML node is not defined");
        return nullptr;
    }
    auto properties = std::make_unique<Properties>();
    try {
        t_nodesLeft = kNodeBudget;
        insertNode(node, *properties, true);
    } catch (std::exception const& e) {
        // A tree cut off at the failing key would silently lose every key after it: a text that
        // cannot be converted whole is refused.
        VELMORIA_LOG_ERROR(Category, "Failed to create Properties from YAML: {}", e.what());
        return nullptr;
    }
    return properties;
}

std::string PropertiesYAML::saveToString(Properties const& properties)
{
    std::string out;
    writeTree(properties, 0, out);
    return out;
}

bool PropertiesYAML::saveToFile(Properties const& properties, std::string const& path)
{
    return Filesystem::File(path).writeText(saveToString(properties));
}

} // namespace Velmoria::ML
