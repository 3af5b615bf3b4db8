// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tarn/message.h"
#include "tarn/types.h"

namespace slate {
class Provider;
}
namespace zmq {
class message_t;
class socket_t;
} // namespace zmq

namespace tarn_internal {
/// A message as plain protobuf; none if it is too large to be serialised. A body whose text isn't valid UTF-8
/// travels as bytes, with its format unchanged. Throws zmq::error_t if there is no memory for the frame.
std::optional<zmq::message_t> to_frame(const Message& message);

/// The same for a message whose text is known to be UTF-8.
std::optional<zmq::message_t> serialise(const Message& message);

/// Moves the text of a body that isn't valid UTF-8 into the bytes of that body, with its format unchanged: no
/// peer could parse such a text, and readers accept both. to_frame does the same with a copy of the message.
void move_invalid_text_to_bytes(Message& message);

/// Send one frame: the given one, a text without terminator, or a message as plain protobuf. The caller must
/// not share the socket between threads. Callers count.
///
/// False if nothing was sent: the socket would block (logged, through `provider` if given), or the message
/// can't be serialised. Throws zmq::error_t if the socket is broken or the context is ending.
bool send_str(zmq::socket_t& socket, const std::string& text);
bool send_frame(zmq::socket_t& socket, zmq::message_t& frame,
                const std::shared_ptr<slate::Provider>& provider);
/// The same with flags of zmq_msg_send and with the caller's own text for the log line.
bool send_frame(zmq::socket_t& socket, zmq::message_t& frame, int flags, std::string_view text,
                const std::shared_ptr<slate::Provider>& provider);
bool send_msg(zmq::socket_t& socket, const Message& message,
              const std::shared_ptr<slate::Provider>& provider);
/// `message` must not be null.
bool send_msg(zmq::socket_t& socket, const std::shared_ptr<const Message>& message,
              const std::shared_ptr<slate::Provider>& provider);
} // namespace tarn_internal
