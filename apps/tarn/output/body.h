// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <google/protobuf/any.pb.h>
#include <nlohmann/json_fwd.hpp>
#include <tarn/proto/format.pb.h>

namespace tarn_command {
/// The protobuf message in a body, as text for people, where the path tells its type: an index or the
/// relay's statistics.
std::optional<std::string> protobuf_text(std::string_view path, std::string_view body);

/// The same for a value of a call, whose type has a name.
std::string any_text(const google::protobuf::Any& value);

/// Whether a body can be shown once its control characters are made visible. One that its format calls binary
/// must be plain text for it; any other one only needs to be UTF-8 without zero bytes.
bool is_showable(tarn::Format format, std::string_view body);

/// A body for a terminal: JSON indented, protobuf as text where the type is known, other text with control
/// characters made visible. Nothing for binary, which no terminal should get.
std::optional<std::string> readable(std::string_view path, tarn::Format format, const std::string& body);

/// The body in an object: "json" if it is JSON, else "body" as text, else "base64". Its size in "bytes".
void add_body(nlohmann::ordered_json& object, std::string_view path, tarn::Format format,
              const std::string& body);

/// Writes to standard output, and throws Failure if that takes no more.
void write_out(std::string_view text);
void flush_out();

/// Throws the same at once if standard output is closed, for a command that may never come to write.
void require_output();
} // namespace tarn_command
