// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "tarn/internal/route_list.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/message_factory.h"

namespace slate {
class Dictionary;
class Uri;
} // namespace slate
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
    /// `settings` are read for "max_frame_bytes".
    Subscriber(const slate::Dictionary& settings, std::shared_ptr<MessageFactory> factory,
               std::shared_ptr<slate::Provider> provider, const ServerCounters& counters, RouteList& routes);

    /// Connects the socket and subscribes to the topics of the routes. False, with an error in the log, if it
    /// can't.
    bool init_publish_subscribe(zmq::socket_t& socket, const slate::Uri& uri);

    /// Follows a change of the routes. Where one topic covers others it subscribes before it unsubscribes, so
    /// that no published change is lost. Throws zmq::error_t.
    void handle_subscription_change(zmq::socket_t& socket);

    /// Takes one published change off a socket that has one. What a route throws is logged and counted here.
    /// A change that is larger than "max_frame_bytes" is dropped. Returns the size of its frame.
    std::size_t handle_publish_subscribe(zmq::socket_t& socket);

private:
    void subscribe(zmq::socket_t& socket, const std::string& topic) const;
    void report(std::string_view error) const;
    zmq::message_t receive(zmq::socket_t& socket);
    void handle(Context& context);
    bool is_for_this_process(const Head& head) const;

    const std::optional<std::size_t> max_frame_bytes_;
    const std::shared_ptr<MessageFactory> factory_;
    const std::shared_ptr<slate::Provider> provider_;
    const ServerCounters& counters_;
    RouteList& routes_;
    const int pid_;
    /// The topics that are set on the socket; the empty one stands for everything.
    std::set<std::string> subscribed_topics_;
};
} // namespace tarn_internal
