// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/proxy.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <iterator>
#include <optional>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "tarn/internal/transport/controlled_thread.h"
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

/// Waits until a message can be forwarded; false for "TERMINATE".
bool wait_for_events(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, const Direction& in,
                     const Direction& out, MemoryReturn& memory)
{
    // While a message is held, its source isn't read, and its destination is polled for room.
    const auto events = [](const Direction& from_here, const Direction& to_here) {
        return static_cast<short>((from_here.is_held() ? 0 : ZMQ_POLLIN) |
                                  (to_here.is_held() ? ZMQ_POLLOUT : 0));
    };
    zmq::pollitem_t items[] = {{control.handle(), 0, ZMQ_POLLIN, 0},
                               {front.handle(), 0, events(in, out), 0},
                               {back.handle(), 0, events(out, in), 0}};
    poll_for(items, memory.wait_time());
    if (std::all_of(std::begin(items), std::end(items), [](const auto& item) { return item.revents == 0; }))
        memory.give_back();
    if ((items[0].revents & ZMQ_POLLIN) == 0)
        return true;
    zmq::message_t word;
    return !receive_through_signals(control, word) || word.to_string_view() != terminate;
}
} // namespace

void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider)
{
    MemoryReturn memory;
    Direction in(front, back);
    Direction out(back, front);
    for (;;) {
        try {
            if (!wait_for_events(front, back, control, in, out, memory))
                return;
            for (Direction* way : {&in, &out}) {
                for (int i = 0; i < burst; ++i) {
                    const auto bytes = way->forward();
                    if (!bytes)
                        break;
                    memory.note(*bytes);
                }
            }
        }
        catch (const zmq::error_t& error) {
            if (error.num() == EINTR)
                continue;
            slate::log_error(provider, SLATE_HERE, what, " has stopped working: ", error.what());
            return;
        }
    }
}
} // namespace tarn_internal
