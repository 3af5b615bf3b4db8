// SPDX-License-Identifier: Apache-2.0
#include "tarn/server.h"

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;

class TheLibrary : public RuntimeTest {};

TEST_F(TheLibrary, KeepsTheServersThatAreMadeThroughIt)
{
    const auto uri = scratch_endpoint();
    const auto server = runtime->add_server(uri);

    EXPECT_EQ(runtime->servers(), std::vector{server});
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_F(TheLibrary, StopsItsServersWhenItEnds)
{
    const auto uri = scratch_endpoint();
    runtime->add_server(uri);
    runtime.reset();

    EXPECT_FALSE(std::filesystem::exists(uri->path()));
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_F(TheLibrary, NumbersItsServers)
{
    runtime->add_server(scratch_endpoint());
    runtime->add_server(scratch_endpoint());

    std::vector<int> ids;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.server")
            ids.push_back(std::stoi(shown.instance));
    }
    ASSERT_EQ(ids.size(), 2u);
    EXPECT_EQ(ids[1], ids[0] + 1);
}

TEST_F(TheLibrary, MakesAServerThatHearsNoChangesIfTheSettingsNameNoRelay)
{
    EXPECT_NE(runtime->add_server(scratch_endpoint()), nullptr);
    EXPECT_THROW(runtime->add_subscriber(), Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "settings missing relay_pub"));
    EXPECT_EQ(runtime->servers().size(), 1u);
}

TEST_F(TheLibrary, MakesNoServerOnceItIsDown)
{
    runtime.reset();
    EXPECT_EQ(make_server(settings, {scratch_endpoint()}, nullptr, factory()), nullptr);
    EXPECT_EQ(make_subscriber(settings, scratch_endpoint(), factory()), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot make_server, tarn not / no longer initialized"), 2u);
}

TEST_F(TheLibrary, AddsDeletesAndClearsRoutesOnAllItsServers)
{
    const auto first = scratch_endpoint();
    const auto second = scratch_endpoint();
    runtime->add_server(first);
    runtime->add_server(second);
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context& context) { context.reply.set_reply_text("a"); };
    const auto status_at = [](const auto& uri) { return make_client(uri)->get("/a")->status(); };

    EXPECT_EQ(add_route(route), "a");
    EXPECT_EQ(status_at(first), Status::Ok);
    EXPECT_EQ(status_at(second), Status::Ok);

    del_route("a");
    EXPECT_EQ(status_at(first), Status::NotFound);
    EXPECT_EQ(status_at(second), Status::NotFound);

    add_route(route);
    clear_routes();
    EXPECT_EQ(status_at(first), Status::NotFound);
    EXPECT_EQ(status_at(second), Status::NotFound);
    EXPECT_EQ(make_client(first)->get("/index")->status(), Status::Ok);
}

TEST_F(TheLibrary, HandsAPublishedChangeToASubscribersRoutes)
{
    const auto uri = scratch_endpoint();
    zmq::context_t context;
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.bind(uri->to_string());
    const auto subscriber = runtime->add_subscriber(uri);
    const auto route = make_test_route("status", "get", "/status/:name");
    std::promise<std::string> heard;
    route->on_put = [&](Context& change) {
        heard.set_value(change.params->get("name", "") + "=" + change.request.data());
    };
    subscriber->add(route);
    // A subscription arrives as a frame of 1 and the topic.
    std::set<std::string> topics;
    while (!topics.contains("\x01/status")) {
        ASSERT_TRUE(is_readable(publisher, std::chrono::seconds(20)));
        topics.insert(receive_frames(publisher).at(0));
    }

    send_frames(publisher, {"/status"}); // no payload: dropped, and the next one is read from its first frame
    send_frames(publisher,
                {"/status", factory()->make_put("/status/cpu", "42")->SerializeAsString(), "third"});

    EXPECT_EQ(heard.get_future().get(), "cpu=42");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "request not initialized"));
}

// --- How many threads, and which changes -------------------------------------------------------------

/// The counter "rx" exists for a server with endpoints, and the statistic of its time for the single-threaded
/// kind.
bool is_single_threaded()
{
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.server")
            return !shown.statistics.empty();
    }
    return false;
}

