// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <zmq.hpp>

#include "slate/uri.h"

namespace tarn_test {
inline bool is_readable(zmq::socket_t& socket, std::chrono::milliseconds limit)
{
    zmq::pollitem_t item = {socket.handle(), 0, ZMQ_POLLIN, 0};
    return zmq::poll(&item, 1, limit) > 0;
}

/// One whole ZeroMQ message, as frames.
inline std::vector<std::string> receive_frames(zmq::socket_t& socket)
{
    std::vector<std::string> frames;
    zmq::message_t frame;
    do {
        if (!socket.recv(frame))
            throw std::runtime_error("nothing to receive");
        frames.push_back(frame.to_string());
    } while (frame.more());
    return frames;
}

inline void send_frames(zmq::socket_t& socket, const std::vector<std::string>& frames)
{
    for (std::size_t i = 0; i < frames.size(); ++i)
        socket.send(zmq::buffer(frames[i]),
                    i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
}

/// Sends the bytes it is told and shows the bytes it got. Has a ZeroMQ context of its own, as another process
/// would.
class RawPeer {
public:
    explicit RawPeer(const std::shared_ptr<const slate::Uri>& uri,
                     zmq::socket_type type = zmq::socket_type::req)
        : socket_(context_, type)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.connect(uri->to_string());
    }

    void send(const std::vector<std::string>& frames) { send_frames(socket_, frames); }
    void send(const std::string& frame) { send_frames(socket_, {frame}); }

    /// The next message; none if none came in that time.
    std::optional<std::vector<std::string>> receive(
        std::chrono::milliseconds limit = std::chrono::seconds(20))
    {
        if (!is_readable(socket_, limit))
            return std::nullopt;
        return receive_frames(socket_);
    }

    /// Sends one frame and gives the one frame of the answer; throws if there is none, or several frames.
    std::string exchange(const std::string& frame)
    {
        send(frame);
        const auto answer = receive();
        if (!answer || answer->size() != 1)
            throw std::runtime_error("no answer of one frame");
        return answer->front();
    }

    /// Sends what `message` gives for 0, 1, 2 ... until nothing more is taken for half a second, as all
    /// queues on the way are full. How many went; at most 100,000, for a way that never fills.
    int send_until_full(const std::function<std::vector<std::string>(int)>& message)
    {
        socket_.set(zmq::sockopt::sndtimeo, 500);
        for (int count = 0; count < 100000; ++count) {
            const auto frames = message(count);
            for (std::size_t i = 0; i < frames.size(); ++i) {
                const bool last = i + 1 == frames.size();
                if (!socket_.send(zmq::buffer(frames[i]),
                                  last ? zmq::send_flags::none : zmq::send_flags::sndmore))
                    return count;
            }
        }
        return 100000;
    }

    zmq::socket_t& socket() { return socket_; }

private:
    zmq::context_t context_;
    zmq::socket_t socket_;
};

/// Subscribes at a socket file and goes at once, in bytes of the protocol and without libzmq, which would
/// itself not survive a topic that is long enough.
inline void subscribe_and_go(const std::string& path, const std::string& topic)
{
    const auto zeros = [](std::size_t count) { return std::string(count, '\0'); };
    std::string bytes = "\xFF" + zeros(8) + "\x7F\x03" + zeros(1) + "NULL" + zeros(16) + zeros(1) + zeros(31);
    const std::string ready = "\x05READY\x0BSocket-Type" + zeros(3) + "\x03SUB";
    bytes += "\x04" + std::string(1, static_cast<char>(ready.size())) + ready;
    bytes += "\x02"; // a long frame, whose size follows in eight bytes
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes += static_cast<char>((topic.size() + 1) >> shift & 0xFF);
    bytes += "\x01" + topic;

    const int connection = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::runtime_error("can't connect");
    for (std::size_t sent = 0; sent < bytes.size();) {
        const auto count = ::send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count < 0)
            break; // the other side has closed
        sent += static_cast<std::size_t>(count);
    }
    ::close(connection);
}

/// Answers at an endpoint, as a server that shares no code with ours would: `answer` gets the first frame of
/// each request, in order, and gives the frames of the reply; no frames for no answer at all.
class ScriptedPeer {
public:
    using Answer = std::function<std::vector<std::string>(const std::string&)>;

    ScriptedPeer(const std::shared_ptr<const slate::Uri>& uri, Answer answer)
        : answer_(std::move(answer)),
          socket_(context_, zmq::socket_type::router)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.bind(uri->to_string());
        thread_ = std::thread([this] { run(); });
    }
    ~ScriptedPeer()
    {
        running_ = false;
        thread_.join();
    }

    /// How many requests have come so far.
    int requests() const { return requests_; }

private:
    void run()
    {
        while (running_) {
            if (!is_readable(socket_, std::chrono::milliseconds(5)))
                continue;
            // The way back, and the request.
            auto frames = receive_frames(socket_);
            ++requests_;
            const auto reply = answer_(frames.at(frames.size() - 1));
            if (reply.empty())
                continue;
            frames.pop_back();
            frames.insert(frames.end(), reply.begin(), reply.end());
            send_frames(socket_, frames);
        }
    }

    Answer answer_;
    std::atomic<bool> running_{true};
    std::atomic<int> requests_{0};
    zmq::context_t context_;
    zmq::socket_t socket_;
    std::thread thread_;
};

/// Takes every request and answers none.
class SilentPeer : public ScriptedPeer {
public:
    explicit SilentPeer(const std::shared_ptr<const slate::Uri>& uri)
        : ScriptedPeer(uri, [](const std::string&) { return std::vector<std::string>(); })
    {
    }
};
} // namespace tarn_test
