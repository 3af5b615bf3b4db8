// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/message_parts.h"

#include "tarn/proto/message.pb.h"

namespace tarn_internal {
Head* find_or_make_head(Message& message)
{
    switch (message.type_case()) {
    case Message::kGet:
        return message.mutable_get()->mutable_head();
    case Message::kPut:
        return message.mutable_put()->mutable_head();
    case Message::kResponse:
        return message.mutable_response()->mutable_head();
    case Message::kDel:
        return message.mutable_del()->mutable_head();
    case Message::kPost:
        return message.mutable_post()->mutable_head();
    case Message::kHead:
        return message.mutable_head();
    case Message::kCall:
    case Message::TYPE_NOT_SET:
        break;
    }
    return nullptr;
}

Body* find_mutable_body(Message& message)
{
    if (!find_body(message))
        return nullptr;
    if (message.has_put())
        return message.mutable_put()->mutable_body();
    if (message.has_post())
        return message.mutable_post()->mutable_body();
    return message.mutable_response()->mutable_body();
}
} // namespace tarn_internal
