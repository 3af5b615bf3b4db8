// SPDX-License-Identifier: Apache-2.0
#include "slate/queue.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include "slate/log.h"
#include "slate/provider.h"

namespace slate {
namespace {
constexpr std::string_view default_name = "slate-queue";

// What the kernel keeps of a thread's name, without the null byte.
constexpr std::size_t max_thread_name_bytes = 15;

using WorkPointer = std::shared_ptr<DeferredWork>;

/// What the queue shares with its threads, and what a thread that hangs keeps when the queue is gone.
struct State {
    State(std::shared_ptr<Provider> provider_value, std::string name_value)
        : provider(std::move(provider_value)),
          name(std::move(name_value))
    {
        if (!provider)
            return;
        done = provider->add_counter("done", 0, "works done", CounterPolicy::Cumulative);
        refused = provider->add_warning_counter("refused", 0, "works refused by a full queue",
                                                CounterPolicy::Cumulative);
        failed = provider->add_error_counter("failed", 0, "works ended by an exception",
                                             CounterPolicy::Cumulative);
    }

    const std::shared_ptr<Provider> provider;
    const std::string name;
    // Null without a provider. Constant after construction.
    std::shared_ptr<Counter> done;
    std::shared_ptr<Counter> refused;
    std::shared_ptr<Counter> failed;

