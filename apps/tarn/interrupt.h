// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>

#include <slate/duration.h>

namespace tarn_command {
/// Lets a command run until it is interrupted. Make it before any thread: SIGINT, SIGTERM and SIGHUP are
/// blocked from then on, and end a wait.
class Interrupt {
public:
    enum class Cause { Signal, Time, OutputClosed, Notified };

    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    /// Waits for a signal, notify(), the end of whoever reads standard output, or `timeout`.
    Cause wait(const std::optional<slate::Duration>& timeout = std::nullopt);

    /// Ends the wait, now or when it begins. Any thread.
    void notify();

    /// Runs `work`, which may block, in a thread of its own, and throws what it throws. False if something
    /// else ended the wait: the thread then goes on, so that the process has to leave().
    [[nodiscard]] bool run(const std::function<void()>& work);

    /// Ends the process without a wait for its threads.
    [[noreturn]] static void leave(int exit_status);

private:
    int signals_ = -1;
    int event_ = -1;
};
} // namespace tarn_command
