// SPDX-License-Identifier: Apache-2.0
// What every server does, whatever its threads: one suite for both kinds.
#include "tarn/server.h"

#include <chrono>
#include <filesystem>
#include <future>
#include <optional>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/environment.h"
#include "support/forwarding_factory.h"
#include "support/peers.h"
#include "support/server_kinds.h"
#include "tarn/relay.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

using AServer = ServerTest;
INSTANTIATE_SERVER_KINDS(AServer);

TEST_P(AServer, ServesFromTheMomentThatItIsMade)
{
    const auto server = make({uri});
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_P(AServer, ServesAllItsEndpoints)
{
    const auto second = scratch_endpoint();
    const auto inproc = scratch_endpoint("inproc");
    const auto server = make({uri, second, inproc});

    for (const auto& endpoint : {uri, second, inproc})
        EXPECT_EQ(make_client(endpoint)->get("/index")->status(), Status::Ok) << endpoint->to_string();
}

TEST_P(AServer, ServesTcp)
{
    // The system chooses the port, so it has to be found out before.
    zmq::context_t context;
    zmq::socket_t probe(context, zmq::socket_type::rep);
    probe.bind("tcp://127.0.0.1:*");
    const auto tcp = slate::make_uri(probe.get(zmq::sockopt::last_endpoint));
    probe.close();
    context.close();

    const auto server = make({tcp});
    EXPECT_EQ(make_client(tcp)->get("/index")->status(), Status::Ok);
}

TEST_P(AServer, OpensItsSocketFileToOwnerAndGroup)
{
    const auto server = make({uri});

    struct stat info {};
    ASSERT_EQ(stat(uri->path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0775u);
}

TEST_P(AServer, TriesToGiveItsSocketFileToTheSocketGroup)
{
    const auto server = make({uri});
    // No such group exists where tests run; what there is to see is the attempt.
    EXPECT_TRUE(
        logs.has(slate::WarnLevel, "failed to set group for " + uri->path() + "; group does not exist"));
}

TEST_P(AServer, GivesItsSocketFileTheModeAndTheGroupOfTheSettings)
{
    const gid_t group = geteuid() == 0 ? 1 : getgid();
    settings->set("socket_mode", "0710");
    settings->set("socket_group", std::string_view(getgrgid(group)->gr_name));
    const auto server = make({uri});

    struct stat info {};
    ASSERT_EQ(stat(uri->path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0710u);
    EXPECT_EQ(info.st_gid, group);
    EXPECT_EQ(logs.count(slate::WarnLevel), 0u);
}

TEST_P(AServer, LeavesTheGroupOfItsSocketFileIfThatOfTheSettingsIsEmpty)
{
    settings->set("socket_group", "");
    const auto server = make({uri});
    EXPECT_EQ(logs.count(slate::WarnLevel), 0u);
}

TEST_P(AServer, RemovesItsSocketFileWhenItEnds)
{
    auto server = make({uri});
    ASSERT_TRUE(std::filesystem::exists(uri->path()));
    server.reset();
    EXPECT_FALSE(std::filesystem::exists(uri->path()));
}

TEST_P(AServer, LeavesTheSocketFileOfItsSuccessorAlone)
{
    auto first = make({uri});
    auto second = make({uri});
    first.reset();
    EXPECT_EQ(make_client(uri, 0)->get("/index")->status(), Status::Ok);
    second.reset();
    EXPECT_FALSE(std::filesystem::exists(uri->path()));
}

TEST_P(AServer, HasAProviderWithItsCountersWhileItLives)
{
    auto server = make({uri});
    for (const std::string name : {"err", "sub", "dropped", "rx", "tx"})
        EXPECT_EQ(counted(name), 0u) << name;

    server.reset();
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_P(AServer, MarksItsCountersOfTrouble)
{
    const auto server = make({uri});

    std::map<std::string, std::optional<int>> severities;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.server") {
            for (const auto& found : shown.counters)
                severities[found.name] = found.severity;
        }
    }
    EXPECT_EQ(severities["err"], 0);
    EXPECT_EQ(severities["dropped"], 1);
    for (const std::string name : {"sub", "rx", "tx"})
        EXPECT_EQ(severities[name], std::nullopt) << name;
}

TEST_P(AServer, CanTakeTheEndpointOverOfOneThatHasJustEnded)
{
    zmq::context_t context;
    zmq::socket_t probe(context, zmq::socket_type::rep);
    probe.bind("tcp://127.0.0.1:*");
    const auto tcp = slate::make_uri(probe.get(zmq::sockopt::last_endpoint));
    probe.close();
    context.close();

    for (const auto& endpoint : {uri, scratch_endpoint("inproc"), tcp}) {
        for (int i = 0; i < 30; ++i) {
            const auto server = make({endpoint});
            EXPECT_EQ(make_client(endpoint, 0)->get("/index")->status(), Status::Ok) << endpoint->to_string();
        }
    }
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_P(AServer, EndsAtOnceHoweverOftenItIsMadeAndDestroyed)
{
    for (int i = 0; i < 20; ++i)
        make({scratch_endpoint("inproc")}).reset();
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_P(AServer, AnswersEachVerbByItsHandler)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get,put,post,delete", "/a");
    Journal called;
    route->on_get = [&](Context& context) { context.reply.set_reply_text("got"); };
    route->on_put = [&](Context& context) { called.add("put " + context.request.data()); };
    route->on_post = [&](Context& context) { called.add("post " + context.request.data()); };
    route->on_del = [&](Context&) { called.add("del"); };
    server->add(route);
    const auto client = make_client(uri);

    EXPECT_EQ(client->get("/a")->data(), "got");
    const auto head = client->head("/a");
    EXPECT_EQ(head->status(), Status::Ok);
    EXPECT_EQ(head->header("Content-Length", ""), "3");
    EXPECT_FALSE(head->message->response().has_body());
    EXPECT_EQ(client->put("/a", "1")->status(), Status::NoContent);
    EXPECT_EQ(client->post("/a", "2")->status(), Status::NoContent);
    EXPECT_EQ(client->del("/a")->status(), Status::NoContent);
    EXPECT_EQ(called.entries(), (std::vector<std::string>{"put 1", "post 2", "del"}));
}

TEST_P(AServer, AnswersWhatNoRouteTakesWithNotFound)
{
    const auto server = make({uri});

    const Message answer = exchange(get_message("/nowhere", 77));

    const Response& response = answer.response();
    EXPECT_EQ(response.status(), Status::NotFound);
    EXPECT_EQ(response.status_message(), "");
    EXPECT_FALSE(response.has_body());
    EXPECT_EQ(response.head().path(), "/nowhere");
    EXPECT_EQ(response.head().from().pid(), getpid());
    ASSERT_EQ(response.head().to_size(), 1);
    EXPECT_EQ(response.head().to(0).pid(), 77);
    EXPECT_EQ(counted("rx"), 1u);
    EXPECT_TRUE(wait_until([&] { return counted("tx") == 1u; }));
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AServer, PresetsTheReplyForAHandlerThatWritesNothing)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get,put,post,del", "/a");
    route->on_get = route->on_put = route->on_post = route->on_del = [](Context&) {};
    server->add(route);
    const auto client = make_client(uri);

    for (const auto& reply : {client->get("/a?format=json"), client->put("/a", "x"), client->post("/a", "x"),
                              client->del("/a?format=json")}) {
        EXPECT_EQ(reply->status(), Status::NoContent);
        EXPECT_EQ(reply->format(), Format::Empty);
        EXPECT_FALSE(reply->message->response().has_body());
    }
}

TEST_P(AServer, RefusesVerbsThatTheRouteDoesNotTakeAndLooksNoFurther)
{
    const auto server = make({uri});
    server->add(make_test_route("closed", "", "/a"));
    const auto open = make_test_route("open", "get,put,post,del", "/a");
    open->on_get = [](Context& context) { context.reply.set_reply_text("open"); };
    server->add(open);
    const auto client = make_client(uri);

    const std::vector<std::pair<std::shared_ptr<Reply>, std::string>> refused = {
        {client->get("/a"), "GET"},      {client->head("/a"), "HEAD"},      {client->del("/a"), "DEL"},
        {client->put("/a", "x"), "PUT"}, {client->post("/a", "x"), "POST"},
    };
    for (const auto& [reply, verb] : refused) {
        EXPECT_EQ(reply->status(), Status::MethodNotAllowed) << verb;
        EXPECT_EQ(reply->status_message(), "route [closed] doesn't support " + verb);
        EXPECT_TRUE(logs.has(slate::ErrorLevel, "route [closed] doesn't support " + verb));
    }
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AServer, GivesARequestToTheFirstRouteThatAcceptsIt)
{
    const auto server = make({uri});
    for (const std::string name : {"first", "second"}) {
        const auto route = make_test_route(name, "get", "/a");
        route->on_get = [name](Context& context) { context.reply.set_reply_text(name); };
        server->add(route);
    }
    const auto client = make_client(uri);

    EXPECT_EQ(client->get("/a")->data(), "first");
    server->del("first");
    EXPECT_EQ(client->get("/a")->data(), "second");
}

TEST_P(AServer, LetsAHandlerChooseTheStatusByAnException)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get,del", "/a");
    route->on_get = [](Context&) { throw MessageException(Status::Forbidden, "not for you"); };
    route->on_del = [](Context&) { throw std::runtime_error("broken"); };
    server->add(route);
    const auto client = make_client(uri);

    auto reply = client->get("/a");
    EXPECT_EQ(reply->status(), Status::Forbidden);
    EXPECT_EQ(reply->status_message(), "not for you");
    EXPECT_TRUE(logs.texts(slate::ErrorLevel).empty());

    reply = client->del("/a");
    EXPECT_EQ(reply->status(), Status::InternalServerError);
    EXPECT_EQ(reply->status_message(), "broken");
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "InternalServerError; broken"));
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AServer, AnswersEveryOtherExceptionAsItsOwnFailure)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get,put,post,del", "/a");
    route->on_get = [](Context&) { throw Exception("plain"); };
    route->on_put = [](Context&) { throw OverloadedException("too many requests"); };
    route->on_post = [](Context&) { throw 42; };
    server->add(route);
    const auto client = make_client(uri);

    for (const auto& [reply, text] :
         {std::pair(client->get("/a"), "plain"), std::pair(client->put("/a", "x"), "too many requests"),
          std::pair(client->post("/a", "x"), "unknown exception")}) {
        EXPECT_EQ(reply->status(), Status::InternalServerError);
        EXPECT_EQ(reply->status_message(), text);
    }
    EXPECT_EQ(client->del("/a")->status(), Status::NotImplemented);
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
}

