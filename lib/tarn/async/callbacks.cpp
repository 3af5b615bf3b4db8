// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/callbacks.h"

#include <chrono>
#include <exception>
#include <future>
#include <utility>

#include "slate/log.h"
#include "slate/provider.h"
#include "tarn/async/io_thread.h"
#include "tarn/internal/async.h"

namespace tarn_internal {
/// One function, until it has run.
class Callbacks::Job {
public:
    Job(std::unique_ptr<Continuation> continuation, std::shared_ptr<Reply> reply, Executor own)
        : executor(std::move(own)),
          continuation_(std::move(continuation)),
          reply_(std::move(reply))
    {
    }

    /// Whether the calling thread is the one to run it.
    bool begin() { return !begun_.exchange(true); }
    bool has_begun() const { return begun_; }

    void run()
    {
        try {
            continuation_->run(reply_);
        }
        catch (const std::exception& error) {
            slate::log_error(SLATE_HERE, "function of Pending::then() failed: ", error.what());
        }
        catch (...) {
            slate::log_error(SLATE_HERE, "function of Pending::then() failed: unknown exception");
        }
        continuation_.reset(); // what it holds goes before those who wait for it go on
        reply_.reset();
    }

    const Executor executor;
    std::thread::id runner; // while it runs

private:
    std::unique_ptr<Continuation> continuation_;
    std::shared_ptr<Reply> reply_;
    std::atomic<bool> begun_{false};
};

/// Runs a job when it is called, or else when the last copy of it goes: a work queue that ends drops its
/// tasks, and an executor may drop anything.
class Callbacks::Once {
public:
    Once(std::shared_ptr<Callbacks> owner, std::shared_ptr<Job> job)
        : owner_(std::move(owner)),
          job_(std::move(job))
    {
    }
    ~Once() { run(); }
    Once(const Once&) = delete;
    Once& operator=(const Once&) = delete;

    void run()
    {
        if (job_)
            owner_->run(*job_);
    }

    /// Nobody else may use it any more.
    void release() { job_.reset(); }

private:
    const std::shared_ptr<Callbacks> owner_;
    std::shared_ptr<Job> job_;
};

Callbacks::Callbacks(std::shared_ptr<IoThread> io, Executor executor, std::shared_ptr<slate::Counter> refused)
    : io_(std::move(io)),
      executor_(std::move(executor)),
      refused_(std::move(refused))
{
}

void Callbacks::dispatch(std::unique_ptr<Continuation> continuation, std::shared_ptr<Reply> reply,
                         const Executor& own)
{
    const auto job = std::make_shared<Job>(std::move(continuation), std::move(reply), own ? own : executor_);
    {
        const std::lock_guard lock(mutex_);
        jobs_.emplace(job.get(), job);
    }
    const auto task = [self = shared_from_this(), job] { self->hand_over(job); };
    if (!io_->is_current() || !io_->defer(task))
        task();
}

void Callbacks::run_soon(std::unique_ptr<Continuation> continuation, std::shared_ptr<Reply> reply)
{
    const auto job = std::make_shared<Job>(std::move(continuation), std::move(reply), Executor());
    if (!io_->is_current() || !io_->defer([job] { job->run(); }))
        job->run();
}

void Callbacks::dispatch(std::function<void()> function)
{
    const auto run = [function = std::move(function)](const std::shared_ptr<Reply>&) { function(); };
    dispatch(std::make_unique<ContinuationOf<decltype(run)>>(run), nullptr, {});
}

void Callbacks::hand_over(const std::shared_ptr<Job>& job)
{
    if (job->has_begun())
        return;
    const auto once = std::make_shared<Once>(shared_from_this(), job);
    try {
        if (job->executor) {
            job->executor([once] { once->run(); });
            return;
        }
        if (try_submit(once))
            return;
    }
    catch (const std::exception& error) {
        slate::log_error(SLATE_HERE, "executor failed: ", error.what());
    }
    catch (...) {
        slate::log_error(SLATE_HERE, "executor failed: unknown exception");
    }
    once->release();
    refused_->increment();
    // At the end of the runtime the I/O thread takes no more.
    if (io_->is_current() || !io_->post([self = shared_from_this(), job] { self->run(*job); }))
        run(*job);
}

/// Whether the work queue has taken it.
bool Callbacks::try_submit(const std::shared_ptr<Once>& once)
{
    const auto queue = io_->queue();
    if (!queue) // no ZmqSubsystem any more
        return false;
    const auto task = queue->submit(std::make_shared<AsyncCallback>([once] { once->run(); }));
    if (task->future.wait_for(std::chrono::seconds(0)) != std::future_status::ready)
        return true;
    const auto result = task->future.get();
    return result != slate::DeferredWork::Refused && result != slate::DeferredWork::Cancelled;
}

void Callbacks::run(Job& job)
{
    if (!job.begin())
        return;
    {
        const std::lock_guard lock(mutex_);
        job.runner = std::this_thread::get_id();
    }
    job.run();
    std::shared_ptr<Job> last; // goes without the lock
    {
        const std::lock_guard lock(mutex_);
        if (const auto found = jobs_.find(&job); found != jobs_.end()) {
            last = std::move(found->second);
            jobs_.erase(found);
        }
    }
    ended_.notify_all();
    io_->nudge();
}

void Callbacks::finish()
{
    while (const auto job = any_not_begun())
        run(*job);
    if (io_->is_current()) {
        io_->serve_until([this] {
            const std::lock_guard lock(mutex_);
            return only_own_left();
        });
        return;
    }
    std::unique_lock lock(mutex_);
    ended_.wait(lock, [this] { return only_own_left(); });
}

std::shared_ptr<Callbacks::Job> Callbacks::any_not_begun()
{
    const std::lock_guard lock(mutex_);
    for (const auto& [key, job] : jobs_) {
        if (!job->has_begun())
            return job;
    }
    return nullptr;
}

/// Whether all that are left have this thread below them, which can't wait for itself. The caller holds the
/// lock.
bool Callbacks::only_own_left() const
{
    for (const auto& [key, job] : jobs_) {
        if (job->runner != std::this_thread::get_id())
            return false;
    }
    return true;
}
} // namespace tarn_internal
