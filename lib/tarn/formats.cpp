// SPDX-License-Identifier: Apache-2.0
#include "tarn/formats.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <utility>

#include "slate/encoding.h"
#include "slate/log.h"
#include "slate/strings.h"

namespace tarn_internal {
namespace {
using tarn::Format;

enum class Kind : int { Text = 0, Binary = 1 };

struct MimeRow {
    Format format;
    std::string_view text;
    Kind kind;
};

struct ExtensionRow {
    Format format;
    std::string_view text;
};

// The order of rows decides ties: the first row of a format names it, the first row of a text is what it
// means.
constexpr std::array application_table = {
    MimeRow{Format::AnyApplication, "application/*", Kind::Binary},
    MimeRow{Format::Json, "application/json", Kind::Text},
    MimeRow{Format::Bin, "application/octet-stream", Kind::Binary},
    MimeRow{Format::Xml, "application/xml", Kind::Text},
    MimeRow{Format::Proto, "application/x-protobuf", Kind::Binary},
    MimeRow{Format::Zip, "application/zip", Kind::Binary},
    MimeRow{Format::Gzip, "application/gzip", Kind::Binary},
    MimeRow{Format::TTable, "application/vnd.corvane.translationtable.rev3", Kind::Binary},
    MimeRow{Format::Tar, "application/x-tar", Kind::Binary},
    MimeRow{Format::Sh, "application/x-sh", Kind::Text},
    MimeRow{Format::Hex, "application/vnd.intel.hex", Kind::Binary},
    MimeRow{Format::PanelScript, "application/vnd.corvane.panelscript", Kind::Text},
    MimeRow{Format::PanelMarkup, "application/vnd.corvane.panelmarkup", Kind::Binary},
    MimeRow{Format::StageScript, "application/vnd.corvane.stagescript", Kind::Text},
    MimeRow{Format::MarbleFont, "application/vnd.corvane.marble-font", Kind::Binary},
    MimeRow{Format::Reel, "application/vnd.corvane.reel", Kind::Binary},
    MimeRow{Format::Reelist, "application/vnd.corvane.reelist+xml", Kind::Text},
    MimeRow{Format::Pdf, "application/pdf", Kind::Binary},
    MimeRow{Format::Batch, "application/x-bat", Kind::Text},
    MimeRow{Format::Proto, "application/protobuf", Kind::Binary},
    MimeRow{Format::JavaScript, "application/javascript", Kind::Text},
    MimeRow{Format::Proto, "application/vnd.google.protobuf", Kind::Binary},
    MimeRow{Format::Sable, "application/sable_sign_config", Kind::Text},
};

constexpr std::array image_table = {
    MimeRow{Format::AnyImage, "image/*", Kind::Binary},
    MimeRow{Format::Png, "image/png", Kind::Binary},
    MimeRow{Format::Jpeg, "image/jpeg", Kind::Binary},
    MimeRow{Format::Gif, "image/gif", Kind::Binary},
    MimeRow{Format::Bmp, "image/bmp", Kind::Binary},
    MimeRow{Format::Svg, "image/svg+xml", Kind::Binary},
    MimeRow{Format::Tiff, "image/tiff", Kind::Binary},
    MimeRow{Format::Icon, "image/vnd.microsoft.icon", Kind::Binary},
};

constexpr std::array text_table = {
    MimeRow{Format::AnyText, "text/*", Kind::Text},
    MimeRow{Format::Text, "text/plain", Kind::Text},
    MimeRow{Format::Html, "text/html", Kind::Text},
    MimeRow{Format::Css, "text/css", Kind::Text},
    MimeRow{Format::Csv, "text/csv", Kind::Text},
    MimeRow{Format::JavaScript, "text/javascript", Kind::Text},
    MimeRow{Format::UriList, "text/uri-list", Kind::Text},
    MimeRow{Format::Xsl, "text/xsl", Kind::Text},
};

constexpr std::array extension_table = {
    ExtensionRow{Format::Proto, "binpb"},
    ExtensionRow{Format::Proto, "pb.bin"},
    ExtensionRow{Format::Proto, "proto"},
    ExtensionRow{Format::Json, "json"},
    ExtensionRow{Format::Xml, "xml"},
    ExtensionRow{Format::Png, "png"},
    ExtensionRow{Format::Jpeg, "jpg"},
    ExtensionRow{Format::Jpeg, "jpeg"},
    ExtensionRow{Format::Jpeg, "jpe"},
    ExtensionRow{Format::Bmp, "bmp"},
    ExtensionRow{Format::Svg, "svg"},
    ExtensionRow{Format::Svg, "svgz"},
    ExtensionRow{Format::Css, "css"},
    ExtensionRow{Format::Csv, "csv"},
    ExtensionRow{Format::Html, "html"},
    ExtensionRow{Format::Html, "htm"},
    ExtensionRow{Format::Text, "txt"},
    ExtensionRow{Format::Text, "text"},
    ExtensionRow{Format::Text, "log"},
    ExtensionRow{Format::Gif, "gif"},
    ExtensionRow{Format::Zip, "zip"},
    ExtensionRow{Format::Tar, "tar"},
    ExtensionRow{Format::Sh, "sh"},
    ExtensionRow{Format::Batch, "bat"},
    ExtensionRow{Format::PanelScript, "panelscript"},
    ExtensionRow{Format::PanelMarkup, "panelmarkup"},
    ExtensionRow{Format::StageScript, "script"},
    ExtensionRow{Format::Reel, "reel"},
    ExtensionRow{Format::Reelist, "reelist"},
    ExtensionRow{Format::Gzip, "gz"},
    ExtensionRow{Format::Gzip, "kcb"},
    ExtensionRow{Format::Tiff, "tiff"},
    ExtensionRow{Format::Tiff, "tif"},
    ExtensionRow{Format::Hex, "hex"},
    ExtensionRow{Format::TTable, "hex"},
    ExtensionRow{Format::Pdf, "pdf"},
    ExtensionRow{Format::Icon, "ico"},
    ExtensionRow{Format::JavaScript, "js"},
    ExtensionRow{Format::UriList, "uris"},
    ExtensionRow{Format::UriList, "uri"},
    ExtensionRow{Format::UriList, "url"},
    ExtensionRow{Format::Bin, "bin"},
    ExtensionRow{Format::Xsl, "xsl"},
};

template <class Table>
Format format_of(const Table& table, std::string_view text)
{
    const auto row = std::find_if(table.begin(), table.end(), [&](const auto& r) { return r.text == text; });
    return row == table.end() ? Format::Unknown : row->format;
}

template <class Table>
auto* row_of(const Table& table, Format format)
{
    const auto row =
        std::find_if(table.begin(), table.end(), [&](const auto& r) { return r.format == format; });
    return row == table.end() ? nullptr : &*row;
}

Format format_of_mime_type(std::string_view text)
{
    switch (text.empty() ? '\0' : text.front()) {
    case '*':
        return text == "*/*" ? Format::Any : Format::Unknown;
    case 'a':
        if (text.starts_with("audio"))
            return text == "audio/*" ? Format::AnyAudio : Format::Unknown;
        return format_of(application_table, text);
    case 'f':
        return text == "font/*" ? Format::AnyFont : Format::Unknown;
    case 'i':
        return format_of(image_table, text);
    case 't':
        return format_of(text_table, text);
    case 'v':
        return text == "video/*" ? Format::AnyVideo : Format::Unknown;
    default:
        return Format::Unknown;
    }
}

/// A MIME type or a bare extension, as a whole.
Format look_up(std::string_view text)
{
    if (const Format format = format_of_mime_type(text); format != Format::Unknown)
        return format;
    if (const Format format = format_of(extension_table, text); format != Format::Unknown)
        return format;
    return text == "none" || text == "empty" ? Format::Empty : Format::Unknown;
}

/// Reads a q-factor as std::stod does (text behind the number is ignored), but independently of the locale.
std::optional<double> parse_q_factor(const std::string& text)
{
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);

