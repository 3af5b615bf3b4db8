// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/async.h"

#include <functional>
#include <future>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "slate/log.h"
#include "support/counters.h"
#include "support/log_capture.h"
#include "tarn/zmq_subsystem.h"

namespace {
using slate::DeferredWork;
using tarn_internal::AsyncCallback;
using tarn_internal::resolve_queue;
using tarn_test::LogCapture;

// Made before any test, whichever of them run in this process.
const std::string first_id = AsyncCallback([] {}).to_string();

bool is_ready(const DeferredWork& work)
{
    return work.future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

TEST(AsyncCallback, HasTheId10000IfItIsTheFirstOfItsProcess)
{
    EXPECT_EQ(first_id, "10000");
}

TEST(AsyncCallback, HasTheNextId)
{
    const AsyncCallback one([] {});
    const AsyncCallback two([] {});
    const AsyncCallback three({});

    EXPECT_EQ(two.id, one.id + 1);
    EXPECT_EQ(three.id, one.id + 2);
    EXPECT_EQ(two.to_string(), std::to_string(two.id));
}

TEST(AsyncCallback, HasAnIdOfItsOwnOnWhateverThreadItIsMade)
{
    constexpr std::size_t threads = 4;
    constexpr std::size_t each = 2000;
    std::vector<std::vector<std::uint64_t>> made(threads);
    std::vector<std::thread> makers;
    for (auto& ids : made) {
        makers.emplace_back([&ids] {
            for (std::size_t i = 0; i < each; ++i)
                ids.push_back(AsyncCallback([] {}).id);
        });
    }
    for (auto& maker : makers)
        maker.join();

    std::set<std::uint64_t> all;
    for (const auto& ids : made)
        all.insert(ids.begin(), ids.end());
    EXPECT_EQ(all.size(), threads * each);
}

TEST(AsyncCallback, OwnsBothEndsOfItsResult)
{
    AsyncCallback work([] {});

    EXPECT_TRUE(work.future.valid());
    EXPECT_FALSE(is_ready(work));
    EXPECT_FALSE(work.cancelled);
    work.promise.set_value(5);
    EXPECT_EQ(work.future.get(), 5);
}

TEST(AsyncCallback, CallsItsFunctionAndSucceedsButLeavesTheResultToTheQueue)
{
    int calls = 0;
    AsyncCallback work([&] { ++calls; });

    EXPECT_EQ(work.perform(), 0);

    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(is_ready(work));
}

TEST(AsyncCallback, LogsItsIdBeforeItCallsItsFunction)
{
    const LogCapture logs;
    slate::set_log_level(slate::ExtremeLevel);
    AsyncCallback work([] { slate::log_extreme(SLATE_HERE, "called"); });

    work.perform();

    EXPECT_EQ(
        logs.texts(slate::ExtremeLevel),
        (std::vector<std::string>{"performing async callback[" + std::to_string(work.id) + "]", "called"}));
    EXPECT_EQ(logs.lines().size(), 2U);
}

TEST(AsyncCallback, CopiesItsFunction)
{
    int calls = 0;
    std::function<void()> function = [&] { ++calls; };
    AsyncCallback work(function);
    function = nullptr;

    work.perform();

    EXPECT_EQ(calls, 1);
}

TEST(AsyncCallback, WithoutAFunctionThrows)
{
    AsyncCallback work({});

    EXPECT_THROW(work.perform(), std::bad_function_call);
}

TEST(AsyncCallback, LetsWhatItsFunctionThrowsPass)
{
    AsyncCallback work([] { throw std::runtime_error("out of paper"); });

    EXPECT_THROW(work.perform(), std::runtime_error);
    EXPECT_FALSE(is_ready(work));
}

TEST(AsyncCallback, DestroyedUnrunBreaksItsPromise)
{
    auto work = std::make_shared<AsyncCallback>([] {});
    auto future = std::move(work->future);

    work.reset();

    try {
        future.get();
        ADD_FAILURE() << "a result of nothing";
    }
    catch (const std::future_error& error) {
        EXPECT_EQ(error.code(), std::future_errc::broken_promise);
    }
}

TEST(AsyncCallback, RunsOnAThreadOfTheQueue)
{
    const LogCapture logs; // of the failure
    tarn::ZmqSubsystem runtime;
    std::thread::id thread;
    const auto good = std::make_shared<AsyncCallback>([&] { thread = std::this_thread::get_id(); });
    const auto bad = std::make_shared<AsyncCallback>([] { throw std::runtime_error("out of paper"); });

    const auto queue = resolve_queue()->get();
    queue->submit(good);
    queue->submit(bad);

    EXPECT_EQ(good->future.get(), 0);
    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
    EXPECT_THROW(bad->future.get(), std::runtime_error);
}

TEST(ResolveQueue, GivesTheQueueOfTheRuntimeAndDoesNotBuildIt)
{
    const LogCapture logs;
    int setups = 0;
    tarn::ZmqSubsystem runtime(slate::make_dictionary(), [&](slate::Queue&) { ++setups; });

    const auto queue = resolve_queue();

    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(queue, runtime.queue());
    EXPECT_EQ(setups, 0);
    EXPECT_EQ(tarn_test::providers("zmq.work_queue"), 0U);
    EXPECT_TRUE(logs.lines().empty());
}

TEST(ResolveQueue, GivesNullAndAWarningEveryTimeWithoutARuntime)
{
    const std::string warning = "cannot resolve queue; tarn not / no longer initialized";
    const LogCapture logs;
    EXPECT_EQ(resolve_queue(), nullptr);
    EXPECT_EQ(logs.texts(slate::WarnLevel), std::vector<std::string>{warning});
    {
        const tarn::ZmqSubsystem runtime;
        EXPECT_NE(resolve_queue(), nullptr);
    }

    EXPECT_EQ(resolve_queue(), nullptr);
    EXPECT_EQ(resolve_queue(), nullptr);

    EXPECT_EQ(logs.texts(slate::WarnLevel), (std::vector<std::string>{warning, warning, warning}));
    EXPECT_EQ(logs.lines().size(), 3U);
}
} // namespace
