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
} // namespace
