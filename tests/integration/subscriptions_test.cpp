// SPDX-License-Identifier: Apache-2.0
#include <future>
#include <set>

#include "support/server_kinds.h"
#include "tarn/internal/utils/parse.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

/// A server that hears what a raw publisher puts out, and whose subscriptions that publisher sees.
class ASubscription : public ServerTest {
protected:
    ASubscription()
    {
        publisher.set(zmq::sockopt::linger, 0);
        publisher.set(zmq::sockopt::sndhwm, 0);
        // Repeated subscriptions are passed on as well.
        publisher.set(zmq::sockopt::xpub_verboser, 1);
        publisher.bind(pub_uri->to_string());
        server = make({uri}, pub_uri);
    }

    /// Takes the subscription frames that have come, until a topic is subscribed, or no longer.
    void await(char action, const std::string& topic)
    {
        for (;;) {
            ASSERT_TRUE(is_readable(publisher, 20s)) << topic;
            const std::string frame = receive_frames(publisher).at(0);
            seen.push_back(frame);
            if (frame == action + topic)
                return;
        }
    }
    void await_subscribed(const std::string& topic) { await('\x01', topic); }
    void await_unsubscribed(const std::string& topic) { await('\x00', topic); }

    void publish(const std::string& topic, const std::string& payload)
    {
        send_frames(publisher, {topic, payload});
    }
    void publish(const std::shared_ptr<Message>& message)
    {
        publish(tarn_internal::to_topic(tarn_internal::find_head(*message)->path()),
                message->SerializeAsString());
    }

    /// A route that notes down what it hears.
    std::shared_ptr<TestRoute> hearing_route(const std::string& name, const std::string& pattern)
    {
        const auto route = make_test_route(name, "get", pattern);
        route->on_put = [this, name](Context& context) {
            heard.add(name + " put " + context.request.data());
        };
        route->on_del = [this, name](Context&) { heard.add(name + " del"); };
        return route;
    }

    bool will_have_heard(const std::vector<std::string>& entries)
    {
        return wait_until([&] { return heard.entries() == entries; });
    }

    std::shared_ptr<const slate::Uri> pub_uri = scratch_endpoint();
    zmq::context_t zmq_context;
    zmq::socket_t publisher{zmq_context, zmq::socket_type::xpub};
    Journal heard;
    std::vector<std::string> seen;
    std::shared_ptr<Server> server;
};
INSTANTIATE_SERVER_KINDS(ASubscription);

// --- Which topics ------------------------------------------------------------------------------------

TEST_P(ASubscription, IsMadeForTheIndexFirstAndThenForEachRoute)
{
    await_subscribed("/index");
    server->add(make_test_route("a", "get", "/a/b/:c"));
    await_subscribed("/a");
    server->add(
        std::make_shared<TestRoute>("b", "", std::vector<RoutePattern>{"/x", "/y/z"}, Access::Private));
    await_subscribed("/x");
    await_subscribed("/y");
    server->del("a");
    await_unsubscribed("/a");
}

TEST_P(ASubscription, StaysWhileAnyRouteNeedsItsTopic)
{
    server->add(make_test_route("a", "get", "/shared/a"));
    await_subscribed("/shared");
    server->add(make_test_route("b", "get", "/shared/b"));
    server->del("a");
    server->add(make_test_route("last", "get", "/last"));
    await_subscribed("/last");
    EXPECT_EQ(std::count(seen.begin(), seen.end(), "\x01/shared"), 1);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), std::string("\x00/shared", 8)), 0);
}

TEST_P(ASubscription, ToEverythingIsInPlaceBeforeTheSingleTopicsGoAndTheOtherWayRound)
{
    await_subscribed("/index");
    server->add(make_test_route("a", "get", "/a"));
    await_subscribed("/a");
    seen.clear();

    server->add(make_test_route("all", "get", ""));
    await_unsubscribed("/index");
    EXPECT_EQ(seen.front(), "\x01");

    seen.clear();
    server->del("all");
    await_unsubscribed("");
    EXPECT_EQ(seen, (std::vector<std::string>{"\x01/a", "\x01/index", std::string(1, '\0')}));
}