TEST_P(AServer, AnswersWhateverIsThrownBesideTheHandlerAndGoesOn)
{
    class FailingFactory : public ForwardingFactory {
        MessagePtr make_response(const MessagePtr&, int) const override { throw std::bad_alloc(); }
        using ForwardingFactory::make_response;
    };
    const auto failing = std::make_shared<FailingFactory>();
    const auto server =
        GetParam().workers == 1
            ? tarn_internal::make_single_threaded_server(id, settings, {uri}, nullptr, failing)
            : tarn_internal::make_multi_threaded_server(id, GetParam().workers, settings, {uri}, nullptr,
                                                        failing);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(make_client(uri, 0)->get("/index")->status(), Status::InternalServerError);
    EXPECT_TRUE(will_have_counted("err", 5));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "std::bad_alloc"));
}

TEST_P(AServer, AnswersWhenTheMemoryDoesNotSufficeForTheReply)
{
    if (allocator_aborts)
        GTEST_SKIP() << "a sanitizer's allocator ends the process";
    const auto server = make({uri});
    const auto route = make_test_route("large", "get", "/large");
    route->on_get = [](Context& context) { context.reply.set_reply_text(std::string(150 << 20, 'x')); };
    server->add(route);
    const auto client = make_client(uri, 0);
    ASSERT_EQ(client->get("/index")->status(), Status::Ok);
    {
        // Suffices for the body, and not for the frame as well.
        const AddressSpaceLimit limit(std::size_t{220} << 20);
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(client->get("/large", nullptr, slate::Seconds(20))->status(),
                      Status::InternalServerError);
        EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    }
    EXPECT_EQ(client->get("/large", nullptr, slate::Seconds(20))->data().size(), std::size_t{150} << 20);
}

