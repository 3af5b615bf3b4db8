// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <vector>

#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Receives the first frame of the next message and drops further ones, which none of our messages has: a
/// socket in lock-step would otherwise not take the next message. Blocks. False on EAGAIN; throws
/// zmq::error_t.
bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame);

/// Drops the frames that are left of a message whose last frame read was `frame`.
void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame);

/// A message and the way back to who sent it: the frames of routing that a reply begins with, up to and with
/// the empty one that ends them.
struct RoutedMessage {
    std::vector<zmq::message_t> way_back;
    zmq::message_t payload;
};

/// Receives the next message as a ZMQ_REP socket would, but on a socket that need not answer. Blocks. None on
/// EAGAIN, and for a message without an empty frame or without one behind it, which is dropped; throws
/// zmq::error_t.
std::optional<RoutedMessage> receive_routed(zmq::socket_t& socket);

/// The time for zmq_poll: -1 for infinity, else milliseconds, none negative, as that would wait for ever too.
long poll_milliseconds(const slate::Duration& timeout);
} // namespace tarn_internal
