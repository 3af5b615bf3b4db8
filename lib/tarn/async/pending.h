// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

#include "slate/duration.h"
#include "tarn/reply.h"

namespace tarn_internal {
class Call;
struct PendingAccess;

/// A function of the caller's that is waiting for a reply.
class Continuation {
public:
    virtual ~Continuation() = default;
    virtual void run(const std::shared_ptr<tarn::Reply>& reply) = 0;
};

template <class Function>
class ContinuationOf : public Continuation {
public:
    explicit ContinuationOf(Function function) : function_(std::move(function)) {}
    void run(const std::shared_ptr<tarn::Reply>& reply) override { function_(reply); }

private:
    Function function_;
};
} // namespace tarn_internal

namespace tarn {
/// Runs a function, now or later, on a thread of its choice; exactly once. It must not keep the thread that
/// calls it, which serves all asynchronous clients of the process: it hands the function over and returns. An
/// executor that throws has not taken the function.
using Executor = std::function<void(std::function<void()> function)>;

/// One call that is in flight, or was. It always gets a reply, never null: a server's, or one that was made
/// here and says so (see Reply::local_cause).
///
///     auto pending = client->get("/status/cpu");
///     ...
///     const auto reply = pending.get();
///
/// Destroying it neither ends the call nor waits for it: the reply is then dropped, or goes to the function
/// that then() was given.
///
/// Errors: an empty one, which holds no call, throws Exception in every function but valid().
///
/// Threads: one at a time; cancel() may be called beside any of the others. Lifetime: it may outlive the
/// client and ZmqSubsystem.
class [[nodiscard]] Pending {
public:
    /// Holds no call, as one that was moved from.
    Pending() = default;
    /// For the library.
    explicit Pending(std::shared_ptr<tarn_internal::Call> call);
    ~Pending();
    Pending(Pending&&) noexcept;
    Pending& operator=(Pending&&) noexcept;
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    bool valid() const { return call_ != nullptr; }

    /// Whether the reply is here.
    [[nodiscard]] bool ready() const;

    /// Blocks until the reply is here, and gives it: no longer than the time that the call was allowed, and
    /// for ever if that is for ever. Gives the same reply again if asked again.
    ///
    /// It may be called anywhere, handlers and functions of then() included. Such a function is usually on
    /// the work queue's only thread, and keeps the others waiting. On the thread that does the exchange
    /// itself, where such a function runs if the work queue refuses it, it goes on with the exchange
    /// meanwhile, and other functions may run within it.
    [[nodiscard]] std::shared_ptr<Reply> get() const;

    /// Blocks until the reply is here, for `time` at most, and returns whether it is. Positive infinity waits
    /// for ever.
    [[nodiscard]] bool wait_for(const slate::Duration& time) const;

    /// Has `function` called with the reply, a `std::shared_ptr<Reply>`, exactly once, when it is here;
    /// perhaps before this returns, if it already is. Throws Exception the second time. What `function`
    /// throws is logged.
    ///
    /// It runs on the work queue, unless the client's options or `executor` say otherwise, and with no lock
    /// held. If the work queue refuses it, it runs on the thread that does the exchange, which all
    /// asynchronous clients share: that delays them all, and is counted ("inline"). When the client is
    /// destroyed, functions that have not begun run on the thread that destroys it; and when there is no
    /// ZmqSubsystem any more, on the thread that brings the reply about.
    ///
    /// `function` may be of a type that can only be moved. It may use and destroy clients, this one included.
    template <class Function>
    requires std::is_invocable_v < std::decay_t<Function>
    &, const std::shared_ptr<Reply>& > void then(Function&& function, Executor executor = {})
    {
        using Wrapped = tarn_internal::ContinuationOf<std::decay_t<Function>>;
        continue_with(std::make_unique<Wrapped>(std::forward<Function>(function)), std::move(executor));
    }

    /// Ends the call at once with status 408, LocalCause::Cancelled, unless its reply is here. A request that
    /// has not been sent never will be; one that has may still be carried out.
    void cancel();

private:
    friend struct tarn_internal::PendingAccess;
    void continue_with(std::unique_ptr<tarn_internal::Continuation> continuation, Executor executor);
    tarn_internal::Call& call() const;

    std::shared_ptr<tarn_internal::Call> call_;
};
} // namespace tarn
