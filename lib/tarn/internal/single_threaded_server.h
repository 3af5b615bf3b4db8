// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarn/internal/plain_route_table.h"
#include "tarn/internal/server/remote_calls.h"
#include "tarn/internal/server/request_handler.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/internal/server/subscriber.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/server.h"

namespace tarn_internal {
/// A server with one thread, the listener, which runs all handlers, one at a time.
///
/// In each pass the listener serves its control channel, then one published change, then one request. With
/// neither endpoints nor a relay to hear it waits for its end.
class SingleThreadedServer : public Server {
public:
    /// Runs when this returns, unless an endpoint can't be bound or connected, which is logged. `pubsub_uri`
    /// may be null and `uris` empty. Throws zmq::error_t if the control channel can't be made.
    SingleThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                         std::shared_ptr<const slate::Dictionary> settings,
                         std::vector<std::shared_ptr<const slate::Uri>> uris,
                         std::shared_ptr<MessageFactory> factory,
                         std::shared_ptr<const slate::Uri> pubsub_uri);
    /// Stops the listener after the request in hand, and removes the socket files.
    ~SingleThreadedServer() override;

    void suppress_add_remote_call_warning() override;
    bool add(const std::shared_ptr<Route>& route) override;
    void add(unsigned int number, const std::function<void(Message&)>& function) override;
    void del(const std::string& name) override;
    void del(unsigned int number) override;
    void clear() override;

private:
    void start();
    void notify_listener();

    // On the listener thread only.
    struct Sockets;
    void listen();
    bool init(Sockets& sockets);
    void serve(Sockets& sockets);
    bool serve_once(Sockets& sockets);
    bool handle_wake_up(Sockets& sockets);

    const std::shared_ptr<zmq::context_t> context_;
    const std::vector<std::shared_ptr<const slate::Uri>> uris_;
    const std::shared_ptr<const slate::Uri> pubsub_uri_;
    const std::shared_ptr<const slate::Dictionary> settings_;
    const OwnedProvider provider_;
    const ServerCounters counters_;
    ReadyFlag listening_;
    PlainRouteTable routes_;
    RemoteCalls remote_calls_;
    RequestHandler requests_;
    Subscriber subscriber_;
    std::shared_ptr<slate::Statistic> handle_ms_;
    ControlledThread listener_; // last, as it uses all of the above
};

/// As make_server, with a number of the caller's own for the server's provider "zmq.server".
std::shared_ptr<Server> make_single_threaded_server(
    int id, const std::shared_ptr<const slate::Dictionary>& settings,
    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
    const std::shared_ptr<const slate::Uri>& pubsub_uri,
    const std::shared_ptr<MessageFactory>& factory = make_message_factory());
} // namespace tarn_internal
