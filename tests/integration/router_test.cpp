// SPDX-License-Identifier: Apache-2.0
#include "tarn/router.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <latch>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>

#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/forwarding_factory.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/router/router_impl.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using Endpoint = std::shared_ptr<const slate::Uri>;

class ARouter : public RuntimeTest {
protected:
    std::shared_ptr<Router> start()
    {
        return router = runtime->add_router({uri}, nullptr, run_time_directory);
    }

    /// Where a service has to serve to be found; "clock" or "clock/2".
    Endpoint socket_of(const std::string& service)
    {
        const auto directory = run_time_directory / service;
        std::filesystem::create_directories(directory);
        return slate::make_uri("ipc://" + (directory / "zmq.sock").string());
    }

    std::shared_ptr<Server> serve_as(const std::string& service)
    {
        return make_server(settings, {socket_of(service)}, nullptr);
    }

    /// A service that answers every request with one message.
    std::unique_ptr<ScriptedPeer> answer_with(const std::string& service, const Message& answer)
    {
        return std::make_unique<ScriptedPeer>(socket_of(service),
                                              [bytes = answer.SerializeAsString()](const std::string&) {
                                                  return std::vector<std::string>{bytes};
                                              });
    }

    /// A service that notes what it is sent.
    std::unique_ptr<ScriptedPeer> note_at(const std::string& service)
    {
        return std::make_unique<ScriptedPeer>(
            socket_of(service), [this, ok = ok_message()](const std::string& bytes) {
                Request request(factory()->make_message(bytes.data(), bytes.size()));
                journal.add(request.path() + " " + request.meta("ttl"));
                return std::vector<std::string>{ok};
            });
    }

    static std::string ok_message()
    {
        Message message;
        message.mutable_response()->set_status(Status::Ok);
        return message.SerializeAsString();
    }

    /// A request as it is, and the reply as it is.
    Reply exchange(const std::string& frame)
    {
        const std::string answer = RawPeer(uri).exchange(frame);
        return Reply(factory()->make_message(answer.data(), answer.size()));
    }

    std::string get_with_ttl(const std::string& path, const std::string& ttl)
    {
        Request request(factory()->make_get(path));
        request.set_meta("ttl", ttl);
        return request.message->SerializeAsString();
    }

    std::filesystem::path run_time_directory = folder.path() / "run";
    Endpoint uri = scratch_endpoint();
    std::shared_ptr<Router> router;
    Journal journal;
};

// --- Where a request goes ----------------------------------------------------------------------------

struct Way {
    std::string path;
    std::string endpoint; // below the run-time directory; "inproc" for the router's own server; or none
    std::string forwarded;
};

std::ostream& operator<<(std::ostream& stream, const Way& way)
{
    return stream << '"' << way.path << '"';
}

class ARouterResolves : public ARouter, public ::testing::WithParamInterface<Way> {};

TEST_P(ARouterResolves, APathToAServicesSocket)
{
    std::filesystem::create_directories(run_time_directory / "clock");
    std::filesystem::create_directories(run_time_directory / "7");
    std::filesystem::create_directories(run_time_directory / ".hidden");
    std::ofstream(run_time_directory / "file");
    const auto own = socket_of("own");
    std::filesystem::create_directories(run_time_directory / "line\nbreak");
    // However the directory is written, endpoints name it in one way.
    tarn_internal::RouterImpl impl(runtime->ctx(), settings, {uri, own}, nullptr, factory(),
                                   run_time_directory.parent_path() / "x/.." / "run/");
    Message message;
    message.mutable_get()->mutable_head()->set_path(GetParam().path);

    const auto [endpoint, path] =
        tarn_internal::RouterImpl::resolve(&impl, Request(std::make_shared<Message>(message)));

    EXPECT_EQ(path, GetParam().forwarded);
    if (GetParam().endpoint.empty()) {
        EXPECT_EQ(endpoint, nullptr);
        return;
    }
    ASSERT_NE(endpoint, nullptr);
    if (GetParam().endpoint == "inproc") {
        EXPECT_TRUE(endpoint->to_string().starts_with("inproc://router_server/")) << endpoint->to_string();
        EXPECT_EQ(endpoint->to_string().size(), std::string("inproc://router_server/").size() + 36);
    }
    else {
        EXPECT_EQ(endpoint->to_string(),
                  "ipc://" + run_time_directory.string() + "/" + GetParam().endpoint + "/zmq.sock");
    }
}

using std::string_literals::operator""s;
INSTANTIATE_TEST_SUITE_P(
    Paths, ARouterResolves,
    ::testing::Values(
        Way{"/clock/time/zone", "clock", "/time/zone"}, Way{"/clock", "clock", "/"},
        Way{"/clock/", "clock", "/"}, Way{"/clock/2/time", "clock/2", "/time"},
        Way{"/clock/2", "clock/2", "/"}, Way{"/index/list", "inproc", "/index/list"}, Way{"/", "", ""},
        Way{"", "", ""}, Way{"///", "", ""}, Way{"clock/time", "clock", "/time"},
        // Doubled and trailing slashes are gone behind a service, and stay where nothing is stripped.
        Way{"//clock//time///zone/", "clock", "/time/zone"},
        Way{"//index//list/", "inproc", "//index//list/"},
        // The number is written anew, and only what an unsigned int holds is one.
        Way{"/clock/007/time", "clock/7", "/time"}, Way{"/clock/0/time", "clock/0", "/time"},
        Way{"/clock/4294967295/time", "clock/4294967295", "/time"},
        Way{"/clock/4294967296/time", "clock", "/4294967296/time"},
        Way{"/clock/-1/time", "clock", "/-1/time"}, Way{"/clock/+1/time", "clock", "/+1/time"},
        Way{"/clock/2x/time", "clock", "/2x/time"}, Way{"/clock/ 2/time", "clock", "/ 2/time"},
        Way{"/clock/2/3/time", "clock/2", "/3/time"}, Way{"/clock/time/2", "clock", "/time/2"},
        Way{"/7/time", "7", "/time"}, Way{"/7/8/time", "7/8", "/time"},
        // Only that there is something of that name counts.
        Way{"/file/x", "file", "/x"}, Way{"/.hidden/x", ".hidden", "/x"},
        Way{"/Clock/x", "inproc", "/Clock/x"},
        // No path leads out of the run-time directory.
        Way{"/../clock/x", "inproc", "/../clock/x"}, Way{"/./clock/x", "inproc", "/./clock/x"},
        Way{"/..", "inproc", "/.."}, Way{"/clock/../x", "clock", "/../x"},
        Way{"/..\0/x"s, "inproc", "/..\0/x"s}, Way{"/clock\0/x"s, "inproc", "/clock\0/x"s},
        // A name that no endpoint can have.
        Way{"/line\nbreak/x", "inproc", "/line\nbreak/x"},
        // The router's own endpoint: the service's part is stripped all the same.
        Way{"/own/a/b", "inproc", "/a/b"}, Way{"/own", "inproc", "/"}, Way{"/own/1/a", "own/1", "/a"}));

