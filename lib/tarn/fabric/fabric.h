// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tarn/router.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
}

namespace tarn {
/// Where the router and the relay of one device, or of one person, are found: in a run-time directory, beside
/// the services. `tarnd` serves these endpoints. Any thread may use it.
struct Fabric {
    std::filesystem::path run_time_directory;
    Endpoint router;      ///< "router/zmq.sock" in the directory: requests, by path
    Endpoint relay_stats; ///< "relay/zmq.sock": the relay's statistics, by a router "/relay/stats"
    Endpoint relay_in;    ///< "relay/in.sock": publishers connect
    Endpoint relay_out;   ///< "relay/out.sock": subscribers connect
};

/// The fabric in a directory, which is made absolute. Throws Exception for one that no endpoint can name: an
/// ipc endpoint's path has 107 bytes at most.
[[nodiscard]] Fabric make_fabric(
    const std::filesystem::path& run_time_directory = default_run_time_directory);

/// Where a person's own fabric is, which needs no root: "$XDG_RUNTIME_DIR/tarn", or "/tmp/tarn-<uid>" without
/// that variable, which is the only one that the library reads. The directory need not be there.
[[nodiscard]] std::filesystem::path personal_run_time_directory();

/// What lets others into the directory of a person's own fabric, in a sentence for people that says what to
/// do about it; nothing if it is a directory, no link, belongs to this process's user, and gives nobody else
/// a right. In /tmp anybody may make a directory of that name, and would get every request.
[[nodiscard]] std::optional<std::string> check_personal_directory(const std::filesystem::path& directory);

/// The fabric of a program that nobody has named one to, be it on the device or on an engineer's desk: the
/// device's or the person's own, the first whose router is served, or else the first whose directory is
/// there, or else the device's. The person's own counts only if check_personal_directory() finds nothing;
/// else a warning in the log says why not. Looks at directories and sockets, and waits for nothing.
[[nodiscard]] Fabric find_fabric();

/// The settings with which an application uses a fabric:
///
///   tarn::ZmqSubsystem subsystem(tarn::make_settings(tarn::find_fabric()));
///
/// "relay_url" is the router, so that `make_client()` reaches each service by its path, and
/// `make_publisher()` the relay's statistics; "relay_sub" and "relay_pub" are the relay's two sides;
/// "run_time_directory" is its directory. In a person's own fabric sockets get mode 700 and no group, by
/// "socket_mode" and "socket_group". Further settings may be added before the dictionary is given to
/// ZmqSubsystem.
[[nodiscard]] std::shared_ptr<slate::Dictionary> make_settings(const Fabric& fabric);

/// Where the service `name` of a fabric has to serve so that the router finds it: "<name>/zmq.sock" in the
/// directory, which ZmqSubsystem::serve takes. Null, with an error in the log, if `name` can't be a
/// directory's name or the path is too long. The directory isn't made.
[[nodiscard]] Endpoint service_endpoint(const Fabric& fabric, const std::filesystem::path& name);

/// The same for the service itself, which may come first: makes its directory if it is missing, but not the
/// fabric's. Null, with an error in the log, also if that can't be made.
[[nodiscard]] Endpoint make_service_endpoint(const Fabric& fabric, const std::filesystem::path& name);
} // namespace tarn
