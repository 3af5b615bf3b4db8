// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
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

/// Runs a command that fills in `object`, and prints that object if `is_wanted`: also after a failure, with
/// "exit" and, in "problem", the sentence. Only wrong arguments print none. Throws what `run` throws.
int print_object(bool is_wanted, nlohmann::ordered_json& object, const std::function<int()>& run);
} // namespace tarn_command
