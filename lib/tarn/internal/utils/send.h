// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace slate {
class Provider;
}
namespace zmq {
class message_t;
class socket_t;
} // namespace zmq

namespace tarn {
class Message;
}

namespace tarn_internal {
/// A message as plain protobuf; none if it can't be serialised, as it is too large. Throws zmq::error_t if
/// there is no memory for it.
std::optional<zmq::message_t> to_frame(const tarn::Message& message);

/// Puts one frame on a socket: as it is, a text without terminator, or a message as plain protobuf. The
/// caller keeps the socket to one thread. They count nothing.
///
/// False if nothing was sent: the socket would block (logged, through `provider` where there is one), or the
/// message can't be serialised. Throws zmq::error_t if the socket is broken or the context is ending.
bool send_str(zmq::socket_t& socket, const std::string& text);
bool send_frame(zmq::socket_t& socket, zmq::message_t& frame,
                const std::shared_ptr<slate::Provider>& provider);
bool send_msg(zmq::socket_t& socket, const tarn::Message& message,
              const std::shared_ptr<slate::Provider>& provider);
/// `message` must not be null.
bool send_msg(zmq::socket_t& socket, const std::shared_ptr<const tarn::Message>& message,
              const std::shared_ptr<slate::Provider>& provider);
} // namespace tarn_internal
