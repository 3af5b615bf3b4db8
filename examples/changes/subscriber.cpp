// SPDX-License-Identifier: Apache-2.0
// Prints published changes as they arrive, and ends after COUNT of them:
//
//   changes_subscriber RELAY_OUT COUNT
//
// It receives only what is published after its subscription has reached the relay at RELAY_OUT.

#include <condition_variable>
#include <iostream>
#include <mutex>

#include <tarn/tarn.h>

namespace {
/// Receives everything that is published below "/machine". A published change has no reply.
class MachineRoute : public tarn::Route {
public:
    MachineRoute() : Route("machine", "", "/machine/:what", tarn::Access::Public) {}

    void put(tarn::Context& change) override { show(change, change.request.data()); }
    void del(tarn::Context& change) override { show(change, "(gone)"); }

    void wait_for(long count)
    {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return heard_ >= count; });
    }

private:
    void show(const tarn::Context& change, const std::string& value)
    {
        std::cout << "      " << change.variable("what") << " is now " << value << std::endl;
        const std::lock_guard lock(mutex_);
        ++heard_;
        changed_.notify_all();
    }

    std::mutex mutex_; // guards heard_: handlers run on a thread of the library
    std::condition_variable changed_;
    long heard_ = 0;
};
} // namespace

int main(int argc, char** argv)
{
    long count = 0;
    if (argc != 3 || !slate::try_parse(argv[2], &count)) {
        std::cerr << "usage: changes_subscriber RELAY_OUT COUNT\n";
        return 2;
    }
    tarn::ZmqSubsystem subsystem;
    const auto route = std::make_shared<MachineRoute>();
    const auto subscriber = subsystem.add_subscriber(slate::make_uri(argv[1]));
    subscriber->add(route);
    route->wait_for(count);
}
