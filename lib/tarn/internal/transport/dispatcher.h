// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <zmq.hpp>

#include "tarn/internal/transport/front.h"
#include "tarn/internal/transport/socket_poller.h"
#include "tarn/internal/utils/memory_return.h"

namespace slate {
class Provider;
class Uri;
} // namespace slate

namespace tarn_internal {
/// Hands the requests of a front to workers on other threads, and their replies back to the front.
///
/// A worker gets a request only while it is free, the one that has been free longest first. While none is,
/// the front isn't read: requests wait in the queues of their senders, and a slow handler delays nobody whom
/// another worker can serve.
///
/// Threads: for the thread of the front; each worker has a WorkerSocket on its own thread.
class Dispatcher {
public:
    /// Throws zmq::error_t if the socket for the workers can't be made.
    Dispatcher(zmq::context_t& context, Front& front, std::shared_ptr<slate::Provider> provider);

    /// Binds the socket for the workers. False, with an error in the log, if it can't be bound.
    bool bind(const slate::Uri& endpoint);

    /// Serves until a command arrives on `control`; then tells all workers to end, and goes on with their
    /// replies until each of the `workers` has ended. If it ends for any other reason, logs an error that
    /// names `what`.
    void run(zmq::socket_t& control, std::size_t workers, std::string_view what);

private:
    using WorkerId = std::string; // the routing id of its socket

    bool serve_once();
    void hand_out_requests();
    bool hand_out(IncomingRequest& request, zmq::message_t& address, const WorkerId& worker);
    void take_replies();
    bool take_message();
    void take_word(const WorkerId& worker, std::string_view word);
    void set_free(const WorkerId& worker);
    void end_workers();
    bool start_message(const WorkerId& worker);
    void tell_to_end(const WorkerId& worker);

    Front& front_;
    const std::shared_ptr<slate::Provider> provider_;
    zmq::socket_t back_;
    SocketPoller poller_;
    SocketPoller::Index back_index_ = 0;
    SocketPoller::Index control_index_ = 0;
    SocketPoller::Index front_index_ = 0;
    std::vector<WorkerId> known_;
    std::vector<WorkerId> free_; // the one that has been free longest first
    MemoryReturn memory_;
    std::size_t running_ = 0;
    bool ending_ = false;
};

/// A worker's end: takes one request at a time.
///
/// Threads: for the worker's thread.
class WorkerSocket {
public:
    /// Throws zmq::error_t if the socket can't be made or connected.
    WorkerSocket(zmq::context_t& context, const slate::Uri& endpoint);
    /// Tells the dispatcher that the worker has ended.
    ~WorkerSocket();
    WorkerSocket(const WorkerSocket&) = delete;
    WorkerSocket& operator=(const WorkerSocket&) = delete;

    /// Waits for the next request, as a free worker. None if the worker is to end. Throws zmq::error_t.
    std::optional<IncomingRequest> next();

    /// Answers the request that was taken last. Throws zmq::error_t.
    void reply(IncomingRequest& request, zmq::message_t& reply);

    /// Becomes readable while a request is being handled if the worker is to end. For polling only.
    zmq::socket_t& end() { return socket_; }

private:
    zmq::socket_t socket_;
    bool free_ = false; // as far as the dispatcher knows
};
} // namespace tarn_internal
