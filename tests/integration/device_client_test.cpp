// SPDX-License-Identifier: Apache-2.0
#include "tarn/device/device_client.h"

#include <atomic>
#include <barrier>
#include <fstream>
#include <future>
#include <latch>
#include <sstream>
#include <thread>

#include "support/async_peer.h"
#include "support/gate.h"
#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using Endpoint = std::shared_ptr<const slate::Uri>;

/// What a caller sees of a reply.
std::string describe(const Reply& reply)
{
    if (!reply.message)
        return "no message";
    std::ostringstream text;
    const Response& response = reply.message->response();
    // Each client tells in its own words how long it has waited.
    const bool timed_out = reply.status() == Status::RequestTimeout;
    text << Status_Name(reply.status()) << " \"" << (timed_out ? "" : reply.status_message()) << "\" "
         << response.head().path() << " " << Format_Name(response.head().format());
    for (const KeyValue& header : response.head().headers())
        text << " " << header.key() << "=" << header.value();
    text << " "
         << (response.body().has_bin()   ? "bytes"
             : response.body().has_txt() ? "text"
                                         : "nothing")
         << " " << response.body().bin() << response.body().txt();
    return text.str();
}

class ADeviceClient : public RuntimeTest {
protected:
    Endpoint socket_of(const std::string& service)
    {
        const auto directory = run_time_directory / service;
        std::filesystem::create_directories(directory);
        return slate::make_uri("ipc://" + (directory / "zmq.sock").string());
    }

    /// A service whose routes tell who and where they are.
    std::shared_ptr<Server> serve_as(const std::string& service)
    {
        auto server = make_server(settings, {socket_of(service)}, nullptr);
        add_routes(*server, service);
        return server;
    }

    static void add_routes(Server& server, const std::string& name)
    {
        const auto all = make_test_route("all", "get,head,put,post,delete", "/time/:*");
        const auto tell = [name](const std::string& verb) {
            return [name, verb](Context& context) {
                context.reply.set_reply_text(verb + " " + context.request.path() + " at " + name + " " +
                                             context.request.param("n", "") + " " +
                                             context.request.header("X-Who", ""));
                context.reply.set_header("X-From", name);
            };
        };
        all->on_get = tell("get");
        all->on_put = [name](Context& context) {
            context.reply.set_reply_text(name + " got " + std::to_string(context.request.data().size()));
        };
        all->on_post = tell("post");
        all->on_del = [](Context& context) { context.reply.set_format_status(Format::Empty, Status::Gone); };
        server.add(all);
        const auto odd = make_test_route("odd", "get", "/odd/:what");
        odd->on_get = [](Context& context) {
            const std::string what = context.params->get("what", "");
            if (what == "bytes")
                context.reply.set_reply_data(Format::Proto, std::string("\x01\xff", 2));
            else if (what == "json")
                context.reply.set_reply_json(R"({"a":1})");
            else if (what == "throw")
                throw std::runtime_error("broken");
            else if (what == "teapot")
                throw MessageException(Status::Conflict, "no");
        };
        server.add(odd);
    }

    std::filesystem::path run_time_directory = folder.path() / "run";
    Endpoint router_uri = scratch_endpoint();
};

struct Call {
    std::string verb;
    std::string recipient;
    int headers = 1;
};
std::ostream& operator<<(std::ostream& stream, const Call& call)
{
    return stream << call.verb << " \"" << call.recipient.substr(0, 100) << "\" with " << call.headers
                  << " headers";
}

Headers headers_of(const Call& call)
{
    const auto headers = slate::make_dictionary({{"X-Who", "me"}});
    for (int i = 1; i < call.headers; ++i)
        headers->set("X-" + std::to_string(i), "x");
    return headers;
}

std::shared_ptr<Reply> make_call(Client& client, const Call& call)
{
    const auto headers = headers_of(call);
    // Nobody answers there.
    const slate::Duration timeout = slate::Seconds(call.recipient.starts_with("/clock/3") ? 1 : 10);
    if (call.verb == "get")
        return client.get(call.recipient, headers, timeout);
    if (call.verb == "head")
        return client.head(call.recipient, headers, timeout);
    if (call.verb == "put")
        return client.put(call.recipient, std::string("body"), headers, timeout);
    if (call.verb == "post")
        return client.post(call.recipient, std::string("body"), headers, timeout);
    if (call.verb == "put a stream") {
        std::istringstream stream(std::string(2500000, 'x'));
        return client.put(call.recipient, stream, headers, timeout);
    }
    if (call.verb == "call") {
        Request request(std::make_shared<Message>());
        request.message->mutable_call()->mutable_select()->set_method_number(1);
        return client.send(request, timeout);
    }
    return client.del(call.recipient, headers, timeout);
}

