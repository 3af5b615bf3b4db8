// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

/// Lets a program run until SIGINT or SIGTERM. Create it first in main: both signals must be blocked before
/// any thread exists, so that they stay pending until wait().
class TerminationSignal {
public:
    TerminationSignal()
    {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }

    void wait() const
    {
        int signal = 0;
        sigwait(&signals_, &signal);
    }

private:
    sigset_t signals_;
};
