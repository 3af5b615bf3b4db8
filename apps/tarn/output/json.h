// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

namespace tarn_command {
/// JSON for a reader, indented, with the numbers, keys and their order as they came, and coloured if standard
/// output is. Nothing if the text isn't JSON.
std::optional<std::string> indent_json(std::string_view text);

/// An object of ours in one line. What isn't UTF-8 in it is replaced.
std::string to_line(const nlohmann::ordered_json& value);
} // namespace tarn_command
