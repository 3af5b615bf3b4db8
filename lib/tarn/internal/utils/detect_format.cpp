// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/detect_format.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <utility>

#include "slate/strings.h"

namespace tarn_internal {
namespace {
// As much as one TCP segment carries is enough to tell text from binary.
constexpr std::size_t max_scanned_bytes = 1447;

std::string_view strip_byte_order_mark(std::string_view text)
{
    for (const std::string_view mark : {"\xEF\xBB\xBF", "\xFE\xFF", "\xFF\xFE"}) {
        if (text.starts_with(mark))
            return text.substr(mark.size());
    }
    return text;
}

bool is_html(std::string_view text)
{
    static constexpr std::array<std::string_view, 16> markers = {
        "<!doctype html", "<html", "<head",  "<script", "<iframe", "<h1",   "<div", "<font",
        "<table",         "<a",    "<style", "<title",  "<b",      "<body", "<br",  "<p"};

    return std::any_of(markers.begin(), markers.end(), [&](std::string_view marker) {
        return text.size() > marker.size() && text.starts_with(marker) &&
               (text[marker.size()] == ' ' || text[marker.size()] == '>');
    });
}

bool is_enclosed(std::string_view text, char open, char close)
{
    return !text.empty() && text.front() == open && text.back() == close;
}

/// Markup, PDF or JSON; Unknown for no verdict.
Format sniff(std::string_view text)
{
    // The longest marker and the character behind it.
    constexpr std::size_t longest_beginning = 16;

    const auto begin = std::min(text.find_first_not_of("\t\n\f\r "), text.size());
    const std::string beginning = slate::to_lower(text.substr(begin, longest_beginning));
    if (beginning.starts_with("<?xml"))
        return Format::Xml;
    if (is_html(beginning))
        return Format::Html;

    // From here on blanks matter: JSON with a leading blank gets no verdict.
    if (text.starts_with("%PDF-"))
        return Format::Pdf;
    if (is_enclosed(text, '{', '}') || is_enclosed(text, '[', ']'))
        return Format::Json;
    return Format::Unknown;
}

Format detect_magic(std::string_view data)
{
    using namespace std::string_view_literals;
    static constexpr std::array<std::pair<std::string_view, Format>, 7> magic = {{
        {"\x89PNG\x0D\x0A\x1A\x0A"sv, Format::Png},
        {"\xFF\xD8\xFF"sv, Format::Jpeg},
        {"BM"sv, Format::Bmp},
        {"GIF87a"sv, Format::Gif},
        {"GIF89a"sv, Format::Gif},
        {"\x1F\x8B\x08"sv, Format::Gzip},
        {"PK\x03\x04"sv, Format::Zip},
    }};

    for (const auto& [bytes, format] : magic) {
        if (data.starts_with(bytes))
            return format;
    }
    return Format::Unknown;
}

bool is_control_byte(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    constexpr unsigned char escape = 27;
    return value < 32 && byte != '\t' && byte != '\n' && byte != '\f' && byte != '\r' && value != escape;
}
} // namespace

Format detect_format(std::string_view content)
{
    if (const auto rest = strip_byte_order_mark(content); rest.size() != content.size()) {
        const Format verdict = sniff(rest);
        return verdict == Format::Unknown ? Format::Text : verdict;
    }
    if (const Format verdict = sniff(content); verdict != Format::Unknown)
        return verdict;
    if (const Format verdict = detect_magic(content); verdict != Format::Unknown)
        return verdict;

    const auto scanned = content.substr(0, max_scanned_bytes);
    return std::any_of(scanned.begin(), scanned.end(), is_control_byte) ? Format::Bin : Format::Text;
}

bool looks_like_json(std::string_view content)
{
    if (content.empty())
        return false;
    // An opening brace is enough; the end matters only behind a byte order mark and for an array.
    if (content.front() == '{')
        return true;
    const auto text = strip_byte_order_mark(content);
    return is_enclosed(text, '{', '}') || is_enclosed(text, '[', ']');
}

bool looks_like_xml(std::string_view content)
{
    return strip_byte_order_mark(content).starts_with("<?xml");
}
} // namespace tarn_internal
