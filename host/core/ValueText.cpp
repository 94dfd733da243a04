#include "host/core/ValueText.h"

#include "host/core/String.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace Velmoria::ValueText {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

bool isBlank(char c)
{
    return kBlanks.find(c) != std::string_view::npos;
}

// Splits at runs of blanks and commas; commas separate numbers inside a bracketed row.
void appendTokens(std::string_view text, std::vector<std::string_view>& tokens)
{
    std::size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (isBlank(text[i]) || text[i] == ','))
            ++i;
        std::size_t start = i;
        while (i < text.size() && !isBlank(text[i]) && text[i] != ',')
            ++i;
        if (i > start)
            tokens.push_back(text.substr(start, i - start));
    }
}

// Index of the bracket closing the one at `open`, or npos when there is none or the brackets
// nest deeper than `maxDepth`.
std::size_t matchingBracket(std::string_view text, std::size_t open, int maxDepth)
{
    int depth = 0;
    for (std::size_t i = open; i < text.size(); ++i) {
        if (text[i] == '[') {
            if (++depth > maxDepth)
                return std::string_view::npos;
        } else if (text[i] == ']') {
            if (--depth == 0)
                return i;
        }
    }
    return std::string_view::npos;
}

} // namespace

bool parseBool(std::string_view text, bool& out)
{
    std::string_view t = String::trimView(text);
    if (t == "1" || String::equalsIgnoreCase(t, "true")) {
        out = true;
        return true;
    }
    if (t == "0" || String::equalsIgnoreCase(t, "false")) {
        out = false;
        return true;
    }
    return false;
}

template <class T>
bool parseNumber(std::string_view text, T& out)
{
    std::string_view t = String::trimView(text);
    if (!t.empty() && t.front() == '+') {
        // from_chars knows no '+'; a sign after it ("+-1") stays an error.
        t.remove_prefix(1);
        if (!t.empty() && (t.front() == '+' || t.front() == '-'))
            return false;
    }
    if (t.empty())
        return false;
    T value{};
    std::from_chars_result result;
    if constexpr (std::is_floating_point_v<T>)
        result = std::from_chars(t.data(), t.data() + t.size(), value, std::chars_format::general);
    else
        result = std::from_chars(t.data(), t.data() + t.size(), value, 10);
    if (result.ec != std::errc() || result.ptr != t.data() + t.size())
        return false;
    out = value;
    return true;
}

template <class T>
void appendNumber(std::string& out, T value)
{
    // Shortest form that reads back to the same value; 128 characters hold any long double.
    char buffer[128];
    std::to_chars_result result = std::to_chars(buffer, buffer + sizeof(buffer), value);
    out.append(buffer, result.ptr);
}

#define VELMORIA_VALUETEXT_NUMBER(T)                                                                         \
    template bool parseNumber<T>(std::string_view, T&);                                                      \
    template void appendNumber<T>(std::string&, T);

VELMORIA_VALUETEXT_NUMBER(char)
VELMORIA_VALUETEXT_NUMBER(signed char)
VELMORIA_VALUETEXT_NUMBER(unsigned char)
VELMORIA_VALUETEXT_NUMBER(short)
VELMORIA_VALUETEXT_NUMBER(unsigned short)
VELMORIA_VALUETEXT_NUMBER(int)
VELMORIA_VALUETEXT_NUMBER(unsigned int)
VELMORIA_VALUETEXT_NUMBER(long)
VELMORIA_VALUETEXT_NUMBER(unsigned long)
VELMORIA_VALUETEXT_NUMBER(long long)
VELMORIA_VALUETEXT_NUMBER(unsigned long long)
VELMORIA_VALUETEXT_NUMBER(float)
VELMORIA_VALUETEXT_NUMBER(double)
VELMORIA_VALUETEXT_NUMBER(long double)

#undef VELMORIA_VALUETEXT_NUMBER

