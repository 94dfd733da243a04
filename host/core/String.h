#pragma once

// Small text helpers used throughout Velmoria. All work on bytes (ASCII case rules): file
// names, keys and messages of this system are ASCII; UTF-8 text passes through unchanged.

#include <string>
#include <string_view>
#include <vector>

namespace Velmoria::String {

bool contains(std::string_view text, std::string_view part);
bool startsWith(std::string_view text, std::string_view prefix);
bool endsWith(std::string_view text, std::string_view suffix);

// Replaces every occurrence of `from` (not the empty string) by `to`, left to right.
std::string replaceAllCopy(std::string_view text, std::string_view from, std::string_view to);

// Splits at every occurrence of `delimiter`; "a,,b" gives {"a", "", "b"} unless `skipEmpty`.
// An empty text gives one empty part (or none with `skipEmpty`).
std::vector<std::string> split(std::string_view text, char delimiter, bool skipEmpty = false);
std::vector<std::string> split(std::string_view text, std::string_view delimiter, bool skipEmpty = false);
// Splits at runs of blanks, tabs and line breaks; never yields empty parts.
std::vector<std::string> splitWhitespace(std::string_view text);

std::string join(std::vector<std::string> const& parts, std::string_view separator);

std::string toLowerCopy(std::string_view text);
std::string toUpperCopy(std::string_view text);

// Removes blanks, tabs, carriage returns and line feeds at both ends.
void trim(std::string& text);
std::string trimCopy(std::string_view text);
std::string_view trimView(std::string_view text);

// Compares ignoring ASCII case.
bool equalsIgnoreCase(std::string_view a, std::string_view b);

// The candidate a misspelt `word` most likely meant, for "did you mean" hints: the one with the
// fewest single-character edits (insert, delete, replace, swap of neighbours; ASCII case
// ignored), if that is at most a third of the word's length (at least 1). Empty when none is
// that close; ties go to the earlier candidate.
std::string closestMatch(std::string_view word, std::vector<std::string> const& candidates);

} // namespace Velmoria::String
