// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iosfwd>
#include <string>

/// Access to a bare message, whatever its verb; Request and Reply are the views that handlers and clients
/// use. The class itself, tarn::Message, is declared in "tarn/proto/message.pb.h".

namespace tarn {
class Body;
class Head;
class Message;

/// The head of a request or a response; null if the message has none, or if it is not set.
const Head* find_head(const Message& message);
/// The body of a put, post or response; null if it is not set.
const Body* find_body(const Message& message);

/// Text for logs: never a whole large body, and no body at all for a sensitive path.
std::string to_string(const Message& message);
std::ostream& operator<<(std::ostream& stream, const Message& message);
} // namespace tarn
