// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/multi_threaded_server.h"

#include <future>

#include <unistd.h>

#include "support/gate.h"
#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace std::string_literals;
using namespace tarn;
using namespace tarn_test;
using tarn_internal::make_multi_threaded_server;
using tarn_internal::MultiThreadedServer;

class AMultiThreadedServer : public RuntimeTest {
protected:
    static constexpr int id = 4713;

    std::shared_ptr<Server> make(unsigned long workers,
                                 const std::shared_ptr<const slate::Uri>& pubsub_uri = nullptr)
    {
        return make_multi_threaded_server(id, workers, settings, {uri}, pubsub_uri, factory());
    }

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
};

TEST_F(AMultiThreadedServer, IsNotMadeWithoutTheLibrary)
{
    runtime.reset();
    EXPECT_EQ(make(2), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_server, tarn not / no longer initialized"));
}

TEST_F(AMultiThreadedServer, IsNotMadeWithFewerThanTwoWorkers)
{
    EXPECT_EQ(make(0), nullptr);
    EXPECT_EQ(make(1), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot make_server, invalid number of workers specified"), 2u);
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_F(AMultiThreadedServer, LogsItsThreads)
{
    slate::set_log_level(slate::DebugLevel);
    make(2, scratch_endpoint()).reset();

    for (const std::string thread : {"router", "pub/sub"}) {
        EXPECT_EQ(logs.count(slate::DebugLevel, thread + " thread entry"), 1u);
        EXPECT_EQ(logs.count(slate::DebugLevel, thread + " thread exit"), 1u);
    }
    EXPECT_EQ(logs.count(slate::DebugLevel, "worker thread entry"), 2u);
    EXPECT_EQ(logs.count(slate::DebugLevel, "worker thread exit"), 2u);
}

TEST_F(AMultiThreadedServer, KeepsNoStatisticOfItsTime)
{
    const auto server = make(2);
    for (const auto& shown : slate::snapshot())
        EXPECT_TRUE(shown.statistics.empty());
}

TEST_F(AMultiThreadedServer, RunsHandlersOfDifferentRoutesSideBySide)
{
    const auto server = make(2);
    Gate gate;
    for (const std::string name : {"a", "b"}) {
        const auto route = make_test_route(name, "get", "/" + name);
        route->on_get = [&](Context&) { gate.pass(); };
        server->add(route);
    }
    // Requests are handed out in turn, so the two go to different workers.
    auto a = std::async(std::launch::async, [&] { return make_client(uri)->get("/a")->status(); });
    auto b = std::async(std::launch::async, [&] { return make_client(uri)->get("/b")->status(); });

    EXPECT_TRUE(gate.await(2));
    gate.open();
    EXPECT_EQ(a.get(), Status::NoContent);
    EXPECT_EQ(b.get(), Status::NoContent);
}

TEST_F(AMultiThreadedServer, RunsHandlersOfOneRouteOneAtATime)
{
    const auto server = make(2);
    Gate gate;
    const auto route = make_test_route("a", "get,put", "/a");
    route->on_get = route->on_put = [&](Context&) { gate.pass(); };
    server->add(route);
    auto first = std::async(std::launch::async, [&] { return make_client(uri)->get("/a")->status(); });
    ASSERT_TRUE(gate.await(1));
    auto second = std::async(std::launch::async, [&] { return make_client(uri)->put("/a", "x")->status(); });

    EXPECT_FALSE(gate.await(2, 200ms));
    gate.open();
    EXPECT_EQ(first.get(), Status::NoContent);
    EXPECT_EQ(second.get(), Status::NoContent);
}

TEST_F(AMultiThreadedServer, HandsRequestsToFreeWorkersOnly)
{
    const auto server = make(3);
    Gate gate;
    for (const std::string name : {"slow", "slower"}) {
        const auto route = make_test_route(name, "get", "/" + name);
        route->on_get = [&](Context&) { gate.pass(); };
        server->add(route);
    }
    const auto ask_slow = [&](const char* path) { return make_client(uri)->get(path)->status(); };
    auto slow = std::async(std::launch::async, ask_slow, "/slow");
    auto slower = std::async(std::launch::async, ask_slow, "/slower");
    ASSERT_TRUE(gate.await(2));

    // One worker is left, which gets them all.
    {
        std::vector<std::jthread> clients;
        std::atomic<int> answered{0};
        for (int t = 0; t < 4; ++t)
            clients.emplace_back([&] {
                const auto client = make_client(uri);
                for (int i = 0; i < 50; ++i)
                    answered += client->get("/index")->good() ? 1 : 0;
            });
        EXPECT_TRUE(wait_until([&] { return answered == 200; }));
    }
    gate.open();
    EXPECT_EQ(slow.get(), Status::NoContent);
    EXPECT_EQ(slower.get(), Status::NoContent);
}

TEST_F(AMultiThreadedServer, AnswersWhatWaitedWhileAllWorkersWereBusy)
{
    const auto server = make(2);
    Gate gate;
    for (int i = 0; i < 2; ++i) {
        const auto route = make_test_route(std::to_string(i), "get", "/" + std::to_string(i));
        route->on_get = [&](Context&) { gate.pass(); };
        server->add(route);
    }
    RawPeer peer(uri, zmq::socket_type::dealer);
    for (int i = 0; i < 2; ++i)
        peer.send({"", factory()->make_get("/" + std::to_string(i))->SerializeAsString()});
    ASSERT_TRUE(gate.await(2));
    for (int i = 0; i < 100; ++i)
        peer.send({"", factory()->make_get("/index")->SerializeAsString()});

    EXPECT_FALSE(peer.receive(100ms).has_value());
    gate.open();
    for (int i = 0; i < 102; ++i)
        EXPECT_TRUE(peer.receive().has_value()) << i;
}

TEST_F(AMultiThreadedServer, SendsRepliesAtOnceWhileItWaitsForASlowHandlerToEnd)
{
    auto server = make(2);
    Gate first;
    Gate second;
    const auto add = [&](const std::string& name, Gate& gate) {
        const auto route = make_test_route(name, "get", "/" + name);
        route->on_get = [&](Context&) { gate.pass(); };
        server->add(route);
    };
    add("first", first);
    add("second", second);
    const auto ask = [&](const char* path) { return make_client(uri)->get(path)->status(); };
    auto one = std::async(std::launch::async, ask, "/first");
    auto other = std::async(std::launch::async, ask, "/second");
    ASSERT_TRUE(first.await(1));
    ASSERT_TRUE(second.await(1));

    auto ending = std::async(std::launch::async, [&] { server.reset(); });
    EXPECT_EQ(ending.wait_for(100ms), std::future_status::timeout);
    first.open();
    EXPECT_EQ(one.get(), Status::NoContent);
    EXPECT_EQ(ending.wait_for(0ms), std::future_status::timeout);
    second.open();
    EXPECT_EQ(other.get(), Status::NoContent);
    ending.get();
}

TEST_F(AMultiThreadedServer, RunsRemoteCallsSideBySideTheSameFunctionIncluded)
{
    const auto server = make(2);
    Gate gate;
    server->suppress_add_remote_call_warning();
    server->add(1u, [&](Message&) { gate.pass(); });
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(1);
    const auto ask = [&] { return RawPeer(uri).exchange(call.SerializeAsString()).size(); };
    auto first = std::async(std::launch::async, ask);
    auto second = std::async(std::launch::async, ask);

    EXPECT_TRUE(gate.await(2));
    gate.open();
    first.wait();
    second.wait();
}

TEST_F(AMultiThreadedServer, FinishesTheHandlerInHandBeforeItEnds)
{
    auto server = make(2);
    Gate gate;
    std::atomic<bool> finished{false};
    const auto route = make_test_route("slow", "get", "/slow");
    route->on_get = [&](Context&) {
        gate.pass();
        finished = true;
    };
    server->add(route);
    RawPeer peer(uri);
    peer.send(factory()->make_get("/slow")->SerializeAsString());
    ASSERT_TRUE(gate.await(1));

    auto ending = std::async(std::launch::async, [&] { server.reset(); });
    EXPECT_EQ(ending.wait_for(100ms), std::future_status::timeout);
    gate.open();
    ending.get();
    EXPECT_TRUE(finished);
}

// A change of the group goes to every thread of the process by a signal that no thread can block.
TEST_F(AMultiThreadedServer, IsNotDisturbedBySignalsThatCannotBeBlocked)
{
    const auto server = make(2, scratch_endpoint());
    const auto client = make_client(uri, 0);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(setgid(getgid()), 0);
        EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    }
    EXPECT_EQ(counter("zmq.server", std::to_string(id), "err"), 0u);
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_F(AMultiThreadedServer, CanBeStoppedTwiceAndServesNoMore)
{
    const auto server = std::make_shared<MultiThreadedServer>(id, runtime->ctx(), settings, std::vector{uri},
                                                              factory(), nullptr, 2);
    const auto client = make_client(uri, 0);
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);

    server->stop();
    EXPECT_FALSE(std::filesystem::exists(uri->path()));
    server->stop();

    EXPECT_EQ(client->get("/index", nullptr, slate::Milliseconds(100))->status(), Status::RequestTimeout);
    EXPECT_TRUE(server->add(make_test_route("a", "get", "/a")));
}

TEST_F(AMultiThreadedServer, EndsAtOnceHoweverSoonItIsDestroyed)
{
    uri = scratch_endpoint("inproc");
    for (int i = 0; i < 200; ++i)
        make(2).reset();
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_F(AMultiThreadedServer, SaysNothingOfSubscriptionsWithoutARelay)
{
    slate::set_log_level(slate::DebugLevel);
    const auto server = make(2);
    server->add(make_test_route("a", "get", "/a"));
    server->del("a");
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 0u);

    uri = scratch_endpoint();
    const auto hearing = make(2, scratch_endpoint());
    hearing->add(make_test_route("a", "get", "/a"));
    hearing->del("unknown");
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 2u);
    hearing->clear();
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 2u);
}

