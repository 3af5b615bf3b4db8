// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transfer_helpers.h"

#include <algorithm>

#include "slate/dictionary.h"
#include "slate/strings.h"
#include "tarn/proto/message.pb.h"
#include "tarn/transfer/chunk_headers.h"

namespace tarn_internal {
Headers copy_without_transfer(const Headers& headers)
{
    auto copy = slate::make_dictionary();
    if (!headers)
        return copy;
    for (const std::string& key : headers->keys()) {
        const auto is_key = [&](const char* other) { return slate::equals_ignoring_case(key, other); };
        const auto owned = {chunk_header::transfer, chunk_header::number, chunk_header::begin,
                            chunk_header::supported};
        if (std::none_of(owned.begin(), owned.end(), is_key))
            copy->set(key, std::string_view(headers->get(key, "")));
    }
    return copy;
}

std::shared_ptr<Reply> only_response(std::shared_ptr<Reply> reply)
{
    if (reply->good() && !reply->message->has_response())
        return std::make_shared<Reply>();
    return reply;
}

std::shared_ptr<Reply> make_local_reply(Status status, LocalCause cause, const std::string& text)
{
    auto reply = std::make_shared<Reply>(std::make_shared<Message>(), cause);
    reply->set_status(status, text);
    return reply;
}
} // namespace tarn_internal
