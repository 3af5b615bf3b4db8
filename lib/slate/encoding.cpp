// SPDX-License-Identifier: Apache-2.0
#include "slate/encoding.h"

#include <cstddef>
#include <cstdint>

namespace slate {
namespace {
constexpr std::string_view upper_digits = "0123456789ABCDEF";
constexpr std::string_view lower_digits = "0123456789abcdef";
constexpr std::string_view base64_digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

bool is_unreserved(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '~';
}

/// The value of a hexadecimal digit, or -1.
int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void append_hex(std::string& out, unsigned char byte, std::string_view digits)
{
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
}
} // namespace

std::string encode_uri_component(const std::string& text, bool /*query*/)
{
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        if (is_unreserved(c)) {
            result += c;
        }
        else {
            result += '%';
            append_hex(result, static_cast<unsigned char>(c), upper_digits);
        }
    }
    return result;
}

std::string decode_uri_component(const std::string& text, bool query)
{
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && text.size() - i > 2 ? digit_value(text[i + 1]) : -1;
        const int low = high >= 0 ? digit_value(text[i + 2]) : -1;
        if (low >= 0) {
            result += static_cast<char>(high * 16 + low);
            i += 2;
        }
        else {
            result += query && text[i] == '+' ? ' ' : text[i];
        }
    }
    return result;
}

std::string encode_base64(std::string_view bytes)
{
    std::string result;
    result.reserve((bytes.size() + 2) / 3 * 4);
    for (; !bytes.empty(); bytes.remove_prefix(bytes.size() < 3 ? bytes.size() : 3)) {
        const auto byte = [&](std::size_t i) {
            return i < bytes.size() ? static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) : 0;
        };
        const std::uint32_t group = byte(0) << 16 | byte(1) << 8 | byte(2);
        result += base64_digits[group >> 18];
        result += base64_digits[group >> 12 & 63];
        result += bytes.size() > 1 ? base64_digits[group >> 6 & 63] : '=';
        result += bytes.size() > 2 ? base64_digits[group & 63] : '=';
    }
    return result;
}

std::string join_hex(const std::vector<unsigned char>& bytes, std::string_view separator,
                     std::string_view prefix)
{
    std::string result;
    result.reserve(bytes.size() * (2 + separator.size() + prefix.size()));
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0)
            result += separator;
        result += prefix;
        append_hex(result, bytes[i], lower_digits);
    }
    return result;
}
} // namespace slate
