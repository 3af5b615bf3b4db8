// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "slate/duration.h"
#include "tarn/types.h"

namespace slate {
class Provider;
class Uri;
} // namespace slate
namespace zmq {
class context_t;
class socket_t;
} // namespace zmq

namespace tarn_internal {
// The commands on a control channel.
inline constexpr const char* worker_listening = "worker-listening";
inline constexpr const char* update_subscriptions = "update-subscriptions";
inline constexpr const char* terminate = "TERMINATE";

/// What a command asks for. Any other text ends the thread too.
enum class Command { Terminate, UpdateSubscriptions, WorkerListening };

/// Tells one thread that another is ready. Any thread.
class ReadyFlag {
public:
    void set();
    void reset();
    /// Waits until it is set, for that time at most; returns whether it is.
    bool wait(const slate::Duration& time) const;

private:
    mutable std::mutex mutex_; // guards set_
    mutable std::condition_variable changed_;
    bool set_ = false;
};

/// A thread of the library, and the inproc channel over which its owner sends it commands, one frame of text
/// each. The owner's end is a ZMQ_PUB socket; the thread, and threads that it starts, connect ZMQ_SUB sockets
/// to it.
///
/// A published command is lost while there is no subscription and when the queue is full, so the owner
/// repeats "TERMINATE" until the thread has ended: stopping never hangs on a lost command.
///
/// Threads: any may call send(); only the owner calls the rest.
class ControlledThread {
public:
    /// Binds the channel at an inproc endpoint; throws zmq::error_t.
    ControlledThread(const std::shared_ptr<zmq::context_t>& context, Endpoint endpoint);
    /// Stops the thread.
    ~ControlledThread();

    /// Starts the thread under this name, cut to 15 bytes. Its signals are blocked: they go to the
    /// application's own threads.
    void start(const std::string& name, std::function<void()> body);

    /// False if the command could not be sent. One that was sent may still be lost.
    bool send(const std::string& text);

    /// Ends the thread and waits until it has ended. Does nothing the second time.
    void stop();

    const slate::Uri& endpoint() const { return *endpoint_; }

private:
    Endpoint endpoint_;
    std::mutex mutex_; // guards socket_
    std::unique_ptr<zmq::socket_t> socket_;
    std::thread thread_;
    std::future<void> ended_;
};

/// Connects the thread's end of a control channel and subscribes it to everything. False, with an error in
/// the log, if it can't.
bool connect_control(zmq::socket_t& socket, const slate::Uri& endpoint,
                     const std::shared_ptr<slate::Provider>& provider);

/// Takes one text off the thread's end of a control channel.
Command receive_command(zmq::socket_t& socket, const std::shared_ptr<slate::Provider>& provider);

/// Repeats "worker-listening" until the thread has received it: a ZMQ_PUB socket loses what it sends before
/// the subscription has arrived. False if that takes more than 25.5 s.
bool wait_until_listening(const std::function<void()>& announce,
                          const std::function<bool(slate::Duration)>& wait);
} // namespace tarn_internal
