// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "slate/dictionary.h"
#include "slate/lazy.h"
#include "tarn/internal/defaults.h"
#include "tarn/router.h"
#include "tarn/types.h"

namespace slate {
class Queue;
} // namespace slate

namespace zmq {
class context_t;
}
namespace tarn_internal {
class RuntimeParts;
}

namespace tarn {
class Server;

/// The runtime of the library in this process. An application creates one at start and destroys it at the
/// end; every make_ function finds it through self() and gives null without it.
///
/// It owns the ZeroMQ context, the settings, a work queue that is created at first use, and the servers that
/// were made through it. Destroying it ends what asynchronous clients have in flight, stops those servers,
/// and then waits until every socket is closed; other clients and publishers that the application still owns
/// keep the context alive and go on working.
///
/// Threads: construct it, destroy it and add servers on one thread; any thread may call ctx(), settings(),
/// queue() and servers() in between.
class ZmqSubsystem {
public:
    /// docs/settings.md lists what `settings` may hold; they are read and never written. `queue_setup`, if
    /// given, is called with the work queue when that is made. A second object gets a context of its own, but
    /// self() stays with the first; a warning in the log says so. Throws zmq::error_t if the context can't be
    /// created.
    explicit ZmqSubsystem(const std::shared_ptr<slate::Dictionary>& settings = slate::make_dictionary(),
                          const std::function<void(slate::Queue&)>& queue_setup = {});

    /// Empties self(), even if that was another object.
    virtual ~ZmqSubsystem();
    ZmqSubsystem(const ZmqSubsystem&) = delete;
    ZmqSubsystem& operator=(const ZmqSubsystem&) = delete;

    /// Null before the first one was made and after one was destroyed.
    static ZmqSubsystem* self();
    /// The name of the transport, "ZeroMQ".
    static std::string name();
    /// Of the ZeroMQ headers that this was built against, such as "4.3.4".
    static std::string version();

    std::shared_ptr<zmq::context_t> ctx() const;
    std::shared_ptr<slate::Dictionary> settings() const;
    std::shared_ptr<slate::Lazy<slate::Queue>> queue() const;
    std::vector<std::shared_ptr<Server>> servers() const;
    /// For the library itself: what it makes once for all that need it, such as the thread of asynchronous
    /// clients.
    std::shared_ptr<tarn_internal::RuntimeParts> parts() const;

    /// A server at one or more endpoints, kept alive here as well. See make_server for what can go wrong.
    /// Without `relay_out`, it hears the changes of the relay at the setting "relay_pub", if there is one.
    std::shared_ptr<Server> add_server(const Endpoint& endpoint);
    std::shared_ptr<Server> add_server(const std::vector<Endpoint>& endpoints);
    std::shared_ptr<Server> add_server(const std::vector<Endpoint>& endpoints, const Endpoint& relay_out);

    /// The same with `workers` threads.
    std::shared_ptr<Server> add_server(unsigned long workers, const Endpoint& endpoint);
    std::shared_ptr<Server> add_server(unsigned long workers, const std::vector<Endpoint>& endpoints);
    std::shared_ptr<Server> add_server(unsigned long workers, const std::vector<Endpoint>& endpoints,
                                       const Endpoint& relay_out);

    /// The same with routes: the endpoint is bound only when all of them are in, so that no request gets
    /// status 404 while the service starts.
    std::shared_ptr<Server> serve(const Endpoint& endpoint, const std::vector<std::shared_ptr<Route>>& routes,
                                  unsigned long workers = 1);
    std::shared_ptr<Server> serve(const std::vector<Endpoint>& endpoints,
                                  const std::vector<std::shared_ptr<Route>>& routes,
                                  unsigned long workers = 1);

    /// A server without endpoints, which only hears published changes. Without `relay_out`, those of the
    /// relay at the setting "relay_pub"; throws Exception if there is none.
    std::shared_ptr<Server> add_subscriber();
    std::shared_ptr<Server> add_subscriber(const Endpoint& relay_out);

    /// A router at `endpoints`, kept alive here as well; see make_router. Without `relay_out`, its own routes
    /// hear the changes of the relay at the setting "relay_pub", if there is one. Without a directory it is
    /// that of the setting "run_time_directory"; see run_time_directory().
    std::shared_ptr<Router> add_router(const std::vector<Endpoint>& endpoints);
    std::shared_ptr<Router> add_router(const std::vector<Endpoint>& endpoints, const Endpoint& relay_out);
    std::shared_ptr<Router> add_router(const std::vector<Endpoint>& endpoints,
                                       const std::filesystem::path& run_time_directory);
    std::shared_ptr<Router> add_router(const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                       const std::filesystem::path& run_time_directory);
    std::shared_ptr<Router> add_router(const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                       const std::filesystem::path& run_time_directory,
                                       const std::vector<std::shared_ptr<Route>>& routes);

private:
    Endpoint relay_pub_if_set() const;
    std::shared_ptr<Server> keep(std::shared_ptr<Server> server);

    std::shared_ptr<zmq::context_t> ctx_;
    std::shared_ptr<slate::Dictionary> settings_;
    std::shared_ptr<slate::Lazy<slate::Queue>> queue_;
    std::vector<std::shared_ptr<Server>> servers_;
    mutable std::mutex mutex_; // guards servers_: a handler may ask for them while another server is added
    std::shared_ptr<tarn_internal::RuntimeParts> parts_; // constant after construction

    static std::atomic<ZmqSubsystem*> self_;
};

/// The endpoints named by the settings "relay_url", "relay_pub" and "relay_sub". Throws Exception if the key
/// is missing; null, with an error in the log, if its value is not an endpoint. relay_sub_sock is where
/// publishers connect, the relay's input, and relay_pub_sock where subscribers do, its output: the names are
/// those of the relay's own sockets.
Endpoint relay_zmq_sock(const std::shared_ptr<slate::Dictionary>& settings);
Endpoint relay_pub_sock(const std::shared_ptr<slate::Dictionary>& settings);
Endpoint relay_sub_sock(const std::shared_ptr<slate::Dictionary>& settings);

/// The run-time directory that the setting "run_time_directory" names; default_run_time_directory without it,
/// for null and, with an error in the log, if it is empty.
std::filesystem::path run_time_directory(const std::shared_ptr<const slate::Dictionary>& settings);
} // namespace tarn
