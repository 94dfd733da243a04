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

namespace {

// Optimal string alignment distance (Damerau-Levenshtein without repeated edits of one
// substring). Keys are short, so the O(n·m) table is cheap; written here because no packaged
// library offers it without pulling in far more than a dozen lines.
std::size_t editDistance(std::string_view a, std::string_view b)
{
    std::size_t const n = a.size();
    std::size_t const m = b.size();
    std::vector<std::size_t> table((n + 1) * (m + 1));
    auto at = [&](std::size_t i, std::size_t j) -> std::size_t& { return table[i * (m + 1) + j]; };
    auto lower = [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); };
    for (std::size_t i = 0; i <= n; ++i)
        at(i, 0) = i;
    for (std::size_t j = 0; j <= m; ++j)
        at(0, j) = j;
    for (std::size_t i = 1; i <= n; ++i) {
        for (std::size_t j = 1; j <= m; ++j) {
            std::size_t const cost = lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1;
            at(i, j) = std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, at(i - 1, j - 1) + cost});
            if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) && lower(a[i - 2]) == lower(b[j - 1]))
                at(i, j) = std::min(at(i, j), at(i - 2, j - 2) + 1);
        }
    }
    return at(n, m);
}

} // namespace

std::string closestMatch(std::string_view word, std::vector<std::string> const& candidates)
{
    std::size_t const limit = std::max<std::size_t>(1, word.size() / 3);
    std::string best;
    std::size_t bestDistance = limit + 1;
    for (auto const& candidate : candidates) {
        std::size_t const distance = editDistance(word, candidate);
        if (distance < bestDistance) {
            bestDistance = distance;
            best = candidate;
        }
    }
    return best;
}

} // namespace Velmoria::String
