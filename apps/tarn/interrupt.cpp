// SPDX-License-Identifier: Apache-2.0
#include "interrupt.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <system_error>
#include <thread>
#include <utility>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "output/body.h"

namespace tarn_command {
Interrupt::Interrupt()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) // as nohup has it
        sigaddset(&set, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    signals_ = signalfd(-1, &set, SFD_CLOEXEC);
    event_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signals_ < 0 || event_ < 0)
        throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
}

Interrupt::~Interrupt()
{
    close(signals_);
    close(event_);
}

Interrupt::Cause Interrupt::wait(const std::optional<slate::Duration>& timeout)
{
    const slate::StopWatch watch(true);
    for (;;) {
        int rest = -1;
        if (timeout && !timeout->is_positive_infinity())
            rest = static_cast<int>(std::clamp<std::int64_t>(
                (*timeout - slate::Microseconds(watch.elapsed()) + slate::Microseconds(999))
                    .to_milliseconds(),
                0, 3600000));
        // Nothing is asked about standard output but whether its reader has gone.
        std::array<pollfd, 3> items = {{{signals_, POLLIN, 0}, {event_, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
        const int ready = poll(items.data(), items.size(), rest);
        if (ready < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
        if (ready < 0)
            continue;
        if (items[0].revents != 0)
            return Cause::Signal;
        if (items[1].revents != 0) {
            std::uint64_t count = 0;
            (void)!read(event_, &count, sizeof count);
            return Cause::Notified;
        }
        if (items[2].revents != 0)
            return Cause::OutputClosed;
        if (rest >= 0 && timeout && slate::Microseconds(watch.elapsed()) >= *timeout)
            return Cause::Time;
    }
}

void Interrupt::notify()
{
    const std::uint64_t one = 1;
    (void)!write(event_, &one, sizeof one);
}

bool Interrupt::run(const std::function<void()>& work)
{
    std::packaged_task<void()> task(work);
    auto result = task.get_future();
    std::thread thread([this, task = std::move(task)]() mutable {
        task();
        notify();
    });
    if (wait() == Cause::Notified) {
        thread.join();
        result.get(); // throws what the work has thrown
        return true;
    }
    thread.detach();
    return false;
}

void Interrupt::leave(int exit_status)
{
    flush_out();
    std::_Exit(exit_status);
}
} // namespace tarn_command
