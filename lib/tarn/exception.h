// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>

#include "slate/log.h"
#include "tarn/proto/status.pb.h"

namespace tarn {
/// A mistake of the program or its configuration: an empty envelope, a missing setting, a bad recipient.
/// The base of all exceptions of this library. ZeroMQ's own zmq::error_t does not derive from it.
class Exception : public std::runtime_error {
public:
    explicit Exception(const std::string& text) : std::runtime_error(text) {}
};

/// A request can't be served, and `status` says why. A route handler throws it to choose the reply: its text
/// becomes the reply's status message.
class MessageException : public Exception {
public:
    MessageException(Status reply_status, const std::string& text) : Exception(text), status(reply_status) {}

    Status status;
    /// The severity, for callers that log it.
    slate::TraceLevel level = slate::ErrorLevel;
};

/// A protobuf message could not be serialised or parsed.
class SerdesException : public Exception {
public:
    SerdesException(std::string message, const std::string& detail_text)
        : Exception(message),
          details(detail_text)
    {
    }

    /// Empty so far.
    std::string details;
};

/// The work queue is full; thrown by ResourceBase::submit_work.
class OverloadedException : public Exception {
public:
    explicit OverloadedException(const std::string& text) : Exception(text) {}
};
} // namespace tarn