TEST_F(ARouter, KnowsItsOwnEndpointBehindALinkToo)
{
    const auto own = socket_of("own");
    std::filesystem::create_directory_symlink(run_time_directory / "own", run_time_directory / "linked");
    tarn_internal::RouterImpl impl(runtime->ctx(), settings, {uri, own}, nullptr, factory(),
                                   run_time_directory);
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(run_time_directory / "own/zmq.sock"); }));
    Message message;
    message.mutable_get()->mutable_head()->set_path("/linked/a");

    const auto [endpoint, path] =
        tarn_internal::RouterImpl::resolve(&impl, Request(std::make_shared<Message>(message)));

    ASSERT_NE(endpoint, nullptr);
    EXPECT_TRUE(endpoint->to_string().starts_with("inproc://")) << endpoint->to_string();
    EXPECT_EQ(path, "/a");
}

TEST_F(ARouter, PassesARequestOnByItsFirstSegmentAndTheReplyBack)
{
    start();
    const auto service = serve_as("clock");
    const auto route = make_test_route("time", "get,put,post,delete", "/time/:what");
    const auto note = [this](const std::string& verb) {
        return [this, verb](Context& context) {
            journal.add(verb + " " + context.request.path() + " " + context.params->get("what", "") + " " +
                        context.request.header("X-Who", "") + " " + context.request.param("n", ""));
            context.reply.set_reply_text(verb + " done");
            context.reply.set_header("X-From", "clock");
        };
    };
    route->on_get = note("get");
    route->on_put = note("put");
    route->on_post = note("post");
    route->on_del = note("del");
    ASSERT_TRUE(service->add(route));
    const auto headers = slate::make_dictionary();
    headers->set("X-Who", std::string_view("me"));
    const auto client = make_client(uri);

    const auto is_done = [](const Reply& reply, const std::string& text) {
        EXPECT_EQ(reply.status(), Status::Ok);
        EXPECT_EQ(reply.data(), text);
        EXPECT_EQ(reply.path(), "/clock/time/zone");
        EXPECT_EQ(reply.header("X-From", ""), "clock");
    };
    is_done(*client->get("/clock/time/zone?n=1", headers), "get done");
    is_done(*client->put("/clock/time/zone?n=2", "x", headers), "put done");
    is_done(*client->post("/clock/time/zone?n=3", "x", headers), "post done");
    is_done(*client->del("/clock/time/zone?n=4", headers), "del done");
    const auto head = client->head("/clock/time/zone?n=5", headers);
    EXPECT_EQ(head->header("Content-Length", ""), "8");
    EXPECT_EQ(head->path(), "/clock/time/zone");

    EXPECT_EQ(journal.entries(),
              (std::vector<std::string>{"get /time/zone zone me 1", "put /time/zone zone me 2",
                                        "post /time/zone zone me 3", "del /time/zone zone me 4",
                                        "get /time/zone zone me 5"}));
}

TEST_F(ARouter, ChangesNothingOfARequestButItsPathAndItsTime)
{
    start();
    std::promise<std::string> seen;
    const ScriptedPeer service(socket_of("clock"), [&](const std::string& bytes) {
        seen.set_value(bytes);
        return std::vector<std::string>{ok_message()};
    });
    Message message;
    Put* put = message.mutable_put();
    put->mutable_head()->set_path("/clock/time");
    put->mutable_head()->mutable_from()->set_pid(1);
    put->mutable_head()->mutable_from()->set_tag("tag");
    put->mutable_head()->add_to()->set_pid(1203);
    put->mutable_body()->set_bin("\x01\x02");

    exchange(message.SerializeAsString());

    put->mutable_head()->set_path("/time");
    KeyValue* ttl = put->mutable_head()->add_meta();
    ttl->set_key("ttl");
    ttl->set_value("3.5s");
    Message forwarded;
    ASSERT_TRUE(forwarded.ParseFromString(seen.get_future().get()));
    EXPECT_EQ(forwarded.DebugString(), message.DebugString());
}

TEST_F(ARouter, PassesAPathWithoutMoreSegmentsOnAsTheRoot)
{
    start();
    const auto service = note_at("clock");
    EXPECT_EQ(make_client(uri)->get("/clock")->path(), "/clock");
    EXPECT_EQ(make_client(uri)->get("//clock///a/")->path(), "//clock///a/");
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{"/ 3.5s", "/a 3.5s"}));
}

TEST_F(ARouter, TellsNumberedServicesApart)
{
    start();
    const auto first = note_at("clock");
    const auto second = answer_with("clock/2", *factory()->make_response(Status::Accepted));

    EXPECT_EQ(make_client(uri)->get("/clock/x")->status(), Status::Ok);
    EXPECT_EQ(make_client(uri)->get("/clock/2/x")->status(), Status::Accepted);
    EXPECT_EQ(make_client(uri)->get("/clock/2/x")->path(), "/clock/2/x");
}

TEST_F(ARouter, FindsServicesThatComeAndGoWithoutBeingTold)
{
    start();
    const auto client = make_client(uri, 0);
    EXPECT_EQ(client->get("/clock/index")->status(), Status::NotFound); // of the router's own server
    for (int i = 0; i < 3; ++i) {
        const auto service = serve_as("clock");
        EXPECT_EQ(client->get("/clock/index")->status(), Status::Ok);
    }
    std::filesystem::remove_all(run_time_directory / "clock");
    EXPECT_EQ(client->get("/clock/index")->status(), Status::NotFound);
}

TEST_F(ARouter, CarriesBodiesOfAnySizeBothWays)
{
    start();
    std::string kept; // the handlers of one route never run side by side
    const auto service = serve_as("drop");
    const auto route = make_test_route("file", "get,put", "/file");
    route->on_put = [&](Context& context) { kept = context.request.data(); };
    route->on_get = [&](Context& context) { context.reply.set_reply_text(kept); };
    service->add(route);
    std::string body(5 * 1024 * 1024 + 7, 'x');
    for (std::size_t i = 0; i < body.size(); i += 1000)
        body[i] = static_cast<char>('a' + i % 26);

    std::istringstream in(body);
    EXPECT_TRUE(make_client(uri)->put("/drop/file", in)->good());
    std::ostringstream out;
    EXPECT_TRUE(make_client(uri)->get("/drop/file", out)->good());
    EXPECT_EQ(out.str(), body);
}

TEST_F(ARouter, MayBeAServiceOfAnotherRouter)
{
    start();
    const auto inner_directory = folder.path() / "inner";
    std::filesystem::create_directories(inner_directory / "clock");
    const auto inner = make_router(settings, {socket_of("vehicle")}, nullptr, factory(), inner_directory);
    const ScriptedPeer service(slate::make_uri("ipc://" + (inner_directory / "clock/zmq.sock").string()),
                               [this](const std::string& bytes) {
                                   Request request(factory()->make_message(bytes.data(), bytes.size()));
                                   journal.add(request.path() + " " + request.meta("ttl"));
                                   return std::vector<std::string>{ok_message()};
                               });

    const auto reply = make_client(uri)->get("/vehicle/clock/time", nullptr, slate::Seconds(4));

    EXPECT_EQ(reply->status(), Status::Ok);
    EXPECT_EQ(reply->path(), "/vehicle/clock/time");
    EXPECT_EQ(journal.entries(), std::vector<std::string>{"/time 3s"}); // each takes its 500 ms
}

TEST_F(ARouter, ServesAllItsEndpoints)
{
    const auto second = scratch_endpoint();
    const auto inproc = scratch_endpoint("inproc");
    const auto several = make_router(settings, {uri, second, inproc}, nullptr, factory(), run_time_directory);
    for (const auto& endpoint : {uri, second, inproc})
        EXPECT_EQ(make_client(endpoint)->get("/index")->status(), Status::Ok) << endpoint->to_string();
}

