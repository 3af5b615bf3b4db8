// SPDX-License-Identifier: Apache-2.0
#include "output/body.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include <fcntl.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/text_format.h>
#include <nlohmann/json.hpp>
#include <slate/encoding.h>
#include <slate/strings.h>
#include <tarn/formats.h>
#include <tarn/proto/routing.pb.h>
#include <tarn/proto/stats.pb.h>
#include <unistd.h>

#include "command.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
std::string text_of(const google::protobuf::Message& message)
{
    std::string text;
    google::protobuf::TextFormat::PrintToString(message, &text);
    return text;
}

template <class T>
std::optional<std::string> parsed(std::string_view body)
{
    T message;
    if (!message.ParseFromArray(body.data(), static_cast<int>(body.size())))
        return std::nullopt;
    return text_of(message);
}

[[noreturn]] void fail_to_write()
{
    throw Failure(ExitOther, "cannot write the output: " + std::generic_category().message(errno) +
                                 "; look at what standard output leads to");
}
} // namespace

std::optional<std::string> protobuf_text(std::string_view path, std::string_view body)
{
    path = path.substr(0, path.find_first_of("?@"));
    if (slate::ends_with(path, "/index"))
        return parsed<tarn::RoutingDetails>(body);
    if (path == "/relay/stats" || path == "/stats")
        return parsed<tarn::Stats>(body);
    return std::nullopt;
}

std::string any_text(const google::protobuf::Any& value)
{
    const std::string& url = value.type_url();
    const std::string name = url.substr(url.rfind('/') + 1);
    const auto* type = google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(name);
    const auto* prototype =
        type ? google::protobuf::MessageFactory::generated_factory()->GetPrototype(type) : nullptr;
    if (prototype) {
        const std::unique_ptr<google::protobuf::Message> message(prototype->New());
        if (message->ParseFromString(value.value()))
            return name + " { " + slate::trim_prefix(message->ShortDebugString(), " ") + " }";
    }
    return name + " (" + std::to_string(value.value().size()) + " bytes)";
}

bool is_showable(tarn::Format format, std::string_view body)
{
    if (format != tarn::Format::Unknown && tarn::is_binary_format(format))
        return is_plain_text(body);
    return slate::is_utf8(body) && body.find('\0') == std::string_view::npos;
}

std::optional<std::string> readable(std::string_view path, tarn::Format format, const std::string& body)
{
    if (format == tarn::Format::Proto || format == tarn::Format::Bin) {
        if (auto text = protobuf_text(path, body))
            return escape(*text, Layout::Lines);
    }
    if (!is_showable(format, body))
        return std::nullopt;
    const bool may_be_json = format == tarn::Format::Json || format == tarn::Format::Unknown;
    if (may_be_json) {
        const auto first = body.find_first_not_of(" \t\r\n");
        const bool is_container = first != std::string::npos && (body[first] == '{' || body[first] == '[');
        if (format == tarn::Format::Json || is_container) {
            if (auto text = indent_json(body))
                return text;
        }
    }
    return escape(body, Layout::Lines);
}

void add_body(nlohmann::ordered_json& object, std::string_view path, tarn::Format format,
              const std::string& body)
{
    object["bytes"] = body.size();
    if (format == tarn::Format::Json) {
        if (auto value = nlohmann::ordered_json::parse(body, nullptr, false); !value.is_discarded()) {
            object["json"] = std::move(value);
            return;
        }
    }
    if (format == tarn::Format::Proto || format == tarn::Format::Bin) {
        if (auto text = protobuf_text(path, body)) {
            object["body"] = *text;
            return;
        }
    }
    if (slate::is_utf8(body))
        object["body"] = body;
    else
        object["base64"] = slate::encode_base64(body);
}

void write_out(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size())
        fail_to_write();
}

void flush_out()
{
    if (std::fflush(stdout) != 0)
        fail_to_write();
}

void require_output()
{
    const int flags = fcntl(STDOUT_FILENO, F_GETFL);
    if (flags >= 0 && (flags & O_ACCMODE) != O_RDONLY)
        return;
    errno = EBADF;
    fail_to_write();
}
} // namespace tarn_command
