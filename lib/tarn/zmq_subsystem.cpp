// SPDX-License-Identifier: Apache-2.0
#include "tarn/zmq_subsystem.h"

#include <sstream>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/queue.h"
#include "slate/uri.h"
#include "tarn/exception.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/message_factory.h"
#include "tarn/server.h"

namespace tarn {
namespace {
constexpr int io_threads = 1;
constexpr int max_sockets = 1023; // libzmq's own default

Endpoint endpoint_of(const slate::Dictionary& settings, const std::string& key)
{
    if (!settings.has(key))
        throw Exception(slate::trace_error(SLATE_HERE, "settings missing ", key));
    auto uri = slate::make_uri(settings.get(key, ""));
    if (!uri) {
        tarn_internal::log_endpoint_fault("setting " + key, settings.get(key, ""));
        slate::log_error(SLATE_HERE, "setting is not an endpoint: ", key, " = ", settings.get(key, ""));
    }
    return uri;
}

/// The work queue, and the provider that goes with it.
struct WorkQueue {
    tarn_internal::OwnedProvider provider{"zmq.work_queue", ""};
    std::shared_ptr<slate::Queue> queue = slate::make_queue({0, 1}, provider, "");
};

std::shared_ptr<slate::Queue> make_work_queue(const std::function<void(slate::Queue&)>& setup)
{
    auto work = std::make_shared<WorkQueue>();
    if (setup)
        setup(*work->queue);
    return {work, work->queue.get()};
}
} // namespace

std::atomic<ZmqSubsystem*> ZmqSubsystem::self_ = nullptr;

ZmqSubsystem::ZmqSubsystem(const std::shared_ptr<slate::Dictionary>& settings,
                           const std::function<void(slate::Queue&)>& queue_setup)
    : settings_(settings ? settings : slate::make_dictionary()),
      queue_(std::make_shared<slate::Lazy<slate::Queue>>(
          [queue_setup] { return make_work_queue(queue_setup); })),
      parts_(std::make_shared<tarn_internal::RuntimeParts>())
{
    ctx_ = std::make_shared<zmq::context_t>(io_threads, max_sockets);
    // Last, so that nobody finds an object that never came to be.
    if (self_)
        slate::log_warn(
            SLATE_HERE,
            "a second ZmqSubsystem in this process: the make_ functions go on with the first, and "
            "the end of either leaves them without one");
    else
        self_ = this;
}

ZmqSubsystem::~ZmqSubsystem()
{
    // Before the servers, whose handlers may wait for what these have in flight.
    parts_->end();
    for (auto& server : servers_)
        server.reset();
    self_ = nullptr;
    queue_.reset();
    settings_.reset();
    ctx_.reset();
}

ZmqSubsystem* ZmqSubsystem::self()
{
    return self_;
}

std::string ZmqSubsystem::name()
{
    return "ZeroMQ";
}

std::string ZmqSubsystem::version()
{
    std::ostringstream text;
    text << ZMQ_VERSION_MAJOR << "." << ZMQ_VERSION_MINOR << "." << ZMQ_VERSION_PATCH;
    return text.str();
}

std::shared_ptr<zmq::context_t> ZmqSubsystem::ctx() const
{
    return ctx_;
}

std::shared_ptr<slate::Dictionary> ZmqSubsystem::settings() const
{
    return settings_;
}

std::shared_ptr<slate::Lazy<slate::Queue>> ZmqSubsystem::queue() const
{
    return queue_;
}

std::vector<std::shared_ptr<Server>> ZmqSubsystem::servers() const
{
    const std::lock_guard lock(mutex_);
    return servers_;
}

std::shared_ptr<tarn_internal::RuntimeParts> ZmqSubsystem::parts() const
{
    return parts_;
}

std::shared_ptr<Server> ZmqSubsystem::add_server(const Endpoint& endpoint)
{
    return add_server(std::vector{endpoint});
}

std::shared_ptr<Server> ZmqSubsystem::add_server(const std::vector<Endpoint>& endpoints)
{
    return add_server(endpoints, relay_pub_if_set());
}

std::shared_ptr<Server> ZmqSubsystem::add_server(const std::vector<Endpoint>& endpoints,
                                                 const Endpoint& relay_out)
{
    return keep(make_server(settings_, endpoints, relay_out, make_message_factory()));
}

std::shared_ptr<Server> ZmqSubsystem::add_server(unsigned long workers, const Endpoint& endpoint)
{
    return add_server(workers, std::vector{endpoint});
}

std::shared_ptr<Server> ZmqSubsystem::add_server(unsigned long workers,
                                                 const std::vector<Endpoint>& endpoints)
{
    return add_server(workers, endpoints, relay_pub_if_set());
}

std::shared_ptr<Server> ZmqSubsystem::add_server(unsigned long workers,
                                                 const std::vector<Endpoint>& endpoints,
                                                 const Endpoint& relay_out)
{
    return keep(make_server(workers, settings_, endpoints, relay_out, make_message_factory()));
}

std::shared_ptr<Server> ZmqSubsystem::serve(const Endpoint& endpoint,
                                            const std::vector<std::shared_ptr<Route>>& routes,
                                            unsigned long workers)
{
    return serve(std::vector{endpoint}, routes, workers);
}

std::shared_ptr<Server> ZmqSubsystem::serve(const std::vector<Endpoint>& endpoints,
                                            const std::vector<std::shared_ptr<Route>>& routes,
                                            unsigned long workers)
{
    return keep(
        make_server(workers, settings_, endpoints, relay_pub_if_set(), make_message_factory(), routes));
}

std::shared_ptr<Server> ZmqSubsystem::add_subscriber()
{
    return add_subscriber(relay_pub_sock(settings_));
}

std::shared_ptr<Server> ZmqSubsystem::add_subscriber(const Endpoint& relay_out)
{
    return keep(make_subscriber(settings_, relay_out, make_message_factory()));
}

std::shared_ptr<Router> ZmqSubsystem::add_router(const std::vector<Endpoint>& endpoints)
{
    return add_router(endpoints, run_time_directory(settings_));
}

std::shared_ptr<Router> ZmqSubsystem::add_router(const std::vector<Endpoint>& endpoints,
                                                 const Endpoint& relay_out)
{
    return add_router(endpoints, relay_out, run_time_directory(settings_));
}

std::shared_ptr<Router> ZmqSubsystem::add_router(const std::vector<Endpoint>& endpoints,
                                                 const std::filesystem::path& run_time_directory)
{
    return add_router(endpoints, relay_pub_if_set(), run_time_directory);
}

std::shared_ptr<Router> ZmqSubsystem::add_router(const std::vector<Endpoint>& endpoints,
                                                 const Endpoint& relay_out,
                                                 const std::filesystem::path& run_time_directory)
{
    return add_router(endpoints, relay_out, run_time_directory, {});
}

std::shared_ptr<Router> ZmqSubsystem::add_router(const std::vector<Endpoint>& endpoints,
                                                 const Endpoint& relay_out,
                                                 const std::filesystem::path& run_time_directory,
                                                 const std::vector<std::shared_ptr<Route>>& routes)
{
    auto router =
        make_router(settings_, endpoints, relay_out, make_message_factory(), run_time_directory, routes);
    keep(router);
    return router;
}

Endpoint ZmqSubsystem::relay_pub_if_set() const
{
    return settings_->has(relay_pub()) ? relay_pub_sock(settings_) : nullptr;
}

std::shared_ptr<Server> ZmqSubsystem::keep(std::shared_ptr<Server> server)
{
    const std::lock_guard lock(mutex_);
    servers_.push_back(server);
    return server;
}

Endpoint relay_zmq_sock(const std::shared_ptr<slate::Dictionary>& settings)
{
    return endpoint_of(*settings, relay_url());
}

Endpoint relay_pub_sock(const std::shared_ptr<slate::Dictionary>& settings)
{
    return endpoint_of(*settings, relay_pub());
}

Endpoint relay_sub_sock(const std::shared_ptr<slate::Dictionary>& settings)
{
    return endpoint_of(*settings, relay_sub());
}

std::filesystem::path run_time_directory(const std::shared_ptr<const slate::Dictionary>& settings)
{
    const std::string key = "run_time_directory";
    if (!settings || !settings->has(key))
        return default_run_time_directory;
    const std::string text = settings->get(key, "");
    if (text.empty()) {
        slate::log_error(SLATE_HERE, "setting is not a directory: ", key, " = ", text);
        return default_run_time_directory;
    }
    return text;
}
} // namespace tarn
