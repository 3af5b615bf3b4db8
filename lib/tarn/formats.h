// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/proto/format.pb.h"

/// Formats of bodies: MIME types, file extensions, and the values of "Accept" and "Content-Type".
/// These functions report no errors: a text that names no format gives `Unknown`. Any thread.

namespace tarn_internal {
/// From a MIME type, with or without parameters and possibly percent-encoded, or from a bare extension such
/// as "json", or "none" or "empty". Case matters.
tarn::Format to_format(const std::string& text);

/// By the file's extension, compared with case; `Bin` for a missing or unknown one.
tarn::Format to_format_from_path(const std::filesystem::path& path);

/// Whether a body of this format travels as bytes rather than as text. `Unknown` does, because a body of
/// unknown kind need not be valid UTF-8.
bool is_binary_format(tarn::Format format);
} // namespace tarn_internal

namespace tarn {
using tarn_internal::is_binary_format;
using tarn_internal::to_format;
using tarn_internal::to_format_from_path;

/// Such as "application/json"; empty for `Unknown`, `Empty` and formats without one.
std::string to_mime_type(Format format);
/// By the file's name, as to_format_from_path.
std::string to_mime_type(const std::filesystem::path& path);

/// With the dot, such as ".json"; empty for a format without one.
std::string to_extension(Format format);

/// Appends the format that a "Content-Type" value names, if it names one.
void parse_content_type(std::string_view value, std::vector<Format>& formats);

/// Appends the formats that an "Accept" value names, the preferred one first. A text without
/// ";", "=" and the letter "q" keeps its order. Any other is sorted by q-factor (1 if missing), and the last
/// of several formats with one factor replaces the others. Throws std::out_of_range for an item that consists
/// of ";" alone.
void parse_accept(std::string_view value, std::vector<Format>& formats);
} // namespace tarn
