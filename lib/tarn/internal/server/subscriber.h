// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>

#include "tarn/internal/route_list.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/message_factory.h"

namespace slate {
class Uri;
}
namespace zmq {
class message_t;
class socket_t;
} // namespace zmq

namespace tarn_internal {
/// How every server handles published changes: keeps a ZMQ_SUB socket subscribed to the topics of its routes,
/// and passes each change to the routes that accept it.
///
/// Threads: the one that owns the socket.
class Subscriber {
public:
    /// `routes` and `counters` must outlive the subscriber.
    Subscriber(std::shared_ptr<MessageFactory> factory, std::shared_ptr<slate::Provider> provider,
               const ServerCounters& counters, RouteList& routes);

    /// Connects the socket and subscribes to the topics of the routes. False, with an error in the log, if it
    /// can't.
    bool init_publish_subscribe(zmq::socket_t& socket, const slate::Uri& uri);

    /// Follows a change of the routes. Where one topic covers others it subscribes before it unsubscribes, so
    /// that no published change is lost. Throws zmq::error_t.
    void handle_subscription_change(zmq::socket_t& socket);

    /// Takes one published change off a socket that has one. A failure that a route reports by Exception is
    /// logged and counted here; other exceptions pass to the caller. Returns the size of
    /// its frame.
    std::size_t handle_publish_subscribe(zmq::socket_t& socket);

private:
    zmq::message_t receive(zmq::socket_t& socket);
    void handle(Context& context);
    bool is_for_this_process(const Head& head) const;

    const std::shared_ptr<MessageFactory> factory_;
    const std::shared_ptr<slate::Provider> provider_;
    const ServerCounters& counters_;
    RouteList& routes_;
    const int pid_;
    /// The topics that are set on the socket; the empty one stands for everything.
    std::set<std::string> subscribed_topics_;
};
} // namespace tarn_internal