TEST_F(TheLibrary, MakesAServerOfOneThreadForOneWorkerAndWithoutAnEndpoint)
{
    auto server = make_server(1, settings, {scratch_endpoint()}, nullptr);
    EXPECT_TRUE(is_single_threaded());
    server.reset();
    for (const unsigned long workers : {0ul, 2ul, 5ul}) {
        server = make_server(workers, settings, {}, nullptr);
        ASSERT_NE(server, nullptr);
        EXPECT_TRUE(is_single_threaded()) << workers;
        server.reset();
    }
    EXPECT_TRUE(logs.has(slate::WarnLevel, "make_server, invalid worker count specified: 0"));
}

TEST_F(TheLibrary, MakesAServerOfManyThreadsForSeveralWorkers)
{
    const auto uri = scratch_endpoint();
    const auto server = runtime->add_server(2, uri);
    EXPECT_FALSE(is_single_threaded());
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
    EXPECT_EQ(runtime->servers(), std::vector{server});
}

TEST_F(TheLibrary, MakesNoServerOfNoWorkersWithAnEndpointAndKeepsNothing)
{
    EXPECT_EQ(runtime->add_server(0, std::vector{scratch_endpoint()}), nullptr);

    EXPECT_TRUE(logs.has(slate::WarnLevel, "make_server, invalid worker count specified: 0"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_server, invalid number of workers specified"));
    EXPECT_EQ(runtime->servers(), std::vector<std::shared_ptr<Server>>{nullptr});
    // What is done to all servers passes the empty place over.
    EXPECT_EQ(add_route(make_test_route("a", "get", "/a")), "a");
    del_route("a");
    clear_routes();
}

/// A publisher's end that tells when somebody has subscribed.
class Hearable {
public:
    explicit Hearable(const std::shared_ptr<const slate::Uri>& uri)
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.bind(uri->to_string());
    }
    bool is_subscribed_to() { return is_readable(socket_, std::chrono::seconds(20)); }

private:
    zmq::context_t context_;
    zmq::socket_t socket_{context_, zmq::socket_type::xpub};
};

TEST_F(TheLibrary, HasItsServersHearTheRelayOfTheSettings)
{
    const auto relay = scratch_endpoint();
    settings->set("relay_pub", std::string_view(relay->to_string()));
    const std::vector<std::function<void()>> makers = {
        [&] { runtime->add_server(scratch_endpoint()); },
        [&] { runtime->add_server(std::vector{scratch_endpoint()}); },
        [&] { runtime->add_server(2, scratch_endpoint()); },
        [&] {
            runtime->add_server(2, std::vector{scratch_endpoint(), scratch_endpoint()});
        },
        [&] { runtime->add_subscriber(); },
    };
    for (const auto& make : makers) {
        runtime = nullptr; // one server at a time, so that it is this one that is heard of
        runtime = std::make_unique<ZmqSubsystem>(settings);
        Hearable hearable(relay);
        make();
        EXPECT_TRUE(hearable.is_subscribed_to());
    }
}

TEST_F(TheLibrary, HasItsServersHearTheRelayThatIsNamed)
{
    const auto relay = scratch_endpoint();
    settings->set("relay_pub", "ipc:///not/looked/at");
    const std::vector<std::function<void()>> makers = {
        [&] { runtime->add_server({scratch_endpoint()}, relay); },
        [&] { runtime->add_server(2, {scratch_endpoint()}, relay); },
        [&] { runtime->add_subscriber(relay); },
    };
    for (const auto& make : makers) {
        runtime = nullptr;
        runtime = std::make_unique<ZmqSubsystem>(settings);
        Hearable hearable(relay);
        make();
        EXPECT_TRUE(hearable.is_subscribed_to());
    }
}

TEST_F(TheLibrary, KeepsNothingOfAServerThatCouldNotBeMade)
{
    runtime->ctx()->shutdown();
    EXPECT_THROW(runtime->add_server(scratch_endpoint()), zmq::error_t);
    EXPECT_TRUE(runtime->servers().empty());
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_F(TheLibrary, NumbersServersThatAreMadeAtOnceApart)
{
    std::vector<std::shared_ptr<Server>> servers(8);
    {
        std::vector<std::jthread> threads;
        for (auto& server : servers)
            threads.emplace_back([&] { server = make_server(settings, {}, nullptr); });
    }
    std::set<std::string> instances;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.server" && shown.instance.find('#') == std::string::npos)
            instances.insert(shown.instance);
    }
    EXPECT_EQ(instances.size(), servers.size());
}
} // namespace
