// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string_view>

#include "tarn/types.h"

namespace slate {
class Uri;
}

/// What the file behind an "ipc" endpoint needs; a "file" URI names such a file directly. They report
/// failures by a warning in the log and false, and never throw. Any other endpoint has no file, and gives
/// false without a word. Any thread.

namespace tarn {
/// The group that owns the sockets of a device's servers, so that its members may talk to them.
inline constexpr std::string_view socket_group = "corvane";

/// Lets owner and group read and write (rwxrwxr-x).
[[nodiscard]] bool try_modify_socket_permissions(const Endpoint& uri);

/// Hands the file to a group by name. False without a word if the group database can't be read.
[[nodiscard]] bool try_modify_socket_group(const Endpoint& uri, const std::string_view& group);

/// Removes the file. True also if there was none.
[[nodiscard]] bool try_cleanup_socket_file(const Endpoint& uri);
} // namespace tarn
