// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>

#include "tarn/types.h"

namespace slate {
class Uri;
}

/// Operations on the file behind an "ipc" endpoint; a "file" URI names such a file directly. They report
/// failures by a warning in the log and false, and never throw. Any other endpoint has no file and gives
/// false without a log line. Mode and group change only for a socket, whatever takes its path meanwhile. Any
/// thread.

namespace tarn {
/// The group of a device's sockets, whose members may connect to them.
inline constexpr std::string_view socket_group = "corvane";

/// Sets the mode, which is rwxrwxr-x unless another one is given: owner and group may connect.
[[nodiscard]] bool try_modify_socket_permissions(const Endpoint& uri);
[[nodiscard]] bool try_modify_socket_permissions(const Endpoint& uri, std::filesystem::perms mode);

/// Changes the file's group by name. False without a log line if the group database can't be read.
[[nodiscard]] bool try_modify_socket_group(const Endpoint& uri, const std::string_view& group);

/// Removes the file. Also true if there was none.
[[nodiscard]] bool try_cleanup_socket_file(const Endpoint& uri);
} // namespace tarn
