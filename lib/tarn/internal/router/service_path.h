// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "tarn/types.h"

namespace tarn {
class Message;
}

namespace tarn_internal {
/// Where a request goes by its path, and the path that it carries there.
struct ServicePath {
    Endpoint endpoint;
    std::string path;
};

/// The service that claims a path: "/clock/time" goes to "<directory>/clock/zmq.sock" as "/time", and
/// "/clock/2/time" to "<directory>/clock/2/zmq.sock" as "/time". Only that there is something named "clock"
/// in the directory counts; the socket isn't looked at. None if no service claims it.
///
/// `run_time_directory` is one that normalise_directory() has given. Throws std::filesystem::filesystem_error
/// if it can't be asked. Threads: any.
std::optional<ServicePath> find_service(const std::filesystem::path& run_time_directory,
                                        std::string_view path);

/// The form that endpoints have: absolute, and without a trailing slash.
std::filesystem::path normalise_directory(const std::filesystem::path& directory);

/// Whether both lead to the same socket file, however they are written. False for what isn't "ipc".
bool is_same_socket(const slate::Uri& one, const slate::Uri& other);

/// Whether it is a request that has a path.
bool is_routable(const Message& message);
} // namespace tarn_internal
