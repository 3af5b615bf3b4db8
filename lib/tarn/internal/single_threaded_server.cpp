// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/single_threaded_server.h"

#include <algorithm>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/server/server_loop.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/front.h"
#include "tarn/internal/transport/thread_mark.h"
#include "tarn/internal/utils/receive.h"

namespace tarn_internal {
struct SingleThreadedServer::Sockets {
    Sockets(zmq::context_t& context, const slate::Dictionary& settings)
        : wake_up(context, zmq::socket_type::sub),
          pubsub(context, zmq::socket_type::sub),
          front(context, settings)
    {
        limit_frames(pubsub, settings);
    }

    bool is_readable(const zmq::socket_t& socket) const
    {
        return std::any_of(items.begin(), items.end(), [&](const zmq::pollitem_t& item) {
            return item.socket == socket.handle() && tarn_internal::is_readable(item);
        });
    }

    zmq::socket_t wake_up;
    zmq::socket_t pubsub;
    Front front;
    std::vector<zmq::pollitem_t> items; // of the sockets that are in use
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
    const auto poll_it = [&](zmq::socket_t& socket) {
        sockets.items.push_back({socket.handle(), 0, ZMQ_POLLIN, 0});
    };
    if (!connect_control(sockets.wake_up, listener_.endpoint(), provider_))
        return false;
    poll_it(sockets.wake_up);
    if (pubsub_uri_) {
        if (!subscriber_.init_publish_subscribe(sockets.pubsub, *pubsub_uri_))
            return false;
        poll_it(sockets.pubsub);
    }
    if (!uris_.empty()) {
        if (!sockets.front.bind(uris_, "rx", provider_))
            return false;
        poll_it(sockets.front.socket());
    }
    return true;
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
    poll_for(sockets.items, memory_.wait_time());
    if (std::none_of(sockets.items.begin(), sockets.items.end(), tarn_internal::is_readable)) {
        memory_.give_back();
        return true;
    }
    if (sockets.is_readable(sockets.wake_up) && !handle_wake_up(sockets.wake_up, sockets.pubsub, listening_))
        return false;

    const slate::StopWatch watch(true);
    if (sockets.is_readable(sockets.pubsub))
        memory_.note(subscriber_.handle_publish_subscribe(sockets.pubsub));
    if (sockets.is_readable(sockets.front.socket()))
        handle_request(sockets.front.socket());
    handle_ms_->record(watch.elapsed() / 1000);
    return true;
}

void SingleThreadedServer::handle_request(zmq::socket_t& front)
{
    auto request = receive_request(front, provider_);
    if (!request)
        return;
    memory_.note(request->payload.size());
    requests_.handle(request->payload, [&](zmq::message_t& reply) {
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
    if (!runtime || !are_endpoints(endpoints, "make_server"))
        return nullptr;
    return make_with_threads<SingleThreadedServer>(id, runtime->context, settings, endpoints, factory,
                                                   relay_out, routes);
}
} // namespace tarn_internal
