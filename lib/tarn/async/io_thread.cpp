// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/io_thread.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <future>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <zmq.hpp>

#include "slate/log.h"
#include "slate/queue.h"
#include "tarn/async/channel.h"
#include "tarn/internal/utils/signals_blocked.h"
#include "tarn/internal/utils/thread_name.h"

namespace tarn_internal {
namespace {
thread_local const IoThread* present_thread = nullptr;

void control(int poll, int operation, int descriptor, const void* data)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.ptr =
        const_cast<void*>(data); // NOLINT(cppcoreguidelines-pro-type-const-cast): the system only keeps it
    if (epoll_ctl(poll, operation, descriptor, &event) != 0)
        throw std::system_error(errno, std::generic_category(), "can't watch a socket");
}

/// Runs what must not end the thread.
template <class Function>
void guarded(Function function)
{
    try {
        function();
    }
    catch (const std::exception& error) { // for example out of memory
        slate::log_error(SLATE_HERE, "asynchronous clients: ", error.what());
    }
    catch (...) {
        slate::log_error(SLATE_HERE, "asynchronous clients: unknown exception");
    }
}
} // namespace

OwnedDescriptor::OwnedDescriptor(int descriptor, const char* what) : descriptor_(descriptor)
{
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), what);
}

OwnedDescriptor::~OwnedDescriptor()
{
    close(descriptor_);
}

std::shared_ptr<IoThread> IoThread::start(std::shared_ptr<zmq::context_t> context,
                                          std::shared_ptr<const slate::Dictionary> settings,
                                          std::shared_ptr<slate::Lazy<slate::Queue>> queue)
{
    auto io = std::make_shared<IoThread>(std::move(context), std::move(settings), std::move(queue));
    const SignalsBlocked blocked;
    io->thread_ = std::thread([io] { io->loop(); });
    return io;
}

IoThread::IoThread(std::shared_ptr<zmq::context_t> context, std::shared_ptr<const slate::Dictionary> settings,
                   std::shared_ptr<slate::Lazy<slate::Queue>> queue)
    : context_(std::move(context)),
      settings_(std::move(settings)),
      poll_(epoll_create1(EPOLL_CLOEXEC), "epoll_create1"),
      wake_up_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd"),
      queue_(std::move(queue))
{
    control(poll_.get(), EPOLL_CTL_ADD, wake_up_.get(), nullptr);
}

bool IoThread::is_current() const
{
    return present_thread == this;
}

bool IoThread::submit(const std::shared_ptr<Channel>& channel, const std::shared_ptr<ChannelCall>& call)
{
    return post(Command{channel, call, false, {}});
}

bool IoThread::withdraw(const std::shared_ptr<Channel>& channel, const std::shared_ptr<ChannelCall>& call)
{
    return post(Command{channel, call, true, {}});
}

bool IoThread::post(std::function<void()> function)
{
    return post(Command{nullptr, nullptr, false, std::move(function)});
}

bool IoThread::post(Command command)
{
    {
        const std::lock_guard lock(mutex_);
        if (ended_)
            return false;
        commands_.push_back(std::move(command));
    }
    wake();
    return true;
}

bool IoThread::run(const std::function<void()>& function)
{
    if (is_current()) {
        if (!down_)
            function();
        return !down_;
    }
    std::promise<void> done;
    const auto report = [&] {
        try {
            function();
            done.set_value();
        }
        catch (...) {
            done.set_exception(std::current_exception());
        }
    };
    auto result = done.get_future();
    if (!post(std::function<void()>(report)))
        return false;
    result.get();
    return true;
}

std::shared_ptr<slate::Queue> IoThread::queue() const
{
    std::unique_lock lock(mutex_);
    const auto queue = queue_;
    lock.unlock();
    return queue ? queue->get() : nullptr;
}

void IoThread::end()
{
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    wake();
    if (is_current()) { // a function of a caller's ends the runtime
        shut_down();
        thread_.detach();
    }
    else {
        thread_.join();
    }
}

bool IoThread::is_ending() const
{
    const std::lock_guard lock(mutex_);
    return ended_;
}

void IoThread::await_end() const
{
    if (!is_current())
        down_.wait(false);
}

bool IoThread::defer(std::function<void()> function)
{
    if (down_)
        return false;
    deferred_.push_back(std::move(function));
    return true;
}

void IoThread::serve_until(const std::function<bool()>& condition, Clock::time_point limit)
{
    ++serving_until_;
    while (!condition() && Clock::now() < limit)
        pass(limit);
    --serving_until_;
}

void IoThread::nudge()
{
    if (serving_until_ > 0 && !is_current())
        wake();
}

void IoThread::wake()
{
    if (woken_.exchange(true))
        return;
    const std::uint64_t one = 1;
    (void)!write(wake_up_.get(), &one, sizeof one); // can't fail: the counter is nowhere near its end
}

