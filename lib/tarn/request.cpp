// SPDX-License-Identifier: Apache-2.0
#include "tarn/request.h"

#include "slate/strings.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/proto/message.pb.h"
#include "tarn/transfer/chunk_headers.h"

namespace tarn {
std::string Request::meta(const std::string& key) const
{
    for (const KeyValue& entry : head().meta()) {
        if (entry.key() == key)
            return entry.value();
    }
    return {};
}

void Request::set_meta(const std::string& key, const std::string& value)
{
    auto* list = mutable_head()->mutable_meta();
    for (KeyValue& entry : *list) {
        if (entry.key() == key) {
            entry.set_value(value);
            return;
        }
    }
    KeyValue* entry = list->Add();
    entry->set_key(key);
    entry->set_value(value);
}

std::optional<std::uint32_t> Request::chunk_number() const
{
    if (!has_header(chunk_header::number))
        return std::nullopt;
    unsigned int number = 0;
    if (!slate::try_parse(header(chunk_header::number, ""), &number))
        throw MessageException(Status::BadRequest, "invalid chunk number");
    return number;
}

std::vector<Format> Request::formats() const
{
    std::vector<Format> result;
    if (const Format declared = format(); declared != Format::Unknown)
        result.push_back(declared);
    parse_accept(header("accept", ""), result);
    parse_content_type(header("content-type", ""), result);
    if (result.empty() && message && (message->has_put() || message->has_post()))
        result.push_back(detect_format());
    return result;
}
} // namespace tarn