    std::mutex mutex; // guards all below; never held while a work runs or dies, or a promise is fulfilled
    std::condition_variable work_or_stop;
    std::condition_variable thread_ended;
    std::deque<WorkPointer> waiting;
    std::size_t capacity = Queue::DefaultCapacity;
    std::size_t busy = 0;    // threads that run a work
    std::size_t running = 0; // threads that have not ended
    std::vector<std::thread::id> ended;
    bool stopping = false;
};

/// The queue to which this thread belongs, if any.
thread_local const State* own_state = nullptr;

void count(const std::shared_ptr<Counter>& counter)
{
    if (counter)
        counter->increment();
}

/// What becomes of a work.
struct Outcome {
    DeferredWork::Result result = DeferredWork::Success;
    std::exception_ptr exception; // instead of the result, if there is one
};

void fulfil(DeferredWork& work, const Outcome& outcome)
{
    try {
        if (outcome.exception)
            work.promise.set_exception(outcome.exception);
        else
            work.promise.set_value(outcome.result);
    }
    catch (const std::future_error&) {
        // Somebody else has fulfilled it, which is theirs to explain.
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

std::string name_of(const DeferredWork& work)
{
    try {
        return work.to_string();
    }
    catch (...) {
        return "?";
    }
}

Outcome run(const State& state, DeferredWork& work)
{
    if (work.cancelled)
        return {DeferredWork::Cancelled, nullptr};
    try {
        const auto result = work.perform();
        count(state.done);
        return {result, nullptr};
    }
    catch (...) {
        const auto exception = std::current_exception();
        count(state.failed);
        log_error(state.provider, SLATE_HERE, "work ", name_of(work), " failed: ", reason_of(exception));
        return {DeferredWork::Success, exception};
    }
}

void run_works(State& state)
{
    std::unique_lock lock(state.mutex);
    while (true) {
        state.work_or_stop.wait(lock, [&] { return state.stopping || !state.waiting.empty(); });
        if (state.stopping)
            return;

        WorkPointer work = std::move(state.waiting.front());
        state.waiting.pop_front();
        ++state.busy;
        lock.unlock();
        const auto outcome = run(state, *work);
        lock.lock();
        --state.busy; // before the promise: who has waited for it may count on this thread for the next work
        lock.unlock();
        fulfil(*work, outcome);
        work.reset(); // it may die here, and take the queue along
        lock.lock();
    }
}

void thread_main(const std::shared_ptr<State>& state)
{
    own_state = state.get();
    (void)pthread_setname_np(pthread_self(), state->name.c_str()); // a name is a help, no more

    run_works(*state);

    const std::lock_guard lock(state->mutex);
    --state->running;
    state->ended.push_back(std::this_thread::get_id());
    state->thread_ended.notify_all();
}

class QueueImpl : public Queue {
public:
    QueueImpl(std::size_t first_threads, std::size_t most_threads, const std::shared_ptr<Provider>& provider,
              std::string name)
        : first_threads_(first_threads),
          most_threads_(most_threads),
          state_(std::make_shared<State>(provider, std::move(name)))
    {
    }

    ~QueueImpl() override
    {
        std::unique_lock lock(state_->mutex);
        state_->stopping = true;
        const auto unrun = std::exchange(state_->waiting, {});
        lock.unlock();
        state_->work_or_stop.notify_all();
        for (const auto& work : unrun)
            fulfil(*work, {DeferredWork::Cancelled, nullptr});
        lock.lock();

        // A work may hold the last reference to its queue, whose end then can't wait for that work.
        const std::size_t own_threads = own_state == state_.get() ? 1 : 0;
        const bool all_ended =
            state_->thread_ended.wait_for(lock, std::chrono::seconds(ShutdownPatienceSeconds),
                                          [&] { return state_->running == own_threads; });
        const auto ended = state_->ended;
        const std::size_t left = state_->running - own_threads;
        lock.unlock();

        if (!all_ended)
            log_warn(state_->provider, SLATE_HERE, state_->name,
                     ": left behind with works that don't end: ", std::to_string(left));
        for (auto& thread : threads_) {
            if (std::find(ended.begin(), ended.end(), thread.get_id()) != ended.end())
                thread.join();
            else
                thread.detach();
        }
    }

    WorkPointer submit(const WorkPointer& work) override
    {
        std::string trouble;
        const auto result = take(work, trouble);
        if (!trouble.empty())
            log_error(state_->provider, SLATE_HERE, state_->name, ": can't start a thread: ", trouble);
        if (result == DeferredWork::Refused)
            count(state_->refused);
        if (result != DeferredWork::Success)
            fulfil(*work, {result, nullptr});
        return work;
    }

    void set_capacity(std::size_t works) override
    {
        const std::lock_guard lock(state_->mutex);
        state_->capacity = works;
    }

private:
    /// Success if the work is queued, else what becomes of it. `trouble` gets what is to be logged, unlocked.
    DeferredWork::Result take(const WorkPointer& work, std::string& trouble)
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->stopping)
            return DeferredWork::Cancelled;

        start_threads(trouble);
        if (state_->running == 0)
            return DeferredWork::Refused;
        // A work that an idle thread is about to take doesn't count as waiting.
        const std::size_t idle = state_->running - state_->busy;
        if (state_->waiting.size() >= idle && state_->waiting.size() - idle >= state_->capacity)
            return DeferredWork::Refused;

        state_->waiting.push_back(work);
        state_->work_or_stop.notify_one();
        return DeferredWork::Success;
    }

    /// Starts the first threads, or another one if the work to come would have to wait. state_->mutex is
    /// held.
    void start_threads(std::string& trouble)
    {
        const std::size_t idle = state_->running - state_->busy;
        std::size_t wanted = std::max(first_threads_, state_->running);
        if (state_->running >= first_threads_ && state_->waiting.size() >= idle)
            wanted = std::min(wanted + 1, most_threads_);
        try {
            while (state_->running < wanted) {
                threads_.emplace_back(thread_main, state_);
                ++state_->running;
            }
        }
        catch (const std::system_error& error) {
            trouble = error.what();
        }
    }

    const std::size_t first_threads_;
    const std::size_t most_threads_;
    const std::shared_ptr<State> state_;
    std::vector<std::thread> threads_; // guarded by state_->mutex
};
} // namespace

std::shared_ptr<Queue> make_queue(std::pair<unsigned long, unsigned long> threads,
                                  const std::shared_ptr<Provider>& provider, std::string name)
{
    const std::size_t most = std::max<std::size_t>(threads.second, 1);
    const std::size_t first = std::clamp<std::size_t>(threads.first, 1, most);
    if (name.empty())
        name = default_name;
    name.resize(std::min(name.size(), max_thread_name_bytes));
    return std::make_shared<QueueImpl>(first, most, provider, std::move(name));
}
} // namespace slate
