// SPDX-License-Identifier: Apache-2.0
// Servers and routers that are made with their routes.
#include "tarn/server.h"

#include <atomic>
#include <functional>
#include <future>
#include <ostream>
#include <set>
#include <thread>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using Routes = std::vector<std::shared_ptr<Route>>;

/// A way to make a service with its routes; the relay is that of the setting "relay", if there is one.
struct Maker {
    std::string name;
    std::function<std::shared_ptr<Server>(ZmqSubsystem&, const Endpoint& uri, const Routes&)> make;
    bool is_router = false;
};

std::ostream& operator<<(std::ostream& stream, const Maker& maker)
{
    return stream << maker.name;
}

Endpoint relay_of(const ZmqSubsystem& runtime)
{
    return slate::make_uri(runtime.settings()->get("relay", ""));
}

const std::vector<Maker> makers = {
    {"MakeServerOfOneThread",
     [](ZmqSubsystem& runtime, const Endpoint& uri, const Routes& routes) {
         return make_server(1, runtime.settings(), {uri}, relay_of(runtime), make_message_factory(), routes);
     }},
    {"MakeServerOfManyThreads",
     [](ZmqSubsystem& runtime, const Endpoint& uri, const Routes& routes) {
         return make_server(3, runtime.settings(), {uri}, relay_of(runtime), nullptr, routes);
     }},
    {"Serve", [](ZmqSubsystem& runtime, const Endpoint& uri,
                 const Routes& routes) { return runtime.serve(uri, routes); }},
    {"ServeOnManyThreads", [](ZmqSubsystem& runtime, const Endpoint& uri,
                              const Routes& routes) { return runtime.serve({uri}, routes, 3); }},
    {"MakeRouter",
     [](ZmqSubsystem& runtime, const Endpoint& uri, const Routes& routes) -> std::shared_ptr<Server> {
         return make_router(runtime.settings(), {uri}, relay_of(runtime), nullptr, "/nowhere", routes);
     },
     true},
    {"AddRouter",
     [](ZmqSubsystem& runtime, const Endpoint& uri, const Routes& routes) -> std::shared_ptr<Server> {
         return runtime.add_router({uri}, relay_of(runtime), "/nowhere", routes);
     },
     true},
};

class AService : public RuntimeTest, public ::testing::WithParamInterface<Maker> {
protected:
    std::shared_ptr<Server> make(const Routes& routes) { return GetParam().make(*runtime, uri, routes); }

    /// A route that answers a get with its name.
    static std::shared_ptr<TestRoute> named(const std::string& name)
    {
        auto route = make_test_route(name, "get", "/" + name);
        route->on_get = [name](Context& context) { context.reply.set_reply_text(name); };
        return route;
    }

    std::string answer_at(const std::string& path)
    {
        return make_client(uri)->get(path, nullptr, slate::Seconds(20))->text_or("none");
    }

    const Endpoint uri = scratch_endpoint();
};
INSTANTIATE_TEST_SUITE_P(Makers, AService, ::testing::ValuesIn(makers),
                         [](const auto& maker) { return maker.param.name; });

TEST_P(AService, HasItsRoutesAndTheIndexWhenItIsMade)
{
    const auto server = make({named("a"), named("b")});

    ASSERT_NE(server, nullptr);
    EXPECT_EQ(answer_at("/a"), "a");
    EXPECT_EQ(answer_at("/b"), "b");
    const std::string index = answer_at("/index");
    EXPECT_NE(index.find("/a"), std::string::npos) << index;
    EXPECT_NE(index.find("/b"), std::string::npos) << index;
    EXPECT_EQ(logs.count(slate::ErrorLevel), 0u);
}

TEST_P(AService, TakesFurtherRoutesLater)
{
    const auto server = make({named("a")});

    EXPECT_TRUE(server->add(named("b")));
    server->del("a");

    EXPECT_EQ(answer_at("/a"), "none");
    EXPECT_EQ(answer_at("/b"), "b");
}

TEST_P(AService, MayHaveNoRoutesYet)
{
    const auto server = make({});

    EXPECT_EQ(make_client(uri)->get("/a")->status(), Status::NotFound);
    EXPECT_NE(answer_at("/index"), "none");
}

