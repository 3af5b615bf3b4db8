// SPDX-License-Identifier: Apache-2.0
// Bodies into protobuf messages: Envelope::into and Envelope::as.
// Input: format and kind of message in one byte each, the header "Content-Type" in a line, and the body.

#include <memory>
#include <optional>
#include <string>

#include <google/protobuf/util/json_util.h>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/routing.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/reply.h"
#include "tarn/serdes.h"

namespace {
using tarn::Format;
using tarn_fuzz::require;

constexpr Format formats[] = {Format::Json, Format::Proto, Format::Bin, Format::Unknown, Format::Text};

template <class T>
std::optional<T> into(const tarn::Reply& reply)
{
    try {
        return reply.into<T>();
    }
    catch (const tarn::SerdesException&) {
        return std::nullopt;
    }
}

/// Whether the body is a message, by the reply's format or else by its "Content-Type". Bytes are read from
/// the field for bytes alone, and JSON from either.
template <class T>
bool expect_message(const tarn::Reply& reply)
{
    T message;
    const auto is_binary = [&] { return message.ParseFromString(reply.body().bin()); };
    const auto is_json = [&] {
        return google::protobuf::util::JsonStringToMessage(reply.data(), &message).ok();
    };
    const bool says_binary = reply.is(Format::Proto) || reply.is(Format::Bin);
    if ((says_binary && is_binary()) || (reply.is(Format::Json) && is_json()))
        return true;
    const Format declared = tarn::to_format(reply.header("Content-Type", ""));
    if (declared == Format::Proto || declared == Format::Bin)
        return is_binary();
    return (declared == Format::Json || reply.maybe_json()) && is_json();
}

/// JSON leaves out what the schema doesn't know.
template <class T>
std::string known_part(T message)
{
    message.DiscardUnknownFields();
    return message.SerializeAsString();
}

template <class T>
void check(const tarn::Reply& reply)
{
    const auto message = into<T>(reply);
    require(message.has_value() == expect_message<T>(reply), "exactly what protobuf reads is a message");
    const auto pointer = reply.as<T>();
    require(message.has_value() == (pointer != nullptr), "both say whether the body is a message");
    if (!message)
        return;
    require(message->SerializeAsString() == pointer->SerializeAsString(), "both give the same message");

    std::string json;
    try {
        tarn::to_json(*message, &json, slate::DebugLevel);
    }
    catch (const tarn::SerdesException&) {
        return; // an Any of a type that nobody knows
    }
    tarn::Reply again(std::make_shared<tarn::Message>());
    again.set_reply_json(json);
    const auto copy = into<T>(again);
    require(copy.has_value(), "what prints parses", json);
    if constexpr (!std::is_same_v<T, tarn::Message>) // what an Any holds may be in another order
        require(known_part(*copy) == known_part(*message), "and is the same", json);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    tarn_fuzz::Input input(data, size);
    const Format format = formats[input.byte() % std::size(formats)];
    const std::uint8_t kind = input.byte();
    const std::string content_type = input.line();
    const std::string body = input.rest();

    tarn::Reply reply(std::make_shared<tarn::Message>());
    reply.set_reply_data(format, body);
    if (kind & 4) // either field of the body must do
        reply.mutable_body()->set_txt(body);
    if (!content_type.empty())
        reply.set_header("Content-Type", content_type);

    switch (kind % 4) {
    case 0:
        check<tarn::Stats>(reply);
        break;
    case 1:
        check<tarn::RoutingDetails>(reply);
        break;
    default:
        check<tarn::Message>(reply);
    }
    return 0;
}
