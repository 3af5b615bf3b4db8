// SPDX-License-Identifier: Apache-2.0
#include "fuzz/frames.h"

#include <algorithm>
#include <random>

#include <google/protobuf/message.h>

#include "slate/strings.h"
#include "tarn/proto/message.pb.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t max_size);

namespace tarn_fuzz {
namespace {
using google::protobuf::FieldDescriptor;
using Proto = google::protobuf::Message;

constexpr std::size_t max_text_growth = 64;
constexpr int max_depth = 6;

constexpr std::string_view common_words[] = {"X-Tarn-Chunked-Transfer",
                                             "X-Tarn-Chunk-Number",
                                             "X-Tarn-Transfer-Begin",
                                             "X-Tarn-Supports-Chunked-Transfer",
                                             "Accept",
                                             "Content-Type",
                                             "content-length",
                                             "If-None-Match",
                                             "ttl",
                                             "format",
                                             "complete",
                                             "true",
                                             "application/json",
                                             "application/x-protobuf",
                                             "text/plain;q=0.5,application/json",
                                             "{\"a\":[1]}",
                                             "id",
                                             "t1",
                                             "0",
                                             "1",
                                             "2",
                                             "-1",
                                             "1.5",
                                             "4294967295",
                                             ""};

/// Changes messages by what their descriptors say.
class Mutator {
public:
    Mutator(unsigned int seed, const std::vector<std::string_view>& words) : random_(seed), words_(words)
    {
        words_.insert(words_.end(), std::begin(common_words), std::end(common_words));
    }

    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }
    bool one_in(std::size_t count) { return below(count) == 0; }

    void mutate(std::vector<std::string>& frames)
    {
        if (frames.empty())
            frames.push_back(fresh_frame());
        std::string& frame = frames[below(frames.size())];
        switch (below(12)) {
        case 0:
            frames.insert(frames.begin() + static_cast<std::ptrdiff_t>(below(frames.size())), fresh_frame());
            break;
        case 1:
            frames.insert(frames.begin() + static_cast<std::ptrdiff_t>(below(frames.size())),
                          std::string(frame));
            break;
        case 2:
            frames.erase(frames.begin() + static_cast<std::ptrdiff_t>(below(frames.size())));
            break;
        case 3:
            std::swap(frame, frames[below(frames.size())]);
            break;
        case 4:
            mutate_bytes(frame);
            break;
        default:
            mutate_message(frame);
        }
    }

private:
    std::string fresh_frame()
    {
        tarn::Message message;
        message.mutable_get()->mutable_head()->set_path(std::string(word()));
        for (std::size_t i = below(4); i > 0; --i)
            change_verb(message);
        return message.SerializeAsString();
    }

    void mutate_message(std::string& frame)
    {
        tarn::Message message;
        if (!message.ParseFromString(frame)) {
            mutate_bytes(frame);
            return;
        }
        if (one_in(8))
            change_verb(message);
        for (std::size_t i = 1 + below(3); i > 0; --i)
            mutate_fields(message, 0);
        frame = message.SerializeAsString();
    }

    /// Another verb with the same head and body.
    void change_verb(tarn::Message& message)
    {
        tarn::Head head;
        tarn::Body body;
        body.set_txt(std::string(word()));
        if (message.has_get())
            head = message.get().head();
        else if (message.has_put())
            head = message.put().head(), body = message.put().body();
        else if (message.has_post())
            head = message.post().head(), body = message.post().body();
        else if (message.has_del())
            head = message.del().head();
        else if (message.has_head())
            head = message.head();
        else if (message.has_response())
            head = message.response().head(), body = message.response().body();

        switch (below(7)) {
        case 0:
            *message.mutable_get()->mutable_head() = head;
            break;
        case 1:
            *message.mutable_put()->mutable_head() = head;
            *message.mutable_put()->mutable_body() = body;
            break;
        case 2:
            *message.mutable_post()->mutable_head() = head;
            *message.mutable_post()->mutable_body() = body;
            break;
        case 3:
            *message.mutable_del()->mutable_head() = head;
            break;
        case 4:
            *message.mutable_head() = head;
            break;
        case 5:
            *message.mutable_response()->mutable_head() = head;
            *message.mutable_response()->mutable_body() = body;
            message.mutable_response()->set_status(tarn::Status::Ok);
            break;
        default:
            message.mutable_call()->mutable_select()->set_method_number(static_cast<std::uint32_t>(below(5)));
        }
    }

    void mutate_fields(Proto& message, int depth)
    {
        const auto* descriptor = message.GetDescriptor();
        if (descriptor->field_count() == 0)
            return;
        const FieldDescriptor* field =
            descriptor->field(static_cast<int>(below(static_cast<std::size_t>(descriptor->field_count()))));
        // A member of a oneof that isn't set would clear the one that is: descend into that, mostly.
        if (const auto* oneof = field->containing_oneof(); oneof && !one_in(8)) {
            if (const auto* set = message.GetReflection()->GetOneofFieldDescriptor(message, oneof))
                field = set;
        }
        if (field->is_repeated())
            mutate_repeated(message, field, depth);
        else
            mutate_single(message, field, depth);
    }

