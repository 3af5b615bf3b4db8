// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/coroutine.h"

#include <atomic>
#include <exception>
#include <future>
#include <stop_token>
#include <string>

#include <gtest/gtest.h>
#include <pthread.h>

#include "slate/queue.h"
#include "support/gate.h"
#include "support/runtime_test.h"
#include "tarn/async/call.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/io_thread.h"

#ifdef __cpp_impl_coroutine
namespace {
using namespace tarn;
using namespace tarn_test;
using tarn_internal::Call;
using tarn_internal::Callbacks;
using tarn_internal::IoThread;

/// A coroutine that nobody waits for.
struct Detached {
    struct promise_type {
        Detached get_return_object() { return {}; }
        std::suspend_never initial_suspend() noexcept { return {}; }
        std::suspend_never final_suspend() noexcept { return {}; }
        void return_void() {}
        void unhandled_exception() { std::terminate(); }
    };
};

class ACoroutine : public RuntimeTest {
protected:
    ACoroutine()
    {
        auto route = make_test_route("echo", "get", "/echo/:id");
        route->on_get = [](Context& context) { context.reply.set_reply_text(context.variable("id")); };
        const auto uri = scratch_endpoint();
        runtime->serve(uri, {route});
        client = make_async_client(uri);
    }

    std::shared_ptr<AsyncClient> client;
};

Detached ask(AsyncClient& client, std::promise<std::string>& result)
{
    std::string texts;
    for (int i = 0; i < 50; ++i)
        texts += (co_await client.get("/echo/" + std::to_string(i)))->text_or("?");
    result.set_value(texts);
}

TEST_F(ACoroutine, AsksAndGoesOnWithTheReply)
{
    std::promise<std::string> result;
    std::string expected;
    for (int i = 0; i < 50; ++i)
        expected += std::to_string(i);
    ask(*client, result);
    EXPECT_EQ(result.get_future().get(), expected);
}

Detached wait_for(Pending pending, std::promise<std::shared_ptr<Reply>>& result)
{
    result.set_value(co_await std::move(pending));
}

TEST_F(ACoroutine, GoesOnAtOnceIfTheReplyIsHere)
{
    auto pending = client->get("/echo/1");
    (void)pending.get();
    std::promise<std::shared_ptr<Reply>> result;
    wait_for(std::move(pending), result);
    auto reply = result.get_future();
    ASSERT_EQ(reply.wait_for(std::chrono::seconds(0)), std::future_status::ready);
    EXPECT_EQ(reply.get()->text_or(""), "1");
}

TEST_F(ACoroutine, GoesOnWhenItsClientIsDestroyed)
{
    auto nobody = make_async_client(scratch_endpoint());
    std::promise<std::shared_ptr<Reply>> result;
    wait_for(nobody->get("/a", {.timeout = slate::Duration::positive_infinity()}), result);
    nobody.reset();
    EXPECT_EQ(result.get_future().get()->local_cause(), LocalCause::Ended);
}

TEST_F(ACoroutine, GoesOnWhenItIsCancelledByAStopToken)
{
    const auto nobody = make_async_client(scratch_endpoint());
    std::stop_source stop;
    std::promise<std::shared_ptr<Reply>> result;
    wait_for(nobody->get("/a", {.timeout = slate::Duration::positive_infinity(), .stop = stop.get_token()}),
             result);
    auto reply = result.get_future();
    EXPECT_EQ(reply.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    stop.request_stop();
    EXPECT_EQ(reply.get()->local_cause(), LocalCause::Cancelled);
}

TEST_F(ACoroutine, GoesOnWhenTheRuntimeEnds)
{
    const auto nobody = make_async_client(scratch_endpoint());
    std::promise<std::shared_ptr<Reply>> result;
    wait_for(nobody->get("/a", {.timeout = slate::Duration::positive_infinity()}), result);
    runtime.reset();
    EXPECT_EQ(result.get_future().get()->local_cause(), LocalCause::Ended);
}

Detached tell_threads(AsyncClient& client, std::promise<std::string>& result)
{
    std::string names;
    for (int i = 0; i < 3; ++i) {
        (void)co_await client.get("/echo/1");
        char name[16] = "";
        pthread_getname_np(pthread_self(), name, sizeof name);
        names += std::string(name) + " ";
    }
    result.set_value(names);
}

TEST_F(ACoroutine, GoesOnWhereTheExchangeIsDoneIfTheWorkQueueRefusesIt)
{
    const auto gate = std::make_shared<Gate>();
    const auto queue = runtime->queue()->get();
    queue->set_capacity(0);
    queue->submit(make_work([gate] { gate->pass(); }));
    ASSERT_TRUE(gate->await(1));
    std::promise<std::string> result;
    tell_threads(*client, result);
    EXPECT_EQ(result.get_future().get(), "tarn-async tarn-async tarn-async ");
    gate->open();
}

Detached catch_failure(Pending pending, std::promise<bool>& result)
{
    try {
        (void)co_await std::move(pending);
        result.set_value(false);
    }
    catch (const Exception&) {
        result.set_value(true);
    }
}

TEST_F(ACoroutine, CannotWaitForAnEmptyPending)
{
    std::promise<bool> thrown;
    catch_failure(Pending(), thrown);
    EXPECT_TRUE(thrown.get_future().get());
}
} // namespace
#endif
