// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "slate/duration.h"
#include "tarn/async/pending.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/reply.h"

namespace tarn_internal {
class Callbacks;

/// What a Pending shares with those who bring the reply about.
///
/// Threads: any.
class Call : public std::enable_shared_from_this<Call> {
public:
    explicit Call(std::shared_ptr<Callbacks> callbacks);
    virtual ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    /// Changes each reply that it is given, and goes when the call has its reply. To be set before anybody
    /// else has the call.
    using Finish = std::function<std::shared_ptr<Reply>(std::shared_ptr<Reply>)>;
    void finish_with(Finish finish) { finish_ = std::make_shared<const Finish>(std::move(finish)); }

    /// Gives it its reply. False, and nothing happens, if it has one.
    bool complete(std::shared_ptr<Reply> reply);
    /// The same with a reply that is made here.
    bool complete(Status status, LocalCause cause, const std::string& text);

    bool is_complete() const { return complete_; }
    std::shared_ptr<Reply> get();
    bool wait_for(const slate::Duration& time);

    /// Ends it as cancelled.
    virtual void cancel();

    void continue_with(std::unique_ptr<Continuation> continuation, Executor executor);
    /// The same for the library's own, which is brief and waits for nothing.
    template <class Function>
    void continue_inside(Function function)
    {
        inside_ = true;
        continue_with(std::make_unique<ContinuationOf<Function>>(std::move(function)), {});
    }

protected:
    /// Called once, before anybody sees the reply, and under a lock.
    virtual void release() {}

private:
    void run_continuation();

    const std::shared_ptr<Callbacks> callbacks_;
    std::mutex
        mutex_; // guards all below; held neither while a continuation runs nor while one is handed over
    std::shared_ptr<const Finish> finish_; // may be null
    std::condition_variable completed_;
    std::atomic<bool> complete_{false}; // written under the lock
    std::shared_ptr<Reply> reply_;
    std::unique_ptr<Continuation> continuation_;
    Executor executor_; // of the continuation
    bool has_continuation_ = false;
    bool inside_ = false; // set before the continuation is
};

/// The call of a Pending that holds one.
struct PendingAccess {
    static Call& call(const Pending& pending) { return pending.call(); }
};
} // namespace tarn_internal