namespace Detail {

bool Rows::isFlat() const
{
    if (rows.size() <= 1)
        return true;
    for (auto const& row : rows)
        if (row.size() != 1)
            return false;
    return true;
}

std::vector<std::string_view> Rows::flat() const
{
    std::vector<std::string_view> tokens;
    for (auto const& row : rows)
        tokens.insert(tokens.end(), row.begin(), row.end());
    return tokens;
}

bool splitRows(std::string_view text, Rows& out)
{
    // Accepted: "1 2 3", "[1 2 3]", "[1 2, 3 4]", "[[1 2], [3 4]]", "[[1, 2], [3, 4]]",
    // "1 2, 3 4", "[1, 2, 3]". Brackets nest two deep at most and must match.
    std::string_view t = String::trimView(text);
    Rows rows;
    if (t.empty()) {
        out = std::move(rows);
        return true;
    }
    std::string_view inner = t;
    if (t.front() == '[') {
        std::size_t close = matchingBracket(t, 0, 2);
        if (close == std::string_view::npos)
            return false;
        if (close == t.size() - 1)
            inner = t.substr(1, t.size() - 2);
    }
    if (String::trimView(inner).empty()) { // "[]"
        out = std::move(rows);
        return true;
    }

    std::size_t i = 0;
    while (true) {
        // One row: up to the next comma outside brackets.
        std::size_t start = i;
        std::size_t end = i;
        while (end < inner.size() && inner[end] != ',') {
            if (inner[end] == '[') {
                std::size_t close = matchingBracket(inner, end, 1);
                if (close == std::string_view::npos)
                    return false;
                end = close;
            } else if (inner[end] == ']') {
                return false;
            }
            ++end;
        }
        std::string_view piece = String::trimView(inner.substr(start, end - start));
        std::vector<std::string_view> tokens;
        if (!piece.empty() && piece.front() == '[') {
            // A bracketed row must be the whole piece: "[1 2] 3" is an error.
            if (piece.back() != ']' || matchingBracket(piece, 0, 1) != piece.size() - 1)
                return false;
            appendTokens(piece.substr(1, piece.size() - 2), tokens);
        } else {
            if (piece.find_first_of("[]") != std::string_view::npos)
                return false;
            appendTokens(piece, tokens);
        }
        rows.rows.push_back(std::move(tokens));
        if (end >= inner.size())
            break;
        i = end + 1;
    }
    out = std::move(rows);
    return true;
}

std::string bracketItems(std::vector<std::string> const& items)
{
    return "[" + String::join(items, ", ") + "]";
}

} // namespace Detail

bool parseAttributes(std::string_view text, ParamAttributes& out, std::string* error)
{
    auto fail = [error](std::string why) {
        if (error)
            *error = std::move(why);
        return false;
    };
    ParamAttributes result;
    std::size_t const n = text.size();
    std::size_t i = 0;
    while (true) {
        while (i < n && (isBlank(text[i]) || text[i] == ','))
            ++i;
        if (i >= n)
            break;
        std::size_t nameEnd = text.find_first_of(":,", i);
        if (nameEnd == std::string_view::npos || text[nameEnd] == ',') {
            std::size_t entryEnd = std::min(text.find(',', i), n);
            return fail("missing ':' in entry '" +
                        std::string(String::trimView(text.substr(i, entryEnd - i))) + "'");
        }
        std::string name(String::trimView(text.substr(i, nameEnd - i)));
        i = nameEnd + 1;
        while (i < n && isBlank(text[i]))
            ++i;
        std::string value;
        if (i < n && text[i] == '\'') {
            ++i;
            bool closed = false;
            while (i < n) {
                if (text[i] == '\'') {
                    if (i + 1 < n && text[i + 1] == '\'') { // a doubled quote is a quote
                        value += '\'';
                        i += 2;
                        continue;
                    }
                    ++i;
                    closed = true;
                    break;
                }
                value += text[i++];
            }
            if (!closed)
                return fail("unterminated quote in the value of '" + name + "'");
            while (i < n && isBlank(text[i]))
                ++i;
            if (i < n && text[i] != ',')
                return fail("unexpected text after the quoted value of '" + name + "'");
        } else {
            std::size_t valueEnd = std::min(text.find(',', i), n);
            value = std::string(String::trimView(text.substr(i, valueEnd - i)));
            i = valueEnd;
        }
        if (name.empty())
            return fail("an entry has no name");
        result.emplace_back(std::move(name), std::move(value));
    }
    out = std::move(result);
    return true;
}

std::string writeAttributes(ParamAttributes const& attributes)
{
    std::string out;
    for (auto const& [name, value] : attributes) {
        if (!out.empty())
            out += ", ";
        out += name;
        out += ": ";
        bool const quote = value.empty() || value.find_first_of(" \t\r\n,'") != std::string::npos;
        if (!quote) {
            out += value;
            continue;
        }
        out += '\'';
        out += String::replaceAllCopy(value, "'", "''");
        out += '\'';
    }
    return out;
}

} // namespace Velmoria::ValueText
