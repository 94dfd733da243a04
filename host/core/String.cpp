#include "host/core/String.h"

#include <algorithm>
#include <cctype>

namespace Velmoria::String {

namespace {
constexpr std::string_view kWhitespace = " \t\r\n\f\v";

char lower(char c)
{
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}
char upper(char c)
{
    return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
}
} // namespace

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

bool startsWith(std::string_view text, std::string_view prefix)
{
    return text.starts_with(prefix);
}

bool endsWith(std::string_view text, std::string_view suffix)
{
    return text.ends_with(suffix);
}

std::string replaceAllCopy(std::string_view text, std::string_view from, std::string_view to)
{
    if (from.empty())
        return std::string(text);
    std::string result;
    result.reserve(text.size());
    std::size_t position = 0;
    while (true) {
        std::size_t found = text.find(from, position);
        if (found == std::string_view::npos)
            break;
        result.append(text.substr(position, found - position));
        result.append(to);
        position = found + from.size();
    }
    result.append(text.substr(position));
    return result;
}

std::vector<std::string> split(std::string_view text, std::string_view delimiter, bool skipEmpty)
{
    std::vector<std::string> parts;
    if (delimiter.empty()) {
        if (!(skipEmpty && text.empty()))
            parts.emplace_back(text);
        return parts;
    }
    std::size_t position = 0;
    while (true) {
        std::size_t found = text.find(delimiter, position);
        std::string_view part = text.substr(position, found == std::string_view::npos ? std::string_view::npos
                                                                                      : found - position);
        if (!(skipEmpty && part.empty()))
            parts.emplace_back(part);
        if (found == std::string_view::npos)
            break;
        position = found + delimiter.size();
    }
    return parts;
}

std::vector<std::string> split(std::string_view text, char delimiter, bool skipEmpty)
{
    return split(text, std::string_view(&delimiter, 1), skipEmpty);
}

std::vector<std::string> splitWhitespace(std::string_view text)
{
    std::vector<std::string> parts;
    std::size_t position = text.find_first_not_of(kWhitespace);
    while (position != std::string_view::npos) {
        std::size_t end = text.find_first_of(kWhitespace, position);
        parts.emplace_back(text.substr(position, end == std::string_view::npos ? end : end - position));
        position = end == std::string_view::npos ? end : text.find_first_not_of(kWhitespace, end);
    }
    return parts;
}

std::string join(std::vector<std::string> const& parts, std::string_view separator)
{
    std::string result;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i > 0)
            result.append(separator);
        result.append(parts[i]);
    }
    return result;
}

std::string toLowerCopy(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

std::string toUpperCopy(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), upper);
    return result;
}

std::string_view trimView(std::string_view text)
{
    std::size_t first = text.find_first_not_of(kWhitespace);
    if (first == std::string_view::npos)
        return {};
    std::size_t last = text.find_last_not_of(kWhitespace);
    return text.substr(first, last - first + 1);
}

void trim(std::string& text)
{
    text = std::string(trimView(text));
}

std::string trimCopy(std::string_view text)
{
    return std::string(trimView(text));
}

bool equalsIgnoreCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

} // namespace Velmoria::String
