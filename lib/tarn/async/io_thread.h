// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "slate/lazy.h"
#include "tarn/internal/runtime.h"

namespace slate {
class Queue;
}
namespace zmq {
class context_t;
}

namespace tarn_internal {
class Channel;
class ChannelCall;

/// A file descriptor and its owner.
class OwnedDescriptor {
public:
    /// Throws std::system_error for a negative one.
    OwnedDescriptor(int descriptor, const char* what);
    ~OwnedDescriptor();
    OwnedDescriptor(const OwnedDescriptor&) = delete;
    OwnedDescriptor& operator=(const OwnedDescriptor&) = delete;

    int get() const { return descriptor_; }

private:
    const int descriptor_;
};

/// The one thread of a runtime that does the exchanges of all asynchronous clients. It sleeps until a socket
/// or another thread has something for it, or a call's time is over, and never wakes up otherwise.
///
/// It works in passes. What callers of the library wait with runs, if it runs on this thread at all, between
/// the work of two passes, when nothing is half done: it may do whatever any thread may, and even wait, since
/// waiting makes further passes.
///
/// Threads: any, unless a function says "I/O thread".
class IoThread : public RuntimePart, public std::enable_shared_from_this<IoThread> {
public:
    using Clock = std::chrono::steady_clock;

    /// Starts it. Throws std::system_error.
    static std::shared_ptr<IoThread> start(std::shared_ptr<zmq::context_t> context,
                                           std::shared_ptr<const slate::Dictionary> settings,
                                           std::shared_ptr<slate::Lazy<slate::Queue>> queue);
    IoThread(std::shared_ptr<zmq::context_t> context, std::shared_ptr<const slate::Dictionary> settings,
             std::shared_ptr<slate::Lazy<slate::Queue>> queue);

    bool is_current() const;

    // Each hands something to the thread. False, and nothing happens, once it has ended.
    bool submit(const std::shared_ptr<Channel>& channel, const std::shared_ptr<ChannelCall>& call);
    bool withdraw(const std::shared_ptr<Channel>& channel, const std::shared_ptr<ChannelCall>& call);
    bool post(std::function<void()> function);
    /// Runs it there and returns when it has run, or throws what it throws.
    bool run(const std::function<void()>& function);

    /// Whether the end has begun, after which nothing is taken any more.
    bool is_ending() const;
    /// Waits until it has ended, which end() has begun; on the I/O thread itself it doesn't wait.
    void await_end() const;

    /// The work queue of the runtime; null once that has ended.
    std::shared_ptr<slate::Queue> queue() const;

    /// Ends all calls and closes all sockets. Returns when no other thread of its own is left.
    void end() override;

    /// I/O thread: has it run at the end of the present pass. False once the runtime has ended.
    bool defer(std::function<void()> function);
    /// I/O thread: goes on with the exchanges until the condition holds or the time has come. Whatever makes
    /// it hold on another thread calls nudge() afterwards.
    void serve_until(const std::function<bool()>& condition,
                     Clock::time_point limit = Clock::time_point::max());
    void nudge();

    // I/O thread: for channels.
    zmq::context_t& context() const { return *context_; }
    const slate::Dictionary& settings() const { return *settings_; }
    void add(const std::shared_ptr<Channel>& channel); // any number of times
    void remove(Channel& channel);
    /// Has the channel served when the descriptor is readable.
    void watch(int descriptor, const Channel& channel);
    void unwatch(int descriptor);

private:
    struct Command {
        std::shared_ptr<Channel> channel;
        std::shared_ptr<ChannelCall> call;
        bool is_withdrawal = false;
        std::function<void()> function;
    };
    using Touched = std::vector<std::shared_ptr<Channel>>;

    bool post(Command command);
    void wake();
    void loop();
    void pass(Clock::time_point limit);
    void wait(Clock::time_point limit, Touched& touched);
    int milliseconds_until(Clock::time_point limit) const;
    void obey(Touched& touched);
    void obey(Command& command, Touched& touched);
    void add_due(Touched& touched) const;
    void serve(const Touched& touched);
    void run_deferred();
    void shut_down();
    void close_all();

    // I/O thread.
    std::shared_ptr<zmq::context_t> context_; // null once it has ended
    const std::shared_ptr<const slate::Dictionary> settings_;
    std::unordered_map<const Channel*, std::shared_ptr<Channel>> channels_;
    std::unordered_map<const Channel*, std::shared_ptr<Channel>> busy_; // that were not served to the end
    std::deque<std::function<void()>> deferred_;
    bool shutting_down_ = false;
    std::atomic<bool> down_{false}; // any thread may wait for it

    const OwnedDescriptor poll_;
    const OwnedDescriptor wake_up_;
    std::atomic<bool> woken_{false};    // whether wake_up_ is readable, or about to be
    std::atomic<int> serving_until_{0}; // how many conditions are waited for

    mutable std::mutex mutex_; // guards the three below
    std::vector<Command> commands_;
    std::shared_ptr<slate::Lazy<slate::Queue>> queue_;
    bool ended_ = false; // no commands are taken any more

    std::thread thread_;
};
} // namespace tarn_internal