TEST_F(AMultiThreadedServer, WhoseEndpointIsTakenReportsItAfterItsPatienceAndLivesOnWithoutServing)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.bind("tcp://127.0.0.1:*");
    uri = slate::make_uri(holder.get(zmq::sockopt::last_endpoint));

    const auto start = std::chrono::steady_clock::now();
    auto server = make(2);

    ASSERT_NE(server, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 25s);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "Failed to bind rx socket: Address already in use"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "worker thread failed to start in expected timeframe"));
    server.reset();
}

// What a device does all day, all at once; for the thread sanitizer above all.
TEST_F(AMultiThreadedServer, BearsClientsUploadsChangesAndRoutesThatComeAndGoAtOnce)
{
    const auto pub = scratch_endpoint();
    const auto server = make(4, pub);
    std::atomic<int> changes{0};
    for (const std::string name : {"a", "b"}) {
        const auto route = make_test_route(name, "get,put", "/" + name);
        route->on_get = [](Context& context) { context.reply.set_reply_text("x"); };
        route->on_put = [&](Context& context) {
            if (context.reply.message)
                context.reply.set_reply_text(std::to_string(context.request.data().size()));
            else
                ++changes;
        };
        server->add(route);
    }
    const auto publisher = make_publisher(pub);
    std::atomic<bool> stop{false};
    std::jthread publishing([&] {
        while (!stop)
            publisher->put("/a", "x");
    });
    std::atomic<int> rounds{0};
    std::jthread changing([&] {
        while (!stop) {
            server->add(make_test_route("c", "get", "/c/:id"));
            server->del("c");
            ++rounds;
        }
    });

    std::atomic<int> right{0};
    {
        std::vector<std::jthread> clients;
        for (int t = 0; t < 8; ++t) {
            clients.emplace_back([&, t] {
                const auto client = make_client(uri);
                for (int i = 0; i < 5; ++i) {
                    right += client->get("/a", nullptr, slate::Seconds(30))->good() ? 1 : 0;
                    // One of them is beyond what stays in memory.
                    const std::size_t size = t == 0 ? (11 << 20) + 1 : 3 << 19;
                    std::istringstream body(std::string(size, 'u'));
                    const auto reply =
                        client->put(t % 2 ? "/a" : "/b", body, slate::make_dictionary(), slate::Seconds(30));
                    right += reply->good() && reply->data() == std::to_string(size) ? 1 : 0;
                    right += client->get("/index", nullptr, slate::Seconds(30))->good() ? 1 : 0;
                }
            });
        }
    }
    EXPECT_TRUE(wait_until([&] { return changes > 0 && rounds > 0; }));
    stop = true;
    EXPECT_EQ(right, 8 * 5 * 3);
}
TEST_F(AMultiThreadedServer, EndsAndAnswersWhileAFloodWaitsBehindBusyWorkers)
{
    auto server = make(2);
    Gate gate;
    for (int i = 0; i < 2; ++i) {
        const auto route = make_test_route("wait" + std::to_string(i), "get", "/wait" + std::to_string(i));
        route->on_get = [&](Context&) { gate.pass(); };
        server->add(route);
    }
    RawPeer first(uri, zmq::socket_type::dealer);
    for (int i = 0; i < 2; ++i)
        first.send({"", factory()->make_get("/wait" + std::to_string(i))->SerializeAsString()});
    ASSERT_TRUE(gate.await(2));

    RawPeer flood(uri, zmq::socket_type::dealer);
    const std::string request = factory()->make_get("/index")->SerializeAsString();
    EXPECT_LT(flood.send_until_full([&](int) { return std::vector{""s, request}; }), 100000);

    // Told to end while all is full, and released only then.
    auto ending = std::async(std::launch::async, [&] { server.reset(); });
    EXPECT_EQ(ending.wait_for(100ms), std::future_status::timeout);
    gate.open();
    EXPECT_EQ(ending.wait_for(20s), std::future_status::ready);
}
} // namespace
