// SPDX-License-Identifier: Apache-2.0
#include "slate/queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include "slate/log.h"
#include "slate/provider.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

namespace {
using slate::DeferredWork;
using tarn_test::LogCapture;
using tarn_test::wait_until;

using Threads = std::pair<unsigned long, unsigned long>;

class FunctionTask : public DeferredWork {
public:
    explicit FunctionTask(std::function<Result()> body, std::uint64_t number = 0)
        : DeferredWork(number),
          body_(std::move(body))
    {
    }

    Result perform() override { return body_(); }

private:
    std::function<Result()> body_;
};

std::shared_ptr<FunctionTask> make_task(
    std::function<DeferredWork::Result()> body = [] { return DeferredWork::Success; },
    std::uint64_t number = 0)
{
    return std::make_shared<FunctionTask>(std::move(body), number);
}

/// A task that reports when it runs, and then keeps running until it is released.
class Blocker {
public:
    Blocker()
        : task(make_task([started = started_, released = release_.get_future().share()] {
              started->set_value();
              released.wait();
              return DeferredWork::Success;
          }))
    {
    }

    void wait_until_running() { started_->get_future().wait(); }
    void release() { release_.set_value(); }

private:
    // Shared with the task, which may outlive this object.
    std::shared_ptr<std::promise<void>> started_ = std::make_shared<std::promise<void>>();
    std::promise<void> release_;

public:
    const std::shared_ptr<FunctionTask> task;
};

bool is_ready(const DeferredWork& task)
{
    return task.future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

/// How many threads of this process have this name.
std::ptrdiff_t threads_named(const std::string& name)
{
    std::ptrdiff_t count = 0;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string found;
        std::getline(std::ifstream(thread.path() / "comm"), found);
        count += found == name ? 1 : 0;
    }
    return count;
}

class Queue : public testing::Test {
protected:
    ~Queue() override { slate::remove_provider(provider_->name()); }

    std::shared_ptr<slate::Queue> make_queue(Threads threads = {0, 1}, const std::string& name = "")
    {
        return slate::make_queue(threads, provider_, name);
    }

    std::uint64_t count(const char* counter)
    {
        return provider_->add_counter(counter, 0, "", slate::CounterPolicy::Cumulative)->value();
    }

    std::optional<int> severity(const std::string& counter)
    {
        for (const auto& provider : slate::snapshot()) {
            for (const auto& found : provider.counters) {
                if (provider.name == "queue.test" && found.name == counter)
                    return found.severity;
            }
        }
        return std::nullopt;
    }

