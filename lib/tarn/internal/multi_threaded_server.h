// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <vector>

#include "slate/uuid.h"
#include "tarn/internal/server/server_base.h"

namespace tarn_internal {
class WorkerSocket;

/// A server with many threads: a front thread hands each request to a worker that is free, and a separate
/// thread receives published changes. Handlers of different routes run side by side, those of one route one
/// at a time.
///
/// A slow route occupies one worker; further requests for it wait on its mutex, each occupying another
/// worker. While none is free, requests wait in the queues of their senders.
class MultiThreadedServer : public ServerBase {
public:
    /// As SingleThreadedServer, with at least two `workers`.
    MultiThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                        std::shared_ptr<const slate::Dictionary> settings, std::vector<Endpoint> uris,
                        const std::shared_ptr<MessageFactory>& factory, Endpoint pubsub_uri,
                        unsigned long workers, const std::vector<std::shared_ptr<Route>>& routes = {});
    ~MultiThreadedServer() override;

    /// Ends all threads, after the requests in hand, whose replies leave at once, and removes the socket
    /// files. A stopped server doesn't serve again; stopping it twice is harmless.
    void stop();

    /// The routes go first here.
    void clear() override;

private:
    void start();
    void notify_subscriber() override;

    void listen_front();
    void worker_entry(WorkerSocket& socket);
    void listen_pubsub();

    const unsigned long worker_count_;
    const slate::Uuid uuid_; // names all inproc endpoints of this server
    const Endpoint dealer_uri_;
    ReadyFlag front_listening_;
    ReadyFlag pubsub_listening_;
    // Last, as they use all of the above. Only "TERMINATE" goes to the front.
    std::unique_ptr<ControlledThread> pubsub_; // null without a relay to hear
    ControlledThread front_;
};

/// As make_server; `id` is the instance of the server's provider "zmq.server". Null, with an
/// error in the log, for less than two workers.
[[nodiscard]] std::shared_ptr<Server> make_multi_threaded_server(
    int id, unsigned long workers, const std::shared_ptr<const slate::Dictionary>& settings,
    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
    const std::shared_ptr<MessageFactory>& factory = make_message_factory(),
    const std::vector<std::shared_ptr<Route>>& routes = {});
} // namespace tarn_internal
