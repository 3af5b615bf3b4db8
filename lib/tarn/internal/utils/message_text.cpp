// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/message_text.h"

#include "slate/encoding.h"
#include "slate/file.h"
#include "slate/strings.h"
#include "tarn/message.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
bool hidden_payload(const std::string& path)
{
    return slate::contains(path, "credential") || slate::contains(path, "password");
}

std::string describe(const Message& message, bool secret)
{
    const Head* head = secret ? find_head(message) : nullptr;
    return head ? head->ShortDebugString() : tarn::to_string(message);
}

std::string head_and_bytes(const Head& head, std::string_view bytes)
{
    const auto shown = slate::slurp_bytes(bytes.substr(0, max_logged_bytes));
    return head.ShortDebugString() + "; " + slate::join_hex(shown, ", ", "0x") + "...";
}

std::string head_and_text(const Head& head, std::string_view text)
{
    return head.ShortDebugString() + "; " + std::string(text.substr(0, max_logged_text)) + "...";
}
} // namespace tarn_internal
