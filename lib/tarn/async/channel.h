// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <zmq.hpp>

#include "tarn/async/async_client.h"
#include "tarn/async/call.h"
#include "tarn/async/call_limit.h"
#include "tarn/async/io_thread.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/message_factory.h"

namespace tarn_internal {
class Callbacks;
class Channel;

/// What all channels of one client share.
struct ClientParts {
    std::shared_ptr<Callbacks> callbacks;
    std::shared_ptr<CallLimit> limit;
};

/// Makes them, with their counters: "too_many" and "inline".
ClientParts make_client_parts(const std::shared_ptr<IoThread>& io, slate::Provider& provider,
                              const AsyncClientOptions& options);

/// One request of an asynchronous client.
class ChannelCall : public Call {
public:
    ChannelCall(std::shared_ptr<Callbacks> callbacks, const std::shared_ptr<Channel>& channel,
                std::shared_ptr<Message> message, const slate::Duration& timeout, CallPlace place);

    void cancel() override;
    void cancel_when(const std::stop_token& stop);

    const slate::Duration timeout;
    const IoThread::Clock::time_point deadline; // the largest one if there is none
    // I/O thread, once it is submitted.
    std::shared_ptr<Message> message; // null when the channel is done with it
    std::uint64_t number = 0;
    bool sent = false;

private:
    void release() override;

    const std::shared_ptr<IoThread> io_;
    const std::weak_ptr<Channel> channel_; // which may go before a caller lets go of this
    CallPlace place_;                      // left under the lock of release()
    std::optional<std::stop_callback<std::function<void()>>> on_stop_;
};

/// The socket of one asynchronous client, and its calls.
///
/// 1. A call waits in waiting_ until the socket has a connection with room, and is then sent once.
/// 2. A reply finds its call by the number in front of it. A number is used once in the life of a client, so
///    that a late reply finds nothing.
/// 3. A connection that ends takes with it what was sent on it: those calls end, since a later connection can
///    neither answer them nor may they be sent again. Each connection has a socket of its own.
///
/// Nothing is in the socket before there is a connection, which a socket monitor tells of: libzmq would keep
/// it for whoever comes later. The monitor tells of the end, too. As the same thread of libzmq writes events
/// and what it receives, they come in their order. (ZMQ_IMMEDIATE would do the first, but it throws away
/// replies that come right before the end.) An inproc endpoint has no connection and no events: there a send
/// queue of one message, which a server's own queue adds to, tells whether anybody serves it.
///
/// Threads: what isn't said to be for any thread is for the I/O thread.
class Channel : public std::enable_shared_from_this<Channel> {
public:
    /// Without `parts` it has its own.
    Channel(std::shared_ptr<IoThread> io, Endpoint endpoint, const AsyncClientOptions& options,
            const std::optional<ClientParts>& parts = std::nullopt);
    ~Channel();

    /// Any thread. `finish`, which changes the reply, may be empty.
    Pending start(std::shared_ptr<Message> message, const CallOptions& options, CallPlace place,
                  Call::Finish finish = {});
    const Endpoint& endpoint() const { return endpoint_; }
    const MessageFactory& factory() const { return *factory_; }
    const ClientParts& parts() const { return parts_; }

    /// Throws zmq::error_t. A channel that nobody opens opens itself with its first call; if that can't be,
    /// its calls get status 500, as a router would give them, with the error's text.
    void open();
    /// Ends all calls.
    void close();
    void accept(const std::shared_ptr<ChannelCall>& call);
    void withdraw(ChannelCall& call);
    /// Does what there is to do. True if there may be more at once.
    bool serve();
    IoThread::Clock::time_point next_deadline() const;

private:
    struct Incoming {
        std::uint64_t number;
        zmq::message_t payload;
    };
    struct Due {
        IoThread::Clock::time_point deadline;
        std::uint64_t number;
        bool operator<(const Due& other) const { return deadline > other.deadline; } // a heap of the earliest
    };

    void open_sockets();
    void close_sockets(std::chrono::milliseconds linger) noexcept;
    bool serve_socket();
    bool serve_round();
    void drop_ended();
    void expire();
    std::pair<LocalCause, std::string> find_cause_of_silence(const ChannelCall& call) const;
    void forget_deadlines();
    bool receive();
    void deliver();
    void answer(ChannelCall& call, zmq::message_t payload);
    bool read_monitor();
    bool send_waiting();
    bool try_send(ChannelCall& call);
    bool has_room();
    bool has_lost_inproc_peer(int events);
    void lose_connection();
    void fail(const std::string& error);
    void end_calls(bool sent_only, Status status, LocalCause cause, const std::string& text);
    void end_call(ChannelCall& call, LocalCause cause, const std::string& text);
    void forget(ChannelCall& call);

    const std::shared_ptr<IoThread> io_;
    const Endpoint endpoint_;
    const bool is_inproc_;
    const bool secret_;
    const std::shared_ptr<MessageFactory> factory_;
    const OwnedProvider provider_;
    const std::shared_ptr<slate::Counter> err_;
    const std::shared_ptr<slate::Counter> rx_;
    const std::shared_ptr<slate::Counter> tx_;
    const std::shared_ptr<slate::Counter> dropped_;
    const ClientParts parts_;

    bool closed_ = false;
    bool was_open_ = false;
    std::unique_ptr<zmq::socket_t> socket_; // null after it broke, until the next call
    std::unique_ptr<zmq::socket_t> monitor_;
    bool connected_ = false; // and nothing is sent before; always for inproc
    bool ending_ = false;    // the connection has ended, but what it brought may not be received yet
    std::size_t sent_on_socket_ = 0;
    bool inproc_served_ = false; // this socket has had a peer

    std::unordered_map<std::uint64_t, std::shared_ptr<ChannelCall>> calls_; // by number
    std::deque<std::shared_ptr<ChannelCall>> waiting_; // to be sent; those that have ended are skipped
    std::vector<Due> due_; // a heap; those that have ended are skipped, and thrown out when they are many
    std::uint64_t last_number_ = 0;
    std::vector<Incoming> incoming_;
};
} // namespace tarn_internal
