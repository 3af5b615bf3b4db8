// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/request_bounds.h"

#include <climits>
#include <cstdint>
#include <string_view>
#include <utility>

#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

/// No smaller frame can exceed a bound: an entry takes at least two bytes.
constexpr std::size_t harmless_size = 2 * max_entries;

/// One list of a head, across all occurrences of that head.
struct List {
    int field;
    std::string_view name;
    std::size_t entries = 0;
    std::size_t bytes = 0;
};

/// Walks over the fields of a frame without making messages of them.
class Walk {
public:
    /// False if there is too much of something, or if the frame is no message.
    bool over(CodedInputStream& input, const Descriptor& type)
    {
        while (const std::uint32_t tag = input.ReadTag()) {
            if (++fields_ > max_fields)
                return refuse(Status::BadRequest, "more than " + std::to_string(max_fields) + " fields");
            const FieldDescriptor* field = type.FindFieldByNumber(WireFormatLite::GetTagFieldNumber(tag));
            switch (WireFormatLite::GetTagWireType(tag)) {
            case WireFormatLite::WIRETYPE_LENGTH_DELIMITED:
                if (!over_field(input, type, field))
                    return false;
                break;
            case WireFormatLite::WIRETYPE_START_GROUP: // no schema has any, and they nest without end
                return refuse(Status::BadRequest, "a group, which no message has");
            default:
                if (!WireFormatLite::SkipField(&input, tag))
                    return false;
            }
        }
        return true;
    }

    std::optional<Excess> excess() && { return std::move(excess_); }

private:
    bool over_field(CodedInputStream& input, const Descriptor& type, const FieldDescriptor* field)
    {
        std::uint32_t length = 0;
        if (!input.ReadVarint32(&length) || length > INT_MAX)
            return false;
        if (field && &type == Head::descriptor() && !is_within(*field, length))
            return false;
        if (!field || field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE)
            return input.Skip(static_cast<int>(length));
        const auto limit = input.PushLimit(static_cast<int>(length));
        const bool whole = over(input, *field->message_type()) && input.BytesUntilLimit() == 0;
        input.PopLimit(limit);
        return whole;
    }

    /// Whether one more field of a head is not too much.
    bool is_within(const FieldDescriptor& field, std::size_t length)
    {
        if (field.number() == Head::kPathFieldNumber && length > max_path_bytes)
            return refuse(Status::UriTooLong,
                          "path of more than " + std::to_string(max_path_bytes) + " bytes");
        for (List& list : lists_) {
            if (field.number() != list.field)
                continue;
            list.bytes += length;
            if (++list.entries > max_entries)
                return refuse_list(std::to_string(max_entries), list.name);
            if (list.bytes > max_entry_bytes)
                return refuse_list(std::to_string(max_entry_bytes) + " bytes of", list.name);
        }
        return true;
    }

    bool refuse_list(const std::string& amount, std::string_view name)
    {
        return refuse(Status::RequestHeaderFieldsTooLarge, "more than " + amount + " " + std::string(name));
    }

    bool refuse(Status status, const std::string& text)
    {
        excess_ = Excess{status, text};
        return false;
    }

    List lists_[4] = {{Head::kHeadersFieldNumber, "headers"},
                      {Head::kParamsFieldNumber, "parameters"},
                      {Head::kMetaFieldNumber, "meta entries"},
                      {Head::kToFieldNumber, "addressed processes"}};
    std::size_t fields_ = 0;
    std::optional<Excess> excess_;
};
/// Takes the body out of a message for a while.
class BodyAside {
public:
    explicit BodyAside(Message& message) : body_(find_mutable_body(message))
    {
        if (body_)
            body_->Swap(&kept_);
    }
    ~BodyAside()
    {
        if (body_)
            body_->Swap(&kept_);
    }
    BodyAside(const BodyAside&) = delete;
    BodyAside& operator=(const BodyAside&) = delete;

private:
    Body* const body_;
    Body kept_;
};
} // namespace

std::optional<Excess> find_excess(const void* frame, std::size_t size)
{
    if (size <= harmless_size || size > INT_MAX)
        return std::nullopt;
    CodedInputStream input(static_cast<const std::uint8_t*>(frame), static_cast<int>(size));
    Walk walk;
    (void)walk.over(input, *Message::descriptor());
    return std::move(walk).excess();
}

std::optional<Excess> find_excess(Message& message)
{
    const BodyAside aside(message); // one of many MiB isn't copied for this
    if (message.ByteSizeLong() <= harmless_size)
        return std::nullopt;
    const std::string frame = message.SerializePartialAsString();
    return find_excess(frame.data(), frame.size());
}
} // namespace tarn_internal
