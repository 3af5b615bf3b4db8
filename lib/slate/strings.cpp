// SPDX-License-Identifier: Apache-2.0
#include "slate/strings.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <system_error>
#include <type_traits>

namespace slate {
namespace {
/// Takes that many words of ASCII off the text, without a branch between them. False if it begins with less.
template <std::size_t Words>
bool skip_ascii(std::string_view& text)
{
    std::array<std::uint64_t, Words> block;
    if (text.size() < sizeof block)
        return false;
    std::memcpy(block.data(), text.data(), sizeof block);
    std::uint64_t bits = 0;
    for (const std::uint64_t word : block)
        bits |= word;
    if ((bits & 0x8080808080808080U) != 0)
        return false;
    text.remove_prefix(sizeof block);
    return true;
}

/// The length of the UTF-8 sequence at the beginning of a text that isn't empty, by the Unicode standard's
/// table of well-formed sequences; 0 if the text begins with something else.
std::size_t utf8_sequence(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto continues = [&](std::size_t i, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return i < text.size() && byte(i) >= low && byte(i) <= high;
    };

    const unsigned char first = byte(0);
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return continues(1) ? 2 : 0;
    if (first >= 0xE0 && first <= 0xEF) {
        // No overlong forms, and no surrogates.
        const unsigned char low = first == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = first == 0xED ? 0x9F : 0xBF;
        return continues(1, low, high) && continues(2) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        // No overlong forms, and nothing beyond U+10FFFF.
        const unsigned char low = first == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = first == 0xF4 ? 0x8F : 0xBF;
        return continues(1, low, high) && continues(2) && continues(3) ? 4 : 0;
    }
    return 0;
}

constexpr std::string_view blanks = " \t";

// As many as a stream prints by default.
constexpr int significant_digits = 6;

// Room for the longest text of a number, sign and exponent included.
constexpr std::size_t number_length = 64;

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

char upper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool is_alphanumeric(char c)
{
    return (c >= '0' && c <= '9') || (lower(c) >= 'a' && lower(c) <= 'z');
}

std::string_view trim_blanks(std::string_view text)
{
    const auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

template <class T>
std::string number_to_string(T value)
{
    char text[number_length];
    std::to_chars_result result{};
    if constexpr (std::is_floating_point_v<T>)
        result =
            std::to_chars(text, text + sizeof(text), value, std::chars_format::general, significant_digits);
    else
        result = std::to_chars(text, text + sizeof(text), value);
    return {text, result.ptr};
}

template <class T>
bool try_parse_number(std::string_view text, T* value)
{
    // from_chars reads a minus sign, but no plus sign.
    if (std::is_signed_v<T> && starts_with(text, "+") && !starts_with(text, "+-"))
        text.remove_prefix(1);

    T parsed{};
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, parsed);
    if (error != std::errc() || stop != end)
        return false;
    *value = parsed;
    return true;
}
} // namespace

bool starts_with(std::string_view text, std::string_view prefix)
{
    return text.starts_with(prefix);
}

bool ends_with(std::string_view text, std::string_view suffix)
{
    return text.ends_with(suffix);
}

bool contains(std::string_view text, std::string_view part)
{
    return text.find(part) != std::string_view::npos;
}

std::string to_lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lower);
    return result;
}

std::string to_upper(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), upper);
    return result;
}

bool equals_ignoring_case(std::string_view a, std::string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        // Most texts are ASCII, of which many bytes are looked at together.
        if (skip_ascii<8>(text) || skip_ascii<1>(text))
            continue;
        const std::size_t size = utf8_sequence(text);
        if (size == 0)
            return false;
        text.remove_prefix(size);
    }
    return true;
}

std::string to_utf8(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t size = utf8_sequence(text);
        result += size == 0 ? std::string_view("\uFFFD") : text.substr(0, size);
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return result;
}

std::string trim_left(std::string_view text, std::string_view chars)
{
    const auto first = text.find_first_not_of(chars);
    return std::string(first == std::string_view::npos ? std::string_view() : text.substr(first));
}

