// SPDX-License-Identifier: Apache-2.0
// The framework's readers of text: durations, URIs, percent-encoding, numbers, split, wildcards, UTF-8 and
// base 64. Input: one letter that selects one of them, and its texts, in lines where there are several.

#include <array>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/require.h"
#include "fuzz/wildcard_reference.h"
#include "slate/duration.h"
#include "slate/encoding.h"
#include "slate/strings.h"
#include "slate/uri.h"

namespace {
using slate::Duration;
using tarn_fuzz::Input;
using tarn_fuzz::require;

constexpr std::string_view letters_and_digits =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

bool is_one_of(char c, std::string_view characters)
{
    return characters.find(c) != std::string_view::npos;
}

void check_round_trip(const Duration& duration)
{
    require(Duration::parse(duration.to_string()) == duration, "what prints parses", duration.to_string());
    for (unsigned int digits = 1; digits < 12; ++digits) {
        const std::string text = duration.to_string(static_cast<unsigned char>(digits));
        const auto rounded = Duration::parse(text);
        require(rounded.has_value(), "what is rounded parses", text);
        require(rounded->to_string(static_cast<unsigned char>(digits)) == text, "and prints the same", text);
    }
}

void check_parsed_duration(const std::string& text)
{
    const auto parsed = Duration::parse(text);
    if (!parsed)
        return;
    check_round_trip(*parsed);
    if (parsed->is_not_initialized() || parsed->is_positive_infinity())
        return;

    const auto end = text.find_last_of("0123456789") + 1;
    const std::string unit = text.substr(end);
    long double nanoseconds = std::strtold(text.substr(0, end).c_str(), nullptr);
    for (const auto& [name, factor] :
         std::initializer_list<std::pair<const char*, long double>>{{"ns", 1},
                                                                    {"us", 1e3L},
                                                                    {"ms", 1e6L},
                                                                    {"s", 1e9L},
                                                                    {"min", 6e10L},
                                                                    {"h", 3.6e12L},
                                                                    {"d", 8.64e13L}}) {
        if (unit == name) {
            nanoseconds *= factor;
            const auto error = nanoseconds - static_cast<long double>(parsed->to_nanoseconds());
            require(std::fabs(error) <= 1 + std::fabs(nanoseconds) * 1e-15L, "the number and the unit count",
                    text);
            return;
        }
    }
    require(false, "a unit that exists", text);
}

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();

std::int64_t saturated_sum(std::int64_t a, std::int64_t b)
{
    if (b > 0 && a > most - b)
        return most;
    return b < 0 && a < least - b ? least : a + b;
}

std::int64_t saturated_difference(std::int64_t a, std::int64_t b)
{
    if (b < 0 && a > most + b)
        return most;
    return b > 0 && a < least + b ? least : a - b;
}

/// `factor` is positive.
std::int64_t saturated_product(std::int64_t number, std::int64_t factor)
{
    if (number > most / factor)
        return most;
    return number < least / factor ? least : number * factor;
}

void check_arithmetic(Input& input)
{
    const auto a = static_cast<std::int64_t>(input.number());
    const auto b = static_cast<std::int64_t>(input.number());
    const Duration first = std::chrono::nanoseconds(a);
    const Duration second = std::chrono::nanoseconds(b);
    check_round_trip(first);
    check_round_trip(second);
    require((first + second).to_nanoseconds() == saturated_sum(a, b), "sums saturate");
    require((first - second).to_nanoseconds() == saturated_difference(a, b), "differences saturate");
    require((first < second) == (a < b) && (first == second) == (a == b), "the order is that of the numbers");
    require(slate::Milliseconds(a).to_nanoseconds() == saturated_product(a, 1000000),
            "milliseconds saturate");
    require(slate::Seconds(a).to_nanoseconds() == saturated_product(a, 1000000000), "seconds saturate");
    require(first.to_milliseconds() == a / 1000000, "milliseconds are cut");
    const Duration fraction = slate::Seconds(static_cast<double>(a) / 1e9);
    require(std::fabs(static_cast<double>(fraction.to_nanoseconds()) - static_cast<double>(a)) <=
                1 + std::fabs(static_cast<double>(a)) * 1e-15,
            "fractions of seconds count");
}

void check_uri(const std::string& text)
{
    const auto separator = text.find("://");
    bool valid = separator != std::string::npos && separator > 0 && separator + 3 < text.size() &&
                 !is_one_of(text[0], "0123456789");
    for (std::size_t i = 0; valid && i < separator; ++i)
        valid = is_one_of(text[i], letters_and_digits) || (i > 0 && is_one_of(text[i], "+-."));
    for (const char c : text)
        valid = valid && static_cast<unsigned char>(c) >= 32 && c != 127;

    const auto uri = slate::make_uri(text);
    require((uri != nullptr) == valid, "exactly the valid ones are URIs");
    if (!uri)
        return;
    require(uri->to_string() == text && uri->scheme() + "://" + uri->address() == text, "nothing is changed");
    require(uri->scheme() == "file" ? uri->path() == uri->address()
                                    : uri->address().ends_with(uri->path()) &&
                                          (uri->path().empty() || uri->path().front() == '/'),
            "the path is the end of the address");
}

int hex_value(char c)
{
    const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const auto value = std::string_view("0123456789abcdef").find(lower);
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

std::string decoded(const std::string& text, bool query)
{
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
            hex_value(text[i + 2]) >= 0) {
            result += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
            i += 2;
        }
        else {
            result += text[i] == '+' && query ? ' ' : text[i];
        }
    }
    return result;
}

