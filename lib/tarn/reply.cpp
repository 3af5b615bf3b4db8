// SPDX-License-Identifier: Apache-2.0
#include "tarn/reply.h"

#include "slate/file.h"
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
    set_text(text, Format::Text);
}

void Reply::set_reply_json(const std::string& json)
{
    set_text(json, Format::Json);
}

void Reply::set_reply_xml(const std::string& xml)
{
    set_text(xml, Format::Xml);
}

void Reply::set_reply_text(const google::protobuf::Message& value)
{
    set_text(value.DebugString(), Format::Text);
}

void Reply::set_reply_json(const google::protobuf::Message& value)
{
    set_format_status(Format::Json, Status::Ok);
    std::string json;
    to_json(value, &json, slate::ErrorLevel);
    mutable_response()->mutable_body()->mutable_txt()->swap(json);
}

void Reply::set_reply_proto(const google::protobuf::Message& value, Format format)
{
    set_format_status(format, Status::Ok);
    std::string bytes = to_binary(value, slate::ErrorLevel);
    mutable_response()->mutable_body()->mutable_bin()->swap(bytes);
}

void Reply::set_reply_file(const std::filesystem::path& path)
{
    const auto type = std::filesystem::status(path).type();
    if (type == std::filesystem::file_type::not_found || type == std::filesystem::file_type::none)
        throw MessageException(Status::NotFound, path.string() + " does not exist");

    std::string content = slate::slurp_file<std::string>(path.string(), std::ios::binary);
    const Format format = tarn_internal::to_format_from_path(path);
    Body* body = mutable_response()->mutable_body();
    (tarn_internal::is_binary_format(format) ? body->mutable_bin() : body->mutable_txt())->swap(content);
    set_format_status(format, Status::Ok);
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

Response* Reply::mutable_response()
{
    if (!message)
        throw Exception(slate::trace_error(SLATE_HERE, "Reply, not initialized"));
    return message->mutable_response();
}

void Reply::set_text(const std::string& text, Format format)
{
    set_format_status(format, Status::Ok);
    mutable_response()->mutable_body()->set_txt(text);
}
} // namespace tarn
