// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "fuzz/require.h"
#include "tarn/internal/utils/thread_sanitizer.h"

namespace tarn_fuzz {
/// How long an answer may take, on any machine and with any sanitizer. Whatever takes longer hangs.
constexpr std::chrono::seconds patience(60);

/// Does it again if a signal interrupts it: the fuzzer has a timer.
template <class Operation>
auto through_signals(Operation operation)
{
    for (;;) {
        try {
            return operation();
        }
        catch (const zmq::error_t& error) {
            if (error.num() != EINTR)
                throw;
        }
    }
}

inline bool is_readable(zmq::socket_t& socket, std::chrono::milliseconds limit)
{
    zmq::pollitem_t item = {socket.handle(), 0, ZMQ_POLLIN, 0};
    return through_signals([&] { return zmq::poll(&item, 1, limit); }) > 0;
}

/// One whole ZeroMQ message.
inline std::vector<std::string> receive_frames(zmq::socket_t& socket)
{
    std::vector<std::string> frames;
    zmq::message_t frame;
    do {
        (void)through_signals([&] { return socket.recv(frame); });
        tarn_internal::tsan_acquire(frame.data());
        frames.push_back(frame.to_string());
    } while (frame.more());
    return frames;
}

inline void send_frames(zmq::socket_t& socket, const std::vector<std::string>& frames)
{
    for (std::size_t i = 0; i < frames.size(); ++i) {
        zmq::message_t frame(frames[i].data(), frames[i].size());
        tarn_internal::tsan_release(frame.data());
        const auto flags = i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none;
        (void)through_signals([&] { return socket.send(frame, flags); });
    }
}

/// A client that sends any bytes, and may have several requests under way.
class RawClientSocket {
public:
    RawClientSocket(zmq::context_t& context, const std::string& endpoint)
        : socket_(context, zmq::socket_type::dealer)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.connect(endpoint);
    }

    /// Sends a request behind the way back of its answer, as if it came through proxies.
    void send(const std::vector<std::string>& frames, const std::vector<std::string>& way_back = {})
    {
        std::vector<std::string> message = way_back;
        message.emplace_back(); // ends the way back, as a client's own socket does
        message.insert(message.end(), frames.begin(), frames.end());
        send_frames(socket_, message);
    }

    /// Sends what is no request, as nothing ends the way back.
    void send_without_end(const std::vector<std::string>& frames) { send_frames(socket_, frames); }

    /// The one frame of the next answer.
    std::string receive(const std::vector<std::string>& way_back = {})
    {
        require(is_readable(socket_, patience), "every request is answered");
        auto message = receive_frames(socket_);
        require(message.size() == way_back.size() + 2, "an answer is one frame");
        const std::string answer = message.back();
        message.pop_back();
        require(message.back().empty(), "behind an empty one");
        message.pop_back();
        require(message == way_back, "and goes back the way that its request came");
        return answer;
    }

    std::string exchange(const std::string& frame)
    {
        send({frame});
        return receive();
    }

private:
    zmq::socket_t socket_;
};
} // namespace tarn_fuzz