    void mutate_repeated(Proto& message, const FieldDescriptor* field, int depth)
    {
        const auto* reflection = message.GetReflection();
        const int size = reflection->FieldSize(message, field);
        const int at = static_cast<int>(below(static_cast<std::size_t>(size)));
        if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE)
            return; // no such field in a Message
        if (size == 0 || one_in(3)) {
            Proto* added = reflection->AddMessage(&message, field);
            for (int i = 0; i < added->GetDescriptor()->field_count(); ++i)
                mutate_single(*added, added->GetDescriptor()->field(i), depth + 1);
        }
        else if (one_in(6)) {
            reflection->SwapElements(&message, field, at, size - 1);
            reflection->RemoveLast(&message, field);
        }
        else if (one_in(6)) {
            reflection->SwapElements(&message, field, at,
                                     static_cast<int>(below(static_cast<std::size_t>(size))));
        }
        else if (depth < max_depth) {
            mutate_fields(*reflection->MutableRepeatedMessage(&message, field, at), depth + 1);
        }
    }

    void mutate_single(Proto& message, const FieldDescriptor* field, int depth)
    {
        const auto* reflection = message.GetReflection();
        if (field->is_repeated())
            return;
        switch (field->cpp_type()) {
        case FieldDescriptor::CPPTYPE_MESSAGE:
            if (one_in(20))
                reflection->ClearField(&message, field);
            else if (depth < max_depth)
                mutate_fields(*reflection->MutableMessage(&message, field), depth + 1);
            break;
        case FieldDescriptor::CPPTYPE_STRING: {
            std::string text = reflection->GetString(message, field);
            if (one_in(2))
                text = word();
            else
                mutate_bytes(text);
            // Mostly a text that a peer would accept.
            if (field->type() == FieldDescriptor::TYPE_STRING && !one_in(20))
                text = slate::to_utf8(text);
            reflection->SetString(&message, field, std::move(text));
            break;
        }
        case FieldDescriptor::CPPTYPE_INT32:
            reflection->SetInt32(&message, field, static_cast<std::int32_t>(small_or_any()));
            break;
        case FieldDescriptor::CPPTYPE_UINT32:
            reflection->SetUInt32(&message, field, small_or_any());
            break;
        case FieldDescriptor::CPPTYPE_ENUM: {
            const auto* type = field->enum_type();
            const int count = type->value_count();
            const int known = type->value(static_cast<int>(below(static_cast<std::size_t>(count))))->number();
            reflection->SetEnumValue(&message, field, one_in(10) ? static_cast<int>(small_or_any()) : known);
            break;
        }
        default:
            break; // no such field in a Message
        }
    }

    std::string_view word() { return words_[below(words_.size())]; }

    std::uint32_t small_or_any()
    {
        return one_in(2) ? static_cast<std::uint32_t>(below(4)) : static_cast<std::uint32_t>(random_());
    }

    void mutate_bytes(std::string& text)
    {
        const std::size_t size = text.size();
        text.resize(size + max_text_growth);
        text.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(text.data()), size, text.size()));
    }

    std::minstd_rand random_;
    std::vector<std::string_view> words_;
};

std::string join_frames(const std::vector<std::string>& frames)
{
    constexpr std::size_t max_frame_bytes = 0xffff;
    std::string result;
    for (const std::string& frame : frames) {
        const std::size_t size = std::min(frame.size(), max_frame_bytes);
        result += static_cast<char>(size & 0xff);
        result += static_cast<char>(size >> 8);
        result.append(frame, 0, size);
    }
    return result;
}
} // namespace

std::vector<std::string> read_frames(Input& input, std::size_t max_frames)
{
    std::vector<std::string> frames;
    while (!input.empty() && frames.size() < max_frames)
        frames.push_back(input.text());
    return frames;
}

std::size_t mutate_frames(std::uint8_t* data, std::size_t size, std::size_t max_size, unsigned int seed,
                          std::size_t header_bytes, const std::vector<std::string_view>& words)
{
    Mutator mutator(seed, words);
    if (mutator.one_in(16))
        return LLVMFuzzerMutate(data, size, max_size);

    const std::size_t header_size = std::min(size, header_bytes);
    std::string result(reinterpret_cast<const char*>(data), header_size);
    result.resize(header_bytes);
    if (header_bytes > 0 && mutator.one_in(16))
        result[mutator.below(header_bytes)] = static_cast<char>(mutator.below(256));

    Input input(data + header_size, size - header_size);
    auto frames = read_frames(input, max_size);
    mutator.mutate(frames);
    result += join_frames(frames);
    if (result.size() > max_size)
        return LLVMFuzzerMutate(data, size, max_size);
    std::copy(result.begin(), result.end(), data);
    return result.size();
}
} // namespace tarn_fuzz
