// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarn/message_factory.h"
#include "tarn/server.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
class Uri;
} // namespace slate

namespace tarn {
/// The default directory in which a router looks for services.
inline constexpr const char* default_run_time_directory = "/run/tide";

/// One endpoint for all services of a device. The first segment of a request's path names the service, and
/// the router passes the request on to that service's own socket, without that segment, and the reply back:
/// "/clock/time/zone" goes to the service at "/run/tide/clock/zmq.sock" as "/time/zone", and "/clock/2/time"
/// to the one at "/run/tide/clock/2/zmq.sock" as "/time". The router looks at the file system for every
/// request, so services can come and go at any time.
///
/// If there is no such directory, the router's own routes answer, as on a server with one thread. Remote
/// calls can be added, but no request reaches them: the router answers a message without a path with status
/// 501.
///
/// Three requests can be under way at a time, each for its "ttl" less 500 ms at most; further ones wait
/// behind them, even if their own service is quick. docs/servers.md tells what a dead service costs.
///
/// Destroying it stops it after it has answered the requests that are under way; a wait of more than
/// default_timeout() is cut short. The public endpoints' socket files stay.
class Router : public Server {};

/// A router at `endpoints`. Null, with an error in the log, without a ZmqSubsystem, if an endpoint is null,
/// or if the directory is empty.
///
/// `settings` and `relay_out` are for its own routes, as for make_server. `run_time_directory` holds a
/// directory for each service; without it, the setting "run_time_directory" names that. An endpoint that
/// can't be bound is no exception but an error in the log, and the router then serves nothing. Throws
/// zmq::error_t if the sockets of its control channel can't be made.
[[nodiscard]] std::shared_ptr<Router> make_router(
    const std::shared_ptr<const slate::Dictionary>& settings, const std::vector<Endpoint>& endpoints,
    const Endpoint& relay_out, const std::shared_ptr<MessageFactory>& factory = make_message_factory());
[[nodiscard]] std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                                  const std::vector<Endpoint>& endpoints,
                                                  const Endpoint& relay_out,
                                                  const std::shared_ptr<MessageFactory>& factory,
                                                  const std::filesystem::path& run_time_directory);

/// The same with routes of its own from the first moment; see make_server.
[[nodiscard]] std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                                  const std::vector<Endpoint>& endpoints,
                                                  const Endpoint& relay_out,
                                                  const std::shared_ptr<MessageFactory>& factory,
                                                  const std::filesystem::path& run_time_directory,
                                                  const std::vector<std::shared_ptr<Route>>& routes);

/// What a router tells who asks for a path that names no service and that no route of its own takes: the
/// status message of the reply, whose status stays 404. Empty: none, as without such a function.
///
/// It gets the path as it was asked for, and runs on any of the router's threads, on several at once. An
/// exception is an error in the log and leaves the reply without a text.
using UnknownPathText = std::function<std::string(const std::string& path)>;

/// The same with a text for unknown paths. A route for every path would do that too, but would be listed in
/// the index, and would have the router's own server subscribe to every change.
[[nodiscard]] std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                                  const std::vector<Endpoint>& endpoints,
                                                  const Endpoint& relay_out,
                                                  const std::shared_ptr<MessageFactory>& factory,
                                                  const std::filesystem::path& run_time_directory,
                                                  const std::vector<std::shared_ptr<Route>>& routes,
                                                  const UnknownPathText& unknown_path_text);
} // namespace tarn
