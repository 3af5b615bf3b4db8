// SPDX-License-Identifier: Apache-2.0
// Published frames into a server without endpoints that has routes of every kind.
// Input: one byte (1: all log lines, 2: a topic alone before each change, 4: a frame too many, 8: routes come
// and go meanwhile), and frames.

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include <unistd.h>

#include "fuzz/frames.h"
#include "fuzz/input.h"
#include "fuzz/quiet.h"
#include "fuzz/require.h"
#include "fuzz/routes.h"
#include "fuzz/sockets.h"
#include "support/scratch_folder.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/proto/message.pb.h"
#include "tarn/tarn.h"

namespace {
using tarn_fuzz::require;

constexpr std::size_t max_frames = 32;

/// Counts changes, and lets another thread wait for them.
class CountingRoute : public tarn::Route {
public:
    CountingRoute(const std::string& route_name, const std::string& pattern)
        : Route(route_name, "put", tarn::RoutePattern(pattern), tarn::Access::Public)
    {
    }

    void put(tarn::Context&) override { count(); }
    void del(tarn::Context&) override { count(); }

    int take_count()
    {
        const std::lock_guard lock(mutex_);
        return std::exchange(count_, 0);
    }

    /// Waits for the first change; false if none came in that time.
    bool wait(std::chrono::milliseconds limit)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return count_ > 0; });
    }

private:
    void count()
    {
        const std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
    }

    std::mutex mutex_; // guards count_
    std::condition_variable changed_;
    int count_ = 0;
};

class World {
public:
    World() : publisher_(*runtime_.ctx(), zmq::socket_type::pub)
    {
        const std::string relay_out = "inproc://relay_out";
        publisher_.set(zmq::sockopt::linger, 0);
        publisher_.set(zmq::sockopt::sndhwm, 0);
        publisher_.bind(relay_out);
        server = runtime_.add_subscriber(slate::make_uri(relay_out));
        for (const auto& route : tarn_fuzz::make_routes(folder_.path()))
            server->add(route);
        server->add(counted);
        server->add(last);
        // Changes get lost until the subscription has arrived.
        do {
            publish_put("/last");
        } while (!last->wait(std::chrono::milliseconds(5)));
        finish();
    }

    void publish(const std::vector<std::string>& frames) { tarn_fuzz::send_frames(publisher_, frames); }

    void publish_put(const std::string& path)
    {
        tarn::Message message;
        message.mutable_put()->mutable_head()->set_path(path);
        message.mutable_put()->mutable_body()->set_txt("1");
        publish({tarn_internal::to_topic(path), message.SerializeAsString()});
    }

    /// Waits until everything that was published before has been handled.
    void finish()
    {
        (void)last->take_count();
        publish_put("/last");
        require(last->wait(tarn_fuzz::patience), "the server works");
    }

    const std::shared_ptr<CountingRoute> counted = std::make_shared<CountingRoute>("counted", "/count/:id");
    const std::shared_ptr<CountingRoute> last = std::make_shared<CountingRoute>("last", "/last");
    std::shared_ptr<tarn::Server> server;

private:
    tarn_test::ScratchFolder folder_;
    tarn::ZmqSubsystem runtime_;
    zmq::socket_t publisher_;
};

/// Whether the counting route has to get this change.
bool is_counted(tarn::Message& message, const tarn::RoutePattern& pattern)
{
    if (!message.has_put() && !message.has_del())
        return false;
    const tarn::Head& head = *tarn_internal::find_or_make_head(message);
    const bool is_addressed =
        head.to().empty() ||
        std::any_of(head.to().begin(), head.to().end(), [](const auto& to) { return to.pid() == getpid(); });
    return is_addressed && pattern.match(head.path());
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    tarn_fuzz::quiet_log();
    static World world;
    static const tarn::RoutePattern counted_pattern("/count/:id");
    tarn_fuzz::Input input(data, size);
    const std::uint8_t options = input.byte();
    const auto frames = tarn_fuzz::read_frames(input, max_frames);

    slate::set_log_level(options & 1 ? slate::ExtremeLevel : slate::InfoLevel);
    world.publish_put("/reset");
    world.finish();
    (void)world.counted->take_count();

    int expected = 0;
    for (const std::string& frame : frames) {
        tarn::Message message;
        const bool parses = !frame.empty() && message.ParseFromString(frame);
        const auto* head = parses ? tarn_internal::find_or_make_head(message) : nullptr;
        // A subscriber gets only what its topics let through; the rest of a message plays no part in that.
        const std::string topic =
            head && !head->path().empty() ? tarn_internal::to_topic(head->path()) : "/count";
        if (parses && topic.starts_with("/count") && is_counted(message, counted_pattern))
            ++expected;

        if (options & 8 && expected % 2 == 0)
            world.server->add(std::make_shared<CountingRoute>("extra", "/extra/:x"));
        if (options & 2)
            world.publish({topic});
        if (options & 4)
            world.publish({topic, frame, "more"});
        else
            world.publish({topic, frame});
        if (options & 8)
            world.server->del("extra");
    }
    world.finish();
    const int counted = world.counted->take_count();
    require(counted == expected, "every change reaches the route that accepts it",
            std::to_string(counted) + " of " + std::to_string(expected));
    return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t max_size,
                                               unsigned int seed)
{
    auto words = tarn_fuzz::words_of_routes();
    words.insert(words.end(), {"/count/1", "/extra/1", "/count//2"});
    return tarn_fuzz::mutate_frames(data, size, max_size, seed, 1, words);
}
