// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/single_threaded_server.h"

#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/server/server_loop.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/front.h"
#include "tarn/internal/transport/socket_poller.h"
#include "tarn/internal/transport/thread_mark.h"

namespace tarn_internal {
struct SingleThreadedServer::Sockets {
    Sockets(zmq::context_t& context, const slate::Dictionary& settings)
        : wake_up(context, zmq::socket_type::sub),
          pubsub(context, zmq::socket_type::sub),
          front(context, settings)
    {
        set_high_water_mark(pubsub, settings);
        // Those that the server has no use for stay silent.
        poller.add(wake_up);
        poller.add(pubsub);
        poller.add(front.socket());
    }

    static constexpr SocketPoller::Index wake_up_index = 0;
    static constexpr SocketPoller::Index pubsub_index = 1;
    static constexpr SocketPoller::Index front_index = 2;

    zmq::socket_t wake_up;
    zmq::socket_t pubsub;
    Front front;
    SocketPoller poller;
};

SingleThreadedServer::SingleThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                                           std::shared_ptr<const slate::Dictionary> settings,
                                           std::vector<Endpoint> uris,
                                           const std::shared_ptr<MessageFactory>& factory,
                                           Endpoint pubsub_uri,
                                           const std::vector<std::shared_ptr<Route>>& routes)
    : ServerBase(id, std::move(context), std::move(settings), std::move(uris), factory, std::move(pubsub_uri),
                 RemoteCalls::Lock::HeldDuringCall),
      listener_(context_, slate::make_uri("inproc://" + slate::make_uuid().to_string()))
{
    add_first(routes);
    start();
}

SingleThreadedServer::~SingleThreadedServer()
{
    listener_.stop();
    clear(); // while this is still a whole server: what routes and functions own may use it as it goes
    listening_.reset();
}

void SingleThreadedServer::start()
{
    listener_.start("tarn-server", [this] { listen(); });
    const auto announce = [this] { (void)listener_.send(worker_listening); };
    const auto wait = [this](const slate::Duration& time) { return listening_.wait(time); };
    if (!wait_until_listening(announce, wait))
        slate::log_warn(provider_, SLATE_HERE, "worker thread failed to start in expected timeframe");
}

void SingleThreadedServer::notify_subscriber()
{
    slate::log_debug(provider_, SLATE_HERE, "try to reload subscriptions");
    (void)listener_.send(update_subscriptions);
}

void SingleThreadedServer::listen()
{
    const ThreadMark mark(this);
    slate::log_debug(provider_, SLATE_HERE, "thread entry");
    Sockets sockets(*context_, *settings_);
    if (init(sockets))
        serve(sockets);
    sockets.front.remove_socket_files();
    slate::log_debug(provider_, SLATE_HERE, "thread exit");
}

bool SingleThreadedServer::init(Sockets& sockets)
{
    return connect_control(sockets.wake_up, listener_.endpoint(), provider_) &&
           (!pubsub_uri_ || subscriber_.init_publish_subscribe(sockets.pubsub, *pubsub_uri_)) &&
           (uris_.empty() || sockets.front.bind(uris_, "rx", provider_));
}

void SingleThreadedServer::serve(Sockets& sockets)
{
    // From 1 ms to 10 s, which is beyond any client's patience.
    handle_ms_ = provider_->add_statistic("handle_ms", 1, 10000, 100, "", 1.0);

    run_passes(provider_, *counters_.err, [&] { return serve_once(sockets); });
}

/// One pass: at most one message of each socket. False at the end.
bool SingleThreadedServer::serve_once(Sockets& sockets)
{
    SocketPoller& poller = sockets.poller;
    memory_.after_wait(poller.wait(memory_.wait_time()));
    const bool is_told = poller.is_readable(Sockets::wake_up_index);
    const bool has_change = poller.is_readable(Sockets::pubsub_index);
    const bool has_request = poller.is_readable(Sockets::front_index);
    if (!is_told && !has_change && !has_request)
        return true;
    if (is_told) {
        if (!handle_wake_up(sockets.wake_up, sockets.pubsub, listening_))
            return false;
        poller.touch(Sockets::pubsub_index); // subscriptions may have changed
    }
    const slate::StopWatch watch(true);
    if (has_change)
        memory_.note(subscriber_.handle_publish_subscribe(sockets.pubsub));
    if (has_request)
        handle_request(sockets.front.socket());
    handle_ms_->record(watch.elapsed() / 1000);
    return true;
}

void SingleThreadedServer::handle_request(zmq::socket_t& front)
{
    auto request = receive_request(front, provider_);
    if (!request || !request->is_answerable())
        return;
    memory_.note(request->payload.size());
    requests_.handle(*request, [&](zmq::message_t& reply) {
        memory_.note(reply.size());
        send_reply(front, *request, reply);
    });
}

std::shared_ptr<Server> make_single_threaded_server(int id,
                                                    const std::shared_ptr<const slate::Dictionary>& settings,
                                                    const std::vector<Endpoint>& endpoints,
                                                    const Endpoint& relay_out,
                                                    const std::shared_ptr<MessageFactory>& factory,
                                                    const std::vector<std::shared_ptr<Route>>& routes)
{
    const auto runtime = find_runtime("make_server");
    if (!runtime || !are_endpoints(endpoints, relay_out, "make_server"))
        return nullptr;
    return make_with_threads<SingleThreadedServer>(id, runtime->context, settings, endpoints, factory,
                                                   relay_out, routes);
}
} // namespace tarn_internal
