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

/// Both change ASCII letters only, whatever the locale. All other bytes stay.
std::string to_lower(std::string_view text);
std::string to_upper(std::string_view text);
/// Whether two texts are equal except for the case of their ASCII letters.
bool equals_ignoring_case(std::string_view a, std::string_view b);

/// Whether a text is well-formed UTF-8.
bool is_utf8(std::string_view text);
/// The text, with U+FFFD in place of each byte that isn't part of well-formed UTF-8.
std::string to_utf8(std::string_view text);

/// The text without its leading characters that are in `chars`.
std::string trim_left(std::string_view text, std::string_view chars);
/// The text without `prefix` at its beginning, or `suffix` at its end. Either is removed once, if it is
/// there.
std::string trim_prefix(std::string_view text, std::string_view prefix);
std::string trim_suffix(std::string_view text, std::string_view suffix);
/// The text without all characters that are neither ASCII letters nor digits.
std::string trim_alphanumeric(std::string_view text);

/// Cuts `text` at each character that is in `delimiters`. If `trim`, blanks and tabs around each piece are
/// removed; if `skip_empty`, pieces that are then empty are dropped. Empty text gives one empty piece, or
/// none if `skip_empty`.
///
/// The pair form cuts only once, at the first delimiter. Without a delimiter, the second text is empty.
/// `skip_empty` makes no difference to it.
template <class Result>
Result split(std::string_view text, std::string_view delimiters, bool trim, bool skip_empty);
template <>
std::vector<std::string> split(std::string_view text, std::string_view delimiters, bool trim,
                               bool skip_empty);
template <>
std::pair<std::string, std::string> split(std::string_view text, std::string_view delimiters, bool trim,
                                          bool skip_empty);

/// The texts of the items, with `separator` between them. `accessor` gives the text of an item; without it
/// the items are texts themselves.
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

/// The text of a value: integers in decimal without grouping, floating-point numbers with six significant
/// digits, flags as "true" or "false", a `char` or a string as it is. The locale plays no part. There are
/// forms for `bool`, `char`, all standard integer and floating-point types, and std::string.
template <class T>
std::string to_string(const T& value);

/// Reads the whole text as a value of one of the types above. Numbers may have no blanks around them, and
/// those of unsigned types no sign; a number out of range is refused. `bool` reads "true", "false", "1" and
/// "0", `char` reads one byte, and a string takes any text. The locale plays no part. Returns false if the
/// text can't be read, and leaves `*value` as it was.
template <class T>
bool try_parse(std::string_view text, T* value);

/// Whether `pattern` describes `text`: "*" stands for any number of bytes, even none and even "/", "?" stands
/// for one byte, and everything else for itself. The time that it takes grows linearly with the text.
bool wildcard_match(std::string_view text, std::string_view pattern);
} // namespace slate