std::string trim_prefix(std::string_view text, std::string_view prefix)
{
    if (text.starts_with(prefix))
        text.remove_prefix(prefix.size());
    return std::string(text);
}

std::string trim_suffix(std::string_view text, std::string_view suffix)
{
    if (text.ends_with(suffix))
        text.remove_suffix(suffix.size());
    return std::string(text);
}

std::string trim_alphanumeric(std::string_view text)
{
    std::string result;
    std::copy_if(text.begin(), text.end(), std::back_inserter(result), is_alphanumeric);
    return result;
}

template <>
std::vector<std::string> split(std::string_view text, std::string_view delimiters, bool trim, bool skip_empty)
{
    std::vector<std::string> result;
    for (std::size_t start = 0; start <= text.size();) {
        const auto end = std::min(text.find_first_of(delimiters, start), text.size());
        auto piece = text.substr(start, end - start);
        if (trim)
            piece = trim_blanks(piece);
        if (!piece.empty() || !skip_empty)
            result.emplace_back(piece);
        start = end + 1;
    }
    return result;
}

template <>
std::pair<std::string, std::string> split(std::string_view text, std::string_view delimiters, bool trim,
                                          bool /*skip_empty*/)
{
    const auto cut = text.find_first_of(delimiters);
    auto before = text.substr(0, cut);
    auto after = cut == std::string_view::npos ? std::string_view() : text.substr(cut + 1);
    if (trim) {
        before = trim_blanks(before);
        after = trim_blanks(after);
    }
    return {std::string(before), std::string(after)};
}

template <class T>
std::string to_string(const T& value)
{
    if constexpr (std::is_same_v<T, bool>)
        return value ? "true" : "false";
    else if constexpr (std::is_same_v<T, std::string>)
        return value;
    else if constexpr (std::is_same_v<T, char>)
        return std::string(1, value);
    else
        return number_to_string(value);
}

template <class T>
bool try_parse(std::string_view text, T* value)
{
    if constexpr (std::is_same_v<T, bool>) {
        const bool truth = text == "true" || text == "1";
        if (!truth && text != "false" && text != "0")
            return false;
        *value = truth;
        return true;
    }
    else if constexpr (std::is_same_v<T, std::string>) {
        value->assign(text);
        return true;
    }
    else if constexpr (std::is_same_v<T, char>) {
        if (text.size() != 1)
            return false;
        *value = text.front();
        return true;
    }
    else {
        return try_parse_number(text, value);
    }
}

template std::string to_string(const bool&);
template std::string to_string(const char&);
template std::string to_string(const signed char&);
template std::string to_string(const unsigned char&);
template std::string to_string(const short&);
template std::string to_string(const unsigned short&);
template std::string to_string(const int&);
template std::string to_string(const unsigned int&);
template std::string to_string(const long&);
template std::string to_string(const unsigned long&);
template std::string to_string(const long long&);
template std::string to_string(const unsigned long long&);
template std::string to_string(const float&);
template std::string to_string(const double&);
template std::string to_string(const long double&);
template std::string to_string(const std::string&);

template bool try_parse(std::string_view, bool*);
template bool try_parse(std::string_view, char*);
template bool try_parse(std::string_view, signed char*);
template bool try_parse(std::string_view, unsigned char*);
template bool try_parse(std::string_view, short*);
template bool try_parse(std::string_view, unsigned short*);
template bool try_parse(std::string_view, int*);
template bool try_parse(std::string_view, unsigned int*);
template bool try_parse(std::string_view, long*);
template bool try_parse(std::string_view, unsigned long*);
template bool try_parse(std::string_view, long long*);
template bool try_parse(std::string_view, unsigned long long*);
template bool try_parse(std::string_view, float*);
template bool try_parse(std::string_view, double*);
template bool try_parse(std::string_view, long double*);
template bool try_parse(std::string_view, std::string*);
} // namespace slate
