// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <vector>

#include "tarn/internal/server/server_base.h"
#include "tarn/internal/utils/memory_return.h"

namespace tarn_internal {
/// A server with one thread, the listener, which runs all handlers, one at a time.
///
/// In each pass the listener serves its control channel, then one published change, then one request. With
/// neither endpoints nor a relay endpoint it only waits for its end.
class SingleThreadedServer : public ServerBase {
public:
    /// Runs when this returns, unless an endpoint can't be bound or connected, which is logged. `pubsub_uri`,
    /// the relay's output, may be null and `uris` empty. Throws zmq::error_t if the control channel can't be
    /// made, and what Route::prime throws for one of `routes`.
    SingleThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                         std::shared_ptr<const slate::Dictionary> settings, std::vector<Endpoint> uris,
                         const std::shared_ptr<MessageFactory>& factory, Endpoint pubsub_uri,
                         const std::vector<std::shared_ptr<Route>>& routes = {});
    /// Stops the listener after the current request, and removes the socket files.
    ~SingleThreadedServer() override;

private:
    void start();
    void notify_subscriber() override;

    // On the listener thread only.
    struct Sockets;
    void listen();
    bool init(Sockets& sockets);
    void serve(Sockets& sockets);
    bool serve_once(Sockets& sockets);
    void handle_request(zmq::socket_t& front);

    ReadyFlag listening_;
    MemoryReturn memory_;
    std::shared_ptr<slate::Statistic> handle_ms_;
    ControlledThread listener_; // last, as it uses all of the above
};

/// As make_server; `id` is the instance of the server's provider "zmq.server".
[[nodiscard]] std::shared_ptr<Server> make_single_threaded_server(
    int id, const std::shared_ptr<const slate::Dictionary>& settings, const std::vector<Endpoint>& endpoints,
    const Endpoint& relay_out, const std::shared_ptr<MessageFactory>& factory = make_message_factory(),
    const std::vector<std::shared_ptr<Route>>& routes = {});
} // namespace tarn_internal
