// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/envelope.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <sstream>

#include <google/protobuf/util/json_util.h>

#include "slate/encoding.h"
#include "slate/file.h"
#include "slate/strings.h"

namespace tarn_internal {
namespace {
constexpr std::size_t max_logged_bytes = 100;
constexpr std::size_t max_logged_text = 1024;

// One TCP segment's worth of a body tells text from binary.
constexpr std::size_t max_scanned_bytes = 1447;

std::string_view strip_byte_order_mark(std::string_view text)
{
    for (const std::string_view mark : {"\xEF\xBB\xBF", "\xFE\xFF", "\xFF\xFE"}) {
        if (text.starts_with(mark))
            return text.substr(mark.size());
    }
    return text;
}

bool is_html(std::string_view text)
{
    static constexpr std::array<std::string_view, 16> markers = {
        "<!doctype html", "<html", "<head",  "<script", "<iframe", "<h1",   "<div", "<font",
        "<table",         "<a",    "<style", "<title",  "<b",      "<body", "<br",  "<p"};

    return std::any_of(markers.begin(), markers.end(), [&](std::string_view marker) {
        return text.size() > marker.size() && text.starts_with(marker) &&
               (text[marker.size()] == ' ' || text[marker.size()] == '>');
    });
}

bool is_enclosed(std::string_view text, char open, char close)
{
    return !text.empty() && text.front() == open && text.back() == close;
}

/// Markup, PDF or JSON; Unknown for no verdict.
Format sniff(std::string_view text)
{
    // Only as much as the longest marker and the character behind it is ever compared.
    constexpr std::size_t longest_beginning = 16;

    const auto begin = std::min(text.find_first_not_of("\t\n\f\r "), text.size());
    const std::string beginning = slate::to_lower(text.substr(begin, longest_beginning));
    if (beginning.starts_with("<?xml"))
        return Format::Xml;
    if (is_html(beginning))
        return Format::Html;

    // From here on blanks count: JSON with a blank in front gets no verdict.
    if (text.starts_with("%PDF-"))
        return Format::Pdf;
    if (is_enclosed(text, '{', '}') || is_enclosed(text, '[', ']'))
        return Format::Json;
    return Format::Unknown;
}

Format detect_magic(std::string_view data)
{
    using namespace std::string_view_literals;
    static constexpr std::array<std::pair<std::string_view, Format>, 7> magic = {{
        {"\x89PNG\x0D\x0A\x1A\x0A"sv, Format::Png},
        {"\xFF\xD8\xFF"sv, Format::Jpeg},
        {"BM"sv, Format::Bmp},
        {"GIF87a"sv, Format::Gif},
        {"GIF89a"sv, Format::Gif},
        {"\x1F\x8B\x08"sv, Format::Gzip},
        {"PK\x03\x04"sv, Format::Zip},
    }};

    for (const auto& [bytes, format] : magic) {
        if (data.starts_with(bytes))
            return format;
    }
    return Format::Unknown;
}

bool is_control_byte(char byte)
{
    const auto value = static_cast<unsigned char>(byte);
    constexpr unsigned char escape = 27;
    return value < 32 && byte != '\t' && byte != '\n' && byte != '\f' && byte != '\r' && value != escape;
}

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

std::string head_and_bytes(const Head& head, std::string_view bytes)
{
    const auto shown = slate::slurp_bytes(bytes.substr(0, max_logged_bytes));
    return head.ShortDebugString() + "; " + slate::join_hex(shown, ", ", "0x") + "...";
}

std::string head_and_text(const Head& head, std::string_view text)
{
    return head.ShortDebugString() + "; " + std::string(text.substr(0, max_logged_text)) + "...";
}

const Head& head_or_default(const Message& message)
{
    const Head* head = find_head(message);
    return head ? *head : Head::default_instance();
}

[[noreturn]] void throw_missing(slate::SourceLine line, std::string_view operation, std::string_view reason)
{
    throw Exception(slate::trace_error(line, "Envelope::", operation, reason));
}
} // namespace

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

bool hidden_payload(const std::string& path)
{
    return slate::contains(path, "credential") || slate::contains(path, "password");
}

std::string describe(const Message& message, bool secret)
{
    const Head* head = secret ? find_head(message) : nullptr;
    return head ? head->ShortDebugString() : tarn::to_string(message);
}

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
        if (message->has_put() && message->put().has_body())
            return message->mutable_put()->mutable_body();
        if (message->has_post() && message->post().has_body())
            return message->mutable_post()->mutable_body();
    }
    throw_missing(SLATE_HERE, "mutable_body", " does not exist");
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
    throw_missing(SLATE_HERE, "data", " does not exist");
}

