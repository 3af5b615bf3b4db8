// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/proxy.h"

#include <cerrno>

#include <zmq.hpp>

#include "slate/log.h"
#include "tarn/internal/controlled_thread.h"

namespace tarn_internal {
namespace {
/// So many messages go one way before the other way has its turn.
constexpr int burst = 100;

bool is_ready(zmq::socket_t& socket, int event)
{
    return (socket.get(zmq::sockopt::events) & event) != 0;
}

void forward_message(zmq::socket_t& from, zmq::socket_t& to)
{
    zmq::message_t frame;
    bool more = true;
    while (more) {
        (void)from.recv(frame);
        more = frame.more();
        to.send(frame, more ? zmq::send_flags::sndmore : zmq::send_flags::none);
    }
}

void forward_burst(zmq::socket_t& from, zmq::socket_t& to)
{
    for (int i = 0; i < burst && is_ready(to, ZMQ_POLLOUT) && is_ready(from, ZMQ_POLLIN); ++i)
        forward_message(from, to);
}

/// Waits until something can be done; false for "TERMINATE".
bool wait_for_events(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control)
{
    // A side is only listened to while the other one takes something; until then it is awaited that it does.
    const bool front_takes = is_ready(front, ZMQ_POLLOUT);
    const bool back_takes = is_ready(back, ZMQ_POLLOUT);
    const auto events = [](bool takes, bool other_takes) {
        return static_cast<short>((other_takes ? ZMQ_POLLIN : 0) | (takes ? 0 : ZMQ_POLLOUT));
    };
    zmq::pollitem_t items[] = {{control.handle(), 0, ZMQ_POLLIN, 0},
                               {front.handle(), 0, events(front_takes, back_takes), 0},
                               {back.handle(), 0, events(back_takes, front_takes), 0}};
    zmq::poll(items, 3, std::chrono::milliseconds(-1));
    if ((items[0].revents & ZMQ_POLLIN) == 0)
        return true;
    zmq::message_t word;
    return !control.recv(word) || word.to_string_view() != terminate;
}
} // namespace

void run_proxy(zmq::socket_t& front, zmq::socket_t& back, zmq::socket_t& control, std::string_view what,
               const std::shared_ptr<slate::Provider>& provider)
{
    for (;;) {
        try {
            if (!wait_for_events(front, back, control))
                return;
            forward_burst(front, back);
            forward_burst(back, front);
        }
        catch (const zmq::error_t& error) {
            if (error.num() == EINTR)
                continue;
            slate::log_error(provider, SLATE_HERE, what, " has stopped working: ", error.what());
            return;
        }
    }
}

void forward_the_rest(zmq::socket_t& from, zmq::socket_t& to)
{
    while (is_ready(from, ZMQ_POLLIN))
        forward_message(from, to);
}
} // namespace tarn_internal