TEST_P(AServer, KeepsWhatAHandlerHadSetBeforeItFailed)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context& context) {
        context.reply.set_reply_text("half");
        context.reply.set_header("X-Half", "yes");
        throw MessageException(Status::Conflict, "half done");
    };
    server->add(route);

    const auto reply = make_client(uri)->get("/a");

    EXPECT_EQ(reply->status(), Status::Conflict);
    EXPECT_EQ(reply->status_message(), "half done");
    EXPECT_EQ(reply->data(), "half");
    EXPECT_EQ(reply->header("X-Half", ""), "yes");
    EXPECT_EQ(reply->path(), "/a");
}

TEST_P(AServer, SurvivesAHandlerThatTakesTheReplyAway)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get,del", "/a");
    route->on_get = [](Context& context) { context.reply.message.reset(); };
    route->on_del = [](Context& context) {
        context.reply.message.reset();
        throw MessageException(Status::Gone, "gone");
    };
    server->add(route);
    const auto client = make_client(uri);

    EXPECT_EQ(client->get("/a")->status(), Status::InternalServerError);
    EXPECT_EQ(client->head("/a")->status(), Status::InternalServerError);
    EXPECT_EQ(client->del("/a")->status(), Status::Gone);
}

TEST_P(AServer, AnswersHeadOnARouteThatGivesNoBodyAsAFailure)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context&) {};
    server->add(route);

    const auto reply = make_client(uri)->head("/a");
    EXPECT_EQ(reply->status(), Status::InternalServerError);
    EXPECT_EQ(reply->status_message(), "Envelope::data does not exist");
}

