// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <span>

#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Receives or sends one frame, even if a signal arrives: libzmq would give up, also between the frames of
/// one message. `flags` are those of zmq_msg_recv and zmq_msg_send. False on EAGAIN; throws zmq::error_t.
bool receive_through_signals(zmq::socket_t& socket, zmq::message_t& frame, int flags = 0);
bool send_through_signals(zmq::socket_t& socket, zmq::message_t& frame, int flags);

/// Receives the first frame of the next message and drops further ones, which no message of this library has:
/// a lock-step socket would otherwise refuse the next message. Blocks. False on EAGAIN; throws zmq::error_t.
bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame);

/// The same within that time, at the price of one system call, where a poll before makes three. A signal
/// doesn't shorten it. False if it passed. Sets the socket's ZMQ_RCVTIMEO.
bool receive_within(zmq::socket_t& socket, zmq::message_t& frame, const slate::Duration& timeout);

/// Drops the remaining frames of a message, of which `frame` was read last.
void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame);

/// What a socket is ready for: ZMQ_POLLIN, ZMQ_POLLOUT or both. Throws zmq::error_t.
int events_of(zmq::socket_t& socket);

/// Whether the last poll found something to receive.
inline bool is_readable(const zmq::pollitem_t& item)
{
    return (item.revents & ZMQ_POLLIN) != 0;
}

/// Polls for that time at most. A signal doesn't shorten it; other errors throw zmq::error_t.
void poll_for(std::span<zmq::pollitem_t> items, const slate::Duration& timeout);

/// The time for zmq_poll in milliseconds: -1 for infinity, and 0 for negative times, which would otherwise
/// wait for ever too. At most what a long holds.
long poll_milliseconds(const slate::Duration& timeout);
} // namespace tarn_internal