    char* end = nullptr;
    errno = 0;
    const double value = strtod_l(text.c_str(), &end, locale);
    // NaN can't be ordered.
    if (end == text.c_str() || errno == ERANGE || std::isnan(value))
        return std::nullopt;
    return value;
}

double q_factor(std::span<const std::string> parameters)
{
    for (const std::string& parameter : parameters) {
        const auto [key, value] =
            slate::split<std::pair<std::string, std::string>>(parameter, "=", true, true);
        if (key != "q")
            continue;
        if (const auto q = parse_q_factor(value))
            return *q;
        slate::Debug(__FILE__, __LINE__) << "ignoring invalid q-factor value";
        break;
    }
    return 1.0;
}
} // namespace

Format to_format(const std::string& text)
{
    const std::string decoded = slate::decode_uri_component(text, false);
    if (const Format format = look_up(decoded); format != Format::Unknown)
        return format;
    return look_up(slate::split<std::pair<std::string, std::string>>(decoded, ";", false, true).first);
}

Format to_format_from_path(const std::filesystem::path& path)
{
    // Tested first, because the last extension alone would be ".bin".
    if (slate::ends_with(path.filename().native(), ".pb.bin"))
        return Format::Proto;
    const std::string extension = path.extension();
    if (extension.empty())
        return Format::Bin;
    const Format format = format_of(extension_table, std::string_view(extension).substr(1));
    return format == Format::Unknown ? Format::Bin : format;
}

