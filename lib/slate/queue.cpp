// SPDX-License-Identifier: Apache-2.0
#include "slate/queue.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include "slate/log.h"
#include "slate/provider.h"

namespace slate {
namespace {
constexpr std::string_view default_name = "slate-queue";

// The kernel keeps no more of a thread's name, not counting the null byte.
constexpr std::size_t max_thread_name_bytes = 15;

using TaskPointer = std::shared_ptr<DeferredWork>;

/// All that the queue shares with its threads. A thread that hangs keeps it when the queue is gone.
struct State {
    State(std::shared_ptr<Provider> queue_provider, std::string thread_name)
        : provider(std::move(queue_provider)),
          name(std::move(thread_name))
    {
        if (!provider)
            return;
        done = provider->add_counter("done", 0, "tasks done", CounterPolicy::Cumulative);
        refused = provider->add_warning_counter("refused", 0, "tasks refused by a full queue",
                                                CounterPolicy::Cumulative);
        failed = provider->add_error_counter("failed", 0, "tasks ended by an exception",
                                             CounterPolicy::Cumulative);
    }

    const std::shared_ptr<Provider> provider;
    const std::string name;
    // Null without a provider, and constant after construction.
    std::shared_ptr<Counter> done;
    std::shared_ptr<Counter> refused;
    std::shared_ptr<Counter> failed;

    // Guards all below. Never held while a task runs or is destroyed, or while a promise is fulfilled.
    std::mutex mutex;
    std::condition_variable task_or_stop;
    std::condition_variable thread_ended;
    std::deque<TaskPointer> waiting;
    std::size_t capacity = Queue::DefaultCapacity;
    std::size_t busy = 0;    // threads that run a task
    std::size_t running = 0; // threads that have not ended
    std::vector<std::thread::id> ended;
    bool stopping = false;
};

/// The state of the queue to which this thread belongs, if any.
thread_local const State* own_state = nullptr;

void count(const std::shared_ptr<Counter>& counter)
{
    if (counter)
        counter->increment();
}

/// How a task ended.
struct Outcome {
    DeferredWork::Result result = DeferredWork::Success;
    std::exception_ptr exception; // takes the place of the result unless it is null
};

void fulfil(DeferredWork& task, const Outcome& outcome)
{
    try {
        if (outcome.exception)
            task.promise.set_exception(outcome.exception);
        else
            task.promise.set_value(outcome.result);
    }
    catch (const std::future_error&) {
        // The promise has been fulfilled by other code, perhaps the task itself. That result stands.
    }
}

std::string reason_of(const std::exception_ptr& exception)
{
    try {
        std::rethrow_exception(exception);
    }
    catch (const std::exception& error) {
        return error.what();
    }
    catch (...) {
        return "unknown exception";
    }
}

std::string name_of(const DeferredWork& task)
{
    try {
        return task.to_string();
    }
    catch (...) {
        return "?";
    }
}

Outcome run(const State& state, DeferredWork& task)
{
    if (task.cancelled)
        return {DeferredWork::Cancelled, nullptr};
    try {
        const auto result = task.perform();
        count(state.done);
        return {result, nullptr};
    }
    catch (...) {
        const auto exception = std::current_exception();
        count(state.failed);
        log_error(state.provider, SLATE_HERE, "task ", name_of(task), " failed: ", reason_of(exception));
        return {DeferredWork::Success, exception};
    }
}

void run_tasks(State& state)
{
    std::unique_lock lock(state.mutex);
    while (true) {
        state.task_or_stop.wait(lock, [&] { return state.stopping || !state.waiting.empty(); });
        if (state.stopping)
            return;

        TaskPointer task = std::move(state.waiting.front());
        state.waiting.pop_front();
        ++state.busy;
        lock.unlock();
        const auto outcome = run(state, *task);
        lock.lock();
        // Before the promise, since a caller that has waited for it may rely on this thread being free.
        --state.busy;
        lock.unlock();
        fulfil(*task, outcome);
        task.reset(); // may destroy the task, and with it the queue
        lock.lock();
    }
}

void thread_main(const std::shared_ptr<State>& state)
{
    own_state = state.get();
    (void)pthread_setname_np(pthread_self(), state->name.c_str()); // the name only helps people

    run_tasks(*state);

    const std::lock_guard lock(state->mutex);
    --state->running;
    state->ended.push_back(std::this_thread::get_id());
    state->thread_ended.notify_all();
}

class QueueImpl : public Queue {
public:
    QueueImpl(std::size_t first_threads, std::size_t max_threads, const std::shared_ptr<Provider>& provider,
              std::string name)
        : first_threads_(first_threads),
          max_threads_(max_threads),
          state_(std::make_shared<State>(provider, std::move(name)))
    {
    }

