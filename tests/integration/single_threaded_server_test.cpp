// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/single_threaded_server.h"

#include <filesystem>
#include <future>

#include <sys/stat.h>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using tarn_internal::make_single_threaded_server;

class ASingleThreadedServer : public RuntimeTest {
protected:
    static constexpr int id = 4711;

    std::shared_ptr<Server> make(std::vector<std::shared_ptr<const slate::Uri>> uris,
                                 const std::shared_ptr<const slate::Uri>& pubsub_uri = nullptr)
    {
        return make_single_threaded_server(id, settings, uris, pubsub_uri, factory());
    }

    std::optional<std::uint64_t> counted(const std::string& name)
    {
        return counter("zmq.server", std::to_string(id), name);
    }

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
};

TEST_F(ASingleThreadedServer, IsNotMadeWithoutTheLibrary)
{
    runtime.reset();

    EXPECT_EQ(make({uri}), nullptr);
    const auto lines = logs.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "cannot make_server, tarn not / no longer initialized");
    EXPECT_EQ(lines[0].level, slate::ErrorLevel);
    EXPECT_EQ(lines[0].provider, "");
}

TEST_F(ASingleThreadedServer, LogsItsEndpointsAndItsThread)
{
    slate::set_log_level(slate::ExtremeLevel);
    make({uri}).reset();

    EXPECT_TRUE(logs.has(slate::DebugLevel, "thread entry"));
    EXPECT_TRUE(logs.has(slate::VerboseLevel, "bind: " + uri->to_string()));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "thread exit"));
}

TEST_F(ASingleThreadedServer, WithoutEndpointsCountsNoRequests)
{
    const auto server = make({});
    EXPECT_EQ(counted("err"), 0u);
    EXPECT_EQ(counted("rx"), std::nullopt);
    EXPECT_EQ(counted("tx"), std::nullopt);
}

TEST_F(ASingleThreadedServer, WithNeitherEndpointsNorRelayStartsTakesRoutesAndEnds)
{
    auto server = make({});
    EXPECT_TRUE(server->add(make_test_route("a", "get", "/a")));
    server.reset();
    EXPECT_EQ(logs.count(slate::WarnLevel), 0u);
}

TEST_F(ASingleThreadedServer, WhoseEndpointIsTakenWarnsAfterItsPatienceAndLivesOnWithoutServing)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.bind("tcp://127.0.0.1:*");
    const auto taken = slate::make_uri(holder.get(zmq::sockopt::last_endpoint));

    const auto start = std::chrono::steady_clock::now();
    auto server = make({taken});

    ASSERT_NE(server, nullptr);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 25s);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "Failed to bind rx socket: Address already in use"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot serve at " + taken->to_string()));
    EXPECT_TRUE(logs.has(slate::WarnLevel, "worker thread failed to start in expected timeframe"));
    EXPECT_TRUE(server->add(make_test_route("a", "get", "/a")));
    server.reset();
}

TEST_F(ASingleThreadedServer, RecordsHowLongItTakesToHandleAMessage)
{
    const auto server = make({uri});
    make_client(uri)->get("/a");

    const auto recorded = [&]() -> std::uint64_t {
        for (const auto& shown : slate::snapshot()) {
            if (shown.name == "zmq.server" && !shown.statistics.empty()) {
                EXPECT_EQ(shown.statistics[0].name, "handle_ms");
                EXPECT_EQ(shown.statistics[0].buckets.size(), 100u);
                return shown.statistics[0].count;
            }
        }
        return 0;
    };
    EXPECT_TRUE(wait_until([&] { return recorded() >= 1; }));
}

TEST_F(ASingleThreadedServer, TellsItsListenerOfEachAddAndDelAlsoOfAnUnknownName)
{
    slate::set_log_level(slate::DebugLevel);
    const auto server = make({uri});
    logs.clear();

    server->add(make_test_route("a", "get", "/a"));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "add route: a"));
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 1u);

    server->del("a");
    EXPECT_TRUE(logs.has(slate::DebugLevel, "del route: a"));
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 2u);

    server->del("unknown");
    EXPECT_EQ(logs.count(slate::DebugLevel, "del route: "), 1u);
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 3u);

    server->clear();
    EXPECT_EQ(logs.count(slate::DebugLevel, "try to reload subscriptions"), 3u);
}

TEST_F(ASingleThreadedServer, RunsHandlersOneAtATimeWhateverTheNumberOfClients)
{
    const auto server = make({uri});
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    for (const std::string name : {"a", "b"}) {
        const auto route = make_test_route(name, "get", "/" + name);
        route->on_get = [&](Context& context) {
            most = std::max(most.load(), ++running);
            context.reply.set_reply_text("x");
            --running;
        };
        server->add(route);
    }
    {
        std::vector<std::jthread> clients;
        for (int t = 0; t < 4; ++t) {
            clients.emplace_back([&, t] {
                const auto client = make_client(uri);
                for (int i = 0; i < 50; ++i)
                    client->get(t % 2 ? "/a" : "/b", nullptr, slate::Seconds(30));
            });
        }
    }
    EXPECT_EQ(most, 1);
    EXPECT_EQ(counted("rx"), 200u);
}

TEST_F(ASingleThreadedServer, FinishesTheRequestInHandBeforeItEnds)
{
    auto server = make({uri});
    std::promise<void> entered;
    std::promise<void> go;
    const auto route = make_test_route("slow", "get", "/slow");
    route->on_get = [&](Context& context) {
        entered.set_value();
        go.get_future().wait();
        context.reply.set_reply_text("done");
    };
    server->add(route);

    auto reply = std::async(std::launch::async, [&] { return make_client(uri)->get("/slow"); });
    entered.get_future().wait();
    auto ending = std::async(std::launch::async, [&] { server.reset(); });
    EXPECT_EQ(ending.wait_for(100ms), std::future_status::timeout);
    go.set_value();

    ending.get();
    EXPECT_EQ(reply.get()->data(), "done");
}

} // namespace
