// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace slate {
bool starts_with(std::string_view text, std::string_view prefix);
bool ends_with(std::string_view text, std::string_view suffix);
bool contains(std::string_view text, std::string_view part);

/// ASCII letters only, whatever the locale; all other bytes stay.
std::string to_lower(std::string_view text);
std::string to_upper(std::string_view text);
/// Whether two texts are equal but for the case of ASCII letters.
bool equals_ignoring_case(std::string_view a, std::string_view b);

/// Whether a text is well-formed UTF-8.
bool is_utf8(std::string_view text);
/// The text, with U+FFFD in the place of each byte that doesn't belong to well-formed UTF-8.
std::string to_utf8(std::string_view text);

/// Removes the leading characters that are in `chars`.
std::string trim_left(std::string_view text, std::string_view chars);
/// Removes that text from the beginning or the end, once, if it is there.
std::string trim_prefix(std::string_view text, std::string_view prefix);
std::string trim_suffix(std::string_view text, std::string_view suffix);
/// Only the ASCII letters and digits, wherever they stand.
std::string trim_alphanumeric(std::string_view text);

/// Cuts `text` at each character that is in `delimiters`. `trim` removes blanks and tabs around each piece,
/// and `skip_empty` then drops the empty pieces. Empty text gives no pieces if `skip_empty`, else one empty
/// piece.
///
/// The pair form cuts once, at the first delimiter; the second text is empty if there is none.
template <class Result>
Result split(std::string_view text, std::string_view delimiters, bool trim, bool skip_empty);
template <>
std::vector<std::string> split(std::string_view text, std::string_view delimiters, bool trim,
                               bool skip_empty);
template <>
std::pair<std::string, std::string> split(std::string_view text, std::string_view delimiters, bool trim,
                                          bool skip_empty);

/// The items with `separator` in between. The second form takes each item's text from `accessor`.
template <class Range, class Accessor>
std::string join(const Range& items, std::string_view separator, Accessor accessor)
{
    std::string result;
    for (auto item = std::begin(items); item != std::end(items); ++item) {
        if (item != std::begin(items))
            result += separator;
        result += accessor(*item);
    }
    return result;
}

template <class Range>
std::string join(const Range& items, std::string_view separator)
{
    return join(items, separator, [](const auto& item) -> std::string_view { return item; });
}

/// The text of a value: numbers in decimal without grouping, floating-point ones with six significant digits,
/// flags as "true" or "false", a `char` and a string as they are. The locale plays no part. For `bool`, all
/// standard integer and floating-point types, `char` and std::string.
template <class T>
std::string to_string(const T& value);

/// Reads the whole text as a value, of the same types: no blanks, no sign for unsigned types, nothing out of
/// range. `bool` reads "true", "false", "1" and "0", `char` reads one byte, and a string takes any text. The
/// locale plays no part. Returns false on failure, and then leaves `*value` untouched.
template <class T>
bool try_parse(std::string_view text, T* value);

/// Whether `text` is what `pattern` describes: "*" stands for any run of bytes, none and "/" included, "?"
/// for one byte, and everything else for itself. Time grows linearly with the text.
bool wildcard_match(std::string_view text, std::string_view pattern);
} // namespace slate
