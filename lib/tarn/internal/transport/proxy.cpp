// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/proxy.h"

#include <cstddef>
#include <optional>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/transport/socket_poller.h"
#include "tarn/internal/utils/memory_return.h"
#include "tarn/internal/utils/receive.h"

namespace tarn_internal {
namespace {
/// How many messages go in one direction before the other one has its turn.
constexpr int burst = 100;

/// One direction of a proxy.
class Direction {
public:
    Direction(zmq::socket_t& from, zmq::socket_t& to) : from_(from), to_(to) {}

    /// Forwards one message, and gives its size. None if there is none, or if the receiving side is full; the
    /// message is then held.
    std::optional<std::size_t> forward()
    {
        if (!held_ && !receive())
            return std::nullopt;
        bool more = held_->more();
        std::size_t bytes = held_->size();
        if (!send(*held_, more))
            return std::nullopt;
        held_.reset();
        while (more) { // further frames follow the first one, or are dropped with it
            zmq::message_t frame;
            (void)receive_through_signals(from_, frame);
            more = frame.more();
            bytes += frame.size();
            (void)send(frame, more);
        }
        return bytes;
    }

    /// Whether a message waits for room on the receiving side.
    bool is_held() const { return held_.has_value(); }

private:
    bool receive()
    {
        zmq::message_t frame;
        if (!receive_through_signals(from_, frame, ZMQ_DONTWAIT))
            return false;
        held_ = std::move(frame);
        return true;
    }

    bool send(zmq::message_t& frame, bool more)
    {
        return send_through_signals(to_, frame, (more ? ZMQ_SNDMORE : 0) | ZMQ_DONTWAIT);
    }

    zmq::socket_t& from_;
    zmq::socket_t& to_;
    std::optional<zmq::message_t> held_;
};

/// The two directions of a proxy, and the wait for either.
class Proxy {
public:
    Proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control)
        : control_(control),
          in_(front, back),
          out_(back, front),
          control_index_(poller_.add(control)),
          front_index_(poller_.add(front)),
          back_index_(poller_.add(back))
    {
    }

    /// One pass. False for "TERMINATE".
    bool forward_once()
    {
        // While a message is held, its source isn't read, and its destination is polled for room.
        const auto events = [](const Direction& from_here, const Direction& to_here) {
            return static_cast<short>((from_here.is_held() ? 0 : ZMQ_POLLIN) |
                                      (to_here.is_held() ? ZMQ_POLLOUT : 0));
        };
        poller_.want(front_index_, events(in_, out_));
        poller_.want(back_index_, events(out_, in_));
        memory_.after_wait(poller_.wait(memory_.wait_time()));
        if (poller_.is_readable(control_index_) && is_told_to_end())
            return false;
        if (in_.is_held() ? poller_.is_writable(back_index_) : poller_.is_unsettled(front_index_))
            forward(in_, front_index_, back_index_);
        if (out_.is_held() ? poller_.is_writable(front_index_) : poller_.is_unsettled(back_index_))
            forward(out_, back_index_, front_index_);
        return true;
    }

private:
    bool is_told_to_end()
    {
        zmq::message_t word;
        return receive_through_signals(control_, word) && word.to_string_view() == terminate;
    }

    void forward(Direction& way, SocketPoller::Index from, SocketPoller::Index to)
    {
        for (int i = 0; i < burst; ++i) {
            const auto bytes = way.forward();
            if (!bytes) {
                if (!way.is_held())
                    poller_.settle(from);
                return;
            }
            poller_.touch(to);
            memory_.note(*bytes);
        }
    }

    zmq::socket_t& control_;
    Direction in_;
    Direction out_;
    SocketPoller poller_;
    const SocketPoller::Index control_index_;
    const SocketPoller::Index front_index_;
    const SocketPoller::Index back_index_;
    MemoryReturn memory_;
};
} // namespace

void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider)
{
    try {
        Proxy proxy(front, back, control);
        while (proxy.forward_once()) {
        }
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider, SLATE_HERE, what, " has stopped working: ", error.what());
    }
}
} // namespace tarn_internal
