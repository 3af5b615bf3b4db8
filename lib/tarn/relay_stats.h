// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "tarn/route.h"

namespace slate {
class Clock;
}

namespace tarn {
/// The route that every publisher asks at its start: it counts the published messages of each sender and
/// answers "/relay/stats" with a Stats message, in protobuf or JSON as the request prefers. It also answers
/// "/stats", which is the path that a router forwards to its service "relay".
///
/// Add it to a server that subscribes to the relay's output and serves the endpoint that publishers ask
/// ("relay_url"):
///
///   auto relay = tarn::make_relay(relay_in, relay_out);
///   auto server = subsystem.add_server({endpoint}, relay_out);
///   server->add(tarn::make_relay_stats_route());
///
/// It counts messages published below "/relay", which each publisher sends at its start. It distinguishes
/// senders by their tag. Beyond a thousand it forgets the one that has been silent longest, or that one of
/// the process that holds more than half of them; and each one after 15 minutes of silence.
[[nodiscard]] std::shared_ptr<Route> make_relay_stats_route();
/// The same by a clock of the caller's, which must not be null: a test need not wait for 15 minutes.
[[nodiscard]] std::shared_ptr<Route> make_relay_stats_route(const std::shared_ptr<const slate::Clock>& clock);
} // namespace tarn
