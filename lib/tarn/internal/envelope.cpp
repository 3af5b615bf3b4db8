// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/envelope.h"

#include <algorithm>
#include <ostream>

#include <google/protobuf/util/json_util.h>

#include "slate/encoding.h"
#include "slate/file.h"
#include "slate/log.h"
#include "slate/strings.h"
#include "tarn/exception.h"
#include "tarn/formats.h"
#include "tarn/internal/utils/detect_format.h"
#include "tarn/internal/utils/explain_reply.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
template <class Entries>
auto* find_entry(Entries& entries, const std::string& key)
{
    const auto entry = std::find_if(entries.begin(), entries.end(), [&](const KeyValue& candidate) {
        return slate::equals_ignoring_case(candidate.key(), key);
    });
    return entry == entries.end() ? nullptr : &*entry;
}

bool parse_binary(const Body& body, google::protobuf::Message* result)
{
    const std::string& bytes = body.bin();
    return result->ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

bool parse_json(const std::string& text, google::protobuf::Message* result)
{
    result->Clear();
    return google::protobuf::util::JsonStringToMessage(text, result).ok();
}

[[noreturn]] void throw_missing(slate::SourceLine line, std::string_view operation, std::string_view reason)
{
    throw Exception(slate::trace_error(line, "Envelope::", operation, reason));
}
/// The exception doesn't say why there is no body, so a second line in the log does, for a reply that is bad.
[[noreturn]] void throw_no_data(const Message* message)
{
    const std::string text = slate::trace_error(SLATE_HERE, "Envelope::data does not exist");
    if (message && is_refusal(*message))
        slate::log_error(SLATE_HERE, explain_reply(*message));
    throw Exception(text);
}
} // namespace

const Head& Envelope::head() const
{
    if (message) {
        if (const Head* head = find_head(*message))
            return *head;
        if (message->type_case() != Message::kCall && message->type_case() != Message::TYPE_NOT_SET)
            return Head::default_instance();
    }
    throw_missing(SLATE_HERE, "head", " does not exist");
}

Head* Envelope::mutable_head()
{
    if (Head* head = message ? find_or_make_head(*message) : nullptr)
        return head;
    throw_missing(SLATE_HERE, "mutable_head", " does not exist");
}

const Body& Envelope::body() const
{
    if (message) {
        if (const Body* body = find_body(*message))
            return *body;
        if (message->has_response())
            return Body::default_instance();
    }
    throw_missing(SLATE_HERE, "body", " does not exist");
}

Body* Envelope::mutable_body()
{
    if (message) {
        if (message->has_response())
            return message->mutable_response()->mutable_body();
        if (Body* body = find_mutable_body(*message))
            return body;
    }
    throw_missing(SLATE_HERE, "mutable_body", " does not exist");
}

bool Envelope::has_body() const
{
    const Body* body = message ? find_body(*message) : nullptr;
    return body && (body->has_bin() || body->has_txt());
}

Format Envelope::format() const
{
    return message ? head().format() : Format::Unknown;
}

bool Envelope::is(const Format& wanted) const
{
    return format() == wanted;
}

bool Envelope::is_binary() const
{
    const Body* body = message ? find_body(*message) : nullptr;
    return body && body->has_bin();
}

const std::string& Envelope::data() const
{
    if (message) {
        const Body& holder = body();
        if (holder.has_bin())
            return holder.bin();
        if (holder.has_txt())
            return holder.txt();
    }
    throw_no_data(message.get());
}

Format Envelope::detect_format() const
{
    if (!message)
        return Format::Bin;
    return tarn_internal::detect_format(data());
}

std::string Envelope::path() const
{
    if (!message)
        return {};
    if (message->type_case() == Message::kCall || message->type_case() == Message::TYPE_NOT_SET) {
        slate::log_warn(SLATE_HERE, "tarn envelope unknown msg type: ", tarn::to_string(*message));
        return {};
    }
    return head().path();
}

bool Envelope::has_header(const std::string& key) const
{
    return message && find_entry(head().headers(), key);
}

std::string Envelope::header(const std::string& key, const std::string& dflt) const
{
    const KeyValue* entry = message ? find_entry(head().headers(), key) : nullptr;
    return entry ? entry->value() : dflt;
}

