// SPDX-License-Identifier: Apache-2.0
// What stands behind a router and a server with many threads: the front, the dispatcher and its workers.
#include "tarn/internal/transport/dispatcher.h"

#include <future>

#include <unistd.h>

#include "support/gate.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/internal/transport/controlled_thread.h"
#include "tarn/internal/transport/workers.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using namespace tarn_internal;
using Frames = std::vector<std::string>;

class ADispatcher : public RuntimeTest {
protected:
    /// Runs a dispatcher with so many workers until the end of the test.
    void start(std::size_t count, const Workers::Serve& serve)
    {
        std::promise<std::size_t> ready;
        thread.start("tarn-test", [this, count, serve, &ready] {
            zmq::socket_t control(*runtime->ctx(), zmq::socket_type::sub);
            Front front(*runtime->ctx(), *settings);
            Dispatcher dispatcher(*runtime->ctx(), front, nullptr);
            ASSERT_TRUE(front.bind({uri}, "rx", nullptr));
            ASSERT_TRUE(dispatcher.bind(*back));
            ASSERT_TRUE(connect_control(control, thread.endpoint(), nullptr));
            Workers workers;
            workers.start(count, "tarn-test", *runtime->ctx(), back, serve, nullptr);
            const auto connected = workers.wait_for_all();
            ready.set_value(connected);
            dispatcher.run(control, connected, "test");
        });
        ASSERT_EQ(ready.get_future().get(), count);
    }

    /// Answers each request with what `answer` gives for it; null for no answer.
    static Workers::Serve answering(std::function<std::optional<std::string>(const IncomingRequest&)> answer)
    {
        return [answer](WorkerSocket& socket) {
            while (auto request = socket.next()) {
                if (const auto text = answer(*request)) {
                    zmq::message_t reply(*text);
                    socket.reply(*request, reply);
                }
            }
        };
    }

    const Endpoint uri = scratch_endpoint();
    const Endpoint back = scratch_endpoint("inproc");
    ControlledThread thread{runtime->ctx(), scratch_endpoint("inproc")};
};

TEST_F(ADispatcher, HandsEachRequestToOneWorkerAndItsReplyToTheSender)
{
    start(3, answering([](const IncomingRequest& request) { return request.payload.to_string() + "!"; }));
    RawPeer one(uri);
    RawPeer other(uri);
    for (int i = 0; i < 100; ++i) {
        const auto text = std::to_string(i);
        one.send("one " + text);
        other.send("other " + text);
        EXPECT_EQ(other.receive(), Frames{"other " + text + "!"});
        EXPECT_EQ(one.receive(), Frames{"one " + text + "!"});
    }
}

TEST_F(ADispatcher, TellsTheWorkerWhoAsks)
{
    start(2, answering([](const IncomingRequest& request) { return request.peer_address; }));
    const std::string process =
        ":" + std::to_string(getuid()) + ":" + std::to_string(getgid()) + ":" + std::to_string(getpid());
    EXPECT_TRUE(RawPeer(uri).exchange("x").ends_with(process));
}

TEST_F(ADispatcher, WarnsAboutAMessageThatNobodyCanAnswer)
{
    start(1, answering([](const IncomingRequest& request) { return request.payload.to_string(); }));
    RawPeer peer(uri, zmq::socket_type::dealer);
    peer.send(Frames{"no delimiter"});
    peer.send(Frames{""});
    peer.send(Frames{"", "x"});
    EXPECT_EQ(peer.receive(), (Frames{"", "x"}));
    EXPECT_EQ(logs.count(slate::WarnLevel, "failed to read request from client"), 2u);
}

TEST_F(ADispatcher, GivesAWorkerThatDropsARequestTheNextOne)
{
    start(1, answering([](const IncomingRequest& request) {
              const auto text = request.payload.to_string();
              return text == "rubbish" ? std::nullopt : std::optional(text);
          }));
    for (int i = 0; i < 10; ++i)
        RawPeer(uri).send("rubbish");
    EXPECT_EQ(RawPeer(uri).exchange("x"), "x");
}

