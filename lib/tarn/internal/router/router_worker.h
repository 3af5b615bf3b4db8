// SPDX-License-Identifier: Apache-2.0
#pragma once

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
class Provider;
class Uri;
} // namespace slate

namespace tarn_internal {
struct RoutedMessage;

/// One of a router's threads: takes a request, forwards it to its service, waits for the reply and sends that
/// back.
///
/// Its socket is a ZMQ_DEALER, so the worker itself puts the routing frames in front of a reply. A ZMQ_REP
/// socket would do that, but it can't leave a request unanswered: it would accept no further one.
class RouterWorker {
public:
    /// Where to send a request, and the path that it carries there; see RouterImpl::resolve. What it throws
    /// is the answer: the status of a MessageException, or 500.
    using Resolve = std::function<std::pair<Endpoint, std::string>(const Request&)>;

    /// Whether the library is still at work in this process: without it no request is passed on.
    using HasRuntime = std::function<bool()>;

    /// Throws zmq::error_t if its sockets can't be made.
    RouterWorker(const std::shared_ptr<zmq::context_t>& context, std::shared_ptr<slate::Provider> provider,
                 std::shared_ptr<MessageFactory> factory, Resolve resolve, HasRuntime has_runtime);

    /// Connects to the proxy and to the control channel. False, with an error in the log, if it can't.
    bool connect(const slate::Uri& requests, const slate::Uri& control);

    /// Answers requests until it is told to end. Also ends, with an error in the log, if its sockets fail.
    void run();

private:
    /// The reply to a caller (null: no reply), and the path that it asked for.
    struct Answer {
        std::shared_ptr<Message> message;
        std::string path;
    };

    void take_request();
    Answer answer_or_fail(const zmq::message_t& payload, bool verbose) const;
    Answer pass_on(Request& request, const std::string& path, bool verbose) const;
    Answer make_failure(Status status, const std::string& text, const std::string& path) const;
    void send(RoutedMessage& request, const Answer& answer, bool verbose);
    zmq::message_t to_frame(const Answer& answer) const;
    slate::Duration shorten_ttl(Request& request) const;

    const std::shared_ptr<zmq::context_t> context_;
    const std::shared_ptr<slate::Provider> provider_;
    const std::shared_ptr<MessageFactory> factory_;
    const Resolve resolve_;
    const HasRuntime has_runtime_;
    zmq::socket_t requests_;
    mutable zmq::socket_t control_; // a waiting request polls it too
};
} // namespace tarn_internal
