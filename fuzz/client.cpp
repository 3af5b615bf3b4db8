// SPDX-License-Identifier: Apache-2.0
// A client of a server that answers with any frames: all verbs, uploads and downloads in chunks, and calls.
// Input: one byte that selects what the client does, one for options (1: all log lines, 2: two frames in each
// answer), and frames.

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/frames.h"
#include "fuzz/hostile_peer.h"
#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/routing.pb.h"
#include "tarn/proto/stats.pb.h"
#include "tarn/raw/raw_client.h"
#include "tarn/tarn.h"
#include "tarn/transfer/download.h"
#include "tarn/transfer/upload.h"

namespace {
using tarn_fuzz::require;

constexpr std::size_t max_frames = 32;
const slate::Duration timeout = slate::Seconds(60); // never reached: the peer answers at once

class World {
public:
    const std::string endpoint = "inproc://hostile";
    tarn::ZmqSubsystem runtime;
    tarn_fuzz::HostilePeer peer{*runtime.ctx(), endpoint};
    std::shared_ptr<tarn::Client> client = tarn::make_client(slate::make_uri(endpoint), 0);
    std::shared_ptr<tarn::RawClient> raw_client = tarn::make_raw_client(slate::make_uri(endpoint), 0);
};

/// Runs what throws tarn::Exception for a message that holds no such thing.
template <class Action>
void attempt(Action action)
{
    try {
        action();
    }
    catch (const tarn::Exception&) {
        // What the peer sent has no head or no body.
    }
}

/// All that an application may ask a reply.
void look_at(const tarn::Reply& reply)
{
    require(!reply.is_local(), "no peer can make a local reply");
    (void)reply.good();
    (void)reply.status_message();
    (void)reply.text_or("none");
    (void)reply.to_string();
    (void)reply.path();
    if (reply.has_body())
        require(reply.data().size() <= reply.message->ByteSizeLong(), "a body is part of the message");
    attempt([&] { (void)reply.into<tarn::Stats>(); });
    attempt([&] { (void)reply.as<tarn::RoutingDetails>(); });
    attempt([&] { (void)reply.header("content-length", ""); });
    attempt([&] { (void)reply.param("a", ""); });
    attempt([&] { (void)reply.detect_format(); });
    attempt([&] { (void)(reply.maybe_json() || reply.maybe_xml()); });
}

std::size_t bytes_in(const std::vector<std::string>& frames)
{
    std::size_t bytes = 0;
    for (const std::string& frame : frames)
        bytes += frame.size();
    return bytes;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    tarn_fuzz::Input input(data, size);
    const std::uint8_t action = input.byte();
    const std::uint8_t options = input.byte();
    const auto frames = tarn_fuzz::read_frames(input, max_frames);

    slate::set_log_level(options & 1 ? slate::ExtremeLevel : slate::InfoLevel);
    world.peer.play({frames, options & 2 ? 2U : 1U});
    auto& client = *world.client;
    const auto headers = slate::make_dictionary();

    switch (action % 12) {
    case 0:
        look_at(*client.get("/a?format=json", headers, timeout));
        break;
    case 1:
        look_at(*client.head("/a", headers, timeout));
        break;
    case 2:
        look_at(*client.put("/a", std::string("body"), headers, timeout));
        break;
    case 3:
        look_at(*client.post("/a", std::string("body"), headers, timeout));
        break;
    case 4:
        look_at(*client.del("/a", headers, timeout));
        break;
    case 5: {
        std::ostringstream out;
        look_at(*client.get("/a", out, headers, timeout));
        require(out.str().size() <= bytes_in(frames), "a download has no more than was sent");
        break;
    }
    case 6: {
        std::istringstream body(std::string(3 << 20, 'x'));
        look_at(*client.put("/a", body, headers, timeout));
        break;
    }
    case 7: {
        std::ostringstream out;
        tarn::DownloadOptions download;
        download.chunk_timeout = timeout;
        std::uint64_t progress = 0;
        download.progress = [&](std::uint64_t bytes) {
            require(bytes > progress, "a download grows");
            progress = bytes;
        };
        const auto result = tarn::download(world.client, "/a", out, download);
        require(result.bytes == out.str().size() && result.bytes <= bytes_in(frames),
                "it counts what it wrote");
        look_at(*result.reply);
        break;
    }
    case 8: {
        std::istringstream body(std::string(100, 'x'));
        tarn::UploadOptions upload;
        upload.verb = options & 4 ? tarn::UploadOptions::Verb::Post : tarn::UploadOptions::Verb::Put;
        upload.chunk_bytes = 1U + (options >> 3);
        upload.chunk_timeout = timeout;
        upload.last_timeout = timeout;
        const auto result = tarn::upload(world.client, "/a", body, upload);
        require(result.bytes <= 100, "no more is acknowledged than was sent");
        require(result.bad() || result.bytes == 100, "a good upload is a whole one");
        look_at(*result.reply);
        break;
    }
    case 9: {
        tarn::Message message;
        message.mutable_call()->mutable_select()->set_method_number(1);
        const auto before = message.SerializeAsString();
        const tarn::Status status = world.raw_client->visit(message, timeout);
        require(tarn::Succeeded(status) || message.SerializeAsString() == before || !message.has_call() ||
                    status == tarn::Status::UnknownStatus,
                "a call that failed stays as it was");
        break;
    }
    case 10: { // read by hand, and given up after two chunks
        tarn::Download download(world.client, "/a", headers);
        for (int i = 0; i < 2; ++i) {
            if (const auto chunk = download.read())
                require(!chunk->empty(), "a chunk is never empty");
        }
        (void)download.result();
        break;
    }
    default: { // aborted after some chunks
        tarn::UploadOptions upload;
        upload.chunk_bytes = 4;
        tarn::Upload sender(world.client, "/a", headers, upload);
        (void)sender.write("some chunks of four bytes");
        sender.abort();
        require(sender.finish().bad(), "an aborted upload is a bad one");
    }
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed)
{
    return tarn_fuzz::mutate_frames(data, size, max_size, seed, 2,
                                    {"/a", "json", "200", "X-Tarn-Chunked-Transfer"});
}
