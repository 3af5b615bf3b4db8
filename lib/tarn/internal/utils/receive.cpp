// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/receive.h"

#include <algorithm>
#include <utility>

#include "tarn/internal/utils/thread_sanitizer.h"

namespace tarn_internal {
bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame)
{
    if (!socket.recv(frame))
        return false;
    tsan_acquire(frame.data());
    drop_further_frames(socket, frame);
    return true;
}

void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame)
{
    bool more = frame.more();
    while (more) {
        zmq::message_t dropped;
        more = socket.recv(dropped) && dropped.more();
    }
}

std::optional<RoutedMessage> receive_routed(zmq::socket_t& socket)
{
    RoutedMessage message;
    bool delimited = false;
    while (!delimited) {
        zmq::message_t frame;
        if (!socket.recv(frame) || !frame.more())
            return std::nullopt;
        delimited = frame.size() == 0;
        message.way_back.push_back(std::move(frame));
    }
    if (!receive_frame(socket, message.payload))
        return std::nullopt;
    return message;
}

long poll_milliseconds(const slate::Duration& timeout)
{
    if (timeout.is_positive_infinity())
        return -1;
    return std::max(0L, static_cast<long>(timeout.to_milliseconds()));
}
} // namespace tarn_internal