TEST_F(ARouter, AnswersManyClientsOfManyServicesEachWithItsOwnReply)
{
    start();
    std::vector<std::shared_ptr<Server>> services;
    for (int s = 0; s < 3; ++s) {
        services.push_back(serve_as("s" + std::to_string(s)));
        const auto route = make_test_route("echo", "put", "/echo/:n");
        route->on_put = [s](Context& context) {
            context.reply.set_reply_text(std::to_string(s) + context.params->get("n", "") +
                                         context.request.data());
        };
        services.back()->add(route);
    }
    std::atomic<int> right{0};
    {
        std::vector<std::jthread> callers;
        for (int c = 0; c < 8; ++c) {
            callers.emplace_back([&, c] {
                const auto client = make_client(uri);
                for (int i = 0; i < 50; ++i) {
                    const std::string s = std::to_string((c + i) % 3);
                    const std::string n = std::to_string(100 * c + i);
                    const auto reply =
                        client->put("/s" + s + "/echo/" + n, "body", nullptr, slate::Seconds(20));
                    right += reply->good() && reply->data() == s + n + "body" ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(right, 400);
}

// --- Its own routes ----------------------------------------------------------------------------------

TEST_F(ARouter, TellsWhoAsksForAnUnknownPathWhatItIsGivenToSay)
{
    const auto explain = [](const std::string& path) { return "nobody has " + path; };
    const auto made =
        make_router(settings, {uri}, nullptr, factory(), run_time_directory,
                    {make_int32_route("count", "get", "/count", [](const auto&...) { return 7; })}, explain);
    const auto service = serve_as("clock");
    const auto client = make_client(uri, 0);

    for (const std::string path : {"/clok/time", "/", "/count/more"}) {
        const auto reply = client->get(path);
        EXPECT_EQ(reply->status(), Status::NotFound);
        EXPECT_EQ(reply->status_message(), "nobody has " + path);
    }
    EXPECT_EQ(client->get("/count")->status(), Status::Ok);
    EXPECT_EQ(client->get("/clock/nothing")->status(), Status::NotFound);
    EXPECT_EQ(client->get("/clock/nothing")->status_message(), ""); // the service's own word
    EXPECT_EQ(client->get("/index?format=text")->data().find("\"\""), std::string::npos);
}

TEST_F(ARouter, AnswersNotFoundEvenIfThereIsNoTextForIt)
{
    const LogCapture log;
    const auto made =
        make_router(settings, {uri}, nullptr, factory(), run_time_directory, {},
                    [](const std::string&) -> std::string { throw std::runtime_error("none"); });
    const auto reply = make_client(uri, 0)->get("/nothing");
    EXPECT_EQ(reply->status(), Status::NotFound);
    EXPECT_EQ(reply->status_message(), "");
    EXPECT_EQ(log.count(slate::ErrorLevel, "no text for an unknown path: none"), 1U);
}

TEST_F(ARouter, AnswersWhatNamesNoServiceByRoutesOfItsOwn)
{
    start();
    const auto route = make_test_route("about", "get", "/about/:what");
    route->on_get = [](Context& context) { context.reply.set_reply_text(context.params->get("what", "")); };
    EXPECT_TRUE(router->add(route));
    EXPECT_FALSE(router->add(route)); // as a server would answer

    const auto client = make_client(uri);
    EXPECT_EQ(client->get("/about/me")->data(), "me");
    EXPECT_EQ(client->get("/about/me")->path(), "/about/me");
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    EXPECT_EQ(client->get("/nothing/here")->status(), Status::NotFound);
    EXPECT_EQ(client->get("/nothing/here")->path(), "/nothing/here");

    router->del("about");
    EXPECT_EQ(client->get("/about/me")->status(), Status::NotFound);
    router->add(route);
    router->clear();
    EXPECT_EQ(client->get("/about/me")->status(), Status::NotFound);
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
}

TEST_F(ARouter, HandsRemoteCallsToItsServer)
{
    start();
    router->add(7, [](Message&) {});
    EXPECT_THROW(router->add(7, [](Message&) {}), Exception);
    router->del(7);
    const auto warnings = logs.count(slate::WarnLevel);
    EXPECT_GT(warnings, 0u);
    router->suppress_add_remote_call_warning();
    EXPECT_NO_THROW(router->add(7, [](Message&) {}));
    router->clear();
    EXPECT_NO_THROW(router->add(7, [](Message&) {}));
    EXPECT_EQ(logs.count(slate::WarnLevel), warnings);
}

TEST_F(ARouter, ServesAPathToItsOwnEndpointItselfAndDoesNotGoRound)
{
    uri = socket_of("self");
    start();
    const auto route = make_test_route("inside", "get", "/inside/x");
    route->on_get = [](Context& context) { context.reply.set_reply_text(context.request.path()); };
    router->add(route);

    const auto reply = make_client(uri)->get("/self/inside/x");

    EXPECT_EQ(reply->data(), "/inside/x");
    EXPECT_EQ(reply->path(), "/self/inside/x");
}

TEST_F(ARouter, LooksForServicesWhereTheSettingsSay)
{
    const auto service = make_server(settings, {socket_of("vehicle")}, nullptr);
    settings->set("run_time_directory", std::string_view(run_time_directory.native()));
    const auto first = scratch_endpoint();
    const auto second = scratch_endpoint();
    const auto third = scratch_endpoint();
    (void)runtime->add_router({first});
    (void)runtime->add_router({second}, nullptr);
    const auto made = make_router(settings, {third}, nullptr);
    for (const auto& each : {first, second, third})
        EXPECT_EQ(make_client(each)->get("/vehicle/index")->status(), Status::Ok);
}

TEST_F(ARouter, LooksInTheUsualDirectoryIfTheSettingIsEmpty)
{
    EXPECT_EQ(tarn::run_time_directory(nullptr), default_run_time_directory);
    EXPECT_EQ(tarn::run_time_directory(settings), default_run_time_directory);
    settings->set("run_time_directory", "");
    EXPECT_EQ(tarn::run_time_directory(settings), default_run_time_directory);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "setting is not a directory: run_time_directory = "));
}

TEST_F(ARouter, LetsItsRoutesHearPublishedChanges)
{
    const auto pub = scratch_endpoint();
    zmq::context_t context;
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.bind(pub->to_string());
    settings->set("relay_pub", std::string_view(pub->to_string()));

    const auto change = factory()->make_put("/status/cpu", "42")->SerializeAsString();

    for (const bool by_setting : {true, false}) {
        const auto made = by_setting ? runtime->add_router({scratch_endpoint()}, run_time_directory)
                                     : runtime->add_router({scratch_endpoint()}, pub, run_time_directory);
        const auto route = make_test_route("status", "get", "/status/:name");
        std::atomic<int> heard{0};
        route->on_put = [&](Context& put) { heard += put.request.data() == "42" ? 1 : 0; };
        made->add(route);

        EXPECT_TRUE(wait_until([&] {
            send_frames(publisher, {"/status", change});
            return heard > 0;
        })) << by_setting;
        made->clear();
    }
}

TEST_F(ARouter, TakesUploadsForItsOwnRoutesAndKeepsPrivateOnesToItself)
{
    start();
    std::promise<std::string> taken;
    const auto drop = make_test_route("drop", "put", "/drop");
    drop->on_put = [&](Context& context) { taken.set_value(context.request.data()); };
    router->add(drop);
    const auto secret = make_test_route("secret", "get", "/secret", Access::Private);
    secret->on_get = [](Context& context) { context.reply.set_reply_text("told"); };
    router->add(secret);
    const std::string body(3 * 1024 * 1024 + 1, 'x');

    std::istringstream stream(body);
    EXPECT_TRUE(make_client(uri)->put("/drop", stream)->good());
    EXPECT_EQ(taken.get_future().get(), body);

    EXPECT_EQ(make_client(uri)->get("/secret")->data(), "told"); // from this process
    Message stranger = *factory()->make_get("/secret");
    stranger.mutable_get()->mutable_head()->mutable_from()->set_pid(1);
    EXPECT_EQ(exchange(stranger.SerializeAsString()).status(), Status::NotFound);
}

TEST_F(ARouter, HandsItsSettingsToItsOwnServer)
{
    settings->set("session_ttl", std::string_view("0s")); // each transfer is over before its next chunk
    start();
    const auto drop = make_test_route("drop", "put", "/drop");
    drop->on_put = [](Context&) {};
    router->add(drop);
    std::istringstream stream(std::string(3 * 1024 * 1024 + 1, 'x'));
    const auto reply = make_client(uri)->put("/drop", stream);
    EXPECT_EQ(reply->status(), Status::Conflict);
    EXPECT_EQ(reply->status_message(), "transfer interrupted try again");
}

TEST_F(ARouter, TakesAndLosesRoutesWhileRequestsRun)
{
    start();
    const auto service = note_at("clock");
    std::atomic<bool> running{true};
    std::jthread changer([&] {
        const auto route = make_test_route("coming", "get", "/coming");
        route->on_get = [](Context& context) { context.reply.set_reply_text("here"); };
        while (running) {
            router->add(route);
            router->del("coming");
        }
    });
    std::atomic<int> right{0};
    {
        std::vector<std::jthread> askers;
        for (int t = 0; t < 3; ++t) {
            askers.emplace_back([&] {
                const auto client = make_client(uri);
                for (int i = 0; i < 50; ++i) {
                    const auto status = client->get("/coming")->status();
                    right += status == Status::Ok || status == Status::NotFound ? 1 : 0;
                    right += client->get("/clock/x")->status() == Status::Ok ? 1 : 0;
                }
            });
        }
    }
    running = false;
    EXPECT_EQ(right, 300);
}

TEST_F(ARouter, EndsIfAHandlerOfItsOwnDropsIt)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const auto route = make_test_route("end", "get", "/end");
    route->on_get = [&](Context&) { made.reset(); };
    made->add(route);
    RawPeer peer(uri);
    peer.send(get_with_ttl("/end", "2s"));
    EXPECT_TRUE(wait_until([] { return providers("zmq.router") == 0; }));
    EXPECT_TRUE(wait_until([] { return providers("zmq.server") == 0; }));
}

TEST_F(ARouter, HearsNoChangesFromARelayWhoseSettingIsNotAnEndpoint)
{
    settings->set("relay_pub", std::string_view("nonsense"));
    const auto made = runtime->add_router({uri}, run_time_directory);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "setting is not an endpoint: relay_pub = nonsense"));
}