TEST_P(ASubscription, ToEverythingStaysAsItIsWhenRoutesChangeBelowIt)
{
    server->add(make_test_route("all", "get", ""));
    await_subscribed("");
    await_unsubscribed("/index");
    seen.clear();
    server->add(make_test_route("a", "get", "/a"));
    server->del("a");
    server->add(make_test_route("b", "get", "/b"));
    server->del("all");
    await_unsubscribed("");
    EXPECT_EQ(seen, (std::vector<std::string>{"\x01/b", "\x01/index", std::string(1, '\0')}));
}

TEST_P(ASubscription, OutlivesAClearUntilTheNextChangeOfRoutes)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    server->clear();

    publish(factory()->make_put("/a", "x"));
    EXPECT_TRUE(will_have_counted("dropped", 1));
    EXPECT_EQ(counted("sub"), 1u);
    server->del("anything");
    await_unsubscribed("/a");
}

TEST_P(ASubscription, IsLogged)
{
    slate::set_log_level(slate::DebugLevel);
    server.reset();
    server = make({uri}, pub_uri);
    EXPECT_TRUE(logs.has(slate::VerboseLevel, "listen (pub/sub): " + pub_uri->to_string()));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "subscribing to /index"));
    server->add(make_test_route("a", "get", "/a"));
    EXPECT_TRUE(wait_until([&] { return logs.has(slate::DebugLevel, "subscribing to /a"); }));
    server->del("a");
    EXPECT_TRUE(wait_until([&] { return logs.has(slate::DebugLevel, "unsubscribing from /a"); }));
}

TEST_P(ASubscription, MeetsAPublishedChangeAlsoWhileOtherRoutesComeAndGo)
{
    const auto route = make_test_route("numbers", "get", "/numbers");
    std::mutex mutex; // guards received
    std::set<int> received;
    route->on_put = [&](Context& change) {
        const std::lock_guard lock(mutex);
        received.insert(std::stoi(change.request.data()));
    };
    server->add(route);
    await_subscribed("/numbers");
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::jthread changing([&] {
        while (!stop) {
            server->add(make_test_route("all", "get", ""));
            server->add(make_test_route("neighbour", "get", "/numbers/more"));
            server->del("all");
            server->del("neighbour");
            ++rounds;
        }
    });

    // As many messages as it takes for the routes to have changed often enough between them.
    int count = 0;
    while (count < 2000 || rounds < 100)
        publish(factory()->make_put("/numbers", std::to_string(count++)));

    EXPECT_TRUE(wait_until([&] {
        const std::lock_guard lock(mutex);
        return received.size() == static_cast<std::size_t>(count);
    }));
    stop = true;
}

// --- What happens to a change ------------------------------------------------------------------------

TEST_P(ASubscription, HandsPutsAndDeletesToTheRouteWhateverItsVerbs)
{
    server->add(hearing_route("a", "/a/:id"));
    await_subscribed("/a");
    publish(factory()->make_put("/a/1", "x"));
    publish(factory()->make_del("/a/1"));

    EXPECT_TRUE(will_have_heard({"a put x", "a del"}));
    EXPECT_EQ(counted("sub"), 2u);
    EXPECT_EQ(counted("dropped"), 0u);
    EXPECT_EQ(counted("err"), 0u);
    EXPECT_EQ(counted("rx"), 0u);
    EXPECT_EQ(counted("tx"), 0u);
}

TEST_P(ASubscription, HandsAChangeToEveryRouteThatAcceptsItInOrder)
{
    server->add(hearing_route("first", "/a/:id"));
    server->add(hearing_route("second", "/a/*"));
    server->add(hearing_route("other", "/a"));
    await_subscribed("/a");
    publish(factory()->make_put("/a/1", "x"));
    EXPECT_TRUE(will_have_heard({"first put x", "second put x"}));
}

