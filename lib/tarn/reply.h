// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tarn/internal/envelope.h"

namespace tarn {
class Response;
enum Status : int; // generated: "tarn/proto/status.pb.h" has the values

/// Whether a status is one of 200 to 299.
bool Succeeded(Status status);
/// Whether a message is a reply, or a call with a result, of such a status.
bool Succeeded(const std::shared_ptr<Message>& message);

/// Why a reply was made in this process and not by a server.
enum class LocalCause : int {
    /// A server's reply, or a publisher's report that its socket took the change.
    None = 0,
    /// There is nothing that can be sent, or the caller's stream can't be read or written.
    InvalidRequest = 1,
    /// No answer within the timeout and the retries, although somebody serves the endpoint, as far as can be
    /// seen.
    NoAnswerInTime = 2,
    /// The caller cancelled the request, or stopped or aborted the transfer.
    Cancelled = 3,
    /// Other requests keep the client busy, and nothing was sent: those of other threads for the whole time
    /// (status 408), or as many as an asynchronous client may have in flight (status 429).
    TooMany = 4,
    /// The request is larger than a message can be (2 GiB).
    TooLarge = 5,
    /// ZeroMQ refused the socket, or to send on it.
    SocketFailed = 6,
    /// Nobody serves the endpoint, or no service has the name in the path. Over ipc and tcp a client looks
    /// after it has waited in vain.
    NoSuchEndpoint = 7,
    /// The caller may not connect to the endpoint.
    NotAllowed = 8,
    /// The connection ended while the request was in flight; the server may have handled it or not.
    ConnectionLost = 9,
    /// The asynchronous client, or its ZmqSubsystem, ended first.
    Ended = 10,
};

/// The reply side of an exchange: a handler fills one, a client gets one. All operations of Envelope are
/// available.
///
/// The setters make the message a response if it is anything else, and throw Exception without a message, as
/// the reply to a published change has none.
class Reply : public tarn_internal::Envelope {
public:
    Reply() = default;
    explicit Reply(const std::shared_ptr<Message>& shared) : Envelope(shared) {}
    /// A reply that a client makes itself.
    Reply(const std::shared_ptr<Message>& shared, LocalCause cause) : Envelope(shared), cause_(cause) {}

    /// Status 200 and a body. The JSON and XML forms don't check their text.
    void set_reply_text(const std::string& text);
    void set_reply_text(std::string&& text);
    void set_reply_json(const std::string& json);
    void set_reply_json(std::string&& json);
    void set_reply_xml(const std::string& xml);
    void set_reply_xml(std::string&& xml);

    /// Status 200 and a body of any format.
    void set_reply_data(Format format, const std::string& bytes);
    void set_reply_data(Format format, std::string&& bytes);

    /// Status 200 and a protobuf message as text for people, as JSON or in binary (format `Proto`, unless
    /// told otherwise). Throws SerdesException.
    void set_reply_text(const google::protobuf::Message& value);
    void set_reply_json(const google::protobuf::Message& value);
    void set_reply_proto(const google::protobuf::Message& value);
    void set_reply_proto(const google::protobuf::Message& value, Format format);

    /// Status 200 and a file's contents, in the format that its name tells. Throws MessageException, status
    /// 404, if there is no such file, and std::filesystem::filesystem_error if it can't be read.
    void set_reply_file(const std::filesystem::path& path);

    /// The body stays as it is. `text` becomes the status message; what is not UTF-8 in it is replaced.
    void set_format_status(Format format, Status status);
    void set_status(Status status);
    void set_status(Status status, const std::string& text);

    /// Of a response, or of the result of a call; `UnknownStatus` and empty otherwise.
    Status status() const;
    std::string status_message() const;

    /// Whether the exchange succeeded. False without a message. A call without a result, and a message that
    /// is no reply at all, count as good; Succeeded() differs there.
    bool good() const;
    bool bad() const { return !good(); }

    /// The body of a good reply; `dflt` if the reply is bad or has no body.
    std::string text_or(std::string dflt) const;

    /// Whether the client made this reply itself, and why. No peer can forge either:
    /// neither is part of a message.
    bool is_local() const { return cause_ != LocalCause::None; }
    LocalCause local_cause() const { return cause_; }

    /// In one line for people, why this reply is of no use, whoever made it: the status and the status
    /// message, and "no body: " before them if data() would throw. For example "no body: 408, no answer from
    /// ipc:///run/x.sock within 12 s: no such file", "no body: 404", or "no message" for a frame that didn't
    /// parse. Empty for a good reply with a body, and for what is no reply. The text may hold whatever the
    /// server has put into its status message.
    std::string why() const;

private:
    Response* mutable_response();
    template <class Content>
    void set_content(Format format, Content&& content);

    LocalCause cause_ = LocalCause::None;
};
} // namespace tarn
