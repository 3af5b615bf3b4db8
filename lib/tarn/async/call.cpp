// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/call.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "slate/log.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/io_thread.h"
#include "tarn/exception.h"
#include "tarn/proto/status.pb.h"

namespace tarn_internal {
Call::Call(std::shared_ptr<Callbacks> callbacks) : callbacks_(std::move(callbacks)) {}

Call::~Call() = default;

bool Call::complete(std::shared_ptr<Reply> reply)
{
    // A copy: another thread may be about to complete it, too. What it holds goes without the lock.
    std::unique_lock copying(mutex_);
    if (complete_)
        return false;
    const auto finish = finish_;
    copying.unlock();
    if (finish)
        reply = (*finish)(std::move(reply));
    {
        const std::lock_guard lock(mutex_);
        if (complete_)
            return false;
        finish_.reset();
        release();
        reply_ = std::move(reply);
        complete_ = true;
        completed_.notify_all(); // under the lock, since whoever waits may let go of this at once
    }
    callbacks_->io()->nudge();
    run_continuation();
    return true;
}

bool Call::complete(Status status, LocalCause cause, const std::string& text)
{
    return !complete_ && complete(make_local_reply(status, cause, text));
}

std::shared_ptr<Reply> Call::get()
{
    (void)wait_for(slate::Duration::positive_infinity());
    const std::lock_guard lock(mutex_);
    return reply_;
}

bool Call::wait_for(const slate::Duration& time)
{
    if (complete_)
        return true;
    // A year at most: the standard library's arithmetic overflows near its largest time.
    const bool for_ever = time.is_positive_infinity();
    const auto span = std::chrono::nanoseconds(
        std::min(time, slate::Duration(std::chrono::hours(24 * 365))).to_nanoseconds());
    const auto end = std::chrono::steady_clock::now() + span;

    IoThread& io = *callbacks_->io();
    if (io.is_current()) { // which can't wait for itself
        io.serve_until([&] { return complete_.load(); },
                       for_ever ? std::chrono::steady_clock::time_point::max() : end);
        return complete_;
    }
    std::unique_lock lock(mutex_);
    const auto is_here = [&] { return complete_.load(); };
    if (!for_ever)
        return completed_.wait_until(lock, end, is_here);
    completed_.wait(lock, is_here);
    return true;
}

void Call::cancel()
{
    (void)complete(Status::RequestTimeout, LocalCause::Cancelled, "the request was cancelled");
}

void Call::continue_with(std::unique_ptr<Continuation> continuation, Executor executor)
{
    {
        const std::lock_guard lock(mutex_);
        if (has_continuation_)
            throw Exception(slate::trace_error(SLATE_HERE, "Pending::then() was called twice"));
        has_continuation_ = true;
        continuation_ = std::move(continuation);
        executor_ = std::move(executor);
        if (!complete_)
            return;
    }
    run_continuation();
}

/// Hands the continuation over, if there is one. Both it and the reply must be here, and whoever brings the
/// second of them calls this.
void Call::run_continuation()
{
    std::unique_lock lock(mutex_);
    auto continuation = std::move(continuation_);
    auto executor = std::move(executor_);
    auto reply = reply_;
    lock.unlock();
    if (!continuation)
        return;
    if (inside_)
        callbacks_->run_soon(std::move(continuation), std::move(reply));
    else
        callbacks_->dispatch(std::move(continuation), std::move(reply), executor);
}
} // namespace tarn_internal
