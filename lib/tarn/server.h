// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarn/message_factory.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
class Uri;
} // namespace slate

namespace tarn {
class Route;

/// Answers requests at its endpoints by routes, and passes published changes to them. It runs from its
/// construction; destroying it stops it after the current request.
///
/// Threads: add, del and clear may be called from any thread, and from a route's handler.
class Server {
public:
    virtual ~Server() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Later calls of add(number, function) don't log that remote calls are discouraged.
    virtual void suppress_add_remote_call_warning() = 0;

    /// Appends a route; the first route that accepts a request gets it. False, with an error in the log, if
    /// there is a route of that name already, or if `route` is null. Exceptions of Route::prime pass to the
    /// caller. What is probably a mistake is only a warning in the log: a pattern that doesn't begin with
    /// "/", and a value route without the function for one of its verbs.
    virtual bool add(const std::shared_ptr<Route>& route) = 0;

    /// Answers remote calls of that number with a function, which gets the whole message. Throws Exception
    /// for a number below 100 that is in use.
    virtual void add(unsigned int number, const std::function<void(Message&)>& function) = 0;

    /// Deletes the route of that name; unknown names are ignored. A running handler is not interrupted.
    virtual void del(const std::string& name) = 0;
    virtual void del(unsigned int number) = 0;

    /// Removes all remote calls, and all routes but "/index".
    virtual void clear() = 0;
};

/// A server at `endpoints` whose handlers run one at a time. Null, with an error in the log, without a
/// ZmqSubsystem and for an endpoint that is null.
///
/// `settings` are read for "session_ttl" and given to Route::prime. `relay_out` is where the relay
/// forwards published changes; null subscribes to nothing. An endpoint that can't be bound is no exception
/// but an error in the log, and the server then serves nothing; the call takes 25.5 s in that case. Throws
/// zmq::error_t if the sockets of its control channel can't be made.
[[nodiscard]] std::shared_ptr<Server> make_server(
    const std::shared_ptr<const slate::Dictionary>& settings, const std::vector<Endpoint>& endpoints,
    const Endpoint& relay_out, const std::shared_ptr<MessageFactory>& factory = make_message_factory());

/// The same with `workers` threads that run handlers of different routes side by side; still one at a time
/// for each route. One worker, or a server without endpoints, is the form above. Zero workers: logs a
/// warning, then an error, and returns null, unless `endpoints` is empty.
[[nodiscard]] std::shared_ptr<Server> make_server(
    unsigned long workers, const std::shared_ptr<const slate::Dictionary>& settings,
    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
    const std::shared_ptr<MessageFactory>& factory = make_message_factory());

/// The same with its routes from the first moment: it binds its endpoints only when all of them are in, so
/// that no request meets status 404 while a service starts. A route that can't be added is an error in the
/// log, as for Server::add. Passes on what Route::prime throws.
[[nodiscard]] std::shared_ptr<Server> make_server(unsigned long workers,
                                                  const std::shared_ptr<const slate::Dictionary>& settings,
                                                  const std::vector<Endpoint>& endpoints,
                                                  const Endpoint& relay_out,
                                                  const std::shared_ptr<MessageFactory>& factory,
                                                  const std::vector<std::shared_ptr<Route>>& routes);

/// A server without endpoints, which only receives the changes that the relay forwards at `relay_out`.
[[nodiscard]] std::shared_ptr<Server> make_subscriber(
    const std::shared_ptr<const slate::Dictionary>& settings, const Endpoint& relay_out,
    const std::shared_ptr<MessageFactory>& factory = make_message_factory());
} // namespace tarn