TEST_F(ARouter, HearsNoChangesWithoutARelay)
{
    const auto made = runtime->add_router({uri}, run_time_directory);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_F(ARouter, LetsPublishersAskForTheRelaysStatistics)
{
    start();
    const auto sub = scratch_endpoint();
    const auto pub = scratch_endpoint();
    const auto relay = make_relay(sub, pub);
    const auto statistics = make_server(settings, {socket_of("relay")}, pub);
    statistics->add(make_relay_stats_route());

    const auto publisher = make_publisher(sub, default_timeout(), 0, uri);

    ASSERT_NE(publisher, nullptr);
    EXPECT_EQ(make_client(uri)->get("/relay/stats")->into<Stats>().stat_size(), 1);
}

// --- How long a request may take ---------------------------------------------------------------------

struct Ttl {
    std::string asked;
    std::string forwarded;
    bool too_small = false;
};

std::ostream& operator<<(std::ostream& stream, const Ttl& ttl)
{
    return stream << '"' << ttl.asked << '"';
}

class ARouterTakesItsShare : public ARouter, public ::testing::WithParamInterface<Ttl> {};

TEST_P(ARouterTakesItsShare, OfTheTimeThatARequestHas)
{
    slate::set_log_level(slate::VerboseLevel);
    start();
    const auto service = note_at("clock");
    Request request(factory()->make_get("/clock/x"));
    if (GetParam().asked.empty())
        request.message->mutable_get()->mutable_head()->clear_meta();
    else
        request.set_meta("ttl", GetParam().asked);

    RawPeer peer(uri);
    peer.send(request.message->SerializeAsString());

    // The log tells it also for a time in which no service could be reached.
    const auto forwarded = [this] { return logs.texts(slate::VerboseLevel, "fwd ["); };
    ASSERT_TRUE(wait_until([&] { return !forwarded().empty(); }));
    EXPECT_NE(forwarded().front().find("key: \"ttl\" value: \"" + GetParam().forwarded + "\""),
              std::string::npos)
        << forwarded().front();
    const std::string warning = "timeout is too small on request: ";
    EXPECT_EQ(logs.texts(slate::WarnLevel, warning),
              GetParam().too_small ? std::vector<std::string>{warning + request.to_string()}
                                   : std::vector<std::string>());
}

INSTANTIATE_TEST_SUITE_P(Ttls, ARouterTakesItsShare,
                         ::testing::Values(Ttl{"", "3.5s"}, Ttl{"4s", "3.5s"}, Ttl{"10min", "599.5s"},
                                           Ttl{"501ms", "1ms"}, Ttl{"499ms", "1s", true},
                                           Ttl{"0s", "1s", true}, Ttl{"-3s", "1s", true}, Ttl{"inf", "inf"},
                                           Ttl{"rubbish", "3.5s"}));

TEST_F(ARouter, DoesNotWaitAtAllForARequestOfHalfASecond)
{
    start();
    const SilentPeer service(socket_of("clock"));
    const slate::StopWatch watch(true);
    EXPECT_EQ(exchange(get_with_ttl("/clock/x", "500ms")).status(), Status::RequestTimeout);
    EXPECT_LT(watch.elapsed(), 900000); // a second would be the time of a request of less
}

TEST_F(ARouter, WaitsASecondForARequestOfLess)
{
    start();
    const SilentPeer service(socket_of("clock"));
    const slate::StopWatch watch(true);
    EXPECT_EQ(exchange(get_with_ttl("/clock/x", "10ms")).status(), Status::RequestTimeout);
    EXPECT_GE(watch.elapsed(), 1000000);
    EXPECT_LT(watch.elapsed(), 3400000);
}

// --- What can go wrong -------------------------------------------------------------------------------

TEST_F(ARouter, FindsNothingForAPathWithoutSegments)
{
    start();
    Message message;
    message.mutable_get(); // without a head
    for (const std::string& frame :
         {get_with_ttl("/", "4s"), get_with_ttl("//", "4s"), message.SerializeAsString()}) {
        const Reply reply = exchange(frame);
        EXPECT_EQ(reply.status(), Status::NotFound);
        EXPECT_EQ(reply.path(), "");
    }
    EXPECT_EQ(logs.count(slate::ErrorLevel, "no route found for: "), 3u);
    EXPECT_NE(logs.texts(slate::ErrorLevel, "no route found for: ").front().find("path: \"/\""),
              std::string::npos);
}

TEST_F(ARouter, AnswersForAServiceThatIsGoneAndNamesItInTheLog)
{
    start();
    const auto gone = socket_of("clock");
    const slate::StopWatch watch(true);

    const Reply reply = exchange(get_with_ttl("/clock/2/time", "700ms"));

    EXPECT_GE(watch.elapsed(), 200000);
    EXPECT_EQ(reply.status(), Status::RequestTimeout);
    EXPECT_EQ(reply.path(), "/clock/2/time");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "request timeout; /clock/2/time at the service ipc://" +
                                                run_time_directory.string() + "/clock/2/zmq.sock"));
}

