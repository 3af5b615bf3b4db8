// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>

#include "slate/lazy.h"
#include "slate/queue.h"
#include "tarn/async/pending.h"
#include "tarn/types.h"

namespace slate {
class Counter;
}

namespace tarn_internal {
class IoThread;

/// The functions that one client's callers wait with; see Pending::then.
///
/// Threads: any.
class Callbacks : public std::enable_shared_from_this<Callbacks> {
public:
    /// Without `executor` they run on the work queue. `refused` counts those that ran on the I/O thread
    /// instead.
    Callbacks(std::shared_ptr<IoThread> io, Executor executor, std::shared_ptr<slate::Counter> refused);

    /// Has it run, exactly once, where it is to run; `own` is that of the one call, and may be empty. On the
    /// I/O thread it is handed over at the end of the present pass, when nothing is half done.
    void dispatch(std::unique_ptr<Continuation> continuation, std::shared_ptr<Reply> reply,
                  const Executor& own);

    /// The library's own, which is brief and does nothing that waits: on this thread, or on the I/O thread at
    /// the end of the present pass.
    void run_soon(std::unique_ptr<Continuation> continuation, std::shared_ptr<Reply> reply);

    /// Runs a function of the caller's in the same way.
    void dispatch(std::function<void()> function);

    /// Runs those that have not begun, and waits for those that run on other threads.
    void finish();

    const std::shared_ptr<IoThread>& io() const { return io_; }

private:
    class Job;
    class Once;

    void hand_over(const std::shared_ptr<Job>& job);
    bool try_submit(const std::shared_ptr<Once>& once);
    void run(Job& job);
    std::shared_ptr<Job> any_not_begun();
    bool only_own_left() const;

    const std::shared_ptr<IoThread> io_;
    const Executor executor_;
    const std::shared_ptr<slate::Counter> refused_;
    mutable std::mutex mutex_; // guards jobs_, and `runner` in them; never held while one runs
    std::condition_variable ended_;
    std::unordered_map<Job*, std::shared_ptr<Job>> jobs_; // that have not ended
};
} // namespace tarn_internal