TEST_P(ASubscription, ShowsAllRoutesTheVariablesOfTheLastOneThatAccepted)
{
    for (const std::string name : {"x", "y"}) {
        const auto route = make_test_route(name, "get", "/a/:" + name);
        route->on_put = [&, name](Context& change) {
            heard.add(name + ": x=" + change.params->get("x", "-") + " y=" + change.params->get("y", "-"));
        };
        server->add(route);
    }
    await_subscribed("/a");
    publish(factory()->make_put("/a/1", ""));
    EXPECT_TRUE(will_have_heard({"x: x=- y=1", "y: x=- y=1"}));
}

TEST_P(ASubscription, GoesByThePathInTheMessageAndNotByTheTopic)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    publish("/a/and more", factory()->make_put("/a", "x")->SerializeAsString());
    EXPECT_TRUE(will_have_heard({"a put x"}));
}

TEST_P(ASubscription, TakesChangesForThisProcessAndForEverybodyOnly)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    const std::string pid = std::to_string(getpid());
    publish(factory()->make_put("/a@1", "another"));
    publish(factory()->make_put("/a@1," + pid, "this and another"));
    publish(factory()->make_put("/a@" + pid, "this"));
    publish(factory()->make_put("/a", "everybody"));

    EXPECT_TRUE(will_have_heard({"a put this and another", "a put this", "a put everybody"}));
    EXPECT_EQ(counted("sub"), 3u);
    EXPECT_EQ(counted("dropped"), 0u);
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_P(ASubscription, DropsWhatNoRouteAccepts)
{
    slate::set_log_level(slate::DebugLevel);
    server->add(hearing_route("a", "/a/:id"));
    await_subscribed("/a");
    publish(factory()->make_put("/a", "x"));
    EXPECT_TRUE(will_have_counted("dropped", 1));
    EXPECT_EQ(counted("sub"), 1u);
    EXPECT_EQ(logs.count(slate::DebugLevel, "in: put {"), 1u);
    EXPECT_EQ(logs.count(slate::DebugLevel, "dropped: put {"), 1u);
}

TEST_P(ASubscription, DropsAChangeThatHoldsMoreThanItMay)
{
    ASSERT_TRUE(server->add(hearing_route("a", "/a")));
    await_subscribed("/a");
    Message large;
    large.mutable_put()->mutable_head()->set_path("/a");
    for (int i = 0; i < 2000; ++i)
        large.mutable_put()->mutable_head()->add_headers();
    publish("/a", large.SerializeAsString());
    EXPECT_TRUE(will_have_counted("dropped", 1));
    EXPECT_TRUE(logs.has(slate::WarnLevel, "dropped a published change: more than 1024 headers"));
    EXPECT_EQ(counted("sub"), 0u);
    EXPECT_TRUE(heard.entries().empty());
}

TEST_P(ASubscription, SkipsAPrivateRouteForAChangeOfAnotherProcess)
{
    const auto route = std::make_shared<TestRoute>("p", "get", RoutePattern("/p"), Access::Private);
    route->on_put = [&](Context& change) { heard.add(change.request.data()); };
    server->add(route);
    await_subscribed("/p");
    auto foreign = factory()->make_put("/p", "foreign");
    foreign->mutable_put()->mutable_head()->mutable_from()->set_pid(getpid() + 1);
    publish(foreign);
    publish(factory()->make_put("/p", "own"));
    EXPECT_TRUE(will_have_heard({"own"}));
    EXPECT_EQ(counted("dropped"), 1u);
}

TEST_P(ASubscription, RefusesEverythingButPutAndDelete)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    Message response;
    response.mutable_response()->mutable_head()->set_path("/a");
    Message call;
    call.mutable_call();
    publish(factory()->make_get("/a"));
    publish(factory()->make_post("/a", "x"));
    publish(factory()->make_head("/a"));
    publish("/a", response.SerializeAsString());
    publish("/a", call.SerializeAsString());
    publish("/a", "\x98\x06\x01"); // a message of a type that nobody knows

    EXPECT_TRUE(will_have_counted("err", 6));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "not a put or del: "), 6u);
    EXPECT_EQ(counted("sub"), 0u);
}

