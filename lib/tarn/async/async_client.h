// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <stop_token>
#include <string>
#include <string_view>
#include <type_traits>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "tarn/async/pending.h"
#include "tarn/client.h"
#include "tarn/internal/defaults.h"
#include "tarn/request.h"
#include "tarn/types.h"

namespace tarn_internal {
class Callbacks;
}

namespace tarn {
class MessageFactory;

/// What holds for one call.
struct CallOptions {
    // Programs are compiled against the order of these fields: add new ones at the end.

    /// May be null. Read before the call returns, and not kept.
    Headers headers = nullptr;
    /// How long the call may take in all, from now on; positive infinity for ever. The request carries, as
    /// "ttl", what is left of it when it is sent.
    slate::Duration timeout = default_timeout();
    /// Cancels the call; see Pending::cancel.
    std::stop_token stop = {};
};

/// What holds for one client.
struct AsyncClientOptions {
    // Programs are compiled against the order of these fields: add new ones at the end.

    /// How many calls may be without a reply at a time, to all services together and those included that
    /// haven't been sent yet; at least one. A call beyond it gets status 429 at once, LocalCause::TooMany.
    /// The requests of AsyncUpload and AsyncDownload, one at a time for each, count too, but are never
    /// refused. With more than 1,000 a server may drop replies that this process doesn't take fast enough:
    /// that is how many libzmq queues.
    std::size_t max_in_flight = 256;
    /// Where functions of Pending::then() run; empty for the work queue.
    Executor executor = {};
    /// Makes the messages; null for one of the client's own.
    std::shared_ptr<MessageFactory> factory = nullptr;
    /// If it is given, the client asks the services in this directory directly, by the paths that a router
    /// takes, and its endpoint is the router for what no service claims; see make_device_client.
    std::filesystem::path run_time_directory = {};
};

/// Asks one server for its resources, by path, with many requests in flight at a time. Each call returns
/// without waiting, and gets exactly one reply. Calls to one server are sent in the order in which one thread
/// makes them; their replies come in any order, so that a slow one delays no other. There is no order between
/// calls to different services of a device, nor between those that wait for a service and those that are made
/// after its socket was replaced.
///
///     const auto client = tarn::make_async_client("ipc:///run/tide/status/zmq.sock");
///     auto cpu = client->get("/status/cpu");
///     auto memory = client->get("/status/memory", {.timeout = slate::Seconds(1)});
///     client->put("/status/name", "attic").then([](const auto& reply) { ... });
///     use(cpu.get(), memory.get());
///
/// A path is a recipient as for Client. Prefer Client for one request at a time: it needs no other thread.
///
/// A request is sent once, or not at all. It waits here, not in a socket, until the server can be reached,
/// and is never sent after its time is over or it was cancelled. One that was sent to a server that then ends
/// or restarts gets status 408 at once, LocalCause::ConnectionLost, and may or may not have been carried out;
/// no later connection can answer it. (libzmq takes the first request to an inproc endpoint that nobody
/// serves yet; it can't be taken back.)
///
/// Errors: a failed exchange is a reply, not thrown: status 408 (no answer in time, cancelled, connection
/// lost, socket failed, larger than 2 GiB, or the client or ZmqSubsystem ended), 429 (see AsyncClientOptions)
/// or 400 (nothing to send), or, from the services of a device, what a router would give. The reason is in
/// Reply::local_cause() and Reply::status_message(), such as "no answer from ipc:///run/x.sock within 4 s: no
/// such file". A frame that doesn't parse gives a reply without a message. A recipient that can't be taken
/// apart throws as MessageFactory says.
///
/// Threads: may be shared. All asynchronous clients of the process share one more thread, "tarn-async", which
/// the first of them starts.
///
/// Lifetime: destroying it ends its calls with status 408, LocalCause::Ended. It returns when all functions
/// of Pending::then() have ended, except those in which it is itself destroyed; those that have not begun run
/// on this thread. It may outlive ZmqSubsystem, whose end ends its calls in the same way, and later ones at
/// once.
///
/// Its provider is "zmq.async_client" with a running number, and counts "tx" and "rx", requests and replies;
/// "err", requests that could not be sent; "dropped", messages that are the reply to no call in flight, such
/// as late ones; "too_many", calls beyond max_in_flight; and "inline", functions of Pending::then() that the
/// work queue refused. With a run-time directory the last two are those of "zmq.async_device_client", and
/// each service that is connected has a "zmq.async_client" with the others.
class AsyncClient {
public:
    virtual ~AsyncClient() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The endpoint this client was made for, such as "ipc:///run/tide/status/zmq.sock".
    [[nodiscard]] virtual Endpoint url() const = 0;

    virtual Pending head(std::string_view path, const CallOptions& options = {}) = 0;
    virtual Pending get(std::string_view path, const CallOptions& options = {}) = 0;
    virtual Pending put(std::string_view path, std::string body, const CallOptions& options = {}) = 0;
    virtual Pending post(std::string_view path, std::string body, const CallOptions& options = {}) = 0;
    virtual Pending del(std::string_view path, const CallOptions& options = {}) = 0;

    /// Sends a copy of the message that the request holds, with its own headers and not those of `options`,
    /// and with "ttl" set, if it has a head.
    virtual Pending send(const Request& request, const CallOptions& options = {}) = 0;

    /// How many calls are without a reply.
    [[nodiscard]] virtual std::size_t in_flight() const = 0;

    /// For the library's transfers.
    virtual std::shared_ptr<tarn_internal::Callbacks> callbacks() const = 0;
};

/// Makes an asynchronous client of the server at `endpoint`; without one, at the endpoint of the setting
/// "relay_url", or, with a run-time directory in `options`, without a router. The server need not be running.
/// Null, with an error in the log, without a ZmqSubsystem or for an endpoint that is not valid. Throws
/// zmq::error_t if the sockets can't be made (an ipc or tcp endpoint takes three of the ZeroMQ context's),
/// std::system_error if the thread can't, and Exception if the setting is missing.
[[nodiscard]] std::shared_ptr<AsyncClient> make_async_client(const Endpoint& endpoint,
                                                             const AsyncClientOptions& options = {});
[[nodiscard]] std::shared_ptr<AsyncClient> make_async_client(const AsyncClientOptions& options = {});

/// `endpoint_or_path` is an endpoint if it contains "://", and otherwise the path of an ipc socket.
[[nodiscard]] std::shared_ptr<AsyncClient> make_async_client_at(std::string_view endpoint_or_path,
                                                                const AsyncClientOptions& options);

/// The same for a literal, a `const char*` or a string; a template, so that no other call is ambiguous.
template <tarn_internal::EndpointText Text>
[[nodiscard]] std::shared_ptr<AsyncClient> make_async_client(const Text& endpoint_or_path,
                                                             const AsyncClientOptions& options = {})
{
    if constexpr (std::is_pointer_v<Text>) {
        if (!endpoint_or_path)
            return make_async_client_at({}, options);
    }
    return make_async_client_at(endpoint_or_path, options);
}
} // namespace tarn