Pending make_call(AsyncClient& client, const Call& call)
{
    CallOptions options;
    options.headers = headers_of(call);
    options.timeout = slate::Seconds(call.recipient.starts_with("/clock/3") ? 1 : 10);
    if (call.verb == "get")
        return client.get(call.recipient, options);
    if (call.verb == "head")
        return client.head(call.recipient, options);
    if (call.verb == "put")
        return client.put(call.recipient, "body", options);
    if (call.verb == "post")
        return client.post(call.recipient, "body", options);
    if (call.verb == "call") {
        Request request(std::make_shared<Message>());
        request.message->mutable_call()->mutable_select()->set_method_number(1);
        return client.send(request, options);
    }
    return client.del(call.recipient, options);
}

/// A fine folder, but its socket's path is too long.
const std::string long_name(150, 's');

class ADeviceClientAndARouter : public ADeviceClient, public ::testing::WithParamInterface<Call> {};

TEST_P(ADeviceClientAndARouter, GiveTheSameReply)
{
    std::vector<std::shared_ptr<Server>> services;
    for (const std::string name : {"clock", "clock/2", "7", "own"})
        services.push_back(serve_as(name));
    std::filesystem::create_directories(run_time_directory / "line\nbreak");
    std::filesystem::create_directories(run_time_directory / long_name);
    ScriptedPeer corrupt(socket_of("corrupt"),
                         [](const std::string&) { return std::vector<std::string>{"\xff"}; });
    Message odd;
    odd.mutable_get()->mutable_head()->set_path("/x");
    ScriptedPeer confused(socket_of("confused"), [bytes = odd.SerializeAsString()](const std::string&) {
        return std::vector<std::string>{bytes};
    });
    const auto router = runtime->add_router({router_uri}, nullptr, run_time_directory);
    add_routes(*router, "the router");
    const auto through = make_client(router_uri, 0);
    const auto direct = make_device_client(run_time_directory, router_uri, 0);

    const auto expected = make_call(*through, GetParam());
    const auto reply = make_call(*direct, GetParam());

    EXPECT_EQ(describe(*reply), describe(*expected));

    if (GetParam().verb == "put a stream")
        return;
    const auto many = make_async_client(router_uri, {.run_time_directory = run_time_directory});
    EXPECT_EQ(describe(*make_call(*many, GetParam()).get()), describe(*expected));
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ADeviceClientAndARouter,
    ::testing::Values(
        Call{"get", "/clock/time/now?n=5"}, Call{"get", "/clock/time/a/b/c"},
        Call{"get", "/clock/2/time/now"}, Call{"get", "/clock/02/time/now"},
        Call{"get", "//clock//time///now/"}, Call{"get", "/clock"}, Call{"get", "/clock/"},
        Call{"get", "clock/time/now"}, Call{"get", "/7/time/x"}, Call{"get", "/clock/3/time"},
        Call{"get", "/clock/index"}, Call{"get", "/clock/odd/bytes"},
        Call{"get", "/clock/odd/json?format=json"}, Call{"get", "/clock/odd/throw"},
        Call{"get", "/clock/odd/teapot"}, Call{"get", "/clock/odd/nothing"}, Call{"get", "/clock/nowhere"},
        Call{"put", "/clock/odd/bytes"}, Call{"put", "/clock/time/now"}, Call{"post", "/clock/time/now"},
        Call{"del", "/clock/time/now"}, Call{"head", "/clock/time/now"},
        Call{"put a stream", "/clock/time/now"}, Call{"call", ""},
        // No service claims these.
        Call{"get", "/time/now"}, Call{"get", "/nothing/here"}, Call{"get", "/index"}, Call{"get", "/"},
        Call{"get", ""}, Call{"get", "/../clock/time/now"}, Call{"get", "/./clock/time/now"},
        Call{"get", "/clock/../time/now"}, Call{"get", "/line\nbreak/x"}, Call{"put a stream", "/time/x"},
        Call{"get", "/" + std::string(300, 'n') + "/x"},
        // What can't be connected, and what is too much.
        Call{"get", "/" + long_name + "/x"}, Call{"put", "/" + long_name + "/x"},
        Call{"get", "/clock/" + std::string(65536 - 7, 'p')},
        Call{"get", "/clock/" + std::string(65537 - 7, 'p')},
        Call{"put", "/clock/" + std::string(65537, 'p')}, Call{"get", "/nothing/" + std::string(65537, 'p')},
        Call{"get", "/clock/time/x", 1024}, Call{"get", "/clock/time/x", 1025},
        Call{"put", "/clock/time/x", 1025}, Call{"get", "/nothing/here", 1025},
        // What isn't a reply.
        Call{"get", "/corrupt/x"}, Call{"get", "/confused/x"}));