    const std::shared_ptr<slate::Provider> provider_ = slate::add_provider("queue.test", "", true);
};

using Task = Queue;

TEST_F(Task, PrintsItsNumber)
{
    EXPECT_EQ(make_task(nullptr, 42)->to_string(), "42");
    EXPECT_EQ(make_task(nullptr)->id, 0u);
    EXPECT_EQ(make_task(nullptr)->attachment, nullptr);
    EXPECT_EQ(make_task(nullptr)->reserved, 0);
    EXPECT_FALSE(make_task(nullptr)->cancelled);
}

TEST_F(Task, BreaksItsPromiseIfItIsDestroyedUnrun)
{
    auto task = make_task();
    auto future = std::move(task->future);

    task.reset();

    EXPECT_THROW(future.get(), std::future_error);
}

TEST_F(Queue, RunsATaskOnAThreadOfItsOwn)
{
    const auto queue = make_queue();
    std::thread::id thread;
    const auto task = make_task([&] {
        thread = std::this_thread::get_id();
        return 7;
    });

    const auto submitted = queue->submit(task);

    EXPECT_EQ(submitted, task);
    EXPECT_EQ(task->future.get(), 7);
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_EQ(count("done"), 1u);
    EXPECT_EQ(severity("done"), std::nullopt);
}

TEST_F(Queue, RunsTasksInTheOrderOfTheirSubmission)
{
    const auto queue = make_queue();
    std::vector<int> order;
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (int i = 0; i < 100; ++i) {
        tasks.push_back(make_task([&order, i] {
            order.push_back(i);
            return 0;
        }));
        queue->submit(tasks.back());
    }
    for (const auto& task : tasks)
        task->future.wait();

    ASSERT_EQ(order.size(), 100u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(Queue, StartsItsFirstThreadsWithTheFirstTask)
{
    const auto queue = make_queue({2, 3}, "q-first");
    EXPECT_EQ(threads_named("q-first"), 0);

    const auto task = make_task();
    queue->submit(task);

    EXPECT_EQ(task->future.get(), 0);
    EXPECT_TRUE(wait_until([] { return threads_named("q-first") == 2; }));
}

TEST_F(Queue, StartsFurtherThreadsWhileTasksWait)
{
    const auto queue = make_queue({0, 3}, "q-further");
    std::latch together(3);
    std::vector<std::shared_ptr<FunctionTask>> tasks;
    for (int i = 0; i < 3; ++i) {
        tasks.push_back(make_task([&] {
            together.arrive_and_wait(); // returns only if all three run at once
            return 0;
        }));
        queue->submit(tasks.back());
    }

    for (const auto& task : tasks)
        EXPECT_EQ(task->future.get(), 0);
    EXPECT_EQ(threads_named("q-further"), 3);
}

TEST_F(Queue, StartsNoThreadWhileAnotherIsIdle)
{
    const auto queue = make_queue({0, 4}, "q-idle");
    for (int i = 0; i < 20; ++i) {
        const auto task = make_task();
        queue->submit(task);
        task->future.wait();
    }

    EXPECT_EQ(threads_named("q-idle"), 1);
}

TEST_F(Queue, RunsNoMoreTasksAtOnceThanItHasThreads)
{
    for (const auto& [threads, limit] : std::vector<std::pair<Threads, int>>{
             {{0, 1}, 1}, {{1, 1}, 1}, {{5, 2}, 2}, {{0, 2}, 2}, {{0, 0}, 1}, {{3, 0}, 1}}) {
        const auto queue = make_queue(threads);
        std::atomic<int> running{0};
        std::atomic<int> most{0};
        std::vector<std::shared_ptr<FunctionTask>> tasks;
        for (int i = 0; i < 100; ++i) {
            tasks.push_back(make_task([&] {
                const int now = ++running;
                for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
                }
                std::this_thread::yield();
                --running;
                return 0;
            }));
            queue->submit(tasks.back());
        }
        for (const auto& task : tasks)
            EXPECT_EQ(task->future.get(), 0);
        EXPECT_GE(most, 1);
        EXPECT_LE(most, limit);
    }
}

TEST_F(Queue, NamesItsThreads)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"", "slate-queue"}, {"deferred", "deferred"}, {"0123456789abcdefgh", "0123456789abcde"}};
    for (const auto& [name, shown] : rows) {
        const auto queue = make_queue({0, 1}, name);
        char found[16] = "";
        const auto task = make_task([&] { return pthread_getname_np(pthread_self(), found, sizeof(found)); });

        queue->submit(task);

        EXPECT_EQ(task->future.get(), 0);
        EXPECT_EQ(found, shown);
    }
}

TEST_F(Queue, RefusesATaskWhenItIsFull)
{
    const auto queue = make_queue();
    queue->set_capacity(2);
    Blocker blocker;
    queue->submit(blocker.task);
    blocker.wait_until_running();
    const auto first = queue->submit(make_task());
    const auto second = queue->submit(make_task());
    bool ran = false;
    const auto third = make_task([&] {
        ran = true;
        return 0;
    });

    EXPECT_EQ(queue->submit(third), third);

    ASSERT_TRUE(is_ready(*third));
    EXPECT_EQ(third->future.get(), DeferredWork::Refused);
    EXPECT_EQ(count("refused"), 1u);
    EXPECT_EQ(severity("refused"), 1);
    EXPECT_FALSE(is_ready(*first));
    blocker.release();
    EXPECT_EQ(first->future.get(), 0);
    EXPECT_EQ(second->future.get(), 0);
    const auto later = queue->submit(make_task());
    EXPECT_EQ(later->future.get(), 0);
    EXPECT_FALSE(ran);
}

TEST_F(Queue, HasRoomForItsDefaultCapacityAtFirst)
{
    EXPECT_EQ(slate::Queue::DefaultCapacity, 128u);
    const auto queue = make_queue();
    Blocker blocker;
    queue->submit(blocker.task);
    blocker.wait_until_running();

    for (std::size_t i = 0; i < slate::Queue::DefaultCapacity; ++i)
        queue->submit(make_task());
    EXPECT_EQ(count("refused"), 0u);
    queue->submit(make_task());
    EXPECT_EQ(count("refused"), 1u);

    blocker.release();
}

TEST_F(Queue, CountsNoTaskAsWaitingIfAThreadIsFreeForIt)
{
    const auto queue = make_queue({2, 2});
    queue->set_capacity(0);
    Blocker first;
    Blocker second;

    queue->submit(first.task);
    queue->submit(second.task);
    const auto third = queue->submit(make_task());

    EXPECT_EQ(third->future.get(), DeferredWork::Refused);
    first.release();
    second.release();
    EXPECT_EQ(first.task->future.get(), 0);
    EXPECT_EQ(second.task->future.get(), 0);
}

