// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>

#include "slate/duration.h"
#include "tarn/types.h"

namespace tarn {
/// What a look at an endpoint has shown.
struct Probe {
    /// Whether a process listens there. It may still not answer.
    bool served = false;
    /// The process that listens, if the endpoint is "ipc" and served.
    std::optional<int> pid;
    /// Why a connection wasn't possible, in words; empty if it is served.
    std::string error;
};

/// Looks whether somebody serves at an endpoint, by a connection that carries no message. For "tcp" it waits
/// for `timeout` at most; for "ipc" it doesn't wait. An "inproc" endpoint, which belongs to one ZeroMQ
/// context, and null are never found to be served.
///
/// Programs use it before they start: a second server at an "ipc" path takes the path from the first one
/// without notice. Another process may begin to serve, or end, as soon as this returns. Any thread; never
/// throws but for lack of memory.
[[nodiscard]] Probe probe(const Endpoint& endpoint, const slate::Duration& timeout = slate::Seconds(1));
} // namespace tarn
