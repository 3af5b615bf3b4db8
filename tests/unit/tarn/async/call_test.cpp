// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/call.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/runtime_test.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/io_thread.h"
#include "tarn/internal/utils/counters.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using tarn_internal::Call;
using tarn_internal::Callbacks;
using tarn_internal::IoThread;

class ACall : public RuntimeTest {
protected:
    std::shared_ptr<Call> make_call() { return std::make_shared<Call>(callbacks); }

    std::shared_ptr<slate::Provider> provider = slate::add_provider("test.call", "", false);
    std::shared_ptr<IoThread> io = runtime->parts()->get<IoThread>(
        [this] { return IoThread::start(runtime->ctx(), runtime->settings(), runtime->queue()); });
    std::shared_ptr<Callbacks> callbacks = std::make_shared<Callbacks>(
        io, [](const auto& function) { function(); }, tarn_internal::add_counter(*provider, "inline"));
};

TEST_F(ACall, KeepsItsFirstReply)
{
    const auto call = make_call();
    EXPECT_FALSE(call->is_complete());
    EXPECT_TRUE(call->complete(Status::Ok, LocalCause::None, "first"));
    EXPECT_FALSE(call->complete(Status::Ok, LocalCause::None, "second"));
    call->cancel();
    EXPECT_EQ(call->get()->status_message(), "first");
}

TEST_F(ACall, GivesItsReplyToOneFunctionWhicheverOfThemComesFirst)
{
    for (int round = 0; round < 200; ++round) {
        const auto call = make_call();
        std::atomic<int> called{0};
        std::thread other([&] { call->complete(Status::Ok, LocalCause::None, "yes"); });
        Pending pending(call);
        pending.then([&](const std::shared_ptr<Reply>& reply) { called += reply->good() ? 1 : 0; });
        other.join();
        EXPECT_EQ(called, 1);
    }
}

TEST_F(ACall, WakesAllThatWait)
{
    const auto call = make_call();
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { woken += call->get()->good() ? 1 : 0; });
    call->complete(Status::Ok, LocalCause::None, "");
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(woken, 4);
}

TEST(APending, HoldsNothingAtFirstAndWhenMovedFrom)
{
    const LogCapture logs;
    Pending pending;
    EXPECT_FALSE(pending.valid());
    EXPECT_THROW((void)pending.get(), Exception);
    EXPECT_THROW((void)pending.ready(), Exception);
    EXPECT_THROW((void)pending.wait_for(slate::Seconds(0)), Exception);
    EXPECT_THROW(pending.then([](const std::shared_ptr<Reply>&) {}), Exception);
    EXPECT_THROW(pending.cancel(), Exception);
}

TEST_F(ACall, IsHeldByThePendingThatItWasMovedTo)
{
    const auto call = make_call();
    Pending one(call);
    Pending other = std::move(one);
    EXPECT_TRUE(other.valid());
    other.cancel();
    EXPECT_EQ(other.get()->local_cause(), LocalCause::Cancelled);
    static_assert(!std::is_copy_constructible_v<Pending> && std::is_nothrow_move_constructible_v<Pending>);
}
} // namespace