TEST_F(Queue, IsFreeAgainOnceTheResultIsThere)
{
    const auto queue = make_queue();
    queue->set_capacity(0);

    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(queue->submit(make_task())->future.get(), DeferredWork::Success) << i;
}

TEST_F(Queue, PassesAnExceptionOnAndKeepsRunning)
{
    const LogCapture capture;
    const auto queue = make_queue();
    const auto failing = make_task([]() -> int { throw std::runtime_error("out of paper"); }, 12);
    const auto unusual = make_task([]() -> int { throw 42; }, 13);
    const auto next = make_task();

    queue->submit(failing);
    queue->submit(unusual);
    queue->submit(next);

    EXPECT_THROW(failing->future.get(), std::runtime_error);
    EXPECT_THROW(unusual->future.get(), int);
    EXPECT_EQ(next->future.get(), 0);
    EXPECT_EQ(count("failed"), 2u);
    EXPECT_EQ(severity("failed"), 0);
    EXPECT_EQ(count("done"), 1u);
    ASSERT_EQ(capture.count(slate::ErrorLevel), 2u);
    EXPECT_NE(capture.lines()[0].text.find("12"), std::string::npos);
    EXPECT_NE(capture.lines()[0].text.find("out of paper"), std::string::npos);
    EXPECT_EQ(capture.lines()[0].provider, "queue.test");
}

TEST_F(Queue, NeverRunsATaskThatWasCancelledBefore)
{
    const auto queue = make_queue();
    Blocker blocker;
    queue->submit(blocker.task);
    bool ran = false;
    const auto task = make_task([&] {
        ran = true;
        return 0;
    });
    queue->submit(task);

    task->cancelled = true;
    blocker.release();

    EXPECT_EQ(task->future.get(), DeferredWork::Cancelled);
    EXPECT_FALSE(ran);
    EXPECT_EQ(blocker.task->future.get(), 0);
    EXPECT_EQ(count("done"), 1u);
}

TEST_F(Queue, AcceptsAPromiseThatIsAlreadyFulfilled)
{
    const LogCapture quiet;
    const auto queue = make_queue();
    queue->set_capacity(1);
    std::shared_ptr<FunctionTask> own;
    own = make_task([&own] {
        own->promise.set_value(5);
        return 6;
    });
    std::shared_ptr<FunctionTask> failing;
    failing = make_task([&failing]() -> int {
        failing->promise.set_value(7);
        throw std::runtime_error("too late");
    });

    queue->submit(own);
    EXPECT_EQ(own->future.get(), 5);
    EXPECT_TRUE(wait_until([&] { return count("done") == 1; }));
    queue->submit(failing);
    EXPECT_EQ(failing->future.get(), 7);
    EXPECT_TRUE(wait_until([&] { return count("failed") == 1; }));

    Blocker blocker;
    queue->submit(blocker.task);
    blocker.wait_until_running();
    const auto waiting = queue->submit(make_task());
    waiting->promise.set_value(8);
    const auto refused = make_task();
    refused->promise.set_value(9);
    queue->submit(refused);
    blocker.release();
    EXPECT_EQ(waiting->future.get(), 8);
    EXPECT_EQ(refused->future.get(), 9);
    EXPECT_TRUE(wait_until([&] { return count("done") == 3; }));
}

TEST_F(Queue, WorksWithoutAProvider)
{
    const LogCapture quiet;
    const auto queue = slate::make_queue({0, 1}, nullptr, "");
    const auto task = queue->submit(make_task());
    const auto failing = queue->submit(make_task([]() -> int { throw std::runtime_error("no"); }));

    EXPECT_EQ(task->future.get(), 0);
    EXPECT_THROW(failing->future.get(), std::runtime_error);

    Blocker blocker;
    queue->submit(blocker.task);
    blocker.wait_until_running();
    queue->set_capacity(0);
    EXPECT_EQ(queue->submit(make_task())->future.get(), DeferredWork::Refused);
    blocker.release();
}

TEST_F(Queue, TakesTasksFromManyThreads)
{
    const auto queue = make_queue({0, 2});
    queue->set_capacity(1000);
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 100; ++n) {
                queue->submit(make_task([&] {
                    ++ran;
                    return 0;
                }));
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_TRUE(wait_until([&] { return ran == 400; }));
    EXPECT_EQ(count("refused"), 0u);
}

TEST_F(Queue, TakesTasksFromATask)
{
    const auto queue = make_queue();
    const auto inner = make_task();
    const auto outer = make_task([&] {
        queue->submit(inner);
        return 0;
    });

    queue->submit(outer);

    EXPECT_EQ(outer->future.get(), 0);
    EXPECT_EQ(inner->future.get(), 0);
}