    ~QueueImpl() override
    {
        std::unique_lock lock(state_->mutex);
        state_->stopping = true;
        const auto not_begun = std::exchange(state_->waiting, {});
        lock.unlock();
        state_->task_or_stop.notify_all();
        for (const auto& task : not_begun)
            fulfil(*task, {DeferredWork::Cancelled, nullptr});
        lock.lock();

        // If a task holds the last reference to the queue, this is its thread, which can't wait for itself.
        const std::size_t own_threads = own_state == state_.get() ? 1 : 0;
        const bool all_ended =
            state_->thread_ended.wait_for(lock, std::chrono::seconds(ShutdownPatienceSeconds),
                                          [&] { return state_->running == own_threads; });
        const auto ended = state_->ended;
        const std::size_t left = state_->running - own_threads;
        lock.unlock();

        if (!all_ended)
            log_warn(state_->provider, SLATE_HERE, state_->name,
                     ": ended without waiting any longer for tasks that still run: ", std::to_string(left));
        for (auto& thread : threads_) {
            if (std::find(ended.begin(), ended.end(), thread.get_id()) != ended.end())
                thread.join();
            else
                thread.detach();
        }
    }

    TaskPointer submit(const TaskPointer& task) override
    {
        std::string thread_error;
        const auto result = enqueue(task, thread_error);
        if (!thread_error.empty())
            log_error(state_->provider, SLATE_HERE, state_->name, ": can't start a thread: ", thread_error);
        if (result == DeferredWork::Refused)
            count(state_->refused);
        if (result != DeferredWork::Success)
            fulfil(*task, {result, nullptr});
        return task;
    }

    void set_capacity(std::size_t tasks) override
    {
        const std::lock_guard lock(state_->mutex);
        state_->capacity = tasks;
    }

private:
    /// Returns Success if the task is queued, and otherwise its result. `thread_error` gets the reason why a
    /// thread could not be started, which the caller logs without the lock.
    DeferredWork::Result enqueue(const TaskPointer& task, std::string& thread_error)
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->stopping)
            return DeferredWork::Cancelled;

        start_threads(thread_error);
        if (state_->running == 0)
            return DeferredWork::Refused;
        // A task that an idle thread is about to take doesn't count as waiting.
        const std::size_t idle = state_->running - state_->busy;
        if (state_->waiting.size() >= idle && state_->waiting.size() - idle >= state_->capacity)
            return DeferredWork::Refused;

        state_->waiting.push_back(task);
        state_->task_or_stop.notify_one();
        return DeferredWork::Success;
    }

    /// Starts the first threads, or one more if the next task would have to wait. The caller holds
    /// state_->mutex.
    void start_threads(std::string& thread_error)
    {
        const std::size_t idle = state_->running - state_->busy;
        std::size_t wanted = std::max(first_threads_, state_->running);
        if (state_->running >= first_threads_ && state_->waiting.size() >= idle)
            wanted = std::min(wanted + 1, max_threads_);
        try {
            while (state_->running < wanted) {
                threads_.emplace_back(thread_main, state_);
                ++state_->running;
            }
        }
        catch (const std::system_error& error) {
            thread_error = error.what();
        }
    }

    const std::size_t first_threads_;
    const std::size_t max_threads_;
    const std::shared_ptr<State> state_;
    std::vector<std::thread> threads_; // guarded by state_->mutex
};
} // namespace

std::shared_ptr<Queue> make_queue(std::pair<unsigned long, unsigned long> threads,
                                  const std::shared_ptr<Provider>& provider, std::string name)
{
    const std::size_t max_threads = std::max<std::size_t>(threads.second, 1);
    const std::size_t first_threads = std::clamp<std::size_t>(threads.first, 1, max_threads);
    if (name.empty())
        name = default_name;
    name.resize(std::min(name.size(), max_thread_name_bytes));
    return std::make_shared<QueueImpl>(first_threads, max_threads, provider, std::move(name));
}
} // namespace slate
