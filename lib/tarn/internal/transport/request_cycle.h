// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "slate/duration.h"
#include "slate/log.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/message_factory.h"
#include "tarn/reply.h"
#include "tarn/types.h"

namespace slate {
class Uri;
}
namespace zmq {
class context_t;
class message_t;
class socket_t;
} // namespace zmq

namespace tarn_internal {
struct Silence;

/// The running number of the next "zmq.client".
int next_client_instance();

/// The exchange of one request for one reply over one ZMQ_REQ socket; the base of every client.
///
/// The request is sent exactly once. Each wait that ends without a reply replaces the socket, because a
/// ZMQ_REQ socket that has sent and not received refuses to send again; further waits, on the new one, only
/// decide how long a failing call blocks: (retries + 1) x timeout. A late reply is lost with its socket.
///
/// Threads: any; one exchange at a time, the others wait for their turn. That time counts: a call whose whole
/// time passes before its turn comes sends nothing.
class RequestCycle {
public:
    struct Options {
        /// Keeps the bodies of requests out of the log, whatever their path.
        bool is_secret = false;
        /// That of the lines about requests that fail, for a caller that goes on trying and says itself what
        /// came of it.
        slate::TraceLevel failure_level = slate::ErrorLevel;
        /// A larger frame ends the connection; negative: none does. A client trusts whom it asks, but a
        /// router passes on what anybody asks.
        std::int64_t max_reply_bytes = -1;
        /// A reply that holds too much of something, as find_excess tells, counts as one that doesn't parse.
        bool refuses_excess = false;
    };

    /// `name` and `instance` name the provider. Without `factory` it makes one. Throws zmq::error_t, logged,
    /// if the socket can't be made.
    RequestCycle(const std::string& name, int instance, std::shared_ptr<zmq::context_t> context, Endpoint uri,
                 unsigned int retries, std::shared_ptr<MessageFactory> factory, const Options& options);
    /// The same with the usual options.
    RequestCycle(const std::string& name, int instance, std::shared_ptr<zmq::context_t> context, Endpoint uri,
                 unsigned int retries, std::shared_ptr<MessageFactory> factory);
    ~RequestCycle();

    /// Never null: failures give a reply of status 408, whose status message says why. A frame that doesn't
    /// parse gives a reply without a message.
    ///
    /// `stop`, if given, is a socket of the calling thread that becomes readable when that thread is to end.
    /// It cuts the wait short: no more than default_timeout() from then on.
    std::shared_ptr<Reply> read_reply(const Message& message, const slate::Duration& timeout,
                                      zmq::socket_t* stop = nullptr);

    const Endpoint& uri() const { return uri_; }
    const MessageFactory& factory() const { return *factory_; }

private:
    class Patience;
    class Turn;
    std::shared_ptr<Reply> exchange(const Message& message, Patience& patience, zmq::socket_t* stop);
    std::shared_ptr<Reply> wait_for_reply(const Message& message, const Patience& patience, bool has_sent,
                                          zmq::socket_t* stop, Silence& silence) const;
    std::shared_ptr<Reply> fail_to_send(const Message& message, LocalCause cause, const std::string& why);
    std::shared_ptr<Reply> make_reply(LocalCause cause, const std::string& why) const;
    std::string describe(const Message& message) const;
    std::shared_ptr<Message> parse_reply(const zmq::message_t& frame) const;
    template <class... Pieces>
    void log_failure(slate::SourceLine line, const Pieces&... pieces) const;
    std::unique_ptr<zmq::socket_t> create_socket() const;

    const std::shared_ptr<zmq::context_t> context_;
    const Endpoint uri_;
    const unsigned int retries_;
    const std::shared_ptr<MessageFactory> factory_;
    const Options options_;
    const bool is_secret_;
    const OwnedProvider provider_;
    const std::shared_ptr<slate::Counter> err_;
    const std::shared_ptr<slate::Counter> rx_;
    const std::shared_ptr<slate::Counter> tx_;
    std::mutex mutex_; // guards busy_
    std::condition_variable idle_;
    bool busy_ = false; // during a whole exchange, to which socket_ belongs meanwhile
    /// Null after it broke and could not be replaced; the next exchange tries again.
    std::unique_ptr<zmq::socket_t> socket_;
};
} // namespace tarn_internal