TEST_F(ADeviceClient, PassesByItsRouterWhoseSocketIsInTheDirectoryToo)
{
    const auto clock = serve_as("clock");
    const auto router = runtime->add_router({socket_of("own")}, nullptr, run_time_directory);
    add_routes(*router, "the router");
    const auto through = make_client(socket_of("own"), 0);
    const auto direct = make_device_client(run_time_directory, socket_of("own"), 0);
    for (const char* path : {"/own/time/x", "/own/clock/time/x", "/time/x", "/clock/time/x"})
        EXPECT_EQ(describe(*direct->get(path)), describe(*through->get(path)));
}

TEST_F(ADeviceClient, AnswersWhatNoServiceClaimsAsARouterDoesThatHasNothingOfItsOwn)
{
    const auto clock = serve_as("clock");
    const auto router = runtime->add_router({router_uri}, nullptr, run_time_directory);
    const auto through = make_client(router_uri, 0);
    const auto direct = make_device_client(run_time_directory, nullptr, 0);
    const auto many = make_async_client({.run_time_directory = run_time_directory});
    for (const Call& call : {Call{"get", "/"}, Call{"get", ""}, Call{"get", "//"}, Call{"get", "nothing"},
                             Call{"get", "/nothing/here"}, Call{"put", "/nothing/here"},
                             Call{"get", "/nothing/" + std::string(65537, 'p')}}) {
        const auto expected = make_call(*through, call);
        EXPECT_EQ(describe(*make_call(*direct, call)), describe(*expected)) << call;
        EXPECT_EQ(describe(*make_call(*many, call).get()), describe(*expected)) << call;
    }
}

TEST_F(ADeviceClient, AnswersItselfWhatNoServiceClaimsIfItHasNoRouter)
{
    const auto client = make_device_client(run_time_directory);
    const auto reply = client->get("/nothing/here");
    EXPECT_EQ(reply->status(), Status::NotFound);
    EXPECT_EQ(reply->path(), "/nothing/here");
    EXPECT_EQ(reply->local_cause(), LocalCause::NoSuchEndpoint);
    EXPECT_EQ(client->get("/")->status(), Status::NotFound);
    EXPECT_EQ(client->url()->to_string(), "ipc://" + run_time_directory.string());
    EXPECT_EQ(make_device_client(run_time_directory, router_uri)->url(), router_uri);
}