void Envelope::set_header(const std::string& key, const std::string& value)
{
    if (!message)
        throw_missing(SLATE_HERE, "set_header", ", envelope not initialized");

    auto* headers = mutable_head()->mutable_headers();
    KeyValue* entry = find_entry(*headers, key);
    if (!entry) {
        entry = headers->Add();
        entry->set_key(key);
    }
    entry->set_value(value);
}

void Envelope::clr_header(const std::string& key)
{
    if (!message)
        return;

    const auto& headers = head().headers();
    const auto entry = std::find_if(headers.begin(), headers.end(),
                                    [&](const KeyValue& candidate) { return candidate.key() == key; });
    if (entry == headers.end())
        return;

    const int index = static_cast<int>(entry - headers.begin());
    auto* changed = mutable_head()->mutable_headers();
    changed->SwapElements(index, changed->size() - 1);
    changed->RemoveLast();
}

bool Envelope::has_param(const std::string& key) const
{
    return message && find_entry(head().params(), key);
}

std::string Envelope::param(const std::string& key, const std::string& dflt) const
{
    const KeyValue* entry = message ? find_entry(head().params(), key) : nullptr;
    return slate::decode_uri_component(entry ? entry->value() : dflt, true);
}

void Envelope::set_param(const std::string& key, const std::string& value)
{
    if (!message)
        throw_missing(SLATE_HERE, "set_param", ", envelope not initialized");

    auto* params = mutable_head()->mutable_params();
    if (KeyValue* entry = find_entry(*params, key)) {
        // Not encoded, unlike a new one: applications rely on the difference.
        entry->set_value(value);
        return;
    }
    KeyValue* entry = params->Add();
    entry->set_key(key);
    entry->set_value(slate::encode_uri_component(value, true));
}

bool Envelope::maybe_json() const
{
    return format() == Format::Unknown && looks_like_json(data());
}

bool Envelope::maybe_xml() const
{
    return format() == Format::Unknown && looks_like_xml(data());
}

void Envelope::save(const std::filesystem::path& path) const
{
    if (!message)
        throw_missing(SLATE_HERE, "save", ", not initialized");
    if (!message->has_put() && !message->has_response() && !message->has_post())
        throw_missing(SLATE_HERE, "save", ", message has no body");

    const std::string& content = data();
    slate::powersafe_write(path, [&](std::ofstream& stream) {
        stream.write(content.data(), static_cast<std::streamsize>(content.size()));
    });
}

std::string Envelope::to_string() const
{
    if (!message)
        return {};
    if (message->has_call())
        return bounded_text(message->call());
    if (hidden_payload(path()))
        return bounded_text(head());

    const Body* body = find_body(*message);
    if (body && body->has_bin() && body->ByteSizeLong() > max_logged_bytes)
        return head_and_bytes(head(), body->bin());
    if (body && body->has_txt() && body->txt().size() > max_logged_text)
        return head_and_text(head(), body->txt());
    return bounded_text(*message);
}

bool Envelope::parse_body(google::protobuf::Message* result) const
{
    if (is(Format::Proto) || is(Format::Bin)) {
        if (parse_binary(body(), result))
            return true;
    }
    else if (is(Format::Json)) {
        if (parse_json(data(), result))
            return true;
    }

    const Format declared = to_format(header("Content-Type", ""));
    if (declared == Format::Proto || declared == Format::Bin)
        return parse_binary(body(), result);
    if (declared == Format::Json || maybe_json())
        return parse_json(data(), result);
    return false;
}

void Envelope::parse_into(google::protobuf::Message* result, std::string_view type_name) const
{
    if (parse_body(result))
        return;
    type_name.remove_prefix(type_name.starts_with('*') ? 1 : 0);
    std::string text = "envelope.into<" + std::string(type_name) + "> parse failed";
    if (message)
        text += ": " + tarn::to_string(*message);
    throw SerdesException(text, "");
}

bool Envelope::try_parse_into(google::protobuf::Message* result, std::string_view type_name) const
{
    try {
        parse_into(result, type_name);
        return true;
    }
    catch (const Exception& error) {
        slate::log_error(SLATE_HERE, "envelope.as<T> not possible: ", error.what());
        return false;
    }
}

std::ostream& operator<<(std::ostream& stream, const Envelope& envelope)
{
    return stream << envelope.to_string();
}
} // namespace tarn_internal