TEST_P(ASubscription, RefusesWhatIsNotAMessage)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    publish("/a", "\xFF\xFF");
    publish("/a", "");
    send_frames(publisher, {"/a"}); // no second frame: nothing waits for it
    EXPECT_TRUE(will_have_counted("err", 3));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request not initialized"), 3u);

    // Frames beyond the second are dropped, and the next message is read from its first one.
    send_frames(publisher, {"/a", factory()->make_put("/a", "one")->SerializeAsString(), "third", "fourth"});
    publish(factory()->make_put("/a", "two"));
    EXPECT_TRUE(will_have_heard({"a put one", "a put two"}));
}

TEST_P(ASubscription, KeepsAChangeFromLaterRoutesWhenARouteFails)
{
    const auto failing = make_test_route("failing", "get", "/a");
    failing->on_put = [](Context&) { throw MessageException(Status::Conflict, "not now"); };
    failing->on_del = [](Context&) { throw std::runtime_error("broken"); };
    server->add(failing);
    server->add(hearing_route("later", "/a"));
    await_subscribed("/a");

    publish(factory()->make_put("/a", "x"));
    EXPECT_TRUE(will_have_counted("err", 1));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "error: not now"));
    publish(factory()->make_del("/a"));
    EXPECT_TRUE(will_have_counted("err", 2));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "broken"));
    EXPECT_TRUE(heard.entries().empty());
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_P(ASubscription, OutlivesWhateverAHandlerThrows)
{
    const auto failing = make_test_route("failing", "get", "/a");
    failing->on_put = [](Context& change) {
        if (change.request.data() == "context")
            throw zmq::error_t(ETERM); // of a ZeroMQ context of the application's
        throw 42;
    };
    server->add(failing);
    server->add(hearing_route("other", "/b"));
    await_subscribed("/a");
    await_subscribed("/b");
    publish(factory()->make_put("/a", "context"));
    publish(factory()->make_put("/a", "number"));
    publish(factory()->make_put("/b", "x"));
    EXPECT_TRUE(will_have_heard({"other put x"}));
    EXPECT_TRUE(will_have_counted("err", 2));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "unknown exception"));
}

TEST_P(ASubscription, DropsAChangeThatIsLargerThanTheSettingAllowsAndHearsTheNext)
{
    server.reset();
    settings->set("max_frame_bytes", "100000");
    server = make({uri}, pub_uri);
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    publish(factory()->make_put("/a", std::string(100001, 'x')));
    publish(factory()->make_put("/a", "small"));
    EXPECT_TRUE(will_have_heard({"a put small"}));
    EXPECT_TRUE(will_have_counted("dropped", 1));
}

TEST_P(ASubscription, LeavesOutATopicThatNoRelayTakes)
{
    server->add(hearing_route("long", "/" + std::string(5000, 'x')));
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    publish(factory()->make_put("/a", "x"));
    EXPECT_TRUE(will_have_heard({"a put x"}));
    EXPECT_TRUE(wait_until(
        [&] { return logs.count(slate::ErrorLevel, "not subscribing to a topic of 5001 bytes") == 1; }));
}

/// How many changes wait for a subscriber that is busy, beyond what the sockets of the system take.
TEST_P(ASubscription, HasTheMarkOfTheSettings)
{
    for (const int mark : {100, 1000}) {
        SCOPED_TRACE(mark);
        server.reset();
        settings->set("high_water_mark", mark);
        zmq::socket_t patient(zmq_context, zmq::socket_type::xpub);
        patient.set(zmq::sockopt::linger, 0);
        patient.set(zmq::sockopt::sndhwm, 1);
        patient.set(zmq::sockopt::xpub_nodrop, true);
        const auto endpoint = scratch_endpoint();
        patient.bind(endpoint->to_string());
        std::promise<void> go;
        auto gate = go.get_future().share();
        const auto busy = make_test_route("busy", "get", "/busy");
        busy->on_put = [gate](Context&) { gate.wait(); };
        server = make({uri}, endpoint);
        server->add(busy);
        do
            ASSERT_TRUE(is_readable(patient, 20s));
        while (receive_frames(patient).at(0) != "\x01/busy");

        const std::string change = factory()->make_put("/busy", std::string(32768, 'x'))->SerializeAsString();
        const auto publish_one = [&] {
            return wait_until(
                       [&] {
                           return patient
                               .send(zmq::str_buffer("/busy"),
                                     zmq::send_flags::sndmore | zmq::send_flags::dontwait)
                               .has_value();
                       },
                       std::chrono::milliseconds(500)) &&
                   patient.send(zmq::buffer(change), zmq::send_flags::dontwait).has_value();
        };
        int taken = 0;
        while (taken < 5000 && publish_one())
            ++taken;
        go.set_value();
        EXPECT_GE(taken, mark);
        EXPECT_LT(taken, mark + 200);
    }
}

