// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/message_text.h"

#include <algorithm>
#include <memory>
#include <vector>

#include <google/protobuf/any.pb.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>

#include "slate/encoding.h"
#include "slate/file.h"
#include "slate/strings.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/message.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
using google::protobuf::Any;
using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::MessageFactory;
using google::protobuf::TextFormat;

/// What an Any holds; null if its type isn't linked or the bytes aren't of that type.
std::unique_ptr<google::protobuf::Message> unpack(const Any& any)
{
    const std::string& url = any.type_url();
    const std::string name = url.substr(url.rfind('/') + 1);
    const Descriptor* type = DescriptorPool::generated_pool()->FindMessageTypeByName(name);
    if (!type || name.size() == url.size())
        return nullptr;
    std::unique_ptr<google::protobuf::Message> value(
        MessageFactory::generated_factory()->GetPrototype(type)->New());
    return value->ParseFromString(any.value()) ? std::move(value) : nullptr;
}

std::string print(const google::protobuf::Message& message, const TextFormat::Printer& printer)
{
    std::string text;
    printer.PrintToString(message, &text);
    if (text.ends_with(' ')) // the printer puts one behind each field
        text.pop_back();
    return text;
}

/// Prints an Any as protobuf does, except that an Any within it is shown as its bytes: protobuf would parse
/// and print what is nested, level by level, until the stack overflows.
class AnyPrinter : public TextFormat::MessagePrinter {
public:
    AnyPrinter() { plain_.SetSingleLineMode(true); }

    void Print(const google::protobuf::Message& message, bool,
               TextFormat::BaseTextGenerator* out) const override
    {
        const auto& any = static_cast<const Any&>(message);
        const auto value = unpack(any);
        if (!value) {
            out->PrintString(print(any, plain_) + " ");
            return;
        }
        const std::string text = print(*value, plain_);
        out->PrintString("[" + any.type_url() + "] { " + text + (text.empty() ? "} " : " } "));
    }

private:
    TextFormat::Printer plain_;
};

std::string print_whole(const google::protobuf::Message& message)
{
    TextFormat::Printer printer;
    printer.SetSingleLineMode(true);
    printer.RegisterMessagePrinter(Any::descriptor(), new AnyPrinter); // which the printer owns
    return print(message, printer);
}

/// Copies as much of a message as fits into `budget`, and takes that off the budget.
class Excerpt {
public:
    explicit Excerpt(std::size_t budget) : budget_(budget) {}

    void copy(const google::protobuf::Message& from, google::protobuf::Message& to)
    {
        std::vector<const FieldDescriptor*> fields;
        from.GetReflection()->ListFields(from, &fields);
        for (const FieldDescriptor* field : fields) {
            if (field->is_repeated())
                copy_repeated(from, to, *field);
            else if (take(cost_of_field))
                copy_single(from, to, *field);
        }
    }

private:
    static constexpr std::size_t cost_of_field = 8; // about what its name takes in the text

    bool take(std::size_t bytes)
    {
        const bool fits = bytes <= budget_;
        budget_ -= std::min(bytes, budget_);
        return fits;
    }

    std::string cut(std::string_view text)
    {
        text = text.substr(0, budget_);
        budget_ -= text.size();
        return std::string(text);
    }

    void copy_single(const google::protobuf::Message& from, google::protobuf::Message& to,
                     const FieldDescriptor& field)
    {
        const auto* in = from.GetReflection();
        const auto* out = to.GetReflection();
        switch (field.cpp_type()) {
        case FieldDescriptor::CPPTYPE_MESSAGE:
            copy(in->GetMessage(from, &field), *out->MutableMessage(&to, &field));
            break;
        case FieldDescriptor::CPPTYPE_STRING: {
            std::string scratch;
            out->SetString(&to, &field, cut(in->GetStringReference(from, &field, &scratch)));
            break;
        }
        case FieldDescriptor::CPPTYPE_ENUM:
            out->SetEnumValue(&to, &field, in->GetEnumValue(from, &field));
            break;
        case FieldDescriptor::CPPTYPE_INT32:
            out->SetInt32(&to, &field, in->GetInt32(from, &field));
            break;
        case FieldDescriptor::CPPTYPE_UINT32:
            out->SetUInt32(&to, &field, in->GetUInt32(from, &field));
            break;
        default: // no message of ours has others
            break;
        }
    }

    /// Only messages are repeated in what is printed here.
    void copy_repeated(const google::protobuf::Message& from, google::protobuf::Message& to,
                       const FieldDescriptor& field)
    {
        if (field.cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE)
            return;
        const int size = from.GetReflection()->FieldSize(from, &field);
        for (int i = 0; i < size && take(cost_of_field); ++i)
            copy(from.GetReflection()->GetRepeatedMessage(from, &field, i),
                 *to.GetReflection()->AddMessage(&to, &field));
    }

    std::size_t budget_;
};
} // namespace

std::string bounded_text(const google::protobuf::Message& message)
{
    const std::size_t size = message.ByteSizeLong();
    if (size < max_printed_bytes)
        return print_whole(message);
    const std::unique_ptr<google::protobuf::Message> excerpt(message.New());
    Excerpt(max_logged_text).copy(message, *excerpt);
    return print_whole(*excerpt) + "… (" + std::to_string(size) + " bytes)";
}

bool hidden_payload(const std::string& path)
{
    return slate::contains(path, "credential") || slate::contains(path, "password");
}

std::string describe(const Message& message, bool secret)
{
    const Head* head = secret ? find_head(message) : nullptr;
    return head ? bounded_text(*head) : tarn::to_string(message);
}

void keep_what_is_logged(Message& message)
{
    Body* body = find_mutable_body(message);
    if (!body)
        return;
    // One byte more, by which a body that is too large to show is known.
    if (body->txt().size() > max_logged_text)
        body->set_txt(body->txt().substr(0, max_logged_text + 1));
    else if (body->bin().size() > max_logged_bytes)
        body->set_bin(body->bin().substr(0, max_logged_bytes + 1));
}

std::string head_and_bytes(const Head& head, std::string_view bytes)
{
    const auto shown = slate::slurp_bytes(bytes.substr(0, max_logged_bytes));
    return bounded_text(head) + "; " + slate::join_hex(shown, ", ", "0x") + "...";
}

std::string head_and_text(const Head& head, std::string_view text)
{
    return bounded_text(head) + "; " + std::string(text.substr(0, max_logged_text)) + "...";
}
} // namespace tarn_internal
