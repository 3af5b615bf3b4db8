// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>

#include "tarn/router.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
}

namespace tarn {
/// Where the router and the relay of one device, or of one person, are found: in a run-time directory, beside
/// the services. `tarnd` serves these endpoints. Values only: nothing is looked at, and any thread may use
/// them.
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
/// that variable. The directory need not be there.
[[nodiscard]] std::filesystem::path personal_run_time_directory();

/// The settings with which an application uses a fabric:
///
///   tarn::ZmqSubsystem subsystem(tarn::make_settings(tarn::make_fabric()));
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
} // namespace tarn
