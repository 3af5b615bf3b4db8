// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tarn/types.h"

namespace tarn {
class Head;
class Message;
} // namespace tarn

namespace tarn_internal {
/// How many bytes of a binary body, and of a text, a log line shows.
inline constexpr std::size_t max_logged_bytes = 100;
inline constexpr std::size_t max_logged_text = 1024;

/// Whether bodies sent to or from this path stay out of logs: it contains "credential" or "password".
bool hidden_payload(const std::string& path);

/// The log text of a message, without its body if it is `secret`. A router removes the service's name, such
/// as "credentials", from the path, so the path alone isn't always enough to tell.
std::string describe(const Message& message, bool secret);

/// The log text of a message whose body is too large to show: its head, and the beginning of the body.
std::string head_and_bytes(const Head& head, std::string_view bytes);
std::string head_and_text(const Head& head, std::string_view text);
} // namespace tarn_internal
