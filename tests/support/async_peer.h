// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <zmq.hpp>

#include "support/peers.h"
#include "tarn/tarn.h"

namespace tarn_test {
/// One request of an asynchronous client, as its frames.
struct AsyncRequest {
    std::string sender;
    std::string number;
    tarn::Request request;
};

/// Answers asynchronous clients as the test tells it, right or wrong. It reads nothing by itself, and has a
/// ZeroMQ context of its own, as another process would.
class AsyncPeer {
public:
    explicit AsyncPeer(const std::shared_ptr<const slate::Uri>& uri)
        : socket_(context_, zmq::socket_type::router)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.bind(uri->to_string());
    }

    /// The next request; none if none came in that time. Throws for one of another shape.
    std::optional<AsyncRequest> next(std::chrono::milliseconds limit = std::chrono::seconds(20))
    {
        if (!is_readable(socket_, limit))
            return std::nullopt;
        const auto frames = receive_frames(socket_);
        auto message = std::make_shared<tarn::Message>();
        if (frames.size() != 4 || frames[1].size() != 8 || !frames[2].empty() ||
            !message->ParseFromString(frames[3]))
            throw std::runtime_error("not the request of an asynchronous client");
        return AsyncRequest{frames[0], frames[1], tarn::Request(message)};
    }

    /// So many requests.
    std::vector<AsyncRequest> next_ones(std::size_t count)
    {
        std::vector<AsyncRequest> requests;
        while (requests.size() < count) {
            auto request = next();
            if (!request)
                throw std::runtime_error("too few requests");
            requests.push_back(*request);
        }
        return requests;
    }

    static std::string text_reply(const std::string& text)
    {
        tarn::Message message;
        message.mutable_response()->set_status(tarn::Status::Ok);
        message.mutable_response()->mutable_head()->set_format(tarn::Format::Text);
        message.mutable_response()->mutable_body()->set_txt(text);
        return message.SerializeAsString();
    }

    void answer(const AsyncRequest& request, const std::string& text)
    {
        send({request.sender, request.number, "", text_reply(text)});
    }
    void answer(const AsyncRequest& request, const tarn::Message& message)
    {
        send({request.sender, request.number, "", message.SerializeAsString()});
    }
    void send(const std::vector<std::string>& frames) { send_frames(socket_, frames); }

private:
    zmq::context_t context_;
    zmq::socket_t socket_;
};
} // namespace tarn_test