TEST_P(AServer, HandsTheServersPidAndTheVariablesToTheHandler)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get", "/user/:id");
    route->on_get = [](Context& context) {
        context.reply.set_reply_text(std::to_string(context.pid) + " " + context.params->get("id", "") + " " +
                                     context.params->get("q", "") + " " + context.params->get("X-H", ""));
    };
    server->add(route);
    const auto headers = slate::make_dictionary();
    headers->set("X-H", "header");

    EXPECT_EQ(make_client(uri)->get("/user/7?q=a%20b", headers)->data(),
              std::to_string(getpid()) + " 7 a b header");
}

TEST_P(AServer, AnswersForAValueWithWhatItsFunctionsGiveAndThrow)
{
    std::atomic<int> value{-7};
    const auto server = make({uri});
    server->add(make_int32_route(
        "value", "get,put,post,del", "/value", [&](Context&) { return value.load(); },
        [&](Context&, int written) {
            if (written > 100)
                throw MessageException(Status::Conflict, "too much");
            value = written;
        }));
    const auto client = make_client(uri);

    const auto got = client->get("/value");
    EXPECT_EQ(got->status(), Status::Ok);
    EXPECT_EQ(got->data(), "-7");
    const auto head = client->head("/value");
    EXPECT_EQ(head->header("Content-Length", ""), "2");
    EXPECT_FALSE(head->message->response().has_body());

    EXPECT_EQ(client->put("/value", "8")->status(), Status::NoContent);
    EXPECT_EQ(value, 8);
    EXPECT_EQ(client->post("/value", "9")->status(), Status::NoContent);
    EXPECT_EQ(value, 9);

    const auto unreadable = client->put("/value", "abc");
    EXPECT_EQ(unreadable->status(), Status::BadRequest);
    EXPECT_EQ(unreadable->status_message(), "failed to write; cannot parse value");
    const auto refused = client->post("/value", "101");
    EXPECT_EQ(refused->status(), Status::Conflict);
    EXPECT_EQ(refused->status_message(), "too much");
    EXPECT_EQ(client->del("/value")->status(), Status::InternalServerError); // it has no deleter
    EXPECT_EQ(value, 9);
}

TEST_P(AServer, AnswersPrivateRoutesToItsOwnProcessOnly)
{
    const auto server = make({uri});
    const auto route = make_test_route("secret", "get", "/secret", Access::Private);
    route->on_get = [](Context& context) { context.reply.set_reply_text("secret"); };
    server->add(route);

    EXPECT_EQ(exchange(get_message("/secret", getpid())).response().status(), Status::Ok);
    EXPECT_EQ(exchange(get_message("/secret", getpid() + 1)).response().status(), Status::NotFound);
    Message anonymous;
    anonymous.mutable_get()->mutable_head()->set_path("/secret");
    EXPECT_EQ(exchange(anonymous).response().status(), Status::NotFound);

    slate::set_log_level(slate::DebugLevel);
    EXPECT_EQ(exchange(get_message("/secret", getpid() + 1)).response().status(), Status::Ok);
}

TEST_P(AServer, LogsRequestsAndRepliesOnlyForDebugging)
{
    const auto server = make({uri});
    const auto client = make_client(uri);
    client->get("/a");
    ASSERT_TRUE(will_have_counted("tx", 1)); // and has logged whatever it has to say before
    for (const LoggedLine& line : logs.lines())
        EXPECT_FALSE(line.text.starts_with("rx: ") || line.text.starts_with("tx: ")) << line.text;

    slate::set_log_level(slate::DebugLevel);
    client->get("/a");
    EXPECT_EQ(logs.count(slate::DebugLevel, "rx: get { head {"), 1u);
    EXPECT_TRUE(wait_until([&] { return logs.count(slate::DebugLevel, "tx: response { head {") == 1; }));
}

