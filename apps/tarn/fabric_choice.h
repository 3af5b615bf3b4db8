// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

#include <slate/duration.h>
#include <tarn/fabric/fabric.h>
#include <tarn/probe.h>
#include <tarn/types.h>

namespace CLI {
class App;
}

namespace tarn_command {
/// What a person says about where to go: an endpoint or a run-time directory, or nothing.
struct Place {
    std::string endpoint;
    std::string run_time_directory;
};

/// Declares "-e" and "--run-dir". `meaning` says what the endpoint is; null: there is no "-e".
std::shared_ptr<Place> add_place(CLI::App& app, const char* meaning);
inline constexpr const char* request_endpoint = "where to send it: a URI or a socket's path";

/// An endpoint, and the fabric that it belongs to unless it was named by "-e".
struct Target {
    tarn::Endpoint endpoint;
    std::optional<tarn::Fabric> fabric;
};

/// The endpoint of a URI or of a socket's path. Throws Failure.
tarn::Endpoint parse_endpoint(const std::string& text);

/// The fabric in a directory. Throws Failure for one that no endpoint can name.
tarn::Fabric fabric_in(const std::string& directory);

/// Why a fabric isn't one to send anything to, though its directory is there: others get at a directory that
/// is to be the person's own. Nothing if it may be used.
std::optional<std::string> distrust(const tarn::Fabric& fabric);

/// "`tarnd` or `tarn demo`", as this user has to start them.
std::string fabric_programs();

/// Where a command goes: what was named, or else the device's fabric or the person's own one, the first at
/// which somebody listens. `role` is the endpoint of a fabric that the command needs, and `name` its name in
/// sentences. Throws Failure with ExitUnreachable if nobody listens anywhere.
Target choose_target(const Place& place, tarn::Endpoint tarn::Fabric::*role, const std::string& name);

/// The same, as soon as somebody listens, if that is within `times` times `patience`.
Target wait_for_target(const Place& place, tarn::Endpoint tarn::Fabric::*role, const std::string& name,
                       const slate::Duration& patience, unsigned int times);

/// The fabric itself, by the same choice.
tarn::Fabric choose_fabric(const Place& place);

/// Whether somebody listens, and who. A peer across a network gets a second; on this device nothing is waited
/// for.
tarn::Probe look_at_endpoint(const tarn::Endpoint& endpoint);

/// Whether a look has shown that no request can arrive: nobody listens, or this user may not connect. A peer
/// that was silent may be slow.
bool is_unreachable(const tarn::Probe& found);

/// Throws Failure with ExitUnreachable if the endpoint is_unreachable() and stays so as many times for
/// `patience`. Connects, but sends nothing.
void require_served(const tarn::Endpoint& endpoint, const std::string& name,
                    const slate::Duration& patience = slate::Seconds(0), unsigned int times = 0);

/// What to do about an endpoint that can't be reached, by the error of a probe.
std::string advice(const std::string& error, const tarn::Endpoint& endpoint);
} // namespace tarn_command
