// SPDX-License-Identifier: Apache-2.0
// The start of a publisher whose relay answers with any statistics.
// Input: frames; in each, the text "00000000-0000-0000-0000-000000000000" stands for the publisher's own tag.

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>

#include "fuzz/frames.h"
#include "fuzz/hostile_peer.h"
#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"
#include "tarn/tarn.h"

namespace {
using tarn_fuzz::require;

constexpr std::size_t max_frames = 16;
constexpr std::string_view own_tag = "00000000-0000-0000-0000-000000000000";
const slate::Duration timeout = slate::Milliseconds(1); // the sum of the pauses

/// The relay's input, which learns the publisher's tag from its probes.
class RelayInput {
public:
    RelayInput(zmq::context_t& context, const std::string& endpoint) : socket_(context, zmq::socket_type::sub)
    {
        socket_.set(zmq::sockopt::subscribe, "");
        socket_.bind(endpoint);
    }

    /// The tag of the last change that came; asked by the peer's thread alone.
    std::string tag()
    {
        while (tarn_fuzz::is_readable(socket_, std::chrono::milliseconds(0))) {
            const auto frames = tarn_fuzz::receive_frames(socket_);
            require(frames.size() == 2, "a change is a topic and a message");
            tarn::Message message;
            require(message.ParseFromString(frames[1]), "a published message parses");
            tag_ = tarn_internal::find_or_make_head(message)->from().tag();
        }
        return tag_;
    }

private:
    zmq::socket_t socket_;
    std::string tag_;
};

class World {
public:
    World()
    {
        peer.adapt = [this](std::string& frame) {
            const std::string tag = relay_input.tag();
            for (auto at = frame.find(own_tag); at != std::string::npos; at = frame.find(own_tag, at + 1)) {
                if (tag.size() == own_tag.size())
                    frame.replace(at, own_tag.size(), tag);
            }
        };
    }

    const std::string relay_in = "inproc://relay_in";
    const std::string stats = "inproc://relay_stats";
    tarn::ZmqSubsystem runtime;
    RelayInput relay_input{*runtime.ctx(), relay_in};
    tarn_fuzz::HostilePeer peer{*runtime.ctx(), stats};
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    tarn_fuzz::Input input(data, size);
    const auto frames = tarn_fuzz::read_frames(input, max_frames);
    // In JSON it may be written with escapes.
    const bool names_own_tag = std::any_of(frames.begin(), frames.end(), [](const std::string& frame) {
        return frame.find(own_tag) != std::string::npos || frame.find('\\') != std::string::npos;
    });
    world.peer.play({frames, 1});

    try {
        const auto publisher =
            tarn::make_publisher(slate::make_uri(world.relay_in), timeout, 0, slate::make_uri(world.stats));
        require(publisher != nullptr, "a publisher that is not refused exists");
        require(names_own_tag, "only statistics with its own tag prove its connection");
        require(publisher->put("/a", std::string("body"))->good(), "and publishes");
    }
    catch (const std::runtime_error& error) {
        require(std::string(error.what()) == "failed to connect to the relay", "the one failure there is",
                error.what());
    }
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed)
{
    return tarn_fuzz::mutate_frames(data, size, max_size, seed, 0, {own_tag, "{\"stat\":[]}"});
}
