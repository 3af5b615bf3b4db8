// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/explain_reply.h"

#include "tarn/proto/message.pb.h"
#include "tarn/reply.h"

namespace tarn_internal {
namespace {
std::string join(Status status, const std::string& text)
{
    return std::to_string(static_cast<int>(status)) + (text.empty() ? "" : ", ") + text;
}
} // namespace

bool is_refusal(const Message& message)
{
    return message.has_response() && message.response().status() != Status::UnknownStatus &&
           !tarn::Succeeded(message.response().status());
}

std::string explain_reply(const Message& message)
{
    if (message.has_call() && message.call().has_result()) {
        const auto& result = message.call().result();
        return tarn::Succeeded(result.status()) ? "" : join(result.status(), result.status_message());
    }
    if (!message.has_response())
        return {};
    const Response& response = message.response();
    const std::string text = join(response.status(), response.status_message());
    if (!response.body().has_bin() && !response.body().has_txt())
        return "no body: " + text;
    return tarn::Succeeded(response.status()) ? "" : text;
}
} // namespace tarn_internal