TEST_F(ARouter, LetsAFourthRequestWaitBehindThreeSlowOnesAlsoIfItsServiceIsQuick)
{
    start();
    std::latch all_busy(3);
    std::promise<void> gate;
    const auto open = gate.get_future().share();
    std::vector<std::shared_ptr<Server>> slow;
    for (int i = 0; i < 3; ++i) {
        slow.push_back(serve_as("slow" + std::to_string(i)));
        const auto route = make_test_route("wait", "get", "/wait");
        route->on_get = [&all_busy, open](Context& context) {
            all_busy.count_down();
            open.wait();
            context.reply.set_reply_text("at last");
        };
        slow.back()->add(route);
    }
    const auto quick = note_at("quick");
    std::vector<std::future<std::shared_ptr<Reply>>> waiting;
    for (int i = 0; i < 3; ++i) {
        waiting.push_back(std::async(std::launch::async, [this, i] {
            return make_client(uri, 0)->get("/slow" + std::to_string(i) + "/wait", nullptr,
                                            slate::Seconds(30));
        }));
    }
    all_busy.wait();

    RawPeer fourth(uri);
    fourth.send(get_with_ttl("/quick/x", "30s"));
    EXPECT_FALSE(fourth.receive(300ms).has_value());
    EXPECT_EQ(quick->requests(), 0);
    gate.set_value();
    EXPECT_TRUE(fourth.receive().has_value());
    for (auto& reply : waiting)
        EXPECT_EQ(reply.get()->data(), "at last");
}

TEST_F(ARouter, GivesNoReplyToAFrameThatDoesNotParseAndLosesNobodysRequest)
{
    start();
    const auto service = serve_as("clock");
    RawPeer bad(uri, zmq::socket_type::dealer);
    const auto good = make_client(uri, 0);

    for (int i = 0; i < 1000; ++i) {
        bad.send({"", "\xFF rubbish " + std::to_string(i)});
        if (i % 10 == 0) {
            EXPECT_EQ(good->get("/clock/index", nullptr, slate::Seconds(20))->status(), Status::Ok) << i;
        }
    }

    // What the bad peer gets is the answer to its one good request, and nothing before that.
    bad.send({"", get_with_ttl("/clock/index", "20s")});
    const auto answer = bad.receive();
    ASSERT_TRUE(answer.has_value());
    ASSERT_EQ(answer->size(), 2u);
    EXPECT_EQ(Reply(factory()->make_message(answer->at(1).data(), answer->at(1).size())).status(),
              Status::Ok);
    EXPECT_FALSE(bad.receive(0ms).has_value());
}

TEST_F(ARouter, TakesMessagesAsAnyServerWouldWhateverTheirFrames)
{
    start();
    RawPeer peer(uri, zmq::socket_type::dealer);
    const std::string get = get_with_ttl("/index", "20s");
    peer.send(std::vector{get}); // no empty frame: nobody to answer
    peer.send(std::vector{""s}); // nothing behind it
    peer.send(std::vector{"way"s, "back"s});
    peer.send({"", "\xFF", "third"});             // no message
    peer.send({"way", "back", "", get, "third"}); // through two more routers; what follows is dropped
    peer.send({"", get});

    // Each worker has its turn, so they may overtake each other.
    std::vector<std::size_t> sizes;
    for (int i = 0; i < 2; ++i) {
        const auto answer = peer.receive();
        ASSERT_TRUE(answer.has_value());
        sizes.push_back(answer->size());
        if (answer->size() == 4)
            EXPECT_EQ(std::vector<std::string>(answer->begin(), answer->begin() + 3),
                      (std::vector<std::string>{"way", "back", ""}));
        else
            EXPECT_EQ(answer->front(), "");
        EXPECT_EQ(Reply(factory()->make_message(answer->back().data(), answer->back().size())).status(),
                  Status::Ok);
    }
    std::sort(sizes.begin(), sizes.end());
    EXPECT_EQ(sizes, (std::vector<std::size_t>{2, 4}));
    EXPECT_TRUE(
        wait_until([&] { return logs.count(slate::WarnLevel, "failed to read request from client") == 3; }));
}

TEST_F(ARouter, RefusesMoreThanARequestMayHoldItself)
{
    start();
    Message message;
    message.mutable_get()->mutable_head()->set_path("/" + std::string(70000, 'x'));
    Reply reply = exchange(message.SerializeAsString());
    EXPECT_EQ(reply.status(), Status::UriTooLong);
    EXPECT_EQ(reply.status_message(), "path of more than 65536 bytes");
    message.mutable_get()->mutable_head()->set_path("/index");
    for (int i = 0; i < 2000; ++i)
        message.mutable_get()->mutable_head()->add_params();
    reply = exchange(message.SerializeAsString());
    EXPECT_EQ(reply.status(), Status::RequestHeaderFieldsTooLarge);
    EXPECT_EQ(exchange(get_with_ttl("/index", "20s")).status(), Status::Ok);
}