/// Tells when it is primed, which is when it is added.
class PrimedRoute : public TestRoute {
public:
    using TestRoute::TestRoute;
    void prime(const std::shared_ptr<const slate::Dictionary>& server_settings) override
    {
        on_prime();
        TestRoute::prime(server_settings);
    }

    std::function<void()> on_prime;
};

TEST_P(AService, IsNotReachableBeforeAllItsRoutesAreIn)
{
    const auto last = std::make_shared<PrimedRoute>("last", "get", RoutePattern("/last"), Access::Public);
    last->on_get = [](Context& context) { context.reply.set_reply_text("last"); };
    std::shared_ptr<Reply> reply;
    last->on_prime = [&] {
        reply = make_client(uri, 0)->get("/last", nullptr, slate::Milliseconds(300));
        EXPECT_FALSE(std::filesystem::exists(uri->path())); // not bound
    };

    const auto server = make({named("a"), last});

    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->local_cause(), LocalCause::NoSuchEndpoint);
    EXPECT_EQ(answer_at("/last"), "last");
}

TEST_P(AService, IsNeverWithoutARouteForAClientThatHammersItWhileItStarts)
{
    std::atomic<int> answers{0};
    std::set<Status> seen;
    std::jthread hammer([&] {
        const auto client = make_client(uri, 0);
        while (answers < 20) {
            const auto reply = client->get("/last", nullptr, slate::Milliseconds(100));
            seen.insert(reply->status());
            answers += reply->is_local() ? 0 : 1;
        }
    });
    ASSERT_TRUE(wait_until([&] { return logs.count(slate::ErrorLevel, "request timeout") > 0; }));
    // Routes that take their time, so that the client would meet a server that has bound too early.
    Routes routes;
    for (int i = 0; i < 20; ++i) {
        const std::string name = "slow" + std::to_string(i);
        const auto slow =
            std::make_shared<PrimedRoute>(name, "get", RoutePattern("/" + name), Access::Public);
        slow->on_prime = [&] { (void)wait_until([&] { return answers > 0; }, 20ms); };
        routes.push_back(slow);
    }
    routes.push_back(named("last"));

    const auto server = make(routes);

    hammer.join();
    seen.erase(Status::RequestTimeout); // made by the client, while nobody had bound
    EXPECT_EQ(seen, std::set<Status>{Status::Ok});
}

TEST_P(AService, ServesTheRestIfARouteCannotBeAdded)
{
    const auto server = make({named("a"), nullptr, named("a"), named("index"), named("b")});

    ASSERT_NE(server, nullptr);
    EXPECT_EQ(answer_at("/a"), "a");
    EXPECT_EQ(answer_at("/b"), "b");
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot add route; it is null"), 1u);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot add route; duplicate name: a"), 1u);
}

TEST_P(AService, PassesOnWhatARouteThrowsWhenItIsPrimedAndLeavesTheEndpointFree)
{
    const Routes bad = {named("a"), make_test_route("site", "get", "/<site>/status")};
    EXPECT_THROW(make(bad), tarn::Exception); // no setting "site"

    EXPECT_EQ(providers("zmq.server"), 0u);
    EXPECT_EQ(providers("zmq.router"), 0u);
    EXPECT_TRUE(runtime->servers().empty());

    logs.clear();
    settings->set("site", "here");
    const auto server = make(bad);
    EXPECT_EQ(answer_at("/a"), "a");
    EXPECT_EQ(make_client(uri)->get("/here/status")->status(), Status::NotImplemented);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "Failed to bind"), 0u);
}