TEST_F(ADeviceClient, IsNotMadeWithoutADirectoryOrARuntime)
{
    EXPECT_EQ(make_device_client(""), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_device_client, no directory given"));
    runtime.reset();
    EXPECT_EQ(make_device_client(run_time_directory), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_device_client, tarn not / no longer initialized"));
}

TEST_F(ADeviceClient, RefusesARequestWithoutAMessage)
{
    const auto client = make_device_client(run_time_directory);
    EXPECT_EQ(client->send(Request())->local_cause(), LocalCause::InvalidRequest);
}

TEST_F(ADeviceClient, LeavesTheRequestThatItSendsAsItIs)
{
    const auto clock = serve_as("clock");
    const Request request(factory()->make_get("/clock/time/now"));
    const auto reply = make_device_client(run_time_directory)->send(request);
    EXPECT_EQ(reply->data(), "get /time/now at clock  ");
    EXPECT_EQ(request.path(), "/clock/time/now");
}

TEST_F(ADeviceClient, KeepsOneConnectionToEachServiceAndAtMost32)
{
    std::vector<std::shared_ptr<Server>> services;
    for (int i = 0; i < 34; ++i)
        services.push_back(serve_as("s" + std::to_string(i)));
    const auto client = make_device_client(run_time_directory);
    const auto before = providers("zmq.client");
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 32; ++i)
            EXPECT_TRUE(client->get("/s" + std::to_string(i) + "/time/x")->good());
        EXPECT_EQ(providers("zmq.client"), before + 32);
    }
    // The one that was unused for longest goes.
    EXPECT_TRUE(client->get("/s0/time/x")->good());
    EXPECT_TRUE(client->get("/s32/time/x")->good());
    EXPECT_TRUE(client->get("/s33/time/x")->good());
    EXPECT_EQ(providers("zmq.client"), before + 32);
    EXPECT_TRUE(client->get("/s0/time/x")->good());
    EXPECT_TRUE(client->get("/s1/time/x")->good());
    EXPECT_EQ(providers("zmq.client"), before + 32);
}

TEST_F(ADeviceClient, FindsAServiceThatWasStartedAgain)
{
    const auto client = make_device_client(run_time_directory, nullptr, 0);
    for (int i = 0; i < 5; ++i) {
        const auto clock = serve_as("clock");
        const auto reply = client->put("/clock/time/now", "x");
        EXPECT_EQ(reply->text_or(""), "clock got 1") << describe(*reply);
    }
}

TEST_F(ADeviceClient, SendsNothingTwiceWhenAServiceIsReplacedUnderARequest)
{
    const auto client = make_device_client(run_time_directory, nullptr, 0);
    Journal journal;
    std::latch begun(1);
    auto mute = std::make_unique<ScriptedPeer>(socket_of("clock"), [&](const std::string&) {
        begun.count_down();
        return std::vector<std::string>();
    });
    std::shared_ptr<Reply> lost;
    std::thread caller([&] { lost = client->put("/clock/time/now", "x", nullptr, slate::Seconds(1)); });
    begun.wait();
    mute.reset();
    auto server = make_server(settings, {socket_of("clock")}, nullptr);
    const auto route = make_test_route("time", "put", "/time/:*");
    route->on_put = [&](Context& context) { journal.add(context.request.data()); };
    server->add(route);
    EXPECT_TRUE(client->put("/clock/time/now", "y", nullptr, slate::Seconds(10))->good());
    caller.join();
    EXPECT_EQ(lost->local_cause(), LocalCause::NoAnswerInTime);
    EXPECT_EQ(lost->path(), "/clock/time/now");
    server.reset();
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"y"});
}

class AnAsyncDeviceClient : public ADeviceClient {
protected:
    std::shared_ptr<AsyncClient> make(std::size_t max_in_flight = 256)
    {
        return make_async_client({.max_in_flight = max_in_flight, .run_time_directory = run_time_directory});
    }

    /// A service that takes requests and answers none.
    std::unique_ptr<ScriptedPeer> keep_waiting(const std::string& service, std::latch& begun)
    {
        return std::make_unique<ScriptedPeer>(socket_of(service), [&](const std::string&) {
            begun.count_down();
            return std::vector<std::string>();
        });
    }
};

TEST_F(AnAsyncDeviceClient, AnswersItselfWhatNoServiceClaimsIfItHasNoRouter)
{
    const auto client = make();
    const auto reply = client->get("/nothing/here").get();
    EXPECT_EQ(reply->status(), Status::NotFound);
    EXPECT_EQ(reply->path(), "/nothing/here");
    EXPECT_EQ(reply->local_cause(), LocalCause::NoSuchEndpoint);
    EXPECT_EQ(client->url()->to_string(), "ipc://" + run_time_directory.string());
    EXPECT_EQ(client->send(Request()).get()->local_cause(), LocalCause::InvalidRequest);
}