TEST_P(ASubscription, LeavesAHandlerWithoutAReplyToWriteTo)
{
    const auto route = make_test_route("a", "get", "/a");
    route->on_put = [&](Context& change) {
        heard.add(change.reply.message ? "reply" : "no reply");
        change.reply.set_reply_text("to nobody");
    };
    server->add(route);
    await_subscribed("/a");
    publish(factory()->make_put("/a", "x"));
    EXPECT_TRUE(will_have_counted("err", 1));
    EXPECT_TRUE(will_have_heard({"no reply"}));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "error: Reply"), 1u);
}

TEST_P(ASubscription, LeavesChunksToTheRoute)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    const auto headers = slate::make_dictionary();
    headers->set("X-Tarn-Chunked-Transfer", "id");
    headers->set("X-Tarn-Chunk-Number", 0);
    publish(factory()->make_put("/a", "chunk", headers));
    EXPECT_TRUE(will_have_heard({"a put chunk"}));
}

TEST_P(ASubscription, LetsAHandlerAddARoute)
{
    const auto route = make_test_route("maker", "get", "/make");
    route->on_put = [&](Context&) { server->add(hearing_route("made", "/made")); };
    server->add(route);
    await_subscribed("/make");
    publish(factory()->make_put("/make", ""));
    await_subscribed("/made");
    publish(factory()->make_put("/made", "x"));
    EXPECT_TRUE(will_have_heard({"made put x"}));
}

TEST_P(ASubscription, NeverRunsAChangeBesideARequestOfTheSameRoute)
{
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    std::atomic<int> changes{0};
    const auto work = [&](Context&) {
        overlapped = overlapped || ++running > 1;
        std::this_thread::yield();
        --running;
    };
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = work;
    route->on_put = [&, work](Context& change) {
        work(change);
        ++changes;
    };
    server->add(route);
    await_subscribed("/a");
    std::jthread asking([&] {
        const auto client = make_client(uri);
        for (int i = 0; i < 200; ++i)
            client->get("/a", nullptr, slate::Seconds(30));
    });
    for (int i = 0; i < 200; ++i)
        publish(factory()->make_put("/a", ""));
    EXPECT_TRUE(wait_until([&] { return changes == 200; }));
    asking.join();
    EXPECT_FALSE(overlapped);
}

TEST_P(ASubscription, ToWhatIsNotAnEndpointIsReported)
{
    // 25.5 s of patience are the price of finding out.
    uri = scratch_endpoint();
    auto deaf = make({uri}, slate::make_uri("nonsense://x"));
    ASSERT_NE(deaf, nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "failed to connect to nonsense://x; "), 1u);
    deaf.reset();
}

TEST_P(ASubscription, SurvivesTheRelayAndComesBackWithIt)
{
    server->add(hearing_route("a", "/a"));
    await_subscribed("/a");
    publish(factory()->make_put("/a", "before"));
    EXPECT_TRUE(will_have_heard({"a put before"}));

    publisher.close();
    publisher = zmq::socket_t(zmq_context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.bind(pub_uri->to_string());
    await_subscribed("/a");
    publish(factory()->make_put("/a", "after"));
    EXPECT_TRUE(will_have_heard({"a put before", "a put after"}));
}
} // namespace
