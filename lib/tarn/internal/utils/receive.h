// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <span>
#include <vector>

#include <zmq.hpp>

#include "slate/duration.h"

namespace tarn_internal {
/// Receives the first frame of the next message and drops further ones, which no message of this library has:
/// a lock-step socket would otherwise refuse the next message. Blocks. False on EAGAIN; throws zmq::error_t.
bool receive_frame(zmq::socket_t& socket, zmq::message_t& frame);

/// Drops the remaining frames of a message, of which `frame` was read last.
void drop_further_frames(zmq::socket_t& socket, const zmq::message_t& frame);

/// A message and the way back to its sender: the routing frames that a reply begins with, up to and including
/// the empty one that ends them.
struct RoutedMessage {
    std::vector<zmq::message_t> way_back;
    zmq::message_t payload;
};

/// Receives the next message as a ZMQ_REP socket would, but on a socket that need not answer. Blocks. None on
/// EAGAIN, and for a message without an empty frame or without a frame behind it, which is dropped; throws
/// zmq::error_t.
std::optional<RoutedMessage> receive_routed(zmq::socket_t& socket);

/// Polls for that time at most. A signal doesn't shorten it; other errors throw zmq::error_t.
void poll_for(std::span<zmq::pollitem_t> items, const slate::Duration& timeout);

/// The time for zmq_poll in milliseconds: -1 for infinity, and 0 for negative times, which would otherwise
/// wait for ever too.
long poll_milliseconds(const slate::Duration& timeout);
} // namespace tarn_internal
