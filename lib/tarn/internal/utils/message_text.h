// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tarn/types.h"

namespace google::protobuf {
class Message;
}

namespace tarn {
class Head;
class Message;
} // namespace tarn

namespace tarn_internal {
/// How many bytes of a binary body, and of a text, a log line shows.
inline constexpr std::size_t max_logged_bytes = 100;
inline constexpr std::size_t max_logged_text = 1024;
/// From this size on a message is cut before it is printed.
inline constexpr std::size_t max_printed_bytes = 4096;

/// Whether bodies sent to or from this path stay out of logs: it contains "credential" or "password".
bool hidden_payload(const std::string& path);

/// The log text of a message, without its body if it is `secret`. A router removes the service's name, such
/// as "credentials", from the path, so the path alone isn't always enough to tell.
std::string describe(const Message& message, bool secret);

/// Cuts the body to what describe() shows of it, and gives the rest of its memory back. The message is of no
/// other use afterwards.
void keep_what_is_logged(Message& message);

/// Any protobuf message on one line, as its ShortDebugString, with two bounds, since a peer chooses what is
/// printed: an Any is expanded one level deep, and a message of 4 KiB or more is cut, with "… (N bytes)" for
/// its size. Neither costs more time or memory than the text that is left.
std::string bounded_text(const google::protobuf::Message& message);

/// The log text of a message whose body is too large to show: its head, and the beginning of the body.
std::string head_and_bytes(const Head& head, std::string_view bytes);
std::string head_and_text(const Head& head, std::string_view text);
} // namespace tarn_internal
