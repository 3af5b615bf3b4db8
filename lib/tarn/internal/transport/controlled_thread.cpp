// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/controlled_thread.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/utils/receive.h"
#include "tarn/internal/utils/send.h"
#include "tarn/internal/utils/signals_blocked.h"
#include "tarn/internal/utils/thread_name.h"

namespace tarn_internal {
namespace {
/// How long the owner waits before it sends "TERMINATE" again: briefly at first, for a thread that has just
/// started, then longer, for one that is busy.
constexpr std::chrono::milliseconds first_patience{1};
constexpr std::chrono::milliseconds longest_patience{20};
} // namespace

void ReadyFlag::set()
{
    const std::lock_guard lock(mutex_);
    set_ = true;
    changed_.notify_all();
}

void ReadyFlag::reset()
{
    const std::lock_guard lock(mutex_);
    set_ = false;
}

bool ReadyFlag::wait(const slate::Duration& time) const
{
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::nanoseconds(time.to_nanoseconds()), [&] { return set_; });
}

ControlledThread::ControlledThread(const std::shared_ptr<zmq::context_t>& context, Endpoint endpoint)
    : endpoint_(std::move(endpoint)),
      socket_(std::make_unique<zmq::socket_t>(*context, zmq::socket_type::pub))
{
    socket_->bind(endpoint_->to_string());
}

ControlledThread::~ControlledThread()
{
    stop();
}

void ControlledThread::start(const std::string& name, std::function<void()> body)
{
    const SignalsBlocked blocked;
    std::promise<void> ended;
    ended_ = ended.get_future();
    thread_ = std::thread([name, body = std::move(body), ended = std::move(ended)]() mutable {
        name_thread(name);
        try {
            body();
        }
        catch (const std::exception& error) {
            // For example out of sockets. The owner finds that nobody listens, and the process goes on.
            slate::log_error(SLATE_HERE, name, " has ended: ", error.what());
        }
        ended.set_value();
    });
}

bool ControlledThread::send(const std::string& text)
{
    const std::lock_guard lock(mutex_);
    return send_str(*socket_, text);
}

void ControlledThread::stop()
{
    if (!thread_.joinable())
        return;
    auto patience = first_patience;
    do {
        try {
            (void)send(terminate);
        }
        catch (const zmq::error_t& error) {
            slate::log_error(SLATE_HERE, "cannot stop thread: ", error.what());
        }
        patience = std::min(patience * 2, longest_patience);
    } while (ended_.wait_for(patience) != std::future_status::ready);
    thread_.join();
}

bool connect_control(zmq::socket_t& socket, const slate::Uri& endpoint,
                     const std::shared_ptr<slate::Provider>& provider)
{
    try {
        socket.connect(endpoint.to_string());
        socket.set(zmq::sockopt::subscribe, "");
        return true;
    }
    catch (const zmq::error_t& error) {
        slate::log_error(provider, SLATE_HERE, "failed to connect to ", endpoint.to_string(), "; ",
                         error.what());
        return false;
    }
}

Command receive_command(zmq::socket_t& socket, const std::shared_ptr<slate::Provider>& provider)
{
    zmq::message_t frame;
    if (!receive_frame(socket, frame))
        slate::log_debug(provider, SLATE_HERE, "control socket recv; no data");

    const std::string_view text = frame.to_string_view();
    if (text == update_subscriptions)
        return Command::UpdateSubscriptions;
    return text == worker_listening ? Command::WorkerListening : Command::Terminate;
}

bool wait_until_listening(const std::function<void()>& announce,
                          const std::function<bool(slate::Duration)>& wait)
{
    // 20, 40, ... 1000 ms: fifty passes, 25.5 s in all.
    for (long milliseconds = 20; milliseconds <= 1000; milliseconds += 20) {
        announce();
        if (wait(slate::Milliseconds(milliseconds)))
            return true;
    }
    return false;
}
} // namespace tarn_internal
