// SPDX-License-Identifier: Apache-2.0
#include "tarn/reply.h"

#include <utility>

#include "slate/file.h"
#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/utils/explain_reply.h"
#include "tarn/proto/message.pb.h"
#include "tarn/serdes.h"

namespace tarn {
bool Succeeded(Status status)
{
    return status >= 200 && status <= 299;
}

bool Succeeded(const std::shared_ptr<Message>& message)
{
    if (!message)
        return false;
    if (message->has_response())
        return Succeeded(message->response().status());
    return message->has_call() && Succeeded(message->call().result().status());
}

void Reply::set_reply_text(const std::string& text)
{
    set_content(Format::Text, text);
}

void Reply::set_reply_text(std::string&& text)
{
    set_content(Format::Text, std::move(text));
}

void Reply::set_reply_json(const std::string& json)
{
    set_content(Format::Json, json);
}

void Reply::set_reply_json(std::string&& json)
{
    set_content(Format::Json, std::move(json));
}

void Reply::set_reply_xml(const std::string& xml)
{
    set_content(Format::Xml, xml);
}

void Reply::set_reply_xml(std::string&& xml)
{
    set_content(Format::Xml, std::move(xml));
}

void Reply::set_reply_data(Format format, const std::string& bytes)
{
    set_content(format, bytes);
}

void Reply::set_reply_data(Format format, std::string&& bytes)
{
    set_content(format, std::move(bytes));
}

void Reply::set_reply_text(const google::protobuf::Message& value)
{
    set_content(Format::Text, value.DebugString());
}

void Reply::set_reply_json(const google::protobuf::Message& value)
{
    set_format_status(Format::Json, Status::Ok);
    std::string json;
    to_json(value, &json, slate::ErrorLevel);
    mutable_response()->mutable_body()->set_txt(std::move(json));
}

void Reply::set_reply_proto(const google::protobuf::Message& value)
{
    set_reply_proto(value, Format::Proto);
}

void Reply::set_reply_proto(const google::protobuf::Message& value, Format format)
{
    set_format_status(format, Status::Ok);
    std::string bytes = to_binary(value, slate::ErrorLevel); // may throw, and then leaves the body alone
    mutable_response()->mutable_body()->set_bin(std::move(bytes));
}

void Reply::set_reply_file(const std::filesystem::path& path)
{
    const auto type = std::filesystem::status(path).type();
    if (type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none)
        throw MessageException(Status::NotFound, path.string() + " does not exist");

    std::string content = slate::slurp_file<std::string>(path.string(), std::ios::binary);
    set_content(tarn_internal::to_format_from_path(path), std::move(content));
}

void Reply::set_format_status(Format format, Status status)
{
    Response* response = mutable_response();
    response->mutable_head()->set_format(format);
    response->set_status(status);
}

void Reply::set_status(Status status)
{
    mutable_response()->set_status(status);
}

void Reply::set_status(Status status, const std::string& text)
{
    Response* response = mutable_response();
    response->set_status(status);
    response->set_status_message(slate::to_utf8(text));
}

Status Reply::status() const
{
    if (message && message->has_response())
        return message->response().status();
    if (message && message->has_call() && message->call().has_result())
        return message->call().result().status();
    return Status::UnknownStatus;
}

std::string Reply::status_message() const
{
    if (message && message->has_response())
        return message->response().status_message();
    if (message && message->has_call() && message->call().has_result())
        return message->call().result().status_message();
    return {};
}

bool Reply::good() const
{
    if (!message)
        return false;
    if (message->has_response())
        return Succeeded(message->response().status());
    if (message->has_call() && message->call().has_result())
        return Succeeded(message->call().result().status());
    return true;
}

std::string Reply::why() const
{
    return message ? tarn_internal::explain_reply(*message) : "no message";
}

std::string Reply::text_or(std::string dflt) const
{
    if (good() && has_body())
        return data();
    return dflt;
}

Response* Reply::mutable_response()
{
    if (!message)
        throw Exception(slate::trace_error(SLATE_HERE, "Reply, not initialized"));
    return message->mutable_response();
}

template <class Content>
void Reply::set_content(Format format, Content&& content)
{
    set_format_status(format, Status::Ok);
    Body* body = mutable_response()->mutable_body();
    if (tarn_internal::is_binary_format(format))
        body->set_bin(std::forward<Content>(content));
    else
        body->set_txt(std::forward<Content>(content));
}
} // namespace tarn
