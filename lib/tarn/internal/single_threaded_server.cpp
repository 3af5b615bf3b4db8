// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/single_threaded_server.h"

#include <algorithm>
#include <utility>

#include <zmq.hpp>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "slate/uuid.h"
#include "tarn/internal/server/server_loop.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/thread_mark.h"
#include "tarn/internal/utils/socket_ops.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
struct SingleThreadedServer::Sockets {
    explicit Sockets(zmq::context_t& context)
        : wake_up(context, zmq::socket_type::sub),
          pubsub(context, zmq::socket_type::sub),
          reqrep(context, zmq::socket_type::rep)
    {
    }

    void poll() { zmq::poll(items, std::chrono::milliseconds(-1)); }

    bool is_readable(const zmq::socket_t& socket) const
    {
        return std::any_of(items.begin(), items.end(), [&](const zmq::pollitem_t& item) {
            return item.socket == socket.handle() && (item.revents & ZMQ_POLLIN) != 0;
        });
    }

    zmq::socket_t wake_up;
    zmq::socket_t pubsub;
    zmq::socket_t reqrep;
    std::vector<zmq::pollitem_t> items; // of the sockets that are in use
};

SingleThreadedServer::SingleThreadedServer(int id, std::shared_ptr<zmq::context_t> context,
                                           std::shared_ptr<const slate::Dictionary> settings,
                                           std::vector<std::shared_ptr<const slate::Uri>> uris,
                                           std::shared_ptr<MessageFactory> factory,
                                           std::shared_ptr<const slate::Uri> pubsub_uri)
    : context_(std::move(context)),
      uris_(std::move(uris)),
      pubsub_uri_(std::move(pubsub_uri)),
      settings_(settings ? std::move(settings) : slate::make_dictionary()),
      provider_("zmq.server", id),
      counters_(*provider_, !uris_.empty()),
      routes_(settings_, provider_, [this] { notify_listener(); }),
      remote_calls_(RemoteCalls::Lock::HeldDuringCall, provider_),
      requests_(settings_, factory, provider_, counters_, routes_, remote_calls_),
      subscriber_(factory, provider_, counters_, routes_),
      listener_(context_, slate::make_uri("inproc://" + slate::make_uuid().to_string()))
{
    start();
}

SingleThreadedServer::~SingleThreadedServer()
{
    listener_.stop();
    for (const auto& uri : uris_)
        (void)tarn::try_cleanup_socket_file(uri);
    listening_.reset();
}

void SingleThreadedServer::suppress_add_remote_call_warning()
{
    remote_calls_.suppress_warning();
}

bool SingleThreadedServer::add(const std::shared_ptr<Route>& route)
{
    return routes_.add(route);
}

void SingleThreadedServer::add(unsigned int number, const std::function<void(Message&)>& function)
{
    remote_calls_.add(number, function);
}

void SingleThreadedServer::del(const std::string& name)
{
    routes_.del(name);
}

void SingleThreadedServer::del(unsigned int number)
{
    remote_calls_.del(number);
}

void SingleThreadedServer::clear()
{
    remote_calls_.clear();
    routes_.clear();
}

void SingleThreadedServer::start()
{
    listener_.start([this] { listen(); });
    const auto say = [this] { (void)listener_.send(worker_listening); };
    const auto wait = [this](const slate::Duration& time) { return listening_.wait(time); };
    if (!wait_until_listening(say, wait))
        slate::log_warn(provider_, SLATE_HERE, "worker thread failed to start in expected timeframe");
}

/// Called with the lock of the routes held, which keeps the channel to one thread at a time.
void SingleThreadedServer::notify_listener()
{
    slate::log_debug(provider_, SLATE_HERE, "try to reload subscriptions");
    (void)listener_.send(update_subscriptions);
}

void SingleThreadedServer::listen()
{
    const ThreadMark mark(this);
    slate::log_debug(provider_, SLATE_HERE, "thread entry");
    {
        Sockets sockets(*context_);
        if (init(sockets))
            serve(sockets);
        slate::log_debug(provider_, SLATE_HERE, "thread exit");
    }
}

bool SingleThreadedServer::init(Sockets& sockets)
{
    const auto in_use = [&](zmq::socket_t& socket) {
        sockets.items.push_back({socket.handle(), 0, ZMQ_POLLIN, 0});
        return true;
    };
    return connect_control(sockets.wake_up, listener_.endpoint(), provider_) && in_use(sockets.wake_up) &&
           (!pubsub_uri_ ||
            (subscriber_.init_publish_subscribe(sockets.pubsub, *pubsub_uri_) && in_use(sockets.pubsub))) &&
           (uris_.empty() ||
            (bind_endpoints(sockets.reqrep, uris_, "rx", provider_) && in_use(sockets.reqrep)));
}

void SingleThreadedServer::serve(Sockets& sockets)
{
    // From 1 ms to 10 s, which is beyond any client's patience.
    handle_ms_ = provider_->add_statistic("handle_ms", 1, 10000, 100, "", 1.0);

    run_passes(provider_, *counters_.err, [&] { return serve_once(sockets); });
    limit_linger(sockets.reqrep);
}

/// One pass: at most one message of each socket. False at the end.
bool SingleThreadedServer::serve_once(Sockets& sockets)
{
    sockets.poll();
    if (sockets.is_readable(sockets.wake_up) && !handle_wake_up(sockets))
        return false;

    const slate::StopWatch watch(true);
    if (sockets.is_readable(sockets.pubsub))
        subscriber_.handle_publish_subscribe(sockets.pubsub);
    if (sockets.is_readable(sockets.reqrep))
        requests_.handle_request_reply(sockets.reqrep);
    handle_ms_->record(watch.elapsed() / 1000);
    return true;
}

/// False at the end.
bool SingleThreadedServer::handle_wake_up(Sockets& sockets)
{
    switch (receive_command(sockets.wake_up, provider_)) {
    case Command::UpdateSubscriptions:
        subscriber_.handle_subscription_change(sockets.pubsub);
        return true;
    case Command::WorkerListening:
        listening_.set();
        return true;
    case Command::Terminate:
        break;
    }
    return false;
}

std::shared_ptr<Server> make_single_threaded_server(
    int id, const std::shared_ptr<const slate::Dictionary>& settings,
    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
    const std::shared_ptr<const slate::Uri>& pubsub_uri, const std::shared_ptr<MessageFactory>& factory)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot make_server, tarn not / no longer initialized");
        return nullptr;
    }
    if (!are_endpoints(uris, "make_server"))
        return nullptr;
    return make_with_threads<SingleThreadedServer>(id, subsystem->ctx(), settings, uris, factory, pubsub_uri);
}
} // namespace tarn_internal
