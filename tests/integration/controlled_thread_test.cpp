// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/controlled_thread.h"

#include <future>

#include <zmq.hpp>

#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using namespace tarn_internal;

class AControlledThread : public RuntimeTest {
protected:
    std::shared_ptr<const slate::Uri> endpoint = scratch_endpoint("inproc");
    ControlledThread thread{runtime->ctx(), endpoint};
};

TEST_F(AControlledThread, HearsWhatItIsTold)
{
    Journal heard;
    thread.start("tarn-test", [&] {
        zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::sub);
        ASSERT_TRUE(connect_control(socket, thread.endpoint(), nullptr));
        for (;;) {
            switch (receive_command(socket, nullptr)) {
            case Command::WorkerListening:
                heard.add("listening");
                break;
            case Command::UpdateSubscriptions:
                heard.add("update");
                break;
            case Command::Terminate:
                return;
            }
        }
    });
    EXPECT_TRUE(wait_until([&] { return thread.send(worker_listening) && !heard.entries().empty(); }));
    EXPECT_TRUE(
        wait_until([&] { return thread.send(update_subscriptions) && heard.entries().back() == "update"; }));
    thread.stop();
}

TEST_F(AControlledThread, EndsAtAnyTextThatItDoesNotKnow)
{
    for (const std::string text : {"", "terminate", "worker-listening "}) {
        ControlledThread other(runtime->ctx(), scratch_endpoint("inproc"));
        std::promise<void> ended;
        other.start("tarn-test", [&] {
            zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::sub);
            connect_control(socket, other.endpoint(), nullptr);
            EXPECT_EQ(receive_command(socket, nullptr), Command::Terminate);
            ended.set_value();
        });
        auto future = ended.get_future();
        EXPECT_TRUE(wait_until(
            [&] { return other.send(text) && future.wait_for(1ms) == std::future_status::ready; }));
        other.stop();
    }
}

TEST_F(AControlledThread, IsStoppedAlsoIfItListensOnlyLongAfterTheWordWasSaid)
{
    std::promise<void> go;
    thread.start("tarn-test", [&] {
        go.get_future().wait();
        zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::sub);
        connect_control(socket, thread.endpoint(), nullptr);
        EXPECT_EQ(receive_command(socket, nullptr), Command::Terminate);
    });
    auto stopping = std::async(std::launch::async, [&] { thread.stop(); });
    EXPECT_EQ(stopping.wait_for(100ms), std::future_status::timeout); // every word so far is lost
    go.set_value();
    stopping.get();
}

TEST_F(AControlledThread, IsStoppedAlsoIfItsQueueIsFull)
{
    std::promise<void> connected;
    std::promise<void> go;
    std::atomic<int> updates{0};
    thread.start("tarn-test", [&] {
        zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::sub);
        connect_control(socket, thread.endpoint(), nullptr);
        connected.set_value();
        go.get_future().wait();
        while (receive_command(socket, nullptr) != Command::Terminate)
            ++updates;
    });
    connected.get_future().wait();
    for (int i = 0; i < 5000; ++i)
        EXPECT_TRUE(thread.send(update_subscriptions));
    auto stopping = std::async(std::launch::async, [&] { thread.stop(); });
    EXPECT_EQ(stopping.wait_for(100ms), std::future_status::timeout);
    go.set_value();
    stopping.get();
    EXPECT_LT(updates, 5000);
}

TEST_F(AControlledThread, CanBeStoppedTwiceAndBeforeItStarted)
{
    thread.stop();
    thread.start("tarn-test", [] {});
    thread.stop();
    thread.stop();
}

TEST_F(AControlledThread, HasItsNameAsFarAsTheSystemTakesIt)
{
    std::promise<std::string> name;
    thread.start("tarn-test-of-a-long-name", [&] {
        char text[16] = {};
        pthread_getname_np(pthread_self(), text, sizeof text);
        name.set_value(text);
    });
    EXPECT_EQ(name.get_future().get(), "tarn-test-of-a-");
}

TEST_F(AControlledThread, WhoseEndpointIsTakenIsNotMade)
{
    EXPECT_THROW(ControlledThread(runtime->ctx(), endpoint), zmq::error_t);
}

TEST_F(AControlledThread, ThatCannotConnectSaysWhere)
{
    zmq::socket_t socket(*runtime->ctx(), zmq::socket_type::sub);
    EXPECT_FALSE(connect_control(socket, *slate::make_uri("nonsense://x"), nullptr));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "failed to connect to nonsense://x; "), 1u);
}

TEST_F(AControlledThread, IsWaitedForInFiftyPassesOfTwentyToAThousandMilliseconds)
{
    std::vector<std::int64_t> waits;
    int said = 0;
    EXPECT_FALSE(wait_until_listening([&] { ++said; },
                                      [&](const slate::Duration& time) {
                                          waits.push_back(time.to_milliseconds());
                                          return false;
                                      }));
    ASSERT_EQ(waits.size(), 50u);
    EXPECT_EQ(said, 50);
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < waits.size(); ++i) {
        EXPECT_EQ(waits[i], 20 * static_cast<std::int64_t>(i + 1));
        sum += waits[i];
    }
    EXPECT_EQ(sum, 25500);
    EXPECT_TRUE(wait_until_listening([] {}, [](const slate::Duration&) { return true; }));
}
} // namespace
