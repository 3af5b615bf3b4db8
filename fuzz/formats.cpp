// SPDX-License-Identifier: Apache-2.0
// The values of "Accept" and "Content-Type", and the names of files.
// Input: the value.

#include <cmath>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "slate/encoding.h"
#include "tarn/formats.h"

namespace {
using tarn::Format;
using tarn_fuzz::require;

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/// The pieces of a text, without blanks around them and without empty ones.
std::vector<std::string> cut(const std::string& text, char separator)
{
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator)
            pieces.emplace_back();
        else
            pieces.back() += c;
    }
    for (std::string& piece : pieces)
        piece = trimmed(piece);
    std::erase(pieces, "");
    return pieces;
}

double q_factor(const std::vector<std::string>& items)
{
    for (std::size_t i = 1; i < items.size(); ++i) {
        const auto equals = items[i].find('=');
        if (trimmed(items[i].substr(0, equals)) != "q")
            continue;
        try {
            const double q =
                std::stod(equals == std::string::npos ? "" : trimmed(items[i].substr(equals + 1)));
            return std::isnan(q) ? 1.0 : q;
        }
        catch (const std::logic_error&) {
            return 1.0;
        }
    }
    return 1.0;
}

/// What parse_accept has to give; nothing if it has to throw std::out_of_range.
std::optional<std::vector<Format>> expect_accept(const std::string& value)
{
    std::vector<Format> formats;
    if (value.find_first_of(";q=") == std::string::npos) {
        for (const std::string& piece : cut(value, ','))
            formats.push_back(tarn::to_format(piece));
        std::erase(formats, Format::Unknown);
        return formats;
    }
    std::map<double, Format> by_q;
    for (const std::string& piece : cut(value, ',')) {
        const auto items = cut(piece, ';');
        if (items.empty())
            return std::nullopt;
        if (const Format format = tarn::to_format(items[0]); format != Format::Unknown)
            by_q[q_factor(items)] = format;
    }
    for (auto entry = by_q.rbegin(); entry != by_q.rend(); ++entry)
        formats.push_back(entry->second);
    return formats;
}

std::optional<std::vector<Format>> parse_accept(const std::string& value)
{
    std::vector<Format> formats;
    try {
        tarn::parse_accept(value, formats);
        return formats;
    }
    catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

void check_format(Format format)
{
    require(tarn::Format_IsValid(format), "a format that exists");
    if (const std::string type = tarn::to_mime_type(format); !type.empty())
        require(tarn::to_format(type) == format, "a MIME type names its format", type);
    if (const std::string extension = tarn::to_extension(format); !extension.empty()) {
        // Two formats share ".hex", and the first one has it.
        require(tarn::to_format_from_path("name" + extension) == format || format == Format::TTable,
                "an extension names its format", extension);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    const std::string value = tarn_fuzz::Input(data, size).rest();

    require(parse_accept(value) == expect_accept(value), "same formats from Accept");

    const Format format = tarn::to_format(value);
    check_format(format);
    if (value.find(';') == std::string::npos && value.find("%3") == std::string::npos)
        require(tarn::to_format(value + "; charset=utf-8") == format, "parameters make no difference");
    if (value.find('%') == std::string::npos)
        require(tarn::to_format(slate::encode_uri_component(value, false)) == format,
                "nor does the encoding");

    std::vector<Format> formats;
    tarn::parse_content_type(value, formats);
    require(format == Format::Unknown ? formats.empty() : formats == std::vector{format},
            "one format at most");

    check_format(tarn::to_format_from_path(value));
    (void)tarn::to_mime_type(std::filesystem::path(value));
    return 0;
}