TEST_F(ARouter, RefusesWhatIsNotARequestWithAPathAndGoesOn)
{
    start();
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(7);
    Message response;
    response.mutable_response()->mutable_head()->set_path("/clock/x");
    response.mutable_response()->set_status(Status::Ok);
    for (int i = 0; i < 5; ++i) { // more than there are workers
        for (const std::string& frame : {call.SerializeAsString(), response.SerializeAsString(), ""s}) {
            const Reply reply = exchange(frame);
            EXPECT_EQ(reply.status(), Status::NotImplemented);
            EXPECT_EQ(reply.status_message(), "request type not implemented");
        }
    }
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_F(ARouter, ReportsAServiceWhoseReplyDoesNotParse)
{
    start();
    const ScriptedPeer service(socket_of("clock"),
                               [](const std::string&) { return std::vector<std::string>{"\xFF"}; });
    for (int i = 0; i < 5; ++i) {
        const auto reply = make_client(uri)->get("/clock/time");
        EXPECT_EQ(reply->status(), Status::BadGateway);
        EXPECT_EQ(reply->status_message(), "corrupt reply from the service at ipc://" +
                                               run_time_directory.string() + "/clock/zmq.sock");
        EXPECT_EQ(reply->path(), "/clock/time");
    }
}

TEST_F(ARouter, TakesNoReplyThatHoldsTooMuch)
{
    start();
    Message reply;
    reply.mutable_response()->set_status(Status::Ok);
    for (int i = 0; i < 1025; ++i)
        reply.mutable_response()->mutable_head()->add_headers();
    const auto service = answer_with("clock", reply);
    const auto got = make_client(uri)->get("/clock/time");
    EXPECT_EQ(got->status(), Status::BadGateway);
    EXPECT_EQ(got->path(), "/clock/time");
    EXPECT_EQ(logs.count(slate::ErrorLevel,
                         "the reply of " + socket_of("clock")->to_string() + " has more than 1024 headers"),
              1u);
}

TEST_F(ARouter, TakesNoReplyThatIsLargerThanTheSettingAllows)
{
    settings->set("max_frame_bytes", "100000");
    start();
    const auto answer_of = [](std::size_t size) {
        Message reply;
        reply.mutable_response()->set_status(Status::Ok);
        reply.mutable_response()->mutable_body()->set_txt(std::string(size, 'x'));
        return reply;
    };
    const auto small = answer_with("small", answer_of(90000));
    const auto large = answer_with("large", answer_of(110000));
    EXPECT_EQ(make_client(uri)->get("/small/x")->status(), Status::Ok);
    EXPECT_EQ(make_client(uri)->get("/large/x", nullptr, slate::Seconds(1))->status(),
              Status::RequestTimeout);
    EXPECT_EQ(make_client(uri)->get("/small/x")->status(), Status::Ok);
}

TEST_F(ARouter, MakesAnEmptyResponseOfAMessageThatIsNotAResponse)
{
    start();
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(7);
    Message put;
    put.mutable_put()->mutable_body()->set_txt("x");
    const std::vector<Message> answers = {call, put, Message()};
    for (std::size_t i = 0; i < answers.size(); ++i) {
        const std::string name = "odd" + std::to_string(i);
        const auto service = answer_with(name, answers[i]);
        Message expected;
        expected.mutable_response()->mutable_head()->set_path("/" + name + "/x");
        EXPECT_EQ(exchange(get_with_ttl("/" + name + "/x", "20s")).message->DebugString(),
                  expected.DebugString());
    }
}

TEST_F(ARouter, PassesAServicesOwnRefusalOnAsItIs)
{
    start();
    Message refusal;
    refusal.mutable_response()->set_status(Status::Conflict);
    refusal.mutable_response()->set_status_message("not now");
    refusal.mutable_response()->mutable_head()->set_path("/x");
    const auto service = answer_with("clock", refusal);

    const auto reply = make_client(uri)->put("/clock/x", "body");

    EXPECT_EQ(reply->status(), Status::Conflict);
    EXPECT_EQ(reply->status_message(), "not now");
    EXPECT_EQ(reply->path(), "/clock/x");
}

TEST_F(ARouter, ReportsAFileSystemThatFailsAndGoesOn)
{
    start();
    std::filesystem::create_directories(run_time_directory);
    const std::string path = "/" + std::string(300, 'x') + "/y"; // longer than a file name may be
    for (int i = 0; i < 5; ++i) {
        const Reply reply = exchange(get_with_ttl(path, "4s"));
        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_NE(reply.status_message().find("File name too long"), std::string::npos)
            << reply.status_message();
        EXPECT_EQ(reply.path(), path);
    }
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_F(ARouter, ReportsAServiceWhoseSocketCannotBeConnectedAndGoesOn)
{
    start();
    const std::string name(150, 'x'); // a fine folder, but too long for a socket
    std::filesystem::create_directories(run_time_directory / name);
    for (int i = 0; i < 5; ++i) {
        const Reply reply = exchange(get_with_ttl("/" + name + "/y", "4s"));
        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_EQ(reply.status_message(), "File name too long");
        EXPECT_EQ(reply.path(), "/" + name + "/y");
    }
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

/// A factory that fails on messages that contain a word.
class FailingFactory : public ForwardingFactory {
public:
    std::shared_ptr<Message> make_message(const void* data, unsigned long size) const override
    {
        if (std::string_view(static_cast<const char*>(data), size).find("std") != std::string_view::npos)
            throw std::bad_alloc();
        if (std::string_view(static_cast<const char*>(data), size).find("other") != std::string_view::npos)
            throw 7;
        return ForwardingFactory::make_message(data, size);
    }
};

TEST_F(ARouter, AnswersWhateverIsThrownAndGoesOn)
{
    const auto made =
        make_router(settings, {uri}, nullptr, std::make_shared<FailingFactory>(), run_time_directory);
    for (int i = 0; i < 5; ++i) { // more than there are workers
        const Reply out_of_memory = exchange(get_with_ttl("/std", "4s"));
        EXPECT_EQ(out_of_memory.status(), Status::InternalServerError);
        EXPECT_EQ(out_of_memory.status_message(), "std::bad_alloc");
        const Reply other = exchange(get_with_ttl("/other", "4s"));
        EXPECT_EQ(other.status(), Status::InternalServerError);
        EXPECT_EQ(other.status_message(), "unknown exception");
    }
    EXPECT_EQ(exchange(get_with_ttl("/index", "4s")).status(), Status::Ok);
}

TEST_F(ARouter, RefusesWhatItsOwnServerCouldNotStartToAnswer)
{
    // An endpoint that no socket can connect to.
    const auto made =
        make_router(settings, {uri}, slate::make_uri("nonsense://relay"), factory(), run_time_directory);
    const auto service = note_at("clock");

    const auto reply = make_client(uri)->get("/index");
    EXPECT_EQ(reply->status(), Status::ServiceUnavailable);
    EXPECT_EQ(reply->status_message(), "the router's own server has not started");
    EXPECT_EQ(reply->path(), "/index");
    EXPECT_EQ(make_client(uri)->get("/clock/x")->status(), Status::Ok);
}

TEST_F(ARouter, DoesNotLogACallWhateverItsSize)
{
    start();
    Message call;
    call.mutable_call()->mutable_params()->add_param()->set_value(std::string(1000000, 'x'));
    EXPECT_EQ(exchange(call.SerializeAsString()).status(), Status::NotImplemented);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "request type not implemented; request to \"\""));
    for (const auto& line : logs.lines())
        EXPECT_LT(line.text.size(), 1000u);
}

TEST_F(ARouter, KeepsNothingOfTheRequestsThatItPassedOn)
{
    start();
    const auto service = note_at("clock");
    const auto gone = socket_of("gone");
    RawPeer peer(uri);
    const auto ask = [&](const std::string& path, const std::string& ttl) {
        peer.send(get_with_ttl(path, ttl));
        return peer.receive().has_value();
    };
    ASSERT_TRUE(ask("/clock/x", "4s"));
    for (int i = 0; i < 1100; ++i) // more than a context has sockets
        ASSERT_TRUE(ask(i % 2 == 0 ? "/clock/x" : "/gone/x", i % 2 == 0 ? "4s" : "500ms"));
    EXPECT_TRUE(ask("/clock/x", "4s"));
    EXPECT_EQ(journal.entries().size(), 552u);
    EXPECT_TRUE(wait_until([] { return providers("zmq.client") == 0; }));
}

TEST_F(ARouter, AnswersThatTheLibraryIsDownWhenItOutlivesIt)
{
    const auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const auto client = make_client(uri);
    runtime.reset();

    const auto reply = client->get("/index");

    EXPECT_EQ(reply->status(), Status::ServiceUnavailable);
    EXPECT_EQ(reply->status_message(), "tarn not / no longer initialized");
    EXPECT_EQ(reply->path(), "/index");
}

TEST_F(ARouter, KeepsSecretsOutOfItsLogAlsoWhenTheServicesNameTellsOfThem)
{
    slate::set_log_level(slate::VerboseLevel);
    uri = socket_of("own-passwords");
    start();
    const auto keeper = serve_as("credentials");
    const auto route = make_test_route("wifi", "get,put", "/wifi");
    route->on_get = [](Context& context) { context.reply.set_reply_text("hunter2"); };
    route->on_put = [](Context&) {};
    keeper->add(route);
    const auto gone = socket_of("passwords");
    const auto client = make_client(uri, 0);

    EXPECT_TRUE(client->put("/credentials/wifi", "hunter2")->good());
    EXPECT_EQ(client->get("/credentials/wifi")->data(), "hunter2");
    EXPECT_TRUE(wait_until([&] { return logs.count(slate::VerboseLevel, "tx: ") == 2; }));
    EXPECT_EQ(client->put("/own-passwords/wifi", "hunter2")->status(), Status::NotFound);
    RawPeer peer(uri);
    peer.send(get_with_ttl("/passwords/wifi", "600ms"));
    EXPECT_TRUE(peer.receive().has_value());
    Request put(factory()->make_put("/passwords/wifi", "hunter2"));
    put.set_meta("ttl", "600ms");
    peer.send(put.message->SerializeAsString());
    EXPECT_TRUE(peer.receive().has_value());

    EXPECT_GT(logs.lines().size(), 4u);
    for (const auto& line : logs.lines())
        EXPECT_EQ(line.text.find("hunter2"), std::string::npos) << line.text;
}

TEST_F(ARouter, LogsEachStepAtTheVerboseLevel)
{
    slate::set_log_level(slate::VerboseLevel);
    start();
    const auto service = note_at("clock");
    const Request request(factory()->make_get("/clock/x"));
    const Reply reply = exchange(request.message->SerializeAsString());

    EXPECT_TRUE(logs.has(slate::VerboseLevel, "rx: " + request.to_string()));
    EXPECT_TRUE(
        wait_until([&] { return logs.has(slate::VerboseLevel, "tx: " + tarn::to_string(*reply.message)); }));
    Request forwarded = request;
    forwarded.mutable_head()->set_path("/x");
    forwarded.set_meta("ttl", "3.5s");
    EXPECT_TRUE(logs.has(slate::VerboseLevel, "fwd [ipc://" + run_time_directory.string() +
                                                  "/clock/zmq.sock]: " + forwarded.to_string()));
}

TEST_F(ARouter, LogsNoStepBelowTheVerboseLevel)
{
    start();
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
    EXPECT_EQ(logs.count(slate::VerboseLevel), 0u);
}

// --- Its life ----------------------------------------------------------------------------------------

std::size_t threads_of_this_process()
{
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

TEST_F(ARouter, RunsAProxyThreeWorkersAndAServer)
{
    runtime->add_server(scratch_endpoint()); // so that libzmq's own threads are there
    const auto before = threads_of_this_process();
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    EXPECT_TRUE(wait_until([&] { return threads_of_this_process() == before + 5; }));
    made.reset();
    EXPECT_TRUE(wait_until([&] { return threads_of_this_process() == before; }));
}

TEST_F(ARouter, IsKeptByTheLibrary)
{
    start();
    ASSERT_EQ(runtime->servers().size(), 1u);
    EXPECT_EQ(runtime->servers().front(), router);
    EXPECT_EQ(runtime->add_router({nullptr}, nullptr, run_time_directory), nullptr);
    ASSERT_EQ(runtime->servers().size(), 2u);
    EXPECT_EQ(runtime->servers().back(), nullptr);
}

TEST_F(ARouter, IsNotMadeWithoutTheLibrary)
{
    runtime.reset();
    EXPECT_EQ(make_router(settings, {uri}, nullptr, factory()), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_router, tarn not / no longer initialized"));
}

TEST_F(ARouter, IsNotMadeForANullEndpoint)
{
    EXPECT_EQ(make_router(settings, {uri, nullptr}, nullptr, factory()), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_router, an endpoint is null"));
}

TEST_F(ARouter, IsMadeWithAFactoryOfItsOwnIfItIsGivenNone)
{
    const auto made = make_router(settings, {uri}, nullptr, nullptr, run_time_directory);
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_F(ARouter, HasAProviderForAsLongAsItLives)
{
    auto first = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const auto second = make_router(settings, {scratch_endpoint()}, nullptr, factory(), run_time_directory);
    EXPECT_EQ(providers("zmq.router"), 2u);
    first.reset();
    EXPECT_EQ(providers("zmq.router"), 1u);
    const auto third = make_router(settings, {scratch_endpoint()}, nullptr, factory(), run_time_directory);
    std::set<int> instances;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.router") {
            instances.insert(std::stoi(shown.instance));
            EXPECT_TRUE(shown.counters.empty());
        }
    }
    ASSERT_EQ(instances.size(), 2u);
    EXPECT_EQ(*instances.rbegin() - *instances.begin(), 1);
}

TEST_F(ARouter, OpensItsSocketFileToTheGroupAndLeavesItBehind)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const auto mode = [this] {
        struct stat info {};
        return stat(uri->path().c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
    };
    EXPECT_TRUE(wait_until([&] { return mode() == 0775; }));
    if (!getgrnam("corvane")) { // where there is such a group, the file has it
        EXPECT_TRUE(wait_until([&] {
            return logs.has(slate::WarnLevel,
                            "failed to set group for " + uri->path() + "; group does not exist");
        }));
    }
    made.reset();
    EXPECT_EQ(mode(), 0775u);
}

TEST_F(ARouter, LivesAndServesNothingIfItsEndpointIsTaken)
{
    zmq::context_t context;
    zmq::socket_t taken(context, zmq::socket_type::rep);
    taken.bind("tcp://127.0.0.1:*");
    const auto tcp = slate::make_uri(taken.get(zmq::sockopt::last_endpoint));

    auto made = make_router(settings, {uri, tcp}, nullptr, factory(), run_time_directory);

    ASSERT_NE(made, nullptr);
    EXPECT_TRUE(wait_until(
        [&] { return logs.has(slate::ErrorLevel, "Failed to bind router socket: Address already in use"); }));
    EXPECT_EQ(make_client(uri, 0)->get("/index", nullptr, slate::Milliseconds(300))->status(),
              Status::RequestTimeout);
    EXPECT_TRUE(made->add(make_test_route("route", "get", "/route")));
    made.reset();
}

TEST_F(ARouter, AnswersWhatIsUnderWayBeforeItEnds)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    std::promise<void> begun;
    std::promise<void> gate;
    auto open = gate.get_future();
    const ScriptedPeer service(socket_of("clock"), [&](const std::string&) {
        begun.set_value();
        open.wait();
        return std::vector<std::string>{ok_message()};
    });
    RawPeer peer(uri);
    peer.send(get_with_ttl("/clock/x", "20s"));
    begun.get_future().wait();

    auto ending = std::async(std::launch::async, [&] { made.reset(); });
    EXPECT_EQ(ending.wait_for(200ms), std::future_status::timeout);
    gate.set_value();

    const auto answer = peer.receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(Reply(factory()->make_message(answer->front().data(), answer->front().size())).path(),
              "/clock/x");
    ending.get();
}

TEST_F(ARouter, DoesNotHoldUpTheEndOfAProcessForAPeerThatDoesNotReadItsReplies)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const auto route = make_test_route("large", "get", "/large");
    std::atomic<int> answered{0};
    route->on_get = [&](Context& context) {
        context.reply.set_reply_text(std::string(1 << 20, 'x'));
        ++answered;
    };
    made->add(route);
    zmq::context_t context;
    zmq::socket_t peer(context, zmq::socket_type::dealer);
    peer.set(zmq::sockopt::linger, 0);
    peer.set(zmq::sockopt::rcvhwm, 1);
    peer.connect(uri->to_string());
    for (int i = 0; i < 30; ++i)
        send_frames(peer, {"", get_with_ttl("/large", "20s")});
    ASSERT_TRUE(wait_until([&] { return answered == 30; }));

    const slate::StopWatch watch(true);
    made.reset();
    runtime.reset();
    EXPECT_GE(watch.elapsed(), 3000000); // or there was nothing left to wait for
    EXPECT_LT(watch.elapsed(), 20000000);
}

TEST_F(ARouter, DoesNotWaitForEverToEnd)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const SilentPeer service(socket_of("clock"));
    RawPeer peer(uri, zmq::socket_type::dealer);
    for (int i = 0; i < 3; ++i)
        peer.send({"", get_with_ttl("/clock/x", "inf")});
    ASSERT_TRUE(wait_until([&] { return service.requests() == 3; }));

    const slate::StopWatch watch(true);
    made.reset();
    EXPECT_LT(watch.elapsed(), 8000000);

    const auto answer = peer.receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(Reply(factory()->make_message(answer->back().data(), answer->back().size())).status(),
              Status::RequestTimeout);
}

