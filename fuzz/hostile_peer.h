// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <zmq.hpp>

#include "fuzz/sockets.h"

namespace tarn_fuzz {
/// A server that answers with the frames that an input holds, one after the other, and then with status 404.
class HostilePeer {
public:
    /// With `frames_each` frames in each answer, of which a client should read the first.
    struct Script {
        std::vector<std::string> frames;
        std::size_t frames_each = 1;
    };

    HostilePeer(zmq::context_t& context, const std::string& endpoint)
        : socket_(context, zmq::socket_type::router)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.bind(endpoint);
        thread_ = std::thread([this] { run(); });
    }
    ~HostilePeer()
    {
        running_ = false;
        thread_.join();
    }
    HostilePeer(const HostilePeer&) = delete;
    HostilePeer& operator=(const HostilePeer&) = delete;

    void play(Script script)
    {
        const std::lock_guard lock(mutex_);
        script_ = std::move(script);
        next_ = 0;
    }

    /// Changes each frame before it is sent, on the peer's own thread. To be set before the first request.
    std::function<void(std::string&)> adapt;

private:
    void run()
    {
        while (running_) {
            if (!is_readable(socket_, std::chrono::milliseconds(50)))
                continue;
            // Sender, delimiter, request.
            auto frames = receive_frames(socket_);
            frames.resize(2);
            for (const std::string& frame : next_answer())
                frames.push_back(frame);
            send_frames(socket_, frames);
        }
    }

    std::vector<std::string> next_answer()
    {
        // A response of status 404, written out: the peer shares no code with the library.
        static const std::string not_found("\x1a\x03\x18\x94\x03", 5);
        const std::lock_guard lock(mutex_);
        std::vector<std::string> answer;
        while (next_ < script_.frames.size() && answer.size() < script_.frames_each)
            answer.push_back(script_.frames[next_++]);
        if (answer.empty())
            answer.push_back(not_found);
        for (std::string& frame : answer) {
            if (adapt)
                adapt(frame);
        }
        return answer;
    }

    std::mutex mutex_; // guards script_ and next_
    Script script_;
    std::size_t next_ = 0;
    std::atomic<bool> running_{true};
    zmq::socket_t socket_;
    std::thread thread_;
};
} // namespace tarn_fuzz