TEST_P(AService, HasSubscribedToTheTopicsOfItsRoutesWhenItIsMade)
{
    const auto relay = scratch_endpoint();
    settings->set("relay", std::string_view(relay->to_string()));
    settings->set("relay_pub", std::string_view(relay->to_string()));
    zmq::context_t context;
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.bind(relay->to_string());
    std::promise<std::string> heard;
    const auto route = make_test_route("status", "get", "/status/:name");
    route->on_put = [&](Context& change) {
        heard.set_value(change.variable("name") + "=" + change.request.data());
    };

    const auto server = make({named("a"), route});

    // What it told the relay: to subscribe, once for each topic and nothing else.
    std::multiset<std::string> topics;
    while (topics.size() < 3) {
        ASSERT_TRUE(is_readable(publisher, 20s));
        topics.insert(receive_frames(publisher).at(0));
    }
    EXPECT_EQ(topics, (std::multiset<std::string>{"\x01/a", "\x01/index", "\x01/status"}));
    send_frames(publisher, {"/status", factory()->make_put("/status/cpu", "42")->SerializeAsString()});
    EXPECT_EQ(heard.get_future().get(), "cpu=42");
}

TEST_P(AService, RunsWithTheDefaultAndOneErrorIfItsSessionTtlIsNotADuration)
{
    settings->set("session_ttl", "a while");

    const auto server = make({named("a")});

    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>{"setting is not a duration: session_ttl = a while"});
    EXPECT_EQ(answer_at("/a"), "a");
}

TEST_P(AService, IsNotMadeAtAnEndpointThatIsNull)
{
    EXPECT_EQ(GetParam().make(*runtime, nullptr, {named("a")}), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, GetParam().is_router ? "cannot make_router, an endpoint is null"
                                                                 : "cannot make_server, an endpoint is null"),
              1u);
}

class TheService : public RuntimeTest {};

TEST_F(TheService, IsKeptByTheLibraryThatServesIt)
{
    const auto server = runtime->serve(scratch_endpoint(), {make_test_route("a", "get", "/a")});
    const auto router =
        runtime->add_router({scratch_endpoint()}, nullptr, "/nowhere", {make_test_route("b", "get", "/b")});

    EXPECT_EQ(runtime->servers(), (std::vector<std::shared_ptr<Server>>{server, router}));
}

TEST_F(TheService, IsNotMadeOnceTheLibraryIsDown)
{
    runtime.reset();
    const Routes routes = {make_test_route("a", "get", "/a")};
    const auto uri = scratch_endpoint();

    EXPECT_EQ(make_server(1, settings, {uri}, nullptr, factory(), routes), nullptr);
    EXPECT_EQ(make_server(2, settings, {uri}, nullptr, factory(), routes), nullptr);
    EXPECT_EQ(make_router(settings, {uri}, nullptr, factory(), "/nowhere", routes), nullptr);

    EXPECT_EQ(logs.count(slate::ErrorLevel), 3u);
}

TEST_F(TheService, IsServedAtAllItsEndpoints)
{
    const auto first = scratch_endpoint();
    const auto second = scratch_endpoint();
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context& context) { context.reply.set_reply_text("a"); };

    runtime->serve({first, second}, {route});

    for (const auto& uri : {first, second})
        EXPECT_EQ(make_client(uri)->get("/a")->text_or("none"), "a");
}

TEST_F(TheService, RunsRoutesSideBySideOnSeveralWorkers)
{
    // Each handler waits for the other one.
    std::promise<void> a_runs;
    std::promise<void> b_runs;
    const auto a = make_test_route("a", "get", "/a");
    const auto b = make_test_route("b", "get", "/b");
    std::atomic<bool> a_saw_b{false};
    a->on_get = [&](Context& context) {
        a_runs.set_value();
        a_saw_b = b_runs.get_future().wait_for(20s) == std::future_status::ready;
        context.reply.set_reply_text("a");
    };
    b->on_get = [&](Context& context) {
        b_runs.set_value();
        context.reply.set_reply_text("b");
    };
    const auto uri = scratch_endpoint();
    runtime->serve(uri, {a, b}, 2);

    auto first = std::async(std::launch::async, [&] {
        return make_client(uri)->get("/a", nullptr, slate::Seconds(30))->text_or("none");
    });
    a_runs.get_future().wait();
    EXPECT_EQ(make_client(uri)->get("/b", nullptr, slate::Seconds(30))->text_or("none"), "b");

    EXPECT_EQ(first.get(), "a");
    EXPECT_TRUE(a_saw_b);
}
} // namespace