TEST_F(ARouter, EndsAndAnswersWhileAFloodWaitsBehindBusyWorkers)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    std::promise<void> gate;
    const auto open = gate.get_future().share();
    std::atomic<int> begun{0};
    auto service = make_server(3, settings, {socket_of("clock")}, nullptr);
    for (int i = 0; i < 3; ++i) {
        const auto route = make_test_route("wait" + std::to_string(i), "get", "/wait" + std::to_string(i));
        route->on_get = [&begun, open](Context&) {
            ++begun;
            open.wait();
        };
        service->add(route);
    }
    RawPeer first(uri, zmq::socket_type::dealer);
    for (int i = 0; i < 3; ++i)
        first.send({"", get_with_ttl("/clock/wait" + std::to_string(i), "inf")});
    ASSERT_TRUE(wait_until([&] { return begun == 3; }));

    // More than the queues between the sockets hold.
    RawPeer flood(uri, zmq::socket_type::dealer);
    const std::string request = get_with_ttl("/clock/wait0", "inf");
    EXPECT_LT(flood.send_until_full([&](int) { return std::vector{""s, request}; }), 100000);

    gate.set_value(); // the replies come back past the flood
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(first.receive().has_value());
    service.reset();
    const slate::StopWatch watch(true);
    made.reset();
    EXPECT_LT(watch.elapsed(), 15000000);
}