void IoThread::add(const std::shared_ptr<Channel>& channel)
{
    channels_.try_emplace(channel.get(), channel);
}

void IoThread::remove(Channel& channel)
{
    channels_.erase(&channel);
    busy_.erase(&channel);
}

void IoThread::watch(int descriptor, const Channel& channel)
{
    control(poll_.get(), EPOLL_CTL_ADD, descriptor, &channel);
}

void IoThread::unwatch(int descriptor)
{
    (void)epoll_ctl(poll_.get(), EPOLL_CTL_DEL, descriptor, nullptr); // fails if it was never watched
}

void IoThread::loop()
{
    present_thread = this;
    name_thread("tarn-async");
    while (!down_)
        pass(Clock::time_point::max());
}

/// Waits, serves whoever has something to do, and then runs what that has brought about.
void IoThread::pass(Clock::time_point limit)
{
    guarded([&] {
        Touched touched;
        wait(limit, touched);
        obey(touched);
        add_due(touched);
        serve(touched);
    });
    run_deferred();
    if (is_ending())
        shut_down();
}

void IoThread::wait(Clock::time_point limit, Touched& touched)
{
    std::array<epoll_event, 64> events;
    const int count =
        epoll_wait(poll_.get(), events.data(), static_cast<int>(events.size()), milliseconds_until(limit));
    for (int i = 0; i < count; ++i) {
        const void* source = events[static_cast<std::size_t>(i)].data.ptr;
        if (!source) {
            std::uint64_t ignored = 0;
            (void)!read(wake_up_.get(), &ignored, sizeof ignored);
            woken_ = false; // before the commands are taken: whoever adds one afterwards wakes us again
            continue;
        }
        if (const auto found = channels_.find(static_cast<const Channel*>(source)); found != channels_.end())
            touched.push_back(found->second);
    }
    for (const auto& [key, channel] : std::exchange(busy_, {}))
        touched.push_back(channel);
}

int IoThread::milliseconds_until(Clock::time_point limit) const
{
    if (!busy_.empty() || !deferred_.empty())
        return 0;
    for (const auto& [key, channel] : channels_)
        limit = std::min(limit, channel->next_deadline());
    if (limit == Clock::time_point::max())
        return -1;
    // Rounded up, as it would otherwise wake up too early, again and again.
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(limit - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(rest, 0, std::numeric_limits<int>::max()));
}

void IoThread::obey(Touched& touched)
{
    std::unique_lock lock(mutex_);
    auto commands = std::exchange(commands_, {});
    lock.unlock();
    for (Command& command : commands)
        guarded([&] { obey(command, touched); }); // one that fails must not cost the others
}

void IoThread::obey(Command& command, Touched& touched)
{
    if (command.function) {
        try {
            deferred_.push_back(command.function);
        }
        catch (const std::bad_alloc&) {
            command.function(); // somebody may be waiting for it
        }
        return;
    }
    if (touched.empty() || touched.back() != command.channel)
        touched.push_back(command.channel);
    if (command.is_withdrawal)
        command.channel->withdraw(*command.call);
    else
        command.channel->accept(command.call);
}

void IoThread::add_due(Touched& touched) const
{
    const auto now = Clock::now();
    for (const auto& [key, channel] : channels_) {
        if (channel->next_deadline() <= now)
            touched.push_back(channel);
    }
}

void IoThread::serve(const Touched& touched)
{
    for (auto channel = touched.begin(); channel != touched.end(); ++channel) {
        if (std::find(touched.begin(), channel, *channel) != channel) // has been served
            continue;
        bool has_more = false;
        guarded([&] { has_more = (*channel)->serve(); });
        if (has_more)
            busy_.emplace(channel->get(), *channel);
    }
}

void IoThread::run_deferred()
{
    // Only what is there now: sockets come first again before what follows from it. Each one is taken out
    // before it runs, as it may make a pass of its own.
    for (std::size_t left = deferred_.size(); left > 0 && !deferred_.empty(); --left) {
        const auto function = std::move(deferred_.front());
        deferred_.pop_front();
        guarded(function);
    }
}

void IoThread::shut_down()
{
    if (std::exchange(shutting_down_, true))
        return;
    guarded([&] {
        Touched touched;
        obey(touched);
    });
    // What is left to run may open a channel, and closing one brings more to run. A socket that stayed open
    // would keep the end of the context waiting for ever.
    do {
        close_all();
        run_deferred();
    } while (!channels_.empty() || !deferred_.empty());
    context_.reset();
    std::unique_lock lock(mutex_);
    const auto queue = std::exchange(queue_, nullptr); // goes without the lock
    lock.unlock();
    down_ = true;
    down_.notify_all();
}

void IoThread::close_all()
{
    for (const auto& [key, channel] : std::exchange(channels_, {}))
        channel->close();
    busy_.clear();
}
} // namespace tarn_internal
