// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <google/protobuf/text_format.h>

#include "slate/dictionary.h"
#include "tarn/proto/message.pb.h"

namespace tarn_test {
/// A protobuf message from its text form, such as `get { head { path: "/a" } }`.
template <class T = tarn::Message>
std::shared_ptr<T> message_of(const std::string& text)
{
    auto message = std::make_shared<T>();
    if (!google::protobuf::TextFormat::ParseFromString(text, message.get()))
        throw std::invalid_argument("no text form of a message: " + text);
    return message;
}

/// Whether two messages hold the same, down to which fields are set.
inline bool equal(const google::protobuf::Message& a, const google::protobuf::Message& b)
{
    return a.GetDescriptor() == b.GetDescriptor() && a.SerializeAsString() == b.SerializeAsString();
}

/// A put with these bytes as its body, and the format that is named.
inline std::shared_ptr<tarn::Message> put_of(std::string_view bytes,
                                             tarn::Format format = tarn::Format::Unknown)
{
    auto message = std::make_shared<tarn::Message>();
    message->mutable_put()->mutable_head()->set_format(format);
    message->mutable_put()->mutable_body()->set_bin(std::string(bytes));
    return message;
}

using Pairs = std::vector<std::pair<std::string, std::string>>;

inline Pairs pairs_of(const google::protobuf::RepeatedPtrField<tarn::KeyValue>& list)
{
    Pairs pairs;
    for (const tarn::KeyValue& entry : list)
        pairs.emplace_back(entry.key(), entry.value());
    return pairs;
}

inline Pairs pairs_of(const slate::Dictionary& dictionary)
{
    Pairs pairs;
    for (const std::string& key : dictionary.keys())
        pairs.emplace_back(key, dictionary.get(key, ""));
    return pairs;
}

inline std::shared_ptr<slate::Dictionary> dictionary_of(const Pairs& pairs)
{
    auto dictionary = slate::make_dictionary();
    for (const auto& [key, value] : pairs)
        dictionary->set(key, std::string_view(value));
    return dictionary;
}
} // namespace tarn_test