TEST_F(Queue, CancelsWaitingTasksAndFinishesRunningOnesWhenItEnds)
{
    auto queue = make_queue({0, 1}, "q-ends");
    Blocker blocker;
    queue->submit(blocker.task);
    blocker.wait_until_running();
    bool ran = false;
    const auto waiting = make_task([&] {
        ran = true;
        return 0;
    });
    queue->submit(waiting);
    std::thread releasing([&] {
        waiting->future.wait(); // over as soon as the queue is ending
        blocker.release();
    });

    queue.reset();

    EXPECT_TRUE(is_ready(*blocker.task));
    EXPECT_EQ(blocker.task->future.get(), 0);
    releasing.join();
    EXPECT_EQ(waiting->future.get(), DeferredWork::Cancelled);
    EXPECT_FALSE(ran);
    // The kernel may list a joined thread for a moment longer.
    EXPECT_TRUE(wait_until([] { return threads_named("q-ends") == 0; }));
}

TEST_F(Queue, EndsIfItNeverRan)
{
    EXPECT_EQ(make_queue({5, 5}).use_count(), 1);
}

TEST_F(Queue, LeavesAHungTaskBehindWhenItsPatienceEnds)
{
    const LogCapture capture;
    auto queue = make_queue({2, 2}, "q-hung");
    Blocker hung;
    queue->submit(hung.task);
    hung.wait_until_running();
    const auto other = queue->submit(make_task());
    EXPECT_EQ(other->future.get(), 0);

    const auto start = std::chrono::steady_clock::now();
    queue.reset();
    const auto waited = std::chrono::steady_clock::now() - start;

    EXPECT_GE(waited, std::chrono::seconds(slate::Queue::ShutdownPatienceSeconds));
    EXPECT_FALSE(is_ready(*hung.task));
    ASSERT_EQ(capture.count(slate::WarnLevel), 1u);
    EXPECT_NE(capture.texts(slate::WarnLevel)[0].find("q-hung"), std::string::npos);
    hung.release();
    EXPECT_EQ(hung.task->future.get(), 0);
    EXPECT_TRUE(wait_until([] { return threads_named("q-hung") == 0; }));
}

TEST_F(Queue, MayEndOnItsOwnThread)
{
    const LogCapture capture;
    auto queue = make_queue({0, 1}, "q-own");
    std::promise<void> handed_over;
    const auto task = make_task([&queue, ready = handed_over.get_future().share()] {
        ready.wait();
        queue.reset();
        return 3;
    });
    queue->submit(task);
    const auto waiting = queue->submit(make_task());

    handed_over.set_value();

    EXPECT_EQ(task->future.get(), 3);
    EXPECT_EQ(waiting->future.get(), DeferredWork::Cancelled);
    EXPECT_TRUE(wait_until([] { return threads_named("q-own") == 0; }));
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(Queue, MayEndWithTheTaskThatHoldsIt)
{
    const LogCapture capture;
    auto queue = make_queue({2, 2}, "q-held");
    std::promise<void> handed_over;
    auto task = make_task([ready = handed_over.get_future().share()] {
        ready.wait();
        return 3;
    });
    auto future = std::move(task->future);
    task->attachment = queue;
    queue->submit(task);
    task.reset();
    queue.reset(); // only the task holds it now

    handed_over.set_value();

    EXPECT_EQ(future.get(), 3);
    EXPECT_TRUE(wait_until([] { return threads_named("q-held") == 0; }));
    EXPECT_TRUE(capture.lines().empty());
}

/// Submits a task that never ends, and waits until it runs.
void hang(slate::Queue& queue)
{
    const auto started = std::make_shared<std::promise<void>>();
    queue.submit(make_task([started] {
        started->set_value();
        while (true)
            pause();
        return 0;
    }));
    started->get_future().wait();
}

/// The exit status, or minus the signal, of a forked process that runs `body` and then ends as if it returned
/// from main. An alarm ends it if that takes ten seconds.
template <class Body>
int exit_status_after(Body body)
{
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        body();
        std::exit(0);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

TEST(AProcessWithAHungTask, EndsThoughItsQueueIsStatic)
{
    EXPECT_EQ(exit_status_after([] {
                  static const auto queue = slate::make_queue({0, 1}, nullptr, "q-static");
                  hang(*queue);
              }),
              0);
}

TEST(AProcessWithAHungTask, EndsThoughItsQueueIsNeverDestroyed)
{
    EXPECT_EQ(exit_status_after([] {
                  // Kept in a static pointer, so that a leak checker doesn't report it.
                  static const auto* const queue =
                      new std::shared_ptr<slate::Queue>(slate::make_queue({0, 1}, nullptr, "q-leaked"));
                  hang(**queue);
              }),
              0);
}
} // namespace
