// SPDX-License-Identifier: Apache-2.0
// Chunks of uploads into a server, against a model that predicts each status and each whole body.
// Input: for each request a byte of options, the transfer's number, the chunk's number and the length of the
// data in one byte each, and the data.

#include <cstdint>
#include <limits>
#include <list>
#include <optional>
#include <string>

#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "fuzz/sockets.h"
#include "tarn/proto/message.pb.h"
#include "tarn/tarn.h"
#include "tarn/transfer/chunk_headers.h"

namespace {
using tarn::Format;
using tarn::Status;
using tarn_fuzz::require;

constexpr int max_requests = 40;
constexpr std::size_t max_sessions = 10;

struct Chunk {
    std::string path;
    bool is_post = false;
    std::string transfer;              // empty for a request that is no chunk
    std::optional<std::string> number; // as in the header
    bool begins = false;               // by the header that says so
    std::optional<std::string> data;   // none for a request without a body
    Format format = Format::Unknown;
};

struct Answer {
    Status status = Status::UnknownStatus;
    std::string body; // that reached the handler
    bool operator==(const Answer&) const = default;
};

/// What a server has to do with chunks.
class Model {
public:
    Answer answer(const Chunk& chunk)
    {
        const Answer result = dispatch(chunk);
        while (sessions_.size() > max_sessions)
            sessions_.pop_front();
        return result;
    }

    /// The transfers that are open, the oldest first.
    std::list<std::string> open() const
    {
        std::list<std::string> ids;
        for (const Session& session : sessions_)
            ids.push_back(session.id);
        return ids;
    }

private:
    struct Session {
        std::string id;
        std::string data;
        std::uint32_t next = 0;
    };

    Answer dispatch(const Chunk& chunk)
    {
        if (chunk.path == "/none")
            return {Status::NotFound, ""};
        if (chunk.path == "/get")
            return {Status::MethodNotAllowed, ""};
        if (chunk.path == "/each" || chunk.transfer.empty())
            return handle(chunk.path, chunk.data);

        const Answer result = take(chunk);
        const bool ended = result.status != Status::NoContent || chunk.data == "";
        if (ended)
            sessions_.remove_if([&](const Session& session) { return session.id == chunk.transfer; });
        return result;
    }

    Answer take(const Chunk& chunk)
    {
        std::optional<std::uint32_t> number;
        if (chunk.number) {
            if (chunk.number->empty() || chunk.number->find_first_not_of("0123456789") != std::string::npos)
                return {Status::BadRequest, ""};
            const unsigned long long value = std::stoull(*chunk.number);
            if (value > std::numeric_limits<std::uint32_t>::max())
                return {Status::BadRequest, ""};
            number = static_cast<std::uint32_t>(value);
        }
        Session* session = find(chunk.transfer);
        if (chunk.begins || number == 0U) {
            if (session)
                return {Status::Conflict, ""};
            session = &sessions_.emplace_back(Session{chunk.transfer, "", 0});
        }
        if (!session)
            return {Status::Conflict, ""};
        if (!chunk.data)
            return {Status::InternalServerError, ""};

        const bool repeated = number && *number == session->next - 1;
        if (number && !repeated && *number > session->next)
            return {Status::BadRequest, ""};
        if (!repeated) {
            session->data += *chunk.data;
            ++session->next;
        }
        if (!chunk.data->empty())
            return {Status::NoContent, ""};
        return handle(chunk.path, session->data);
    }

    static Answer handle(const std::string& path, const std::optional<std::string>& body)
    {
        return path == "/fail" ? Answer{Status::ImATeapot, ""} : Answer{Status::Ok, body.value_or("no body")};
    }

    Session* find(const std::string& id)
    {
        for (Session& session : sessions_) {
            if (session.id == id)
                return &session;
        }
        return nullptr;
    }

    std::list<Session> sessions_;
};

/// Answers with the body that it gets.
class EchoRoute : public tarn::Route {
public:
    EchoRoute(const std::string& route_name, const std::string& verbs, bool takes_chunks = false)
        : Route(route_name, verbs, "/" + route_name, tarn::Access::Public),
          takes_chunks_(takes_chunks)
    {
    }