bool is_binary_format(Format format)
{
    if (row_of(text_table, format))
        return false;
    if (const MimeRow* row = row_of(application_table, format))
        return row->kind == Kind::Binary;
    return true;
}
} // namespace tarn_internal

namespace tarn {
using namespace tarn_internal;

std::string to_mime_type(Format format)
{
    switch (format) {
    case Format::Any:
        return "*/*";
    case Format::AnyVideo:
        return "video/*";
    case Format::AnyAudio:
        return "audio/*";
    case Format::AnyFont:
        return "font/*";
    default:
        break;
    }
    for (const MimeRow* row :
         {row_of(text_table, format), row_of(application_table, format), row_of(image_table, format)}) {
        if (row)
            return std::string(row->text);
    }
    return {};
}

std::string to_mime_type(const std::filesystem::path& path)
{
    return to_mime_type(to_format_from_path(path));
}

std::string to_extension(Format format)
{
    const ExtensionRow* row = row_of(extension_table, format);
    return row ? "." + std::string(row->text) : std::string();
}

void parse_content_type(std::string_view value, std::vector<Format>& formats)
{
    if (value.empty())
        return;
    if (const Format format = to_format(std::string(value)); format != Format::Unknown)
        formats.push_back(format);
}

void parse_accept(std::string_view value, std::vector<Format>& formats)
{
    // People write blanks around the items, so they are trimmed throughout.
    const auto pieces = slate::split<std::vector<std::string>>(value, ",", true, true);
    if (value.find_first_of(";q=") == std::string_view::npos) {
        for (const std::string& piece : pieces)
            parse_content_type(piece, formats);
        return;
    }

    // One format for each factor: a later one replaces an earlier one.
    std::map<double, Format, std::greater<>> by_q_factor;
    for (const std::string& piece : pieces) {
        const auto items = slate::split<std::vector<std::string>>(piece, ";", true, true);
        const Format format = to_format(items.at(0));
        if (format != Format::Unknown)
            by_q_factor[q_factor(std::span(items).subspan(1))] = format;
    }
    for (const auto& [q, format] : by_q_factor)
        formats.push_back(format);
}
} // namespace tarn