TEST_F(AnAsyncDeviceClient, HasManyRequestsToManyServicesInFlight)
{
    std::vector<std::shared_ptr<Server>> services;
    for (int i = 0; i < 40; ++i)
        services.push_back(serve_as("s" + std::to_string(i)));
    const auto client = make();
    std::vector<std::pair<std::string, Pending>> calls;
    for (int i = 0; i < 200; ++i) {
        const std::string name = "s" + std::to_string(i % 40);
        calls.emplace_back(name, client->get("/" + name + "/time/" + std::to_string(i)));
    }
    for (std::size_t i = 0; i < calls.size(); ++i) {
        const auto& [name, call] = calls[i];
        EXPECT_EQ(call.get()->text_or(""), "get /time/" + std::to_string(i) + " at " + name + "  ");
        EXPECT_EQ(call.get()->path(), "/" + name + "/time/" + std::to_string(i));
    }
    EXPECT_EQ(client->in_flight(), 0u);
    // Though the calls are kept.
    EXPECT_TRUE(wait_until([] { return providers("zmq.async_client") == 32; }));
}

TEST_F(AnAsyncDeviceClient, NeverExceedsItsLimitHoweverManyThreadsCall)
{
    constexpr std::size_t most = 10;
    std::vector<std::unique_ptr<AsyncPeer>> mute;
    for (int i = 0; i < 4; ++i)
        mute.push_back(std::make_unique<AsyncPeer>(socket_of("s" + std::to_string(i))));
    const auto client = make(most);
    for (int round = 0; round < 20; ++round) {
        std::barrier start(4);
        std::vector<Pending> calls[4];
        std::vector<std::thread> threads;
        for (std::size_t thread = 0; thread < 4; ++thread) {
            threads.emplace_back([&, thread] {
                start.arrive_and_wait();
                for (std::size_t i = 0; i < most; ++i)
                    calls[thread].push_back(client->get("/s" + std::to_string(thread) + "/x"));
            });
        }
        for (auto& thread : threads)
            thread.join();
        std::size_t accepted = 0;
        for (auto& list : calls) {
            for (Pending& call : list) {
                accepted += call.ready() ? 0u : 1u;
                call.cancel();
            }
        }
        EXPECT_EQ(accepted, most);
        EXPECT_EQ(client->in_flight(), 0u);
    }
    std::uint64_t refused = 0;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.async_device_client")
            refused = counter(shown.name, shown.instance, "too_many").value_or(0);
    }
    EXPECT_EQ(refused, 20 * (4 * most - most));
}

TEST_F(AnAsyncDeviceClient, GivesEveryFunctionItsReplyIfItAsksANewServiceWhileTheRuntimeEnds)
{
    AsyncPeer mute(socket_of("mute"));
    const auto client = make();
    const auto gate = std::make_shared<Gate>();
    runtime->queue()->get()->submit(make_work([gate] { gate->pass(); }));
    ASSERT_TRUE(gate->await(1));
    for (int i = 0; i < 200; ++i)
        std::filesystem::create_directories(run_time_directory / ("new" + std::to_string(i)));
    std::atomic<int> ended{0};
    for (int i = 0; i < 200; ++i) { // more than the queue takes: the rest run where the exchange is done
        client->get("/mute/x", {.timeout = slate::Duration::positive_infinity()})
            .then([&, i](const std::shared_ptr<Reply>&) {
                const auto reply = client->get("/new" + std::to_string(i) + "/x").get();
                ended += reply->local_cause() == LocalCause::Ended ? 1 : 0;
            });
    }
    std::thread opener([&] {
        EXPECT_TRUE(wait_until([&] { return client->in_flight() == 0; }));
        gate->open();
    });
    runtime.reset(); // doesn't hang
    opener.join();
    EXPECT_TRUE(wait_until([&] { return ended == 200; }));
}

TEST_F(AnAsyncDeviceClient, EndsWithTheRuntimeWhileOtherThreadsConnect)
{
    for (int round = 0; round < 20; ++round) {
        if (!runtime)
            runtime = std::make_unique<ZmqSubsystem>(settings);
        const auto client = make();
        std::atomic<bool> over{false};
        std::barrier start(3);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 2; ++thread) {
            threads.emplace_back([&, thread] {
                start.arrive_and_wait();
                for (int i = 0; !over; ++i) {
                    const std::string name = "n" + std::to_string(thread) + "-" + std::to_string(i % 40);
                    std::filesystem::create_directories(run_time_directory / name);
                    auto call = client->get("/" + name + "/x");
                    over = over || call.ready();
                    call.cancel();
                }
            });
        }
        start.arrive_and_wait();
        runtime.reset(); // doesn't hang
        for (auto& thread : threads)
            thread.join();
        EXPECT_EQ(client->in_flight(), 0u);
    }
}

