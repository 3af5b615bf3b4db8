// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

/// The service manager that has started this process, such as systemd. It names a socket in the environment
/// and gets one datagram for each change of state. Without it nothing is sent.
class ServiceManager {
public:
    /// Reads "NOTIFY_SOCKET", "WATCHDOG_USEC" and "WATCHDOG_PID".
    ServiceManager();

    /// How long this process may be silent before the manager ends it; none without a watchdog.
    std::optional<std::chrono::microseconds> watchdog() const { return watchdog_; }

    void ready() const { notify("READY=1"); }
    void stopping() const { notify("STOPPING=1"); }
    void alive() const { notify("WATCHDOG=1"); }

private:
    /// A failure is a warning in the log: the manager then does what it does about silence.
    void notify(std::string_view state) const;

    std::string socket_;
    std::optional<std::chrono::microseconds> watchdog_;
};
