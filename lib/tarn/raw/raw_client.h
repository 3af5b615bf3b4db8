// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>

#include "slate/duration.h"
#include "tarn/internal/defaults.h"
#include "tarn/message_factory.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/status.pb.h"
#include "tarn/types.h"

namespace tarn {
/// A Client for callers that build their own messages: it has no verbs, paths and headers, and writes the
/// reply over the request. Waiting, retries and lifetime are those of Client.
///
/// Threads: may be shared, and requests go one at a time; the message of a call must not be shared.
class RawClient {
public:
    virtual ~RawClient() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The endpoint this client was made for.
    [[nodiscard]] virtual Endpoint url() const = 0;

    /// Sends `message` as it is. A reply that is good (see Reply::good) takes its place; otherwise it stays
    /// as it was sent, and can be sent again.
    ///
    /// Returns the reply's status: also that of a server's failure, whose text and body are lost; 408 if
    /// there was no answer in time or the socket failed; UnknownStatus for a frame that doesn't parse and for
    /// a message without a status.
    [[nodiscard]] virtual Status visit(Message& message,
                                       const slate::Duration& timeout = default_timeout()) = 0;
};

/// A raw client of the server at `endpoint`, or at an ipc socket's path. `retries` is how many further waits
/// follow the first one. Without `factory` the client makes one. Null, with an error in the log, without a
/// ZmqSubsystem or for an endpoint that is not valid. Throws zmq::error_t if the socket can't be made.
[[nodiscard]] std::shared_ptr<RawClient> make_raw_client(
    const Endpoint& endpoint, unsigned int retries = default_retries(),
    const std::shared_ptr<MessageFactory>& factory = nullptr);
[[nodiscard]] std::shared_ptr<RawClient> make_raw_client(
    const std::filesystem::path& path, unsigned int retries = default_retries(),
    const std::shared_ptr<MessageFactory>& factory = nullptr);
} // namespace tarn