TEST_F(AnAsyncDeviceClient, ReturnsFromACallWhileTheThreadOfTheExchangeIsBusy)
{
    const auto clock = serve_as("clock");
    const auto other = serve_as("other");
    const auto client = make_async_client({.executor = [](std::function<void()> function) { function(); },
                                           .run_time_directory = run_time_directory});
    const auto gate = std::make_shared<Gate>();
    client->get("/clock/time/x").then([gate](const std::shared_ptr<Reply>&) { gate->pass(); });
    ASSERT_TRUE(gate->await(1));
    auto call = std::async(std::launch::async, [&] { return client->get("/other/time/y"); });
    EXPECT_EQ(call.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    gate->open();
    EXPECT_EQ(call.get().get()->text_or(""), "get /time/y at other  ");
}

TEST_F(AnAsyncDeviceClient, EndsTheCallsOfAServiceThatCannotBeConnectedAndGoesOn)
{
    const auto clock = serve_as("clock");
    std::filesystem::create_directories(run_time_directory / long_name);
    const auto client = make();
    for (int i = 0; i < 3; ++i) {
        const auto reply = client->get("/" + long_name + "/x").get();
        EXPECT_EQ(reply->status(), Status::InternalServerError);
        EXPECT_EQ(reply->local_cause(), LocalCause::SocketFailed);
        EXPECT_EQ(reply->status_message(), "File name too long");
        EXPECT_TRUE(client->get("/clock/time/x").get()->good());
    }
    EXPECT_EQ(client->in_flight(), 0u);
}

TEST_F(AnAsyncDeviceClient, LooksForNoServiceIfItsCallIsCancelledAlready)
{
    std::filesystem::create_directories(run_time_directory / "mute");
    const auto client = make();
    std::stop_source stop;
    stop.request_stop();
    const auto before = providers("zmq.async_client");
    for (const char* path : {"/mute/x", "/nothing/here"})
        EXPECT_EQ(client->get(path, {.stop = stop.get_token()}).get()->local_cause(), LocalCause::Cancelled);
    EXPECT_EQ(providers("zmq.async_client"), before);
}

TEST_F(AnAsyncDeviceClient, LetsGoOfTheConnectionWhenACallEndsAndNotWhenItIsForgotten)
{
    auto peer = std::make_optional<AsyncPeer>(socket_of("clock"));
    const auto client = make();
    auto answered = client->get("/clock/x");
    peer->answer(peer->next().value(), "old");
    EXPECT_EQ(answered.get()->text_or(""), "old");
    auto cancelled = client->get("/clock/x");
    cancelled.cancel();
    peer.reset();
    peer.emplace(socket_of("clock"));
    auto next = client->get("/clock/x");
    peer->answer(peer->next().value(), "new");
    EXPECT_EQ(next.get()->text_or(""), "new");
    EXPECT_TRUE(wait_until([] { return providers("zmq.async_client") == 1; }));
    EXPECT_EQ(answered.get()->text_or(""), "old");
}

TEST_F(AnAsyncDeviceClient, LimitsTheCallsToAllServicesTogether)
{
    std::latch begun(2);
    const auto first = keep_waiting("first", begun);
    const auto second = keep_waiting("second", begun);
    const auto client = make(2);
    const auto one = client->get("/first/x");
    const auto other = client->get("/second/x");
    begun.wait();
    EXPECT_EQ(client->in_flight(), 2u);
    EXPECT_EQ(client->get("/first/x").get()->local_cause(), LocalCause::TooMany);
    EXPECT_EQ(client->get("/third/x").get()->status(), Status::TooManyRequests);
}

TEST_F(AnAsyncDeviceClient, EndsItsCallsWithItself)
{
    std::latch begun(2);
    const auto mute = keep_waiting("mute", begun);
    auto client = make();
    auto call = client->get("/mute/x");
    std::promise<LocalCause> told;
    auto other = client->get("/mute/y");
    other.then([&](const std::shared_ptr<Reply>& reply) { told.set_value(reply->local_cause()); });
    begun.wait();
    client.reset();
    EXPECT_EQ(call.get()->local_cause(), LocalCause::Ended);
    EXPECT_EQ(call.get()->path(), "/mute/x");
    EXPECT_EQ(told.get_future().get(), LocalCause::Ended);
}

TEST_F(AnAsyncDeviceClient, OutlivesTheRuntime)
{
    std::latch begun(1);
    const auto mute = keep_waiting("mute", begun);
    const auto client = make();
    auto call = client->get("/mute/x");
    begun.wait();
    runtime.reset();
    EXPECT_EQ(call.get()->local_cause(), LocalCause::Ended);
    std::filesystem::create_directories(run_time_directory / "new");
    for (const char* path : {"/mute/x", "/new/x", "/nothing/here"})
        EXPECT_EQ(client->get(path).get()->local_cause(), LocalCause::Ended) << path;
}

TEST_F(AnAsyncDeviceClient, FindsAServiceThatWasStartedAgainAndSendsNothingTwice)
{
    const auto client = make();
    for (int i = 0; i < 5; ++i) {
        const auto clock = serve_as("clock");
        EXPECT_EQ(client->put("/clock/time/now", "x").get()->text_or(""), "clock got 1");
    }
    std::latch begun(1);
    auto mute = keep_waiting("mute", begun);
    auto lost = client->put("/mute/time/x", "x");
    begun.wait();
    mute.reset();
    const auto next = serve_as("mute");
    EXPECT_EQ(client->put("/mute/time/x", "yy").get()->text_or(""), "mute got 2");
    EXPECT_EQ(lost.get()->local_cause(), LocalCause::ConnectionLost);
}

TEST_F(AnAsyncDeviceClient, WaitsForTheReplyOfAServiceThatHasBeenReplaced)
{
    std::latch begun(1);
    std::latch end(1);
    auto old = make_server(settings, {socket_of("clock")}, nullptr);
    const auto route = make_test_route("wait", "get", "/wait");
    route->on_get = [&](Context& context) {
        begun.count_down();
        end.wait();
        context.reply.set_reply_text("old");
    };
    old->add(route);
    const auto client = make();
    auto call = client->get("/clock/wait");
    begun.wait();
    const auto replacement = serve_as("clock");
    EXPECT_EQ(client->get("/clock/time/x").get()->text_or(""), "get /time/x at clock  ");
    end.count_down();
    EXPECT_EQ(call.get()->text_or(""), "old");
}

TEST_F(AnAsyncDeviceClient, MayBeUsedAndDestroyedInItsOwnFunctions)
{
    const auto clock = serve_as("clock");
    const auto other = serve_as("other");
    auto client = make_async_client({.executor = [](std::function<void()> function) { function(); },
                                     .run_time_directory = run_time_directory});
    std::promise<std::string> done;
    auto call = client->get("/clock/time/x");
    call.then([&](const std::shared_ptr<Reply>&) {
        const auto text = client->get("/other/time/y").get()->text_or("");
        client.reset();
        done.set_value(text);
    });
    EXPECT_EQ(done.get_future().get(), "get /time/y at other  ");
}

TEST_F(ADeviceClient, LetsNoSlowServiceDelayRequestsToOthers)
{
    const auto quick = serve_as("quick");
    std::latch begun(1);
    std::latch end(1);
    const auto slow = make_server(settings, {socket_of("slow")}, nullptr);
    const auto route = make_test_route("wait", "get", "/wait");
    route->on_get = [&](Context&) {
        begun.count_down();
        end.wait();
    };
    slow->add(route);
    const auto client = make_device_client(run_time_directory);
    std::thread caller([&] { EXPECT_TRUE(client->get("/slow/wait")->good()); });
    begun.wait();
    EXPECT_TRUE(client->get("/quick/time/x")->good());
    end.count_down();
    caller.join();
}

TEST_F(ADeviceClient, TakesItsDirectoryAndRouterFromTheSettings)
{
    const auto service = serve_as("clock");
    settings->set("run_time_directory", std::string_view(run_time_directory.native()));
    const auto without = make_device_client();
    EXPECT_EQ(without->get("/clock/index")->status(), Status::Ok);
    EXPECT_EQ(without->get("/nonesuch")->local_cause(), LocalCause::NoSuchEndpoint);
    settings->set("relay_url", "ipc:///router");
    EXPECT_EQ(make_device_client()->url()->to_string(), "ipc:///router");
}
} // namespace
