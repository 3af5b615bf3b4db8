// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/multi_threaded_server.h"

#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/server/server_loop.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/dispatcher.h"
#include "tarn/internal/transport/front.h"
#include "tarn/internal/transport/socket_poller.h"
#include "tarn/internal/transport/thread_mark.h"
#include "tarn/internal/transport/workers.h"
#include "tarn/internal/utils/memory_return.h"

namespace tarn_internal {
namespace {
Endpoint inproc(const std::string& kind, const slate::Uuid& uuid)
{
    return slate::make_uri("inproc://" + kind + "/" + uuid.to_string());
}
} // namespace

MultiThreadedServer::MultiThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                                         std::shared_ptr<const slate::Dictionary> settings,
                                         std::vector<Endpoint> uris,
                                         const std::shared_ptr<MessageFactory>& factory, Endpoint pubsub_uri,
                                         unsigned long workers,
                                         const std::vector<std::shared_ptr<Route>>& routes)
    : ServerBase(id, std::move(context), std::move(settings), std::move(uris), factory, std::move(pubsub_uri),
                 RemoteCalls::Lock::ReleasedBeforeCall),
      worker_count_(workers),
      uuid_(slate::make_uuid()),
      dealer_uri_(inproc("dealer", uuid_)),
      front_(context_, inproc("reqrep", uuid_))
{
    add_first(routes);
    start();
}

MultiThreadedServer::~MultiThreadedServer()
{
    stop();
    clear(); // while this is still a whole server: what routes and functions own may use it as it goes
}

void MultiThreadedServer::stop()
{
    front_.stop();
    if (pubsub_)
        pubsub_->stop();
    pubsub_listening_.reset();
    front_listening_.reset();
}

void MultiThreadedServer::clear()
{
    routes_.clear();
    remote_calls_.clear();
}

void MultiThreadedServer::start()
{
    front_.start("tarn-front", [this] { listen_front(); });
    if (pubsub_uri_) {
        pubsub_ = std::make_unique<ControlledThread>(context_, inproc("sub", uuid_));
        pubsub_->start("tarn-changes", [this] { listen_pubsub(); });
    }
    const auto announce = [this] {
        if (pubsub_)
            (void)pubsub_->send(worker_listening);
    };
    const auto wait = [this](const slate::Duration& time) {
        return front_listening_.wait(time) && (!pubsub_ || pubsub_listening_.wait(time));
    };
    if (!wait_until_listening(announce, wait))
        slate::log_error(provider_, SLATE_HERE, "worker thread failed to start in expected timeframe");
}

void MultiThreadedServer::notify_subscriber()
{
    if (!pubsub_)
        return;
    slate::log_debug(provider_, SLATE_HERE, "try to reload subscriptions");
    (void)pubsub_->send(update_subscriptions);
}

void MultiThreadedServer::listen_front()
{
    slate::log_debug(provider_, SLATE_HERE, "router thread entry");
    zmq::socket_t control(*context_, zmq::socket_type::sub);
    Front front(*context_, *settings_);
    Dispatcher dispatcher(*context_, front, provider_);

    if (connect_control(control, front_.endpoint(), provider_) && front.bind(uris_, "rx", provider_) &&
        dispatcher.bind(*dealer_uri_)) {
        Workers workers;
        const auto serve = [this](WorkerSocket& socket) { worker_entry(socket); };
        workers.start(worker_count_, "tarn-worker", *context_, dealer_uri_, serve, provider_);
        if (const auto connected = workers.wait_for_all(); connected > 0) {
            front_listening_.set();
            dispatcher.run(control, connected, "request router");
        }
    }
    front.remove_socket_files();
    slate::log_debug(provider_, SLATE_HERE, "router thread exit");
}

void MultiThreadedServer::worker_entry(WorkerSocket& socket)
{
    const ThreadMark mark(this);
    slate::log_debug(provider_, SLATE_HERE, "worker thread entry");
    run_passes(provider_, *counters_.err, [&] {
        auto request = socket.next();
        if (!request)
            return false;
        requests_.handle(*request, [&](zmq::message_t& reply) { socket.reply(*request, reply); });
        return true;
    });
    slate::log_debug(provider_, SLATE_HERE, "worker thread exit");
}

void MultiThreadedServer::listen_pubsub()
{
    const ThreadMark mark(this);
    slate::log_debug(provider_, SLATE_HERE, "pub/sub thread entry");
    zmq::socket_t wake_up(*context_, zmq::socket_type::sub);
    zmq::socket_t pubsub(*context_, zmq::socket_type::sub);
    set_high_water_mark(pubsub, *settings_);
    if (connect_control(wake_up, pubsub_->endpoint(), provider_) &&
        subscriber_.init_publish_subscribe(pubsub, *pubsub_uri_)) {
        MemoryReturn memory;
        SocketPoller poller;
        const auto commands = poller.add(wake_up);
        const auto changes = poller.add(pubsub);
        run_passes(provider_, *counters_.err, [&] {
            memory.after_wait(poller.wait(memory.wait_time()));
            if (poller.is_readable(commands)) {
                if (!handle_wake_up(wake_up, pubsub, pubsub_listening_))
                    return false;
                poller.touch(changes); // subscriptions may have changed
            }
            if (poller.is_readable(changes))
                memory.note(subscriber_.handle_publish_subscribe(pubsub));
            return true;
        });
    }
    slate::log_debug(provider_, SLATE_HERE, "pub/sub thread exit");
}

std::shared_ptr<Server> make_multi_threaded_server(int id, unsigned long workers,
                                                   const std::shared_ptr<const slate::Dictionary>& settings,
                                                   const std::vector<Endpoint>& endpoints,
                                                   const Endpoint& relay_out,
                                                   const std::shared_ptr<MessageFactory>& factory,
                                                   const std::vector<std::shared_ptr<Route>>& routes)
{
    const auto runtime = find_runtime("make_server");
    if (!runtime)
        return nullptr;
    if (workers < 2) {
        slate::log_error(SLATE_HERE, "cannot make_server, invalid number of workers specified");
        return nullptr;
    }
    if (!are_endpoints(endpoints, relay_out, "make_server"))
        return nullptr;
    return make_with_threads<MultiThreadedServer>(id, runtime->context, settings, endpoints, factory,
                                                  relay_out, workers, routes);
}
} // namespace tarn_internal