TEST_P(AServer, CarriesABodyOfManyMegabytesInOneReply)
{
    const auto server = make({uri});
    const auto route = make_test_route("echo", "put", "/echo");
    route->on_put = [](Context& context) { context.reply.set_reply_text(context.request.data()); };
    server->add(route);
    const std::string body(16 << 20, 'b');

    EXPECT_EQ(make_client(uri)->put("/echo", body, nullptr, slate::Seconds(30))->data(), body);
}

TEST_P(AServer, HasAnEmptyIndexUntilARouteIsAdded)
{
    const auto server = make({uri});
    const auto client = make_client(uri);
    EXPECT_EQ(client->get("/index?format=text")->data(), "");

    server->add(make_test_route("a", "get,put", "/a"));
    EXPECT_EQ(client->get("/index?format=text")->data(), "public  HEAD,GET,PUT   \"/a\"\n"
                                                         "public  HEAD,GET       \"/index\"");
    server->del("a");
    EXPECT_EQ(client->get("/index?format=text")->data(), "public  HEAD,GET   \"/index\"");
}

TEST_P(AServer, RefusesASecondRouteOfOneNameButPrimesIt)
{
    const auto server = make({uri});
    const auto first = make_test_route("a", "get", "/first");
    const auto second = make_test_route("a", "get", "/second/");

    EXPECT_TRUE(server->add(first));
    EXPECT_FALSE(server->add(second));

    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot add route; duplicate name: a"));
    EXPECT_EQ(second->patterns[0].pattern, "/second");
    EXPECT_EQ(make_client(uri)->get("/second")->status(), Status::NotFound);
}

TEST_P(AServer, RefusesARouteNamedIndexAndANullRoute)
{
    const auto server = make({uri});
    EXPECT_FALSE(server->add(make_test_route("index", "get", "/x")));
    EXPECT_FALSE(server->add(nullptr));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot add route; "), 2u);
}

TEST_P(AServer, FillsPlaceholdersFromItsSettings)
{
    settings->set("site", "north");
    const auto server = make({uri});
    const auto route = make_test_route("a", "get", "/<site>/status");
    route->on_get = [](Context& context) { context.reply.set_reply_text("here"); };

    EXPECT_TRUE(server->add(route));
    EXPECT_EQ(make_client(uri)->get("/north/status")->data(), "here");

    EXPECT_THROW(server->add(make_test_route("b", "get", "/<planet>/status")), Exception);
    EXPECT_TRUE(server->add(make_test_route("b", "get", "/b"))); // the name is still free, and so is the lock
}

TEST_P(AServer, KeepsItsIndexWhenItIsCleared)
{
    const auto server = make({uri});
    server->add(make_test_route("a", "get", "/a"));
    server->suppress_add_remote_call_warning();
    server->add(5u, [](Message&) {});
    server->clear();

    const auto client = make_client(uri);
    EXPECT_EQ(client->get("/index?format=text")->data(), "public  HEAD,GET   \"/index\"");
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(5);
    EXPECT_EQ(exchange(call).call().result().status(), Status::NotFound);
}

TEST_P(AServer, CanLoseItsIndexAndGetsItBackWhenCleared)
{
    const auto server = make({uri});
    const auto client = make_client(uri);
    server->del("index");
    EXPECT_EQ(client->get("/index")->status(), Status::NotFound);
    server->clear();
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
}

TEST_P(AServer, LetsAHandlerAddAndDeleteRoutesOfItsOwnServer)
{
    const auto server = make({uri});
    const auto route = make_test_route("maker", "post", "/make");
    route->on_post = [&, server = std::weak_ptr(server)](Context&) {
        const auto made = make_test_route("made", "get", "/made");
        made->on_get = [](Context& context) { context.reply.set_reply_text("made"); };
        server.lock()->add(made);
        server.lock()->del("maker");
    };
    server->add(route);
    const auto client = make_client(uri);

    EXPECT_EQ(client->post("/make", "x")->status(), Status::NoContent);
    EXPECT_EQ(client->get("/made")->data(), "made");
    EXPECT_EQ(client->post("/make", "x")->status(), Status::NotFound);
}

