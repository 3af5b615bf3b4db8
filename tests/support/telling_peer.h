// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/peers.h"
#include "tarn/tarn.h"

namespace tarn_test {
inline tarn::Message answer_of(tarn::Status status)
{
    tarn::Message message;
    message.mutable_response()->set_status(status);
    return message;
}

/// A reply with a chunk of a download, and the id of the transfer unless that is empty.
inline tarn::Message chunk_reply(const std::string& data, const std::string& id = "")
{
    tarn::Message message = answer_of(tarn::Status::Ok);
    message.mutable_response()->mutable_body()->set_bin(data);
    if (!id.empty()) {
        tarn::KeyValue* header = message.mutable_response()->mutable_head()->add_headers();
        header->set_key(tarn::chunk_header::transfer);
        header->set_value(id);
    }
    return message;
}

/// Remembers the requests and answers the n-th one with the n-th of its answers, and all further ones with
/// the last. An empty answer is none at all.
class TellingPeer {
public:
    TellingPeer(const std::shared_ptr<const slate::Uri>& uri, std::vector<std::string> answers)
        : answers_(std::move(answers)),
          peer_(uri, [this](const std::string& frame) { return answer(frame); })
    {
    }
    TellingPeer(const std::shared_ptr<const slate::Uri>& uri, const std::vector<tarn::Message>& answers)
        : TellingPeer(uri, frames_of(answers))
    {
    }

    std::vector<tarn::Request> requests() const
    {
        const std::lock_guard lock(mutex_);
        return requests_;
    }
    std::size_t count() const { return requests().size(); }

private:
    static std::vector<std::string> frames_of(const std::vector<tarn::Message>& messages)
    {
        std::vector<std::string> frames;
        for (const tarn::Message& message : messages)
            frames.push_back(message.SerializeAsString());
        return frames;
    }

    std::vector<std::string> answer(const std::string& frame)
    {
        auto message = std::make_shared<tarn::Message>();
        EXPECT_TRUE(message->ParseFromString(frame));
        const std::lock_guard lock(mutex_);
        const std::string& chosen = answers_.at(std::min(requests_.size(), answers_.size() - 1));
        requests_.emplace_back(message);
        return chosen.empty() ? std::vector<std::string>() : std::vector{chosen};
    }

    const std::vector<std::string> answers_;
    mutable std::mutex mutex_; // guards requests_
    std::vector<tarn::Request> requests_;
    ScriptedPeer peer_;
};
} // namespace tarn_test
