// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>

namespace tarn_internal {
/// Blocks process-directed signals for this thread and the threads that it starts, but not faults: signals go
/// to the application's own threads.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGPROF})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_{};
};
} // namespace tarn_internal
