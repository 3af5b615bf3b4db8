// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/receive.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

#include "tarn/internal/utils/thread_sanitizer.h"

namespace tarn_internal {
bool receive_through_signals(zmq::socket_t& socket, zmq::message_t& frame, int flags)
{
    // Interrupted by a signal, libzmq gives up before it has taken anything.
    while (zmq_msg_recv(frame.handle(), socket.handle(), flags) < 0) {
        if (zmq_errno() == EAGAIN)
            return false;
        if (zmq_errno() != EINTR)
            throw zmq::error_t();
    }
    return true;
}

bool send_through_signals(zmq::socket_t& socket, zmq::message_t& frame, int flags)
{
    while (zmq_msg_send(frame.handle(), socket.handle(), flags) < 0) {
        if (zmq_errno() == EAGAIN)
            return false;
        if (zmq_errno() != EINTR)
            throw zmq::error_t();
    }
    return true;
}

bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame)
{
    if (!receive_through_signals(socket, frame))
        return false;
    tsan_acquire(frame.data());
    drop_further_frames(socket, frame);
    return true;
}

bool receive_within(zmq::socket_t& socket, zmq::message_t& frame, const slate::Duration& timeout)
{
    constexpr long longest = std::numeric_limits<int>::max(); // 24 days, and then once more
    const slate::StopWatch watch(true);
    for (auto rest = timeout;; rest = timeout - slate::Microseconds(watch.elapsed())) {
        const long milliseconds = poll_milliseconds(rest);
        socket.set(zmq::sockopt::rcvtimeo, static_cast<int>(std::min(milliseconds, longest)));
        if (zmq_msg_recv(frame.handle(), socket.handle(), 0) >= 0)
            break;
        if (zmq_errno() == EAGAIN && milliseconds <= longest)
            return false;
        if (zmq_errno() != EINTR && zmq_errno() != EAGAIN)
            throw zmq::error_t();
    }
    tsan_acquire(frame.data());
    drop_further_frames(socket, frame);
    return true;
}

void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame)
{
    bool more = frame.more();
    while (more) {
        zmq::message_t dropped;
        more = receive_through_signals(socket, dropped) && dropped.more();
    }
}

int events_of(zmq::socket_t& socket)
{
    int events = 0;
    std::size_t size = sizeof events;
    while (zmq_getsockopt(socket.handle(), ZMQ_EVENTS, &events, &size) != 0) {
        if (zmq_errno() != EINTR)
            throw zmq::error_t();
    }
    return events;
}

void poll_for(std::span<zmq::pollitem_t> items, const slate::Duration& timeout)
{
    const slate::StopWatch watch(true);
    auto rest = timeout;
    while (zmq_poll(items.data(), static_cast<int>(items.size()), poll_milliseconds(rest)) < 0) {
        if (zmq_errno() != EINTR)
            throw zmq::error_t();
        rest = timeout - slate::Microseconds(watch.elapsed());
    }
}

long poll_milliseconds(const slate::Duration& timeout)
{
    if (timeout.is_positive_infinity())
        return -1;
    constexpr std::int64_t longest = std::numeric_limits<long>::max(); // 24 days, where a long has 32 bits
    return static_cast<long>(std::clamp(timeout.to_milliseconds(), std::int64_t{0}, longest));
}
} // namespace tarn_internal