Format Envelope::detect_format() const
{
    if (!message)
        return Format::Bin;

    const std::string_view content = data();
    if (const auto rest = strip_byte_order_mark(content); rest.size() != content.size()) {
        const Format verdict = sniff(rest);
        return verdict == Format::Unknown ? Format::Text : verdict;
    }
    if (const Format verdict = sniff(content); verdict != Format::Unknown)
        return verdict;
    if (const Format verdict = detect_magic(content); verdict != Format::Unknown)
        return verdict;

    const auto scanned = content.substr(0, max_scanned_bytes);
    return std::any_of(scanned.begin(), scanned.end(), is_control_byte) ? Format::Bin : Format::Text;
}

std::string Envelope::path() const
{
    if (!message)
        return {};
    if (message->type_case() == Message::kCall || message->type_case() == Message::TYPE_NOT_SET) {
        slate::log_warn(SLATE_HERE, "tarn envelope unknown msg type: ", tarn::to_string(*message));
        return {};
    }
    return head_or_default(*message).path();
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
        // Not encoded, unlike a new one: peers rely on the difference.
        entry->set_value(value);
        return;
    }
    KeyValue* entry = params->Add();
    entry->set_key(key);
    entry->set_value(slate::encode_uri_component(value, true));
}

bool Envelope::maybe_json() const
{
    if (format() != Format::Unknown)
        return false;
    const std::string_view content = data();
    if (content.empty())
        return false;
    // An opening brace is enough; only behind a byte order mark, or for an array, the end is looked at.
    if (content.front() == '{')
        return true;
    const auto text = strip_byte_order_mark(content);
    return is_enclosed(text, '{', '}') || is_enclosed(text, '[', ']');
}

bool Envelope::maybe_xml() const
{
    return format() == Format::Unknown && strip_byte_order_mark(data()).starts_with("<?xml");
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
        return message->call().ShortDebugString();
    if (hidden_payload(path()))
        return head().ShortDebugString();

    const Body* body = find_body(*message);
    if (body && body->has_bin() && body->ByteSizeLong() > max_logged_bytes)
        return head_and_bytes(head(), body->bin());
    if (body && body->has_txt() && body->txt().size() > max_logged_text)
        return head_and_text(head(), body->txt());
    return message->ShortDebugString();
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

void Envelope::throw_parse_failed(std::string_view type_name) const
{
    type_name.remove_prefix(type_name.starts_with('*') ? 1 : 0);
    std::string text = "envelope.into<" + std::string(type_name) + "> parse failed";
    if (message)
        text += ": " + tarn::to_string(*message);
    throw SerdesException(text, "");
}

std::ostream& operator<<(std::ostream& stream, const Envelope& envelope)
{
    return stream << envelope.to_string();
}
} // namespace tarn_internal

namespace tarn {
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
        return stream << message.call().ShortDebugString();

    const Head* head = find_head(message);
    const bool maskable = message.has_get() || message.has_put() || message.has_post() || message.has_del();
    if (maskable && head && hidden_payload(head->path()))
        return stream << head->ShortDebugString();

    if (const Body* body = find_body(message)) {
        if (body->txt().size() > max_logged_text)
            return stream << head_and_text(head_or_default(message), body->txt());
        if (body->bin().size() > max_logged_bytes)
            return stream << head_and_bytes(head_or_default(message), body->bin());
    }
    return stream << message.ShortDebugString();
}
} // namespace tarn
