// SPDX-License-Identifier: Apache-2.0
// Frames into a router with services of its own kind, and with one that answers with any frames.
// Input: one byte (1: of two frames, one is a request and the next one an answer of the service "raw", 2: all
// log lines), and frames.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/frames.h"
#include "fuzz/hostile_peer.h"
#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "fuzz/routes.h"
#include "fuzz/sockets.h"
#include "slate/strings.h"
#include "support/scratch_folder.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"
#include "tarn/tarn.h"

namespace {
using tarn_fuzz::require;

constexpr std::size_t max_frames = 24;

class World {
public:
    World()
    {
        const std::string endpoint = "inproc://router";
        for (const std::string service : {"echo", "echo/2"}) {
            const auto folder = make_folder("data/" + service);
            (void)runtime_.serve(slate::make_uri(socket_of(service)), tarn_fuzz::make_routes(folder));
        }
        raw = std::make_unique<tarn_fuzz::HostilePeer>(*runtime_.ctx(), socket_of("raw"));
        (void)runtime_.add_router({slate::make_uri(endpoint)}, nullptr, folder_.path() / "run",
                                  tarn_fuzz::make_routes(make_folder("data/own")));
        client = std::make_unique<tarn_fuzz::RawClientSocket>(*runtime_.ctx(), endpoint);
    }
    ~World() { client.reset(); }

private:
    tarn_test::ScratchFolder folder_;
    tarn::ZmqSubsystem runtime_;

public:
    std::unique_ptr<tarn_fuzz::HostilePeer> raw;
    std::unique_ptr<tarn_fuzz::RawClientSocket> client;

private:
    std::filesystem::path make_folder(const std::string& name) const
    {
        std::filesystem::create_directories(folder_.path() / name);
        return folder_.path() / name;
    }
    std::string socket_of(const std::string& service) const
    {
        return "ipc://" + (make_folder("run/" + service) / "zmq.sock").string();
    }
};

/// Whether the router would wait for a service that doesn't exist: that takes as long as the request allows.
bool names_dead_service(const std::string& path)
{
    const auto segments = slate::split<std::vector<std::string>>(path, "/", false, true);
    unsigned int number = 0;
    if (segments.size() < 2 || (segments[0] != "echo" && segments[0] != "raw") ||
        !slate::try_parse(segments[1], &number))
        return false;
    return segments[0] == "raw" || number != 2;
}

void check_answer(const tarn::Message& request, const std::string& path, const std::string& answer_frame)
{
    tarn::Message answer;
    require(answer.ParseFromString(answer_frame), "an answer is a message");
    require(answer.has_response(), "and a response");
    if (request.has_call() || request.has_response() || request.type_case() == tarn::Message::TYPE_NOT_SET)
        require(answer.response().status() == tarn::Status::NotImplemented,
                "only requests with a path are routed");
    else if (path.find_first_not_of('/') != std::string::npos) // a path without segments leads nowhere
        require(answer.response().head().path() == path, "an answer names the path of its request",
                answer.ShortDebugString());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    tarn_fuzz::Input input(data, size);
    const std::uint8_t options = input.byte();
    const auto frames = tarn_fuzz::read_frames(input, max_frames);

    slate::set_log_level(options & 2 ? slate::ExtremeLevel : slate::InfoLevel);
    const bool has_answers = options & 1;
    for (std::size_t i = 0; i < frames.size(); i += has_answers ? 2 : 1) {
        tarn::Message request;
        const bool parses = request.ParseFromString(frames[i]);
        tarn::Head* head = parses ? tarn_internal::find_or_make_head(request) : nullptr;
        const std::string path = head ? head->path() : "";
        if (names_dead_service(path))
            continue;

        tarn_fuzz::HostilePeer::Script script;
        if (has_answers && i + 1 < frames.size())
            script.frames.push_back(frames[i + 1]);
        world.raw->play(script);
        world.client->send({frames[i]});
        if (parses) // what doesn't parse gets no answer
            check_answer(request, path, world.client->receive());
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed)
{
    return tarn_fuzz::mutate_frames(data, size, max_size, seed, 1,
                                    {"/echo/user/7", "/echo/2/index", "/raw/x", "/echo", "/own/1", "/index",
                                     "/user/7/x", "/echo/misbehave/3", "/echo/stored/file", "1s", "500ms",
                                     "inf", "0s", "/../echo", "//echo//index", "uninitialized", "-1h"});
}