TEST_P(AServer, TakesRoutesFromOtherThreadsWhileItServes)
{
    const auto server = make({uri});
    const auto fixed = make_test_route("fixed", "get", "/fixed");
    fixed->on_get = [](Context& context) { context.reply.set_reply_text("fixed"); };
    server->add(fixed);
    std::atomic<bool> stop{false};
    std::vector<std::jthread> changers;
    for (int t = 0; t < 3; ++t) {
        changers.emplace_back([&, t] {
            const std::string name = "r" + std::to_string(t);
            while (!stop) {
                server->add(make_test_route(name, "get", "/" + name + "/:id"));
                server->del(name);
            }
        });
    }

    const auto client = make_client(uri);
    int right = 0;
    for (int i = 0; i < 200; ++i) {
        right += client->get("/fixed", nullptr, slate::Seconds(30))->data() == "fixed" ? 1 : 0;
        right += client->get("/index", nullptr, slate::Seconds(30))->good() ? 1 : 0;
    }
    stop = true;

    EXPECT_EQ(right, 400);
}

TEST_P(AServer, IsNotDisturbedBySignalsToTheProcess)
{
    static std::atomic<int> handled{0};
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ++handled; };
    sigaction(SIGUSR1, &action, &before);

    const auto server = make({uri});
    const auto client = make_client(uri);
    for (int i = 0; i < 20; ++i) {
        kill(getpid(), SIGUSR1);
        EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    }

    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_GE(handled, 1);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AServer, MayLoseItsLastOwnerInItsOwnHandler)
{
    auto server = make({uri});
    const auto route = make_test_route("last", "get", "/last");
    std::promise<void> held;
    std::promise<void> released;
    route->on_get = [&, weak = std::weak_ptr(server)](Context&) {
        const auto last = weak.lock();
        held.set_value();
        released.get_future().wait();
    };
    server->add(route);
    {
        RawPeer peer(uri); // which doesn't wait for an answer: nobody promises one any more
        peer.send(get_message("/last").SerializeAsString());
        held.get_future().wait();
        server.reset();
        EXPECT_EQ(providers("zmq.server"), 1u);
        released.set_value();
    }

    EXPECT_TRUE(wait_until([] { return providers("zmq.server") == 0; }));
    // The runtime object's pointer and the one that ctx() gives: nothing is left of the server.
    EXPECT_TRUE(wait_until([&] { return runtime->ctx().use_count() == 2; }));
}

TEST_P(AServer, EndsWithAFewWordsWhenItsContextIsShutDown)
{
    auto server = make({uri}, scratch_endpoint());

    runtime->ctx()->shutdown();
    EXPECT_TRUE(wait_until([&] { return logs.count(slate::ErrorLevel) >= 1; }));
    server.reset();

    EXPECT_LE(logs.lines().size(), 30u);
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_P(AServer, IsNotMadeForAnEndpointThatIsNull)
{
    const std::shared_ptr<const slate::Uri> null;

    EXPECT_EQ(make({null}), nullptr);
    EXPECT_EQ(make({uri, null}), nullptr);

    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>(2, "cannot make_server, an endpoint is null"));
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_P(AServer, AnswersARemoteFunctionThatThrowsAnythingAsItsOwnFailure)
{
    const auto server = make({uri});
    server->suppress_add_remote_call_warning();
    server->add(7u, [](Message&) { throw 42; });
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(7);

    const Message answer = exchange(call);

    EXPECT_EQ(answer.call().result().status(), Status::InternalServerError);
    EXPECT_EQ(answer.call().result().status_message(), "unknown exception");
    EXPECT_EQ(exchange(get_message("/index")).response().status(), Status::Ok);
}

TEST_P(AServer, GivesTheReasonOfAFailureInUtf8WhateverTheHandlerWrote)
{
    const auto server = make({uri});
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context&) { throw MessageException(Status::Conflict, "a\xFFz"); };
    server->add(route);

    const auto reply = make_client(uri)->get("/a");

    EXPECT_EQ(reply->status(), Status::Conflict);
    EXPECT_EQ(reply->status_message(), "a\uFFFDz");
}

TEST_P(AServer, PassesOnTextThatIsNotUtf8AsBytesAndOtherTextAsText)
{
    const auto server = make({uri});
    std::string value; // touched by handlers of one route only
    server->add(make_string_route(
        "text", "get,put", "/text", [&](Context&) { return value; },
        [&](Context&, std::string text) { value = std::move(text); }));
    const auto client = make_client(uri);

    EXPECT_TRUE(client->put("/text", "a\xFFz")->good());
    const auto reply = client->get("/text");

    EXPECT_EQ(reply->status(), Status::Ok);
    ASSERT_NE(reply->message, nullptr);
    EXPECT_TRUE(reply->message->response().body().has_bin());
    EXPECT_EQ(reply->message->response().body().bin(), "a\xFFz");
    EXPECT_EQ(reply->format(), Format::Text);

    EXPECT_TRUE(client->put("/text", "a\xC3\xB6z")->good());
    EXPECT_EQ(client->get("/text")->message->response().body().txt(), "a\xC3\xB6z");
}

