// SPDX-License-Identifier: Apache-2.0
#include "tarn/work.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "slate/queue.h"

namespace {
using slate::DeferredWork;

class ATask : public testing::Test {
protected:
    /// What became of a task on a work queue.
    DeferredWork::Result run(const std::shared_ptr<DeferredWork>& task)
    {
        return slate::make_queue({0, 1}, nullptr, "")->submit(task)->future.get();
    }
};

TEST_F(ATask, CallsItsFunctionOnceOnAThreadOfTheQueue)
{
    int calls = 0;
    std::thread::id thread;

    const auto result = run(tarn::make_work([&] {
        ++calls;
        thread = std::this_thread::get_id();
    }));

    EXPECT_EQ(result, DeferredWork::Success);
    EXPECT_EQ(calls, 1);
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(ATask, CallsNothingBeforeItIsRun)
{
    bool called = false;
    (void)tarn::make_work([&] { called = true; });
    EXPECT_FALSE(called);
}

TEST_F(ATask, KeepsWhatItsFunctionHoldsAndNoLonger)
{
    auto held = std::make_shared<int>(42);
    const std::weak_ptr<int> seen = held;

    auto task = tarn::make_work([held = std::move(held)] { (void)held; });
    EXPECT_FALSE(seen.expired());
    task.reset();

    EXPECT_TRUE(seen.expired());
}

TEST_F(ATask, HandsAnExceptionOfItsFunctionToItsFuture)
{
    try {
        run(tarn::make_work([] { throw std::runtime_error("no such setting"); }));
        FAIL() << "no exception";
    }
    catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "no such setting");
    }
}

TEST_F(ATask, WithoutAFunctionFailsWhenItIsRun)
{
    EXPECT_THROW(run(tarn::make_work({})), std::bad_function_call);
}

TEST_F(ATask, IsNotRunOnceItIsCancelled)
{
    bool called = false;
    const auto task = tarn::make_work([&] { called = true; });
    task->cancelled = true;

    EXPECT_EQ(run(task), DeferredWork::Cancelled);
    EXPECT_FALSE(called);
}
} // namespace
