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

/// A piece of work for a Queue. Both ends of its result live in the object: the queue fulfils `promise`, and
/// the submitter waits on or polls `future`. Destroying a work that never ran breaks the promise.
class DeferredWork {
public:
    using Result = int;
    static constexpr Result Success = 0;
    /// Taken off the queue unrun, because `cancelled` was set or the queue ended.
    static constexpr Result Cancelled = -1;
    /// The queue was full.
    static constexpr Result Refused = -2;

    explicit DeferredWork(std::uint64_t number = 0) : id(number), future(promise.get_future()) {}
    virtual ~DeferredWork() = default;
    DeferredWork(const DeferredWork&) = delete;
    DeferredWork& operator=(const DeferredWork&) = delete;

    /// Does the work, on a thread of the queue. An exception ends up in `future`.
    virtual Result perform() = 0;
    /// For logs: the id in decimal.
    virtual std::string to_string() const { return std::to_string(id); }

    // Programs are compiled against the order of these fields: add new ones at the end.
    std::uint64_t id;
    std::promise<Result> promise;
    std::future<Result> future;
    /// For whoever schedules the work; untouched here.
    std::shared_ptr<void> attachment;
    int reserved = 0;
    /// Set by anybody, to ask that the work be given up: one that has not begun never will.
    std::atomic<bool> cancelled{false};
};

/// Runs works in the order in which they came, on threads of its own that start at the first work. Any
/// thread.
///
/// Destroying it ends it: works that have not begun are Cancelled, and one that is running is waited for, but
/// for ShutdownPatience only; a work that hangs then keeps its thread and never holds up the end of the
/// process.
class Queue {
public:
    virtual ~Queue() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Takes a work (not null) and returns it. If the queue is full the work is not run, and its result is
    /// DeferredWork::Refused at once.
    virtual std::shared_ptr<DeferredWork> submit(const std::shared_ptr<DeferredWork>& work) = 0;

    /// How many works may wait, those that are running not counted. DefaultCapacity at first.
    virtual void set_capacity(std::size_t works) = 0;

    static constexpr std::size_t DefaultCapacity = 128;
    static constexpr int ShutdownPatienceSeconds = 5;
};

/// A queue with threads.first threads that start at the first work and at most threads.second (at least 1) in
/// all; further ones start while works wait. Counts "done", "refused" and "failed" on `provider`, which may
/// be null. `name` becomes the threads' name, as far as it fits (15 bytes); "slate-queue" if empty.
std::shared_ptr<Queue> make_queue(std::pair<unsigned long, unsigned long> threads,
                                  const std::shared_ptr<Provider>& provider, std::string name);
} // namespace slate