TEST_P(AServer, OutlivesMoreRouteChangesThanItsControlChannelHolds)
{
    const auto pub = scratch_endpoint();
    const auto publisher = make_publisher(pub);
    auto server = make({uri}, pub);
    // Holds up the thread that hears of changes, whichever that is.
    std::atomic<bool> blocked{false};
    std::promise<void> released;
    const auto blocking = make_test_route("blocking", "put", "/blocking");
    blocking->on_put = [&, release = released.get_future().share()](Context&) {
        blocked = true;
        release.wait();
    };
    server->add(blocking);
    ASSERT_TRUE(wait_until([&] {
        publisher->put("/blocking", "x");
        return blocked.load();
    }));

    const auto passing = make_test_route("passing", "get", "/passing");
    std::atomic<int> heard{0};
    const auto late = make_test_route("late", "get,put", "/late");
    late->on_get = [](Context& context) { context.reply.set_reply_text("late"); };
    late->on_put = [&](Context&) { ++heard; };
    std::thread([&] {
        for (int i = 0; i < 1500; ++i) {
            server->add(passing);
            server->del("passing");
        }
        server->add(late);
    }).join();
    released.set_value();

    EXPECT_EQ(make_client(uri)->get("/late", nullptr, slate::Seconds(30))->data(), "late");
    EXPECT_TRUE(wait_until([&] {
        publisher->put("/late", "x");
        return heard > 0;
    }));
    server.reset();
    EXPECT_EQ(providers("zmq.server"), 0u);
}

TEST_P(AServer, ServesARouteUndisturbedThatASecondServerTakesAndDrops)
{
    const auto second_uri = scratch_endpoint();
    const auto first = make({uri});
    const auto second = make({second_uri});
    const auto shared = make_test_route("shared", "get", "/shared/:id");
    shared->on_get = [](Context& context) { context.reply.set_reply_text(context.params->get("id", "")); };
    first->add(shared);
    std::atomic<int> asked{0};
    std::atomic<int> right{0};
    std::atomic<bool> stop{false};
    std::vector<std::jthread> askers;
    for (int t = 0; t < 4; ++t) {
        askers.emplace_back([&, t] {
            const auto client = make_client(uri);
            const std::string own = std::to_string(t);
            while (!stop) {
                ++asked;
                right += client->get("/shared/" + own, nullptr, slate::Seconds(30))->data() == own ? 1 : 0;
            }
        });
    }
    ASSERT_TRUE(wait_until([&] { return right > 0; }));

    for (int i = 0; i < 100; ++i) {
        EXPECT_TRUE(second->add(shared));
        second->del("shared");
    }
    const int before = right;
    ASSERT_TRUE(wait_until([&] { return right > before; }));
    stop = true;
    askers.clear();

    EXPECT_EQ(right, asked);
    second->add(shared);
    EXPECT_EQ(make_client(second_uri)->get("/shared/2")->data(), "2");
}

TEST_P(AServer, GoesOnWhenTheClientIsGoneBeforeItsHandlerReturns)
{
    const auto server = make({uri});
    const auto route = make_test_route("slow", "get", "/slow");
    std::promise<void> entered;
    std::promise<void> released;
    route->on_get = [&](Context& context) {
        entered.set_value();
        released.get_future().wait();
        context.reply.set_reply_text("nobody hears this");
    };
    server->add(route);
    {
        RawPeer peer(uri);
        peer.send(get_message("/slow").SerializeAsString());
        entered.get_future().wait();
    }
    released.set_value();

    const auto client = make_client(uri);
    for (int i = 0; i < 5; ++i) // each worker has its turn
        EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    EXPECT_EQ(counted("rx"), 6u);
}

