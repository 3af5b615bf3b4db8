// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tarn/internal/route_list.h"
#include "tarn/internal/server/remote_calls.h"
#include "tarn/internal/server/request_handler.h"
#include "tarn/internal/server/server_counters.h"
#include "tarn/internal/server/subscriber.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/server.h"

namespace tarn_internal {
/// The parts that all servers share: routes and remote calls, the handling of one request and of one
/// published change, provider and counters. The servers derived from it add sockets and threads.
class ServerBase : public Server {
public:
    void suppress_add_remote_call_warning() override;
    bool add(const std::shared_ptr<Route>& route) override;
    void add(unsigned int number, const std::function<void(Message&)>& function) override;
    void del(const std::string& name) override;
    void del(unsigned int number) override;
    void clear() override;

protected:
    ServerBase(int id, std::shared_ptr<zmq::context_t> context,
               std::shared_ptr<const slate::Dictionary> settings, std::vector<Endpoint> uris,
               const std::shared_ptr<MessageFactory>& factory, Endpoint pubsub_uri, RemoteCalls::Lock policy);

    /// Adds the routes that a server is made with, before its threads start.
    void add_first(const std::vector<std::shared_ptr<Route>>& routes);

    /// Tells the thread that receives published changes to read the topics of the routes again. Called with
    /// the lock of the routes held, which keeps the channel to one thread at a time.
    virtual void notify_subscriber() = 0;

    /// Takes one command off the channel of the thread that receives published changes. False at the end.
    bool handle_wake_up(zmq::socket_t& wake_up, zmq::socket_t& pubsub, ReadyFlag& listening);

    const std::shared_ptr<zmq::context_t> context_;
    const std::vector<Endpoint> uris_; // where requests come in
    const Endpoint pubsub_uri_;        // where the relay forwards published changes; null for none
    const std::shared_ptr<const slate::Dictionary> settings_;
    const OwnedProvider provider_;
    const ServerCounters counters_;
    RouteList routes_;
    RemoteCalls remote_calls_;
    const std::shared_ptr<MessageFactory> factory_;
    RequestHandler requests_;
    Subscriber subscriber_;
};
} // namespace tarn_internal
