// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/pid_finder.h"
#include "tarn/proto/message.pb.h"
#include "tarn/types.h"

namespace slate {
class Dictionary;
}

namespace tarn {
/// Builds every message that is sent, and parses every one that arrives.
///
/// A recipient names path, addressed processes and query at once: "/a/b@1203,1207?format=json". The path gets
/// a leading slash if it has none. A request carries the sender's pid, the headers (null or a dictionary) and
/// `ttl`, the time that it is allowed to take.
///
/// The parameter "format" sets the format of a message; on PUT and POST the header "Content-Type" overrides
/// it; without either it is `Unknown`. The format decides whether a body goes into the bytes or the text
/// field. A PUT or POST of format `Empty` has no body.
///
/// Errors: Exception "Invalid 'to': ..." if a process id isn't a number; std::out_of_range if a part next to
/// a separator is missing, as in "@12". A recipient with more than two separators is logged and gets an empty
/// path.
///
/// Threads: any, several at once.
class MessageFactory {
public:
    virtual ~MessageFactory() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    [[nodiscard]] virtual std::shared_ptr<Message> make_head(
        std::string_view recipient, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Message> make_get(
        std::string_view recipient, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    /// The overloads that take `body` by rvalue move it into the message instead of copying it.
    [[nodiscard]] virtual std::shared_ptr<Message> make_put(
        std::string_view recipient, const std::string& body, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Message> make_put(
        std::string_view recipient, std::string&& body, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Message> make_post(
        std::string_view recipient, const std::string& body, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Message> make_post(
        std::string_view recipient, std::string&& body, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Message> make_del(
        std::string_view recipient, const Headers& headers = nullptr,
        const slate::Duration& ttl = default_timeout()) const = 0;

    /// A message from the bytes of a frame; null if they don't parse. Logs nothing.
    [[nodiscard]] virtual std::shared_ptr<Message> make_message(const void* data,
                                                                unsigned long size) const = 0;

    /// The reply that a server starts from: status 404 until a route sets another one, with the request's
    /// path and format, from process `pid` to the requester. Null if `request` (which must not be null) is
    /// not a request with a head.
    [[nodiscard]] virtual std::shared_ptr<Message> make_response(const std::shared_ptr<Message>& request,
                                                                 int pid) const = 0;
    /// A reply that holds only a status.
    [[nodiscard]] virtual std::shared_ptr<Message> make_response(const Status& status) const = 0;

    /// Never null.
    virtual std::shared_ptr<tarn_internal::PidFinder> finder() const = 0;
};

/// The library's own factory. Without `finder` it uses the pid of this process.
[[nodiscard]] std::shared_ptr<MessageFactory> make_message_factory(
    const std::shared_ptr<tarn_internal::PidFinder>& finder = nullptr);
} // namespace tarn
