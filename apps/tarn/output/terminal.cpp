// SPDX-License-Identifier: Apache-2.0
#include "output/terminal.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <sys/ioctl.h>
#include <unistd.h>

#include <slate/strings.h>

namespace tarn_command {
namespace {
bool colours_forbidden = false;

bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U;
}

std::size_t length_of(unsigned char first)
{
    if (first < 0x80U)
        return 1;
    if (first < 0xe0U)
        return 2;
    return first < 0xf0U ? 3 : 4;
}

/// The code point at the beginning of well-formed UTF-8.
std::uint32_t decode(std::string_view text)
{
    static constexpr std::array<std::uint32_t, 5> masks = {0, 0x7f, 0x1f, 0x0f, 0x07};
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = length_of(first);
    std::uint32_t point = first & masks.at(length);
    for (std::size_t i = 1; i < length; ++i)
        point = (point << 6U) | (static_cast<unsigned char>(text[i]) & 0x3fU);
    return point;
}

/// Control characters, and those that change the direction of what follows.
bool is_control(std::uint32_t point)
{
    return point < 0x20U || (point >= 0x7fU && point <= 0x9fU) || point == 0x061cU || point == 0x200eU ||
           point == 0x200fU || (point >= 0x2028U && point <= 0x202eU) ||
           (point >= 0x2066U && point <= 0x2069U) || point == 0xfeffU;
}

std::string visible(std::uint32_t point)
{
    std::array<char, 16> text{};
    if (point == '\n')
        return "\\n";
    if (point == '\t')
        return "\\t";
    if (point == '\r')
        return "\\r";
    (void)std::snprintf(text.data(), text.size(), point < 0x80U ? "\\x%02x" : "\\u{%x}", point);
    return text.data();
}
} // namespace

bool is_terminal(int descriptor)
{
    return isatty(descriptor) == 1;
}

std::size_t terminal_width(int descriptor)
{
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

void forbid_colours()
{
    colours_forbidden = true;
}

bool is_coloured(int descriptor)
{
    const char* no_color = std::getenv("NO_COLOR");
    const char* term = std::getenv("TERM");
    return !colours_forbidden && !(no_color && *no_color) && !(term && std::string_view(term) == "dumb") &&
           is_terminal(descriptor);
}

std::string paint(std::string_view text, Colour colour)
{
    static constexpr std::array<const char*, 9> codes = {"", "1", "31", "32", "33", "34", "35", "36", "90"};
    if (text.empty() || colour == Colour::Plain || !is_coloured(STDOUT_FILENO))
        return std::string(text);
    return std::string("\x1b[") + codes.at(static_cast<std::size_t>(colour)) + "m" + std::string(text) +
           "\x1b[0m";
}

std::string escape(std::string_view text, Layout layout)
{
    const std::string valid = slate::to_utf8(text);
    std::string result;
    result.reserve(valid.size());
    for (std::size_t at = 0; at < valid.size();) {
        const std::size_t length = length_of(static_cast<unsigned char>(valid[at]));
        const std::uint32_t point = decode(std::string_view(valid).substr(at));
        if (is_control(point) && !(layout == Layout::Lines && (point == '\n' || point == '\t')))
            result += visible(point);
        else
            result.append(valid, at, length);
        at += length;
    }
    return result;
}

std::string brief(std::string_view text)
{
    constexpr std::size_t max_shown = 256;
    if (text.size() <= max_shown)
        return escape(text);
    std::size_t end = max_shown;
    while (end > 0 && is_continuation(text[end]))
        --end;
    return escape(text.substr(0, end)) + "...";
}

bool is_plain_text(std::string_view body)
{
    return slate::is_utf8(body) && std::none_of(body.begin(), body.end(), [](char c) {
               const auto byte = static_cast<unsigned char>(c);
               return (byte < 0x20U && c != '\n' && c != '\t' && c != '\r') || byte == 0x7fU;
           });
}

std::size_t columns_of(std::string_view text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(), [](char c) { return !is_continuation(c); }));
}

std::string fit(std::string_view text, std::size_t columns)
{
    if (columns_of(text) <= columns)
        return std::string(text);
    if (columns == 0)
        return "";
    std::size_t at = 0;
    for (std::size_t taken = 0; at < text.size(); ++at) {
        if (!is_continuation(text[at]) && taken++ == columns - 1)
            break;
    }
    return std::string(text.substr(0, at)) + "…";
}

std::string bytes_text(double bytes)
{
    static constexpr std::array<const char*, 5> units = {"B", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    for (; bytes >= 1024 && unit + 1 < units.size(); ++unit)
        bytes /= 1024;
    std::array<char, 32> text{};
    (void)std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", bytes, units.at(unit));
    return text.data();
}
} // namespace tarn_command
