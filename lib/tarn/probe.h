// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "slate/duration.h"
#include "tarn/types.h"

namespace tarn {
/// What a look at an endpoint has shown.
struct Probe {
    // Programs are compiled against the order of these fields: add new ones at the end.

    /// Whether a process listens there. It may still not answer.
    bool served = false;
    /// The process that listens, if the endpoint is "ipc" and served.
    std::optional<int> pid;
    /// Why a connection wasn't possible, in words; empty if it is served.
    std::string error;
    /// Since when, by the clock of that moment: when the socket's file was made. Only for an "ipc" endpoint
    /// with a file, if it is served.
    std::optional<std::chrono::system_clock::time_point> since;
    /// What the process calls itself, in 15 bytes of printable ASCII at most, such as "tarnd"; empty without
    /// `pid`, or if nothing shows it.
    std::string process_name;
    /// What the peer says of its socket in the greeting with which ZeroMQ opens each connection: "ROUTER" for
    /// a server or router, "XSUB" and "XPUB" for the two sides of a relay, "PUB" for a publisher. Empty if it
    /// said nothing in time, as a stopped process, or doesn't speak ZeroMQ. 32 bytes at most.
    std::string socket_type;
};

/// Looks whether somebody serves at an endpoint, by a connection that carries no message: a greeting goes
/// each way, which ZeroMQ answers however busy the process is, and the connection ends before the peer could
/// use it. That takes `timeout` at most, and before it as long as the resolver wants for a host's name; 0
/// leaves the greeting out, and then an "ipc" endpoint is looked at without any wait. What the peer says is
/// its own word: anybody who may serve there can say anything. An "inproc" endpoint, which belongs to one
/// ZeroMQ context, and null are never found to be served.
///
/// Programs use it before they start: a second server at an "ipc" path takes the path from the first one
/// without notice. Another process may begin to serve, or end, as soon as this returns. Any thread; never
/// throws but for lack of memory.
[[nodiscard]] Probe probe(const Endpoint& endpoint, const slate::Duration& timeout = slate::Seconds(1));

/// Who serves, for people: "process 312, which is tarnd, since 2026-03-01 12:30:05", in local time, with as
/// much of it as is known; "somebody" if nothing is.
[[nodiscard]] std::string describe_server(const Probe& found);
} // namespace tarn
