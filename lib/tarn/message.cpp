// SPDX-License-Identifier: Apache-2.0
#include "tarn/message.h"

#include <ostream>
#include <sstream>

#include "tarn/internal/utils/message_text.h"
#include "tarn/proto/message.pb.h"

namespace tarn {
const Head* find_head(const Message& message)
{
    const auto if_set = [](const auto& request) { return request.has_head() ? &request.head() : nullptr; };
    switch (message.type_case()) {
    case Message::kGet:
        return if_set(message.get());
    case Message::kPut:
        return if_set(message.put());
    case Message::kResponse:
        return if_set(message.response());
    case Message::kDel:
        return if_set(message.del());
    case Message::kPost:
        return if_set(message.post());
    case Message::kHead:
        return &message.head();
    case Message::kCall:
    case Message::TYPE_NOT_SET:
        break;
    }
    return nullptr;
}

const Body* find_body(const Message& message)
{
    const auto if_set = [](const auto& holder) { return holder.has_body() ? &holder.body() : nullptr; };
    switch (message.type_case()) {
    case Message::kPut:
        return if_set(message.put());
    case Message::kPost:
        return if_set(message.post());
    case Message::kResponse:
        return if_set(message.response());
    default:
        return nullptr;
    }
}

std::string to_string(const Message& message)
{
    std::ostringstream stream;
    stream << message;
    return stream.str();
}

// Differs from Envelope::to_string in two ways that stay: it hides no reply, and it measures a binary body by
// its bytes rather than by its encoded size.
std::ostream& operator<<(std::ostream& stream, const Message& message)
{
    using namespace tarn_internal;

    if (message.has_call())
        return stream << bounded_text(message.call());

    const Head* head = find_head(message);
    const bool maskable = message.has_get() || message.has_put() || message.has_post() || message.has_del();
    if (maskable && head && hidden_payload(head->path()))
        return stream << bounded_text(*head);

    if (const Body* body = find_body(message)) {
        if (body->txt().size() > max_logged_text)
            return stream << head_and_text(head ? *head : Head::default_instance(), body->txt());
        if (body->bin().size() > max_logged_bytes)
            return stream << head_and_bytes(head ? *head : Head::default_instance(), body->bin());
    }
    return stream << bounded_text(message);
}
} // namespace tarn
