// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <concepts>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/reply.h"
#include "tarn/request.h"
#include "tarn/types.h"

namespace tarn_internal {
/// A text, and nothing that is an endpoint already.
template <class Text>
concept EndpointText =
    std::convertible_to<const Text&, std::string_view> && !std::convertible_to<const Text&, Endpoint>;
} // namespace tarn_internal

namespace tarn {
class MessageFactory;

/// Asks one server for its resources, by path. Each call hands back exactly one Reply, never null.
///
/// A path looks like "/status/cpu", and may go on with addressed processes and parameters:
/// "/status/cpu@1203?format=json"; see MessageFactory. `headers` may be null.
///
/// `timeout` is for one wait; positive infinity waits for ever. A call without an answer blocks for (retries
/// + 1) x timeout, a POST for one timeout, and no longer if other threads use the client: the time until its
/// turn counts. The request is sent once, whatever the number of retries. A signal doesn't shorten a wait.
///
/// Errors: a failed exchange is returned, not thrown. The client then makes the reply itself: status 408 (no
/// answer in time, the socket failed, or the request is larger than 2 GiB) or 400 (nothing to send);
/// Reply::is_local() and Reply::local_cause() tell such a reply from a server's. A frame that doesn't parse
/// gives a reply without a message. Ask Reply::good() before using the body, or use Reply::text_or(). A
/// recipient that can't be taken apart is a bug of the caller, and throws as MessageFactory says.
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
    [[nodiscard]] virtual Endpoint url() const = 0;

    [[nodiscard]] virtual std::shared_ptr<Reply> head(
        std::string_view path, const Headers& headers = nullptr,
        const slate::Duration& timeout = default_timeout()) const = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> get(
        std::string_view path, const Headers& headers = nullptr,
        const slate::Duration& timeout = default_timeout()) const = 0;

    /// Fetches `path` and appends its body, of any size, to `out`, chunk by chunk as the route gives it. See
    /// download() in "tarn/transfer/download.h" for progress and for a stream that fails.
    ///
    /// Two "X-Tarn-..." headers are left in `headers`, so use a new dictionary for each download, and keep it
    /// from other threads meanwhile. `timeout` is for one chunk, not for the whole body.
    ///
    /// Returns the reply that ended it; if that is bad, `out` keeps the chunks that came before. The state of
    /// `out` is never examined.
    [[nodiscard]] virtual std::shared_ptr<Reply> get(
        std::string_view path, std::ostream& out, const Headers& headers = nullptr,
        const slate::Duration& timeout = default_timeout()) const = 0;

    /// The overloads that take `body` by rvalue move it into the request instead of copying it. Those that
    /// take a stream send its rest, of any size, in chunks of 1 MiB, each a request with its own wait for
    /// `timeout`, and then an empty chunk; the route sees one request with the whole body. Prefer upload() in
    /// "tarn/transfer/upload.h", which reports every size right.
    ///
    /// They return the reply to the last chunk, or to the first one that failed, after which nothing more is
    /// sent. If the stream ends exactly at a chunk's end, or is empty, that is status 409, "transfer
    /// interrupted try again", although the body has been delivered. A stream that fails before its end
    /// abandons the upload: status 400, and the route sees nothing. The call changes `headers` meanwhile, so
    /// keep it from other threads. With an "X-Tarn-Chunked-Transfer" of the caller's own in it, the rest of
    /// the stream goes as one request.
    [[nodiscard]] virtual std::shared_ptr<Reply> put(std::string_view path, const std::string& body,
                                                     const Headers& headers = nullptr,
                                                     const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> put(std::string_view path, std::string&& body,
                                                     const Headers& headers = nullptr,
                                                     const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> put(std::string_view path, std::istream& body,
                                                     const Headers& headers = nullptr,
                                                     const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> post(std::string_view path, const std::string& body,
                                                      const Headers& headers = nullptr,
                                                      const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> post(std::string_view path, std::string&& body,
                                                      const Headers& headers = nullptr,
                                                      const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> post(std::string_view path, std::istream& body,
                                                      const Headers& headers = nullptr,
                                                      const slate::Duration& timeout = default_timeout()) = 0;
    [[nodiscard]] virtual std::shared_ptr<Reply> del(std::string_view path, const Headers& headers = nullptr,
                                                     const slate::Duration& timeout = default_timeout()) = 0;

    /// Sends the message that the request holds, as it is.
    [[nodiscard]] virtual std::shared_ptr<Reply> send(const Request& request,
                                                      const slate::Duration& timeout = default_timeout()) = 0;
};

/// Makes a client of the server at `endpoint`; without one, at the endpoint of the setting "relay_url". The
/// server need not be running.
///
/// `retries` is how many further waits follow the first one. Without `factory` the client makes one. Null,
/// with an error in the log, without a ZmqSubsystem or for an endpoint that is not valid. Throws zmq::error_t
/// if the socket can't be made, and Exception if the setting is missing.
[[nodiscard]] std::shared_ptr<Client> make_client(const Endpoint& endpoint,
                                                  unsigned int retries = default_retries(),
                                                  const std::shared_ptr<MessageFactory>& factory = nullptr);
[[nodiscard]] std::shared_ptr<Client> make_client(unsigned int retries = default_retries(),
                                                  const std::shared_ptr<MessageFactory>& factory = nullptr);
/// At the ipc socket with that path.
[[nodiscard]] std::shared_ptr<Client> make_client(const std::filesystem::path& path,
                                                  unsigned int retries = default_retries(),
                                                  const std::shared_ptr<MessageFactory>& factory = nullptr);

/// `endpoint_or_path` is an endpoint if it contains "://", and otherwise the path of an ipc socket.
[[nodiscard]] std::shared_ptr<Client> make_client_at(std::string_view endpoint_or_path, unsigned int retries,
                                                     const std::shared_ptr<MessageFactory>& factory);

/// The same for a literal, a `const char*` or a string; a template, so that no other call is ambiguous.
template <tarn_internal::EndpointText Text>
[[nodiscard]] std::shared_ptr<Client> make_client(const Text& endpoint_or_path,
                                                  unsigned int retries = default_retries(),
                                                  const std::shared_ptr<MessageFactory>& factory = nullptr)
{
    if constexpr (std::is_pointer_v<Text>) {
        if (!endpoint_or_path)
            return make_client_at({}, retries, factory);
    }
    return make_client_at(endpoint_or_path, retries, factory);
}
} // namespace tarn