void check_percent(const std::string& text)
{
    for (const bool query : {false, true}) {
        const std::string encoded = slate::encode_uri_component(text, query);
        for (const char c : encoded)
            require(is_one_of(c, letters_and_digits) || is_one_of(c, "-_.~%"), "only harmless characters");
        require(slate::decode_uri_component(encoded, query) == text, "what is encoded is decoded");
        require(slate::decode_uri_component(text, query) == decoded(text, query), "same decoding");
    }
}

template <class T>
void check_integer(const std::string& text)
{
    const bool has_sign = !text.empty() && (text[0] == '-' || text[0] == '+') && std::is_signed_v<T>;
    const std::string digits = text.substr(has_sign ? 1 : 0);
    bool valid = !digits.empty() && digits.find_first_not_of("0123456789") == std::string::npos;
    std::conditional_t<std::is_signed_v<T>, long long, unsigned long long> value = 0;
    errno = 0;
    if constexpr (std::is_signed_v<T>)
        value = std::strtoll(text.c_str(), nullptr, 10);
    else
        value = std::strtoull(text.c_str(), nullptr, 10);
    valid = valid && errno == 0 && value >= std::numeric_limits<T>::min() &&
            value <= std::numeric_limits<T>::max();

    T parsed = 42;
    require(slate::try_parse(text, &parsed) == valid, "exactly the numbers in range are read", text);
    require(parsed == (valid ? static_cast<T>(value) : T{42}), "as what they are", text);
    T again{};
    require(slate::try_parse(slate::to_string(parsed), &again) && again == parsed, "what prints parses");
}

template <class T>
void check_floating_point(const std::string& text)
{
    T parsed{};
    if (!slate::try_parse(text, &parsed))
        return;
    char* end = nullptr;
    const double expected = std::strtod(text.c_str(), &end);
    require(end == text.c_str() + text.size(), "only whole numbers are read", text);
    require(std::isnan(parsed) ? std::isnan(expected)
                               : static_cast<T>(expected) == parsed ||
                                     std::fabs(static_cast<T>(expected) - parsed) <=
                                         std::fabs(parsed) * std::numeric_limits<T>::epsilon(),
            "as what they are", text);
    T again{};
    require(slate::try_parse(slate::to_string(parsed), &again) ||
                std::fabs(parsed) > std::numeric_limits<T>::max() / 2,
            "what prints parses");
}

void check_numbers(const std::string& text)
{
    check_integer<int>(text);
    check_integer<long>(text);
    check_integer<long long>(text);
    check_integer<unsigned int>(text);
    check_integer<unsigned long>(text);
    check_integer<unsigned long long>(text);
    check_integer<signed char>(text);
    check_floating_point<float>(text);
    check_floating_point<double>(text);
    bool flag = false;
    if (slate::try_parse(text, &flag))
        require(text == (flag ? "true" : "false") || text == (flag ? "1" : "0"), "only four texts are flags");
}

