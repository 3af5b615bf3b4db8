// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <typeinfo>

#include "tarn/internal/utils/message_text.h"
#include "tarn/message.h"
#include "tarn/types.h"

namespace google::protobuf {
class Message;
}

namespace tarn {
// Generated: "tarn/proto/format.pb.h" has the values, "tarn/proto/message.pb.h" the classes of messages.
enum Format : int;
} // namespace tarn

namespace tarn_internal {
/// A view over a Message that doesn't care which verb it holds. Copies share the message.
///
/// Without a message, head(), body(), data(), mutable_head(), mutable_body(), maybe_json(), maybe_xml(),
/// save(), into() and the setters throw Exception; everything else gives an empty or default value.
/// References point into the message, and stay good as long as it lives unchanged.
///
/// Threads: belongs to the thread that handles the message.
class Envelope {
public:
    Envelope() = default;
    explicit Envelope(const std::shared_ptr<Message>& shared) : message(shared) {}
    virtual ~Envelope() = default;
    Envelope(const Envelope&) = default;
    Envelope& operator=(const Envelope&) = default;

    /// Throws for a `call`, a message with no `type`, and no message; an unset head reads as the default one.
    const Head& head() const;
    Head* mutable_head();

    /// A reply always has a place for a body, so an unset one reads as the default one and is made when it is
    /// to be changed; a put or post has one only if its sender gave it. Throws for everything else.
    const Body& body() const;
    Body* mutable_body();

    /// Whether data() has something to return: a body that holds bytes or a text, even an empty one.
    bool has_body() const;

    /// Unknown with no message. Throws for a `call`.
    Format format() const;
    bool is(const Format& wanted) const;
    /// Whether there is a body that holds bytes rather than text.
    bool is_binary() const;
    /// The body's bytes, whichever field holds them. Throws if there are none.
    const std::string& data() const;
    /// What the body looks like, from its first bytes; `Bin` with no message. Throws if there is no body.
    Format detect_format() const;

    /// The head's path, or empty. Logs a warning for a `call` and for a message with no `type`.
    std::string path() const;

    /// Headers, keys compared ignoring the case; the first match counts.
    bool has_header(const std::string& key) const;
    std::string header(const std::string& key, const std::string& dflt) const;
    void set_header(const std::string& key, const std::string& value);
    /// Takes the first header with exactly this key out; the last one moves into its place.
    void clr_header(const std::string& key);

    /// Query parameters, like headers. param() decodes what it gives, `dflt` included.
    bool has_param(const std::string& key) const;
    std::string param(const std::string& key, const std::string& dflt) const;
    /// A new parameter is stored percent-encoded, while a value that replaces an old one is stored as it is.
    void set_param(const std::string& key, const std::string& value);

    /// Whether a body of unknown format may be JSON or XML, by its first and last bytes.
    bool maybe_json() const;
    bool maybe_xml() const;

    /// Writes the body to a file, power-safe (see slate::powersafe_write).
    void save(const std::filesystem::path& path) const;

    /// Text for logs: never a whole large body, and no body at all for a sensitive path.
    std::string to_string() const;

    /// The body as a protobuf message, by the format or else the header "Content-Type". Throws
    /// SerdesException, or Exception if there is no body.
    template <class T>
    T into() const
    {
        T result;
        parse_into(&result, typeid(T).name());
        return result;
    }

    /// The same, with null and an error in the log in place of an Exception.
    template <class T>
    std::shared_ptr<T> as() const
    {
        auto result = std::make_shared<T>();
        return try_parse_into(result.get(), typeid(T).name()) ? result : nullptr;
    }

    std::shared_ptr<Message> message;

private:
    void parse_into(google::protobuf::Message* result, std::string_view type_name) const;
    bool try_parse_into(google::protobuf::Message* result, std::string_view type_name) const;
    bool parse_body(google::protobuf::Message* result) const;
};

std::ostream& operator<<(std::ostream& stream, const Envelope& envelope);
} // namespace tarn_internal
