// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace slate {
class Provider;

/// A task for a Queue. Derive from it and do the work in perform(). Both ends of the result are in the task
/// itself: the queue fulfils `promise`, and the submitter polls `future` or waits for it. Destroying a task
/// that was never run breaks the promise.
///
/// Threads: once a task is submitted, its queue may use everything but `future` and `attachment` on any of
/// its threads. Any thread may set `cancelled` at any time.
class DeferredWork {
public:
    using Result = int;
    static constexpr Result Success = 0;
    /// The task was not run, because `cancelled` was set or the queue was destroyed.
    static constexpr Result Cancelled = -1;
    /// The queue was full.
    static constexpr Result Refused = -2;

    explicit DeferredWork(std::uint64_t number = 0) : id(number), future(promise.get_future()) {}
    virtual ~DeferredWork() = default;
    DeferredWork(const DeferredWork&) = delete;
    DeferredWork& operator=(const DeferredWork&) = delete;

    /// Does the work, on a thread of the queue, and returns the result for `future`. An exception is logged
    /// and passed to `future` instead.
    virtual Result perform() = 0;
    /// The task's name in logs: the id in decimal.
    virtual std::string to_string() const { return std::to_string(id); }

    // Programs are compiled against the order of these fields: add new ones at the end.
    std::uint64_t id;
    std::promise<Result> promise;
    std::future<Result> future;
    /// For the submitter. The queue doesn't touch it.
    std::shared_ptr<void> attachment;
    /// Unused; keeps the layout of installed programs.
    int reserved = 0;
    /// Set it to ask that the task be given up. A queue doesn't begin such a task; perform() may look at it
    /// from time to time and return early.
    std::atomic<bool> cancelled{false};
};

/// Runs tasks on threads of its own, in the order in which they were submitted.
///
/// Its destructor ends it: tasks that have not begun are Cancelled, and those that are running get
/// ShutdownPatienceSeconds to finish. A task that takes longer is left behind with its thread, and doesn't
/// keep the process from ending. The destructor may run on a thread of the queue itself, as it does if a task
/// holds the last reference.
///
/// Threads: any thread may use it at any time, and so may its tasks.
class Queue {
public:
    virtual ~Queue() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Takes a task, which must not be null, and returns it without waiting. If the queue is full, or no
    /// thread can be started, the task is not run, and its result is DeferredWork::Refused at once.
    virtual std::shared_ptr<DeferredWork> submit(const std::shared_ptr<DeferredWork>& task) = 0;

    /// Sets how many tasks may wait, not counting those for which a thread is free or that are running. It is
    /// DefaultCapacity at first.
    virtual void set_capacity(std::size_t tasks) = 0;

    static constexpr std::size_t DefaultCapacity = 128;
    static constexpr int ShutdownPatienceSeconds = 5;
};

/// Makes a queue of `threads.first` to `threads.second` threads, both taken as at least 1. The first ones
/// start with the first task, and one more whenever a task would otherwise have to wait. Counts "done",
/// "refused" and "failed" tasks on `provider`, which may be null. The threads are named `name`, cut to 15
/// bytes, or "slate-queue" if that is empty. The result is never null.
std::shared_ptr<Queue> make_queue(std::pair<unsigned long, unsigned long> threads,
                                  const std::shared_ptr<Provider>& provider, std::string name);
} // namespace slate
