// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Receives the first frame of the next message and drops further ones, which none of our messages has: a
/// socket in lock-step would otherwise not take the next message. Blocks. False on EAGAIN; throws
/// zmq::error_t.
bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame);

/// Drops the frames that are left of a message whose last frame read was `frame`.
void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame);

/// The time for zmq_poll: -1 for infinity, else milliseconds, none negative, as that would wait for ever too.
long poll_milliseconds(const slate::Duration& timeout);
} // namespace tarn_internal