TEST_P(AServer, ServesRequestsAndPublishedChangesWithoutOverlapInOneRoute)
{
    constexpr int rounds = 100;
    const auto pub = scratch_endpoint();
    const auto publisher = make_publisher(pub);
    const auto server = make({uri}, pub);
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    const auto alone = [&](const std::function<void()>& body) {
        overlaps += ++inside == 1 ? 0 : 1;
        body();
        std::this_thread::yield(); // a chance for another one to come in
        --inside;
    };
    std::atomic<bool> subscribed{false};
    std::atomic<int> changes{0};
    const auto route = make_test_route("a", "get,put", "/a");
    route->on_get = [&](Context& context) { alone([&] { context.reply.set_reply_text("got"); }); };
    route->on_put = [&](Context& context) {
        alone([&] { context.request.data() == "change" ? void(++changes) : void(subscribed = true); });
    };
    server->add(route);
    ASSERT_TRUE(wait_until([&] {
        publisher->put("/a", "are you there");
        return subscribed.load();
    }));

    std::atomic<int> right{0};
    {
        std::vector<std::jthread> askers;
        for (int t = 0; t < 3; ++t) {
            askers.emplace_back([&] {
                const auto client = make_client(uri);
                for (int i = 0; i < rounds; ++i)
                    right += client->get("/a", nullptr, slate::Seconds(30))->data() == "got" ? 1 : 0;
            });
        }
        for (int i = 0; i < rounds; ++i)
            EXPECT_TRUE(publisher->put("/a", "change")->good());
    }

    EXPECT_EQ(right, 3 * rounds);
    EXPECT_TRUE(wait_until([&] { return changes == rounds; }));
    EXPECT_EQ(overlaps, 0);
}

TEST_P(AServer, IsMadeWithAMessageFactoryOfItsOwnIfItIsGivenNone)
{
    const auto server = GetParam().workers == 1 ? make_server(settings, {uri}, nullptr)
                                                : make_server(GetParam().workers, settings, {uri}, nullptr);

    ASSERT_NE(server, nullptr);
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_P(AServer, DoesNotHoldUpTheEndOfAProcessForAPeerThatDoesNotReadItsReplies)
{
    auto server = make({uri});
    const auto route = make_test_route("large", "get", "/large");
    std::atomic<int> answered{0};
    route->on_get = [&](Context& context) {
        context.reply.set_reply_text(std::string(1 << 20, 'x'));
        ++answered;
    };
    server->add(route);
    zmq::context_t context;
    zmq::socket_t peer(context, zmq::socket_type::dealer);
    peer.set(zmq::sockopt::linger, 0);
    peer.set(zmq::sockopt::rcvhwm, 1);
    peer.connect(uri->to_string());
    for (int i = 0; i < 30; ++i)
        send_frames(peer, {"", get_message("/large").SerializeAsString()});
    ASSERT_TRUE(wait_until([&] { return answered == 30; }));

    const slate::StopWatch watch(true);
    server.reset();
    runtime.reset();
    EXPECT_GE(watch.elapsed(), 3000000); // or there was nothing left to wait for
    EXPECT_LT(watch.elapsed(), 20000000);
}

TEST_P(AServer, EndsAtOnceInAThousandRoundsAlsoWithARelayToHear)
{
    // A relay that runs: a closed inproc socket keeps its place in the context, which has 1,023, until its
    // peer has taken note of it.
    const auto pub = scratch_endpoint("inproc");
    const auto relay = make_relay(scratch_endpoint("inproc"), pub);
    for (int i = 0; i < 1000; ++i)
        make({scratch_endpoint("inproc")}, pub).reset();
    EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>());
}

TEST_P(AServer, TellsItsHandlersWhoHasConnected)
{
    Journal told;
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [&](Context& context) { told.add(context.peer_address); };
    const auto inproc = scratch_endpoint("inproc");
    const auto server = make({uri, inproc});
    server->add(route);
    ASSERT_TRUE(make_client(uri, 0)->get("/a")->good());
    ASSERT_TRUE(make_client(inproc, 0)->get("/a")->good());
    ASSERT_EQ(told.entries().size(), 2u);
    const std::string own =
        ":" + std::to_string(geteuid()) + ":" + std::to_string(getegid()) + ":" + std::to_string(getpid());
    EXPECT_TRUE(told.entries()[0].ends_with(own)) << told.entries()[0] << " for " << own;
    EXPECT_EQ(told.entries()[1], "");
}

TEST_P(AServer, TellsItsHandlersUntilWhenTheCallerWaits)
{
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> told;
    auto route = make_test_route("a", "get,put", "/a");
    route->on_get = route->on_put = [&](Context& context) { told = context.deadline(); };
    const auto server = make({uri});
    server->add(route);
    const auto client = make_client(uri, 0);

    const auto before = Clock::now();
    ASSERT_TRUE(client->get("/a", nullptr, slate::Minutes(5))->good());
    ASSERT_TRUE(told);
    EXPECT_GE(*told, before + std::chrono::minutes(5));
    EXPECT_LE(*told, Clock::now() + std::chrono::minutes(5));

    ASSERT_TRUE(client->put("/a", "x", nullptr, slate::Duration::positive_infinity())->good());
    EXPECT_EQ(told, std::nullopt);
}
} // namespace
