// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include <zmq.hpp>

#include "slate/duration.h"
#include "tarn/message_factory.h"
#include "tarn/reply.h"
#include "tarn/request.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
class Provider;
} // namespace slate

namespace tarn_internal {
struct IncomingRequest;
class WorkerSocket;

/// One of a router's threads: takes a request, forwards it to its service, waits for the reply and sends that
/// back.
class RouterWorker {
public:
    /// Where to send a request, and the path that it carries there; see RouterImpl::resolve. What it throws
    /// is the answer: the status of a MessageException, or 500.
    using Resolve = std::function<std::pair<Endpoint, std::string>(const Request&)>;

    /// What the reply of status 404 to that path says if it comes without a text; `endpoint` is where the
    /// request went, or null. Empty: nothing. Doesn't throw.
    using ExplainNotFound = std::function<std::string(const Endpoint& endpoint, const std::string& path)>;

    /// Whether the library is still at work in this process: without it no request is passed on.
    using HasRuntime = std::function<bool()>;

    /// `settings` are read for "max_frame_bytes", which holds for what services reply. `socket`, through
    /// which requests come, must outlive the worker.
    RouterWorker(const std::shared_ptr<zmq::context_t>& context, const slate::Dictionary& settings,
                 std::shared_ptr<slate::Provider> provider, std::shared_ptr<MessageFactory> factory,
                 Resolve resolve, ExplainNotFound explain, HasRuntime has_runtime, WorkerSocket& socket);

    /// Answers requests until the socket says that this is the end. A failure of one request is logged, and
    /// ends that request only; the end of the ZeroMQ context ends the worker.
    void run();

private:
    /// The reply to a caller (null: no reply), and the path that it asked for.
    struct Answer {
        std::shared_ptr<Message> message;
        std::string path;
    };

    void handle(IncomingRequest& request);
    Answer answer_or_fail(const zmq::message_t& payload, bool verbose) const;
    Answer pass_on(Request& request, const std::string& path, bool verbose) const;
    void explain(Response& response, const Endpoint& endpoint, const std::string& path) const;
    Answer make_failure(Status status, const std::string& text, const std::string& path) const;
    zmq::message_t to_frame(const Answer& answer) const;
    slate::Duration shorten_ttl(Request& request) const;

    const std::shared_ptr<zmq::context_t> context_;
    const std::int64_t max_reply_bytes_;
    const std::shared_ptr<slate::Provider> provider_;
    const std::shared_ptr<MessageFactory> factory_;
    const Resolve resolve_;
    const ExplainNotFound explain_;
    const HasRuntime has_runtime_;
    const std::string failure_; // a serialised reply, which needs no memory to be made
    WorkerSocket& socket_;
};
} // namespace tarn_internal
