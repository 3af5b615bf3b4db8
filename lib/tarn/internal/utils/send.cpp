// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/send.h"

#include <climits>
#include <cstring>

#include <zmq.hpp>

#include "slate/log.h"
#include "tarn/internal/utils/thread_sanitizer.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
/// False, and `text` in the log, if the socket would block.
bool send_or_log(zmq::socket_t& socket, zmq::message_t& frame, std::string_view text,
                 const std::shared_ptr<slate::Provider>& provider)
{
    tsan_release(frame.data());
    if (zmq_msg_send(frame.handle(), socket.handle(), 0) >= 0)
        return true;
    if (zmq_errno() != EAGAIN)
        throw zmq::error_t();
    slate::log_error(provider, SLATE_HERE, text, zmq_strerror(EAGAIN));
    return false;
}
} // namespace

std::optional<zmq::message_t> to_frame(const tarn::Message& message)
{
    zmq::message_t frame(message.ByteSizeLong());
    // Protobuf counts in int; it would print what the size alone tells.
    if (frame.size() > INT_MAX || !message.SerializeToArray(frame.data(), static_cast<int>(frame.size())))
        return std::nullopt;
    return frame;
}

bool send_str(zmq::socket_t& socket, const std::string& text)
{
    zmq::message_t frame(text.data(), text.size());
    return send_or_log(socket, frame, "zmq send failed: ", nullptr);
}

bool send_frame(zmq::socket_t& socket, zmq::message_t& frame,
                const std::shared_ptr<slate::Provider>& provider)
{
    return send_or_log(socket, frame, "send failed: ", provider);
}

bool send_msg(zmq::socket_t& socket, const tarn::Message& message,
              const std::shared_ptr<slate::Provider>& provider)
{
    auto frame = to_frame(message);
    return frame && send_frame(socket, *frame, provider);
}

bool send_msg(zmq::socket_t& socket, const std::shared_ptr<const tarn::Message>& message,
              const std::shared_ptr<slate::Provider>& provider)
{
    return send_msg(socket, *message, provider);
}
} // namespace tarn_internal
