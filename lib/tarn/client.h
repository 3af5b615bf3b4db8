// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/message_factory.h"
#include "tarn/reply.h"
#include "tarn/request.h"

namespace slate {
class Uri;
}

namespace tarn {
/// Asks one server for its resources, by path. Each call hands back exactly one Reply, never null.
///
/// A path looks like "/status/cpu", and may go on with addressed processes and parameters:
/// "/status/cpu@1203?format=json"; see MessageFactory. `headers` may be null.
///
/// `timeout` is for one wait; positive infinity waits for ever. A call without an answer blocks for (retries
/// + 1) x timeout, a POST for one timeout. The request is sent once, whatever the number of retries. A signal
/// that interrupts a wait counts as a wait without an answer.
///
/// Errors: a failed exchange is returned, not thrown: a reply of status 408 (no answer in time, or the socket
/// failed) or 400 (nothing to send), or a reply without a message, if what came is none. Ask Reply::good()
/// before using the body. A recipient that can't be taken apart is a bug of the caller, and throws as
/// MessageFactory says.
///
/// Threads: may be shared. Requests go one at a time, so a slow one holds up the others; threads that must
/// not wait for each other need a client each.
///
/// Lifetime: may outlive ZmqSubsystem, whose ZeroMQ context it shares.
class Client {
public:
    virtual ~Client() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The endpoint this client was made for, such as "ipc:///run/tide/status/zmq.sock".
    virtual std::shared_ptr<const slate::Uri> url() const = 0;

    virtual std::shared_ptr<Reply> head(std::string_view path,
                                        const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                        const slate::Duration& timeout = default_timeout()) const = 0;
    virtual std::shared_ptr<Reply> get(std::string_view path,
                                       const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                       const slate::Duration& timeout = default_timeout()) const = 0;

    /// Fetches `path` and appends its body, of any size, to `out`, piece by piece as the route gives it.
    ///
    /// Two "X-Tarn-..." headers are left in `headers`, so use a new dictionary for each download, and keep it
    /// from other threads meanwhile. `timeout` is for one piece, not for the whole body.
    ///
    /// Returns the reply that ended it; if that is bad, `out` keeps the pieces that came before. The state of
    /// `out` is never examined.
    virtual std::shared_ptr<Reply> get(
        std::string_view path, std::ostream& out,
        const std::shared_ptr<slate::Dictionary>& headers = slate::make_dictionary(),
        const slate::Duration& timeout = default_timeout()) const = 0;

    /// The overloads that take `body` by rvalue move it into the request instead of copying it. Those that
    /// take a stream send its rest, of any size, in chunks of 1 MiB, each a request with its own wait for
    /// `timeout`, and at last an empty one; the route sees one request with the whole body.
    ///
    /// They return the reply to the last chunk, or to the first one that failed, after which nothing more is
    /// sent. If the stream ends exactly at a chunk's end, or is empty, that is status 409, "transfer
    /// interrupted try again", although the body has been delivered. A stream that fails before its end
    /// abandons the upload: status 400, and the route sees nothing. `headers` is changed meanwhile, so keep
    /// it from other threads. With an "X-Tarn-Chunked-Transfer" of the caller's own in it, the rest of the
    /// stream goes as one request.
    virtual std::shared_ptr<Reply> put(std::string_view path, const std::string& body,
                                       const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                       const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> put(std::string_view path, std::string&& body,
                                       const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                       const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> put(
        std::string_view path, std::istream& body,
        const std::shared_ptr<slate::Dictionary>& headers = slate::make_dictionary(),
        const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> post(std::string_view path, const std::string& body,
                                        const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                        const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> post(std::string_view path, std::string&& body,
                                        const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                        const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> post(
        std::string_view path, std::istream& body,
        const std::shared_ptr<slate::Dictionary>& headers = slate::make_dictionary(),
        const slate::Duration& timeout = default_timeout()) = 0;
    virtual std::shared_ptr<Reply> del(std::string_view path,
                                       const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                                       const slate::Duration& timeout = default_timeout()) = 0;

    /// Sends the message that the request holds, as it is.
    virtual std::shared_ptr<Reply> send(const Request& request,
                                        const slate::Duration& timeout = default_timeout()) = 0;
};

/// A client of the server at `uri`, or at an ipc socket's path, or at the setting "relay_url". A server that
/// isn't running is no error here.
///
/// `retries` is how many further waits follow the first one. Null, with an error in the log, without a
/// ZmqSubsystem or for no valid endpoint. Throws zmq::error_t if the socket can't be made, and Exception if
/// the setting is missing.
std::shared_ptr<Client> make_client(const std::shared_ptr<const slate::Uri>& uri,
                                    unsigned int retries = default_retries(),
                                    const std::shared_ptr<MessageFactory>& factory = make_message_factory());
std::shared_ptr<Client> make_client(const std::filesystem::path& path,
                                    unsigned int retries = default_retries(),
                                    const std::shared_ptr<MessageFactory>& factory = make_message_factory());
std::shared_ptr<Client> make_client(unsigned int retries = default_retries(),
                                    const std::shared_ptr<MessageFactory>& factory = make_message_factory());
} // namespace tarn
