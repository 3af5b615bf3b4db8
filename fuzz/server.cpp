// SPDX-License-Identifier: Apache-2.0
// Frames into a server, with one thread or with several, that has routes of every kind.
// Input: one byte (1: several threads, 2: all log lines, 4: each frame has a second one, 8: requests come
// through proxies, between messages that are no requests), and frames.

#include <memory>
#include <string>
#include <vector>

#include "fuzz/frames.h"
#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "fuzz/routes.h"
#include "fuzz/sockets.h"
#include "support/scratch_folder.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"
#include "tarn/tarn.h"
#include "tarn/transfer/chunk_headers.h"

namespace {
using tarn_fuzz::require;

constexpr std::size_t max_frames = 32;

/// Servers that live as long as the process: to make one takes longer than to ask it a hundred times.
class World {
public:
    World()
    {
        for (const unsigned long workers : {1UL, 3UL}) {
            const std::string endpoint = "inproc://server/" + std::to_string(workers);
            const auto folder = folder_.path() / std::to_string(workers);
            std::filesystem::create_directory(folder);
            const auto server =
                runtime_.serve(slate::make_uri(endpoint), tarn_fuzz::make_routes(folder), workers);
            server->suppress_add_remote_call_warning();
            server->add(1, [](tarn::Message& message) {
                *message.mutable_call()->mutable_result()->mutable_value() = message.call().params().param();
            });
            server->add(
                2, [](tarn::Message&) { throw tarn::MessageException(tarn::Status::Conflict, "no \xFF"); });
            server->add(3, [](tarn::Message& message) { message.Clear(); });
            clients_.push_back(std::make_unique<tarn_fuzz::RawClientSocket>(*runtime_.ctx(), endpoint));
        }
    }

    tarn_fuzz::RawClientSocket& client(bool several_threads) { return *clients_[several_threads ? 1 : 0]; }

private:
    tarn_test::ScratchFolder folder_;
    tarn::ZmqSubsystem runtime_;
    std::vector<std::unique_ptr<tarn_fuzz::RawClientSocket>> clients_;
};

std::string put_of(const std::string& path, const std::string& transfer = {})
{
    tarn::Message message;
    message.mutable_put()->mutable_head()->set_path(path);
    message.mutable_put()->mutable_body()->set_txt("");
    if (!transfer.empty()) {
        for (const auto& [key, value] :
             {std::pair<std::string, std::string>(tarn::chunk_header::transfer, transfer),
              {tarn::chunk_header::number, "none"}}) {
            auto* header = message.mutable_put()->mutable_head()->add_headers();
            header->set_key(key);
            header->set_value(value);
        }
    }
    return message.SerializeAsString();
}

/// What holds for the answer to any frame.
void check_answer(const std::string& frame, const std::string& answer_frame)
{
    tarn::Message answer;
    require(answer.ParseFromString(answer_frame), "an answer is a message");
    tarn::Message request;
    const bool parses = !frame.empty() && request.ParseFromString(frame);
    if (parses && request.has_call()) {
        require(answer.has_call() && answer.call().has_result(), "a call is answered by its result");
        return;
    }
    require(answer.has_response(), "a request is answered by a response");
    const tarn::Status status = answer.response().status();
    require(tarn::Status_IsValid(status) && status != tarn::Status::UnknownStatus, "a status that exists");

    if (!parses || request.has_response() || request.type_case() == tarn::Message::TYPE_NOT_SET) {
        require(status == tarn::Status::BadRequest, "what is no request is a bad one");
        return;
    }
    // A handler that takes the reply away gets a bare one.
    const std::string path = tarn_internal::find_or_make_head(request)->path();
    if (path.find("/misbehave") == std::string::npos)
        require(answer.response().head().path() == path, "a reply names the path of its request");
}

/// A chunk that fails ends its transfer, so that the next input begins without one.
void end_transfer(tarn_fuzz::RawClientSocket& client, const std::string& frame)
{
    tarn::Message message;
    if (!message.ParseFromString(frame) || (!message.has_put() && !message.has_post()))
        return;
    const std::string id =
        tarn::Request(std::make_shared<tarn::Message>(message)).header(tarn::chunk_header::transfer, "");
    if (!id.empty())
        (void)client.exchange(put_of("/reset", id));
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    tarn_fuzz::Input input(data, size);
    const std::uint8_t options = input.byte();
    const auto frames = tarn_fuzz::read_frames(input, max_frames);

    auto& client = world.client(options & 1);
    slate::set_log_level(options & 2 ? slate::ExtremeLevel : slate::InfoLevel);
    tarn::Message reset;
    require(reset.ParseFromString(client.exchange(put_of("/reset"))) &&
                reset.response().status() == tarn::Status::NoContent,
            "the server works", reset.ShortDebugString());

    const auto way_back =
        options & 8 ? std::vector<std::string>{"proxy", "\xFF"} : std::vector<std::string>();
    for (const std::string& frame : frames) {
        if (options & 8 && !frame.empty())
            client.send_without_end({frame, "more"});
        client.send(options & 4 ? std::vector<std::string>{frame, "more"} : std::vector<std::string>{frame},
                    way_back);
        check_answer(frame, client.receive(way_back));
    }
    for (const std::string& frame : frames)
        end_transfer(client, frame);
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed)
{
    return tarn_fuzz::mutate_frames(data, size, max_size, seed, 1, tarn_fuzz::words_of_routes());
}
