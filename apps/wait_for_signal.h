// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

/// Lets a program run until it is told to end. Make it first of all: the signals must be blocked before any
/// thread exists, so that they wait for wait().
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
