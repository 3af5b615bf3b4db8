// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/reply.h"
#include "tarn/request.h"
#include "tarn/types.h"

namespace tarn {
class MessageFactory;

/// Publishes changes: sends PUT and DELETE messages, normally to a relay, which passes them on to every
/// subscribed server. Subscribers don't answer.
///
/// The publisher makes each reply itself: status 200 means only that it handed the message to the socket.
/// Without a relay or a subscriber the message is lost without an error, and so is what a full queue has no
/// room for. Only a publisher at a relay, with the setting "high_water_mark", says that: status 408, and one
/// more in the counter "err". Status 400 reports a message that can't be published, 408 also one larger than
/// 2 GiB. Throws zmq::error_t if the socket is broken, and what MessageFactory throws for a bad recipient.
/// `headers` may be null.
///
/// Threads: may be shared. It has a thread of its own, which takes subscriptions as they come and sleeps
/// while none do. Lifetime: may outlive ZmqSubsystem. At its end the publisher waits 250 ms at most for its
/// last messages to leave.
class Publisher {
public:
    virtual ~Publisher() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The endpoint of its socket.
    [[nodiscard]] virtual Endpoint url() const = 0;

    virtual std::shared_ptr<Reply> put(const std::string_view& path, const std::string& body,
                                       const Headers& headers = nullptr) = 0;
    /// Reads the stream to its end; there are no chunks here.
    virtual std::shared_ptr<Reply> put(const std::string_view& path, std::istream& body,
                                       const Headers& headers = nullptr) = 0;
    virtual std::shared_ptr<Reply> del(const std::string_view& path, const Headers& headers = nullptr) = 0;
    /// Publishes the message that the request holds, a put or delete; its sender's tag becomes this
    /// publisher's.
    virtual std::shared_ptr<Reply> send(const Request& request) = 0;
};

/// Makes a publisher. With `endpoint` and `stats_endpoint` it connects to the relay that receives changes at
/// the first and answers for its statistics at the second. With `endpoint` alone it binds that endpoint, and
/// subscribers connect there. With neither it takes both endpoints from the settings "relay_sub" and
/// "relay_url".
///
/// What is sent before the connection is established is lost. So a publisher that connects asks for the
/// relay's statistics until they show its own messages: eleven times, with growing pauses that add up to just
/// under `timeout`. A running relay is found within milliseconds. With a dead one each of the eleven requests
/// blocks for (retries + 1) x timeout: with 4 s, 48 s without retries and 136 s with two. A negative time
/// counts as 0.
///
/// If that is in vain, a second line in the log tells the cause. Prefer the form with PublisherOptions, which
/// takes no longer than it is told.
///
/// A publisher that binds gives its socket's file the mode and the group of the settings "socket_mode" and
/// "socket_group"; without them the umask says who may connect.
///
/// Without `factory` the publisher makes one. Null, with an error in the log, without a ZmqSubsystem or if a
/// setting is not an endpoint. Throws std::runtime_error if the relay isn't found, zmq::error_t if the socket
/// can't be made, and Exception if a setting is missing.
[[nodiscard]] std::shared_ptr<Publisher> make_publisher(
    const Endpoint& endpoint = nullptr, const slate::Duration& timeout = default_timeout(),
    unsigned int retries = 0, const Endpoint& stats_endpoint = nullptr,
    const std::shared_ptr<MessageFactory>& factory = nullptr);

/// How a publisher finds its relay.
struct PublisherOptions {
    // Programs are compiled against the order of these fields: add new ones at the end.

    /// How long make_publisher() may take in all; positive infinity for ever.
    slate::Duration timeout = default_timeout();
    /// As for the form above: both, `endpoint` alone, or neither for those of the settings.
    Endpoint endpoint = nullptr;
    Endpoint stats_endpoint = nullptr;
    /// Makes the messages; null for one of the publisher's own.
    std::shared_ptr<MessageFactory> factory = nullptr;
};

/// The same within an overall time, whether the relay runs or not:
///
///   const auto publisher = tarn::make_publisher({.timeout = slate::Seconds(2)});
///
/// It asks for the relay's statistics as long as the time lasts, so that a relay may start meanwhile. If it
/// isn't found, the exception and the one error in the log say why: "failed to connect to the relay within 2
/// s: nobody answers for its statistics at ipc:///run/tide/relay/zmq.sock: no such file". Each attempt is a
/// line at verbose level. Everything else is as above.
[[nodiscard]] std::shared_ptr<Publisher> make_publisher(const PublisherOptions& options);
} // namespace tarn