void check_split(const std::string& delimiters, const std::string& text)
{
    for (const bool trim : {false, true}) {
        for (const bool skip_empty : {false, true}) {
            std::vector<std::string> expected(1);
            for (const char c : text) {
                if (is_one_of(c, delimiters))
                    expected.emplace_back();
                else
                    expected.back() += c;
            }
            for (std::string& piece : expected) {
                while (trim && !piece.empty() && is_one_of(piece.back(), " \t"))
                    piece.pop_back();
                while (trim && !piece.empty() && is_one_of(piece.front(), " \t"))
                    piece.erase(0, 1);
            }
            if (skip_empty)
                std::erase(expected, "");
            require(slate::split<std::vector<std::string>>(text, delimiters, trim, skip_empty) == expected,
                    "same pieces");
        }
    }
    if (delimiters.size() == 1) {
        const auto pieces = slate::split<std::vector<std::string>>(text, delimiters, false, false);
        require(slate::join(pieces, delimiters) == text, "joined again");
        const auto [before, after] =
            slate::split<std::pair<std::string, std::string>>(text, delimiters, false, false);
        require(before == pieces[0] &&
                    (pieces.size() == 1 ? after.empty() : before + delimiters + after == text),
                "a pair is cut once");
    }
}

/// Whether the text is UTF-8, by decoding it.
bool decodes(const std::string& text)
{
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&](std::size_t at) -> std::uint32_t {
            return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
        };
        const std::uint32_t first = byte(i);
        const std::size_t length = first < 0x80       ? 1
                                   : first >> 5 == 6  ? 2
                                   : first >> 4 == 14 ? 3
                                   : first >> 3 == 30 ? 4
                                                      : 0;
        if (length == 0)
            return false;
        std::uint32_t code = length == 1 ? first : first & (0x7FU >> length);
        for (std::size_t at = i + 1; at < i + length; ++at) {
            if (byte(at) >> 6 != 2)
                return false;
            code = code << 6 | (byte(at) & 63);
        }
        constexpr std::array<std::uint32_t, 5> lowest = {0, 0, 0x80, 0x800, 0x10000};
        if (code < lowest[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

void check_texts(const std::string& text)
{
    require(slate::is_utf8(text) == decodes(text), "same verdict on UTF-8");
    const std::string repaired = slate::to_utf8(text);
    require(decodes(repaired), "what is repaired is UTF-8");
    require(!decodes(text) || repaired == text, "UTF-8 is left alone");

    const std::string base64 = slate::encode_base64(text);
    require(base64.size() == (text.size() + 2) / 3 * 4, "four characters for three bytes");
    std::string bits;
    for (const char c : base64) {
        const auto value =
            std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/").find(c);
        for (int bit = 5; c != '=' && bit >= 0; --bit)
            bits += value >> bit & 1 ? '1' : '0';
    }
    for (std::size_t i = 0; i < text.size(); ++i)
        require(std::stoi(bits.substr(i * 8, 8), nullptr, 2) == static_cast<unsigned char>(text[i]),
                "same bytes");

    const std::vector<unsigned char> bytes(text.begin(), text.end());
    require(slate::join_hex(bytes, "", "").size() == 2 * text.size(), "two digits for a byte");
    require(slate::equals_ignoring_case(slate::to_upper(text), slate::to_lower(text)), "case can be ignored");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    switch (input.byte()) {
    case 'd':
        check_parsed_duration(input.rest());
        break;
    case 'a':
        check_arithmetic(input);
        break;
    case 'u':
        check_uri(input.rest());
        break;
    case 'p':
        check_percent(input.rest());
        break;
    case 'n':
        check_numbers(input.rest());
        break;
    case 's': {
        const std::string delimiters = input.line();
        check_split(delimiters, input.rest());
        break;
    }
    case 'w': {
        const std::string pattern = input.line();
        const std::string text = input.rest();
        require(slate::wildcard_match(text, pattern) == tarn_fuzz::wildcard_reference(text, pattern),
                "same match");
        break;
    }
    case 't':
        check_texts(input.rest());
        break;
    default:
        return -1; // not worth a place in the corpus
    }
    return 0;
}
