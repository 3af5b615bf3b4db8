// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "tarn/route.h"

namespace tarn {
/// What a publisher asks a relay's process for at its start: a route that counts the published messages of
/// each sender and answers "/relay/stats" with a Stats message, in protobuf or JSON, whichever is asked for;
/// and "/stats", which is what a router makes of that for its service "relay".
///
/// Add it to a server that hears the relay's output and answers where publishers ask ("relay_url"):
///
///   auto relay = tarn::make_relay(relay_in, relay_out);
///   auto server = subsystem.add_server({endpoint}, relay_out);
///   server->add(tarn::make_relay_stats_route());
///
/// It hears what is published below "/relay", as each publisher does at its start. Senders are told apart by
/// their tag; of more than a thousand, the one that was silent longest is forgotten.
[[nodiscard]] std::shared_ptr<Route> make_relay_stats_route();
} // namespace tarn
