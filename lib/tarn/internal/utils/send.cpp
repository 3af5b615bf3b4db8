// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/send.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/thread_sanitizer.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
/// Whether the body is a text that isn't UTF-8, such as a chunk that begins or ends within a character. No
/// peer could parse the message.
bool has_invalid_text(const Message& message)
{
    const Body* body = find_body(message);
    return body && body->has_txt() && !slate::is_utf8(body->txt());
}

} // namespace

std::optional<zmq::message_t> to_frame(const Message& message)
{
    if (has_invalid_text(message)) {
        Message copy = message;
        move_invalid_text_to_bytes(copy);
        return serialise(copy);
    }
    return serialise(message);
}

std::optional<zmq::message_t> serialise(const Message& message)
{
    zmq::message_t frame(message.ByteSizeLong());
    // Protobuf counts in int, and would print an error about a larger size.
    if (frame.size() > INT_MAX || !message.SerializeToArray(frame.data(), static_cast<int>(frame.size())))
        return std::nullopt;
    return frame;
}

void move_invalid_text_to_bytes(Message& message)
{
    if (!has_invalid_text(message))
        return;
    Body* body = find_mutable_body(message);
    std::string bytes = std::move(*body->mutable_txt());
    body->set_bin(std::move(bytes));
}

bool send_str(zmq::socket_t& socket, const std::string& text)
{
    zmq::message_t frame(text.data(), text.size());
    return send_frame(socket, frame, 0, "zmq send failed: ", nullptr);
}

bool send_frame(zmq::socket_t& socket, zmq::message_t& frame,
                const std::shared_ptr<slate::Provider>& provider)
{
    return send_frame(socket, frame, 0, "send failed: ", provider);
}

bool send_frame(zmq::socket_t& socket, zmq::message_t& frame, int flags, std::string_view text,
                const std::shared_ptr<slate::Provider>& provider)
{
    tsan_release(frame.data());
    if (send_through_signals(socket, frame, flags))
        return true;
    slate::log_error(provider, SLATE_HERE, text, zmq_strerror(EAGAIN));
    return false;
}

bool send_msg(zmq::socket_t& socket, const Message& message, const std::shared_ptr<slate::Provider>& provider)
{
    auto frame = to_frame(message);
    return frame && send_frame(socket, *frame, provider);
}

bool send_msg(zmq::socket_t& socket, const std::shared_ptr<const Message>& message,
              const std::shared_ptr<slate::Provider>& provider)
{
    return send_msg(socket, *message, provider);
}
} // namespace tarn_internal
