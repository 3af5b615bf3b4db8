// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tarn/internal/envelope.h"

namespace tarn {
/// Whether a status tells success: 200 to 299.
bool Succeeded(Status status);
/// The same of a response, or of the result of a call; false for every other message and for null.
bool Succeeded(const std::shared_ptr<Message>& message);

/// The reply side of an exchange. Everything of Envelope works on it.
///
/// The setters make the message a response if it is anything else, and throw Exception without a message, as
/// the reply to a published change has none.
class Reply : public tarn_internal::Envelope {
public:
    Reply() = default;
    explicit Reply(const std::shared_ptr<Message>& shared) : Envelope(shared) {}

    /// Status 200 and a body. The JSON and XML forms don't check their text.
    void set_reply_text(const std::string& text);
    void set_reply_json(const std::string& json);
    void set_reply_xml(const std::string& xml);

    /// Status 200 and a protobuf message as text for people, as JSON or in binary. Throws SerdesException.
    void set_reply_text(const google::protobuf::Message& value);
    void set_reply_json(const google::protobuf::Message& value);
    void set_reply_proto(const google::protobuf::Message& value, Format format = Format::Proto);

    /// Status 200 and a file's contents, in the format that its name tells. Throws MessageException, status
    /// 404, if there is no such file, and std::filesystem::filesystem_error if it can't be read.
    void set_reply_file(const std::filesystem::path& path);

    /// The body stays as it is.
    void set_format_status(Format format, Status status);
    void set_status(Status status);

    /// Of a response, or of the result of a call; `UnknownStatus` and empty otherwise.
    Status status() const;
    std::string status_message() const;

    /// Whether the exchange succeeded. False without a message. A call without a result, and a message that
    /// is no reply at all, count as good; Succeeded() differs there.
    bool good() const;
    bool bad() const { return !good(); }

private:
    Response* mutable_response();
    void set_text(const std::string& text, Format format);
};
} // namespace tarn