TEST_F(ADispatcher, TakesTheWorkerThatHasBeenFreeLongest)
{
    std::mutex mutex;
    std::vector<std::thread::id> order;
    start(3, answering([&](const IncomingRequest&) {
              const std::lock_guard lock(mutex);
              order.push_back(std::this_thread::get_id());
              return "x";
          }));
    RawPeer peer(uri);
    for (int i = 0; i < 9; ++i)
        (void)peer.exchange("x");
    const std::lock_guard lock(mutex);
    for (std::size_t i = 3; i < order.size(); ++i)
        EXPECT_EQ(order[i], order[i - 3]);
    EXPECT_EQ(std::set<std::thread::id>(order.begin(), order.end()).size(), 3u);
}

TEST_F(ADispatcher, GoesOnWithoutAWorkerThatHasEnded)
{
    std::atomic<bool> first{true};
    start(2, [&](WorkerSocket& socket) {
        while (auto request = socket.next()) {
            socket.reply(*request, request->payload);
            if (first.exchange(false))
                return;
        }
    });
    RawPeer peer(uri);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(peer.exchange("x"), "x");
}

TEST_F(ADispatcher, TellsABusyWorkerThatTheEndHasCome)
{
    std::promise<void> busy;
    start(2, [&](WorkerSocket& socket) {
        while (auto request = socket.next()) {
            busy.set_value();
            zmq::message_t reply(std::string(is_readable(socket.end(), 20s) ? "ended" : "not told"));
            socket.reply(*request, reply);
        }
    });
    RawPeer peer(uri);
    peer.send("x");
    busy.get_future().wait();
    thread.stop();
    EXPECT_EQ(peer.receive(), Frames{"ended"});
}

TEST_F(ADispatcher, EndsAtOnceHoweverSoonItIsTold)
{
    for (int i = 0; i < 200; ++i) {
        ControlledThread own(runtime->ctx(), scratch_endpoint("inproc"));
        const Endpoint workers_at = scratch_endpoint("inproc");
        own.start("tarn-test", [&] {
            zmq::socket_t control(*runtime->ctx(), zmq::socket_type::sub);
            Front front(*runtime->ctx(), *settings);
            Dispatcher dispatcher(*runtime->ctx(), front, nullptr);
            ASSERT_TRUE(dispatcher.bind(*workers_at) && connect_control(control, own.endpoint(), nullptr));
            Workers workers;
            workers.start(
                3, "tarn-test", *runtime->ctx(), workers_at,
                [](WorkerSocket& socket) {
                    while (socket.next()) {
                    }
                },
                nullptr);
            dispatcher.run(control, workers.wait_for_all(), "test");
        });
        own.stop();
    }
}

TEST_F(ADispatcher, HasWhatStoppedItInTheLog)
{
    zmq::context_t context;
    Front front(context, *settings);
    Dispatcher dispatcher(context, front, nullptr);
    zmq::socket_t control(context, zmq::socket_type::sub);
    context.shutdown();
    dispatcher.run(control, 1, "test dispatcher");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "test dispatcher has stopped working: Context was terminated"));
}

TEST_F(ADispatcher, HasInTheLogThatAllItsWorkersHaveEnded)
{
    start(2, [](WorkerSocket& socket) {
        while (auto request = socket.next()) {
            socket.reply(*request, request->payload);
            return;
        }
    });
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(RawPeer(uri).exchange("x"), "x");
    EXPECT_TRUE(wait_until(
        [&] { return logs.has(slate::ErrorLevel, "test has stopped working: it has no workers"); }));
}

TEST_F(ADispatcher, ReportsAnEndpointThatCannotBeBound)
{
    Front front(*runtime->ctx(), *settings);
    Dispatcher first(*runtime->ctx(), front, nullptr);
    Dispatcher second(*runtime->ctx(), front, nullptr);
    EXPECT_TRUE(first.bind(*back));
    EXPECT_FALSE(second.bind(*back));
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>{"Failed to bind dealer socket: Address already in use"});
}

TEST_F(ADispatcher, WaitsForItsWorkersAlsoForThoseThatGiveUp)
{
    Workers workers;
    workers.start(5, "tarn-test", *runtime->ctx(), slate::make_uri("nonsense://x"), {}, nullptr);
    EXPECT_EQ(workers.wait_for_all(), 0u);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "Failed to connect dealer socket: Protocol not supported"), 5u);
}
} // namespace