TEST_F(ARouter, EndsInATimeThatARequestUnderWayHasLeft)
{
    auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
    const SilentPeer service(socket_of("clock"));
    RawPeer peer(uri);
    peer.send(get_with_ttl("/clock/x", "1500ms"));
    ASSERT_TRUE(wait_until([&] { return service.requests() == 1; }));
    const slate::StopWatch watch(true);
    made.reset();
    EXPECT_LT(watch.elapsed(), 3000000);
    const auto answer = peer.receive();
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(Reply(factory()->make_message(answer->back().data(), answer->back().size())).status(),
              Status::RequestTimeout);
}

TEST_F(ARouter, EndsAtOnceInManyRounds)
{
    for (int i = 0; i < 200; ++i)
        make_router(settings, {scratch_endpoint("inproc")}, nullptr, factory(), run_time_directory).reset();
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_F(ARouter, MayBeMadeAgainAtTheSameEndpoint)
{
    const auto client = make_client(uri, 0);
    for (int i = 0; i < 5; ++i) {
        const auto made = make_router(settings, {uri}, nullptr, factory(), run_time_directory);
        EXPECT_EQ(client->get("/index", nullptr, slate::Seconds(20))->status(), Status::Ok);
    }
}

void write_to(const std::string& file, const std::string& text)
{
    std::ofstream(file) << text;
}

/// Gives this process a /run of its own, which ends with it. Errno if it may not.
int enter_a_run_folder_of_our_own()
{
    const std::string user = std::to_string(getuid());
    const std::string group = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        // Without privilege it takes a user namespace, in which the user stays the same.
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return errno;
        write_to("/proc/self/setgroups", "deny");
        write_to("/proc/self/uid_map", user + " " + user + " 1");
        write_to("/proc/self/gid_map", group + " " + group + " 1");
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run", "tmpfs", 0, nullptr) != 0)
        return errno;
    return 0;
}

/// The default run-time directory with one service, for one test.
class DefaultDirectory {
public:
    DefaultDirectory()
    {
        const int error = enter_a_run_folder_of_our_own();
        // Where there are no mount namespaces, as in a build's own root, that is no failure unless the folder
        // was there before.
        if (error && (geteuid() != 0 || std::filesystem::exists(path_)))
            throw std::system_error(error, std::generic_category(), "no mount namespace of our own");
        std::filesystem::create_directories(path_ / "clock");
    }
    ~DefaultDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

private:
    const std::filesystem::path path_ = "/run/tide";
};

TEST(TheDefaultRouter, LooksForServicesBelowRunTide)
{
    std::optional<DefaultDirectory> directory;
    try {
        directory.emplace();
    }
    catch (const std::system_error& error) {
        GTEST_SKIP() << error.what();
    }
    const LogCapture logs;
    const ScratchFolder folder;
    ZmqSubsystem runtime;
    const auto uri = slate::make_uri("ipc://" + (folder.path() / "router.sock").string());
    const auto route = make_test_route("time", "get", "/time");
    route->on_get = [](Context& context) { context.reply.set_reply_text("noon"); };
    runtime.add_server(slate::make_uri("ipc:///run/tide/clock/zmq.sock"))->add(route);

    runtime.add_router({uri});
    EXPECT_EQ(make_client(uri)->get("/clock/time")->data(), "noon");
    EXPECT_EQ(make_client(uri)->get("/index/time")->status(), Status::NotFound);

    const auto second = slate::make_uri("ipc://" + (folder.path() / "second.sock").string());
    runtime.add_router({second}, nullptr);
    EXPECT_EQ(make_client(second)->get("/clock/time")->data(), "noon");

    const auto third = slate::make_uri("ipc://" + (folder.path() / "third.sock").string());
    const auto made = make_router(runtime.settings(), {third}, nullptr, make_message_factory());
    EXPECT_EQ(make_client(third)->get("/clock/time")->data(), "noon");
}

TEST_F(ARouter, LetsAHandlerKnowUntilWhenItWaits)
{
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> told;
    auto route = make_test_route("a", "get", "/a");
    route->on_get = [&](Context& context) { told = context.deadline(); };
    const auto service = serve_as("clock");
    service->add(route);
    start();
    const auto client = make_client(uri, 0);

    const auto share = std::chrono::milliseconds(500);
    const auto before = Clock::now();
    ASSERT_TRUE(client->get("/clock/a", nullptr, slate::Minutes(5))->good());
    ASSERT_TRUE(told);
    EXPECT_GE(*told, before + std::chrono::minutes(5) - share);
    EXPECT_LE(*told, Clock::now() + std::chrono::minutes(5) - share);
}
} // namespace