    bool supports_chunked_transfer() const override { return takes_chunks_; }
    void get(tarn::Context&) const override {}
    void put(tarn::Context& context) override { echo(context); }
    void post(tarn::Context& context) override { echo(context); }

private:
    void echo(tarn::Context& context) const
    {
        if (name == "fail")
            throw tarn::MessageException(Status::ImATeapot, "as it is told");
        require(takes_chunks_ || !context.request.has_header(tarn::chunk_header::number) ||
                    context.request.header(tarn::chunk_header::transfer, "").empty(),
                "a handler doesn't see the transfer");
        context.reply.set_reply_data(Format::Bin,
                                     context.request.has_body() ? context.request.data() : "no body");
    }

    const bool takes_chunks_;
};

class World {
public:
    World()
    {
        const std::string endpoint = "inproc://chunks";
        (void)runtime_.serve(slate::make_uri(endpoint),
                             {std::make_shared<EchoRoute>("whole", "put,post"),
                              std::make_shared<EchoRoute>("each", "put,post", true),
                              std::make_shared<EchoRoute>("fail", "put,post"),
                              std::make_shared<EchoRoute>("get", "get")});
        client_ = std::make_unique<tarn_fuzz::RawClientSocket>(*runtime_.ctx(), endpoint);
    }

    Answer ask(const Chunk& chunk)
    {
        tarn::Message message;
        tarn::Head* head =
            chunk.is_post ? message.mutable_post()->mutable_head() : message.mutable_put()->mutable_head();
        head->set_path(chunk.path);
        head->set_format(chunk.format);
        const auto add = [&](const std::string& key, const std::string& value) {
            auto* header = head->add_headers();
            header->set_key(key);
            header->set_value(value);
        };
        if (!chunk.transfer.empty())
            add(tarn::chunk_header::transfer, chunk.transfer);
        if (chunk.number)
            add(tarn::chunk_header::number, *chunk.number);
        if (chunk.begins)
            add(tarn::chunk_header::begin, "");
        if (chunk.data) {
            tarn::Body* body = chunk.is_post ? message.mutable_post()->mutable_body()
                                             : message.mutable_put()->mutable_body();
            body->set_bin(*chunk.data);
        }

        tarn::Message reply;
        require(reply.ParseFromString(client_->exchange(message.SerializeAsString())),
                "the reply is a message");
        return {reply.response().status(), reply.response().body().bin()};
    }

private:
    tarn::ZmqSubsystem runtime_;
    std::unique_ptr<tarn_fuzz::RawClientSocket> client_;
};

Chunk read_chunk(tarn_fuzz::Input& input)
{
    constexpr const char* paths[] = {"/whole", "/whole", "/whole", "/whole",
                                     "/each",  "/fail",  "/get",   "/none"};
    constexpr Format formats[] = {Format::Unknown, Format::Text, Format::Json, Format::Bin};
    const std::uint8_t options = input.byte();
    const std::uint8_t transfer = input.byte() % 16;
    const std::uint8_t number = input.byte();
    const std::uint8_t length = input.byte();

    Chunk chunk;
    chunk.path = paths[options & 7];
    chunk.is_post = (options & 8) != 0;
    chunk.begins = (options & 16) != 0;
    chunk.format = formats[options >> 6];
    chunk.transfer = transfer == 0 ? "" : "t" + std::to_string(transfer);
    switch (number) {
    case 255:
        break;
    case 254:
        chunk.number = "4294967295";
        break;
    case 253:
        chunk.number = "4294967296";
        break;
    case 252:
        chunk.number = "1x";
        break;
    case 251:
        chunk.number = "";
        break;
    default:
        chunk.number = std::to_string(number);
    }
    if (length != 254) {
        chunk.data.emplace();
        for (std::uint8_t i = 0; i < length % 8; ++i)
            *chunk.data += static_cast<char>(input.byte());
    }
    return chunk;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    Model model;
    tarn_fuzz::Input input(data, size);

    for (int i = 0; i < max_requests && !input.empty(); ++i) {
        const Chunk chunk = read_chunk(input);
        const Answer expected = model.answer(chunk);
        const Answer answer = world.ask(chunk);
        require(answer.status == expected.status, "the status that the model predicts",
                tarn::Status_Name(answer.status) + ", not " + tarn::Status_Name(expected.status));
        require(answer.body == expected.body, "the body that the model predicts", answer.body.substr(0, 200));
    }

    // A chunk that fails ends its transfer, so that the next input begins without one.
    for (const std::string& id : model.open()) {
        const Chunk bad = {"/whole", false, id, "none", false, "", Format::Unknown};
        require(world.ask(bad).status == Status::BadRequest, "a bad chunk ends a transfer");
    }
    return 0;
}
