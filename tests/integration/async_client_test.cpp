// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <filesystem>
#include <future>
#include <latch>
#include <map>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>

#include "slate/queue.h"
#include "slate/uri.h"
#include "support/async_peer.h"
#include "support/forwarding_factory.h"
#include "support/gate.h"
#include "support/runtime_test.h"
#include "support/server_kinds.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using namespace std::chrono_literals;

using ReplyPointer = std::shared_ptr<Reply>;

/// What nothing here waits for: longer than any test may last.
const slate::Duration long_time = slate::Minutes(10);

std::string name_of_this_thread()
{
    char name[16] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

/// Whether a reply is one that was made here, for that cause.
testing::AssertionResult is_local(const ReplyPointer& reply, Status status, LocalCause cause)
{
    if (reply->status() == status && reply->local_cause() == cause && !reply->status_message().empty())
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "status " << reply->status() << ", cause " << static_cast<int>(reply->local_cause())
           << ", text \"" << reply->status_message() << '"';
}

class AnAsyncClient : public RuntimeTest {
protected:
    AnAsyncClient() { uri = scratch_endpoint(); }

    std::shared_ptr<AsyncClient> make(const AsyncClientOptions& options = {})
    {
        first_instance_ = first_instance_ < 0 ? newest_instance() + 1 : first_instance_;
        return make_async_client(uri, options);
    }

    /// A counter of the first client of this test.
    std::uint64_t counted(const std::string& name)
    {
        return counter("zmq.async_client", std::to_string(first_instance_), name).value_or(999999);
    }
    bool will_have_counted(const std::string& name, std::uint64_t value)
    {
        return wait_until([&] { return counted(name) == value; });
    }

    /// A client that certainly has a connection to that peer.
    std::shared_ptr<AsyncClient> make_connected(AsyncPeer& peer, const AsyncClientOptions& options = {})
    {
        auto client = make(options);
        auto pending = client->get("/hello", {.timeout = long_time});
        peer.answer(peer.next().value(), "hello");
        EXPECT_EQ(pending.get()->data(), "hello");
        return client;
    }

    std::shared_ptr<const slate::Uri> uri;

private:
    static int newest_instance()
    {
        int newest = -1;
        if (const auto probe = make_async_client("inproc://nobody")) {
            for (const auto& shown : slate::snapshot()) {
                if (shown.name == "zmq.async_client")
                    newest = std::max(newest, std::stoi(shown.instance));
            }
        }
        return newest;
    }

    int first_instance_ = -1;
};

std::shared_ptr<TestRoute> make_echo()
{
    auto route = make_test_route("echo", "get,put,post,delete", "/echo/:id");
    route->on_get = [](Context& context) { context.reply.set_reply_text(context.variable("id")); };
    route->on_put = [](Context& context) {
        context.reply.set_reply_text("put " + context.request.data() + context.request.header("X-H", ""));
    };
    route->on_post = [](Context& context) { context.reply.set_reply_text("post " + context.request.data()); };
    route->on_del = [](Context&) {};
    return route;
}

// What it asks for, and of whom.

class AnAsyncClientOfAServer : public ServerTest {};

TEST_P(AnAsyncClientOfAServer, HasAllVerbs)
{
    const auto server = make({uri});
    server->add(make_echo());
    const auto client = make_async_client(uri);

    auto headers = slate::make_dictionary();
    headers->set("X-H", "!");
    EXPECT_EQ(client->get("/echo/7").get()->data(), "7");
    EXPECT_EQ(client->head("/echo/12").get()->header("Content-Length", ""), "2");
    EXPECT_EQ(client->put("/echo/7", "a", {.headers = headers}).get()->data(), "put a!");
    EXPECT_EQ(client->post("/echo/7", "b").get()->data(), "post b");
    EXPECT_EQ(client->del("/echo/7").get()->status(), Status::NoContent);
    EXPECT_EQ(client->get("/missing").get()->status(), Status::NotFound);
    EXPECT_EQ(client->send(Request(factory()->make_get("/echo/8"))).get()->data(), "8");
    EXPECT_EQ(client->url()->to_string(), uri->to_string());
}

TEST_P(AnAsyncClientOfAServer, GivesEachOfManyThreadsItsReplies)
{
    const auto server = make({uri});
    server->add(make_echo());
    const auto client = make_async_client(uri);

    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 10; ++round) {
                std::vector<std::pair<std::string, Pending>> calls;
                for (int i = 0; i < 48; ++i) {
                    const std::string text = std::to_string((thread * 10 + round) * 100 + i);
                    calls.emplace_back(text, client->get("/echo/" + text, {.timeout = long_time}));
                }
                for (auto& [text, pending] : calls)
                    right += pending.get()->text_or("") == text ? 1 : 0;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(right, 4 * 10 * 48);
    EXPECT_EQ(client->in_flight(), 0u);
}

TEST_P(AnAsyncClientOfAServer, SendsABodyOfManyMiB)
{
    const auto server = make({uri});
    auto route = make_test_route("size", "put", "/size");
    route->on_put = [](Context& context) { context.reply.set_reply_text(context.request.data()); };
    server->add(route);
    const auto client = make_async_client(uri);

    const std::string body(5u << 20, 'x');
    std::vector<Pending> calls;
    for (int i = 0; i < 5; ++i)
        calls.push_back(client->put("/size", body, {.timeout = long_time}));
    for (auto& call : calls)
        EXPECT_EQ(call.get()->text_or(""), body);
}

INSTANTIATE_SERVER_KINDS(AnAsyncClientOfAServer);

TEST_F(AnAsyncClient, AsksThroughARouter)
{
    std::filesystem::create_directory(folder.path() / "clock");
    runtime->serve(slate::make_uri("ipc://" + (folder.path() / "clock/zmq.sock").string()), {make_echo()});
    runtime->add_router({uri}, nullptr, folder.path());
    const auto client = make();

    std::vector<Pending> calls;
    for (int i = 0; i < 64; ++i)
        calls.push_back(client->get("/clock/echo/" + std::to_string(i), {.timeout = long_time}));
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(calls[static_cast<std::size_t>(i)].get()->text_or(""), std::to_string(i));
}

TEST_F(AnAsyncClient, WorksOverTcpAndInproc)
{
    for (const auto& endpoint : {slate::make_uri("tcp://127.0.0.1:*"), scratch_endpoint("inproc")}) {
        zmq::context_t other;
        zmq::socket_t front(endpoint->scheme() == "tcp" ? other : *runtime->ctx(), zmq::socket_type::rep);
        front.bind(endpoint->to_string());
        const auto client = make_async_client(front.get(zmq::sockopt::last_endpoint));
        auto pending = client->get("/a", {.timeout = long_time});
        (void)receive_frames(front);
        send_frames(front, {AsyncPeer::text_reply("yes")});
        EXPECT_EQ(pending.get()->text_or(""), "yes") << endpoint->to_string();
    }
}

TEST_F(AnAsyncClient, IsMadeForTheEndpointOfTheSettings)
{
    settings->set("relay_url", std::string_view(uri->to_string()));
    serve(uri)->add(make_echo());
    EXPECT_EQ(make_async_client()->get("/echo/1").get()->data(), "1");
}

TEST_F(AnAsyncClient, IsMadeForThePathOfASocket)
{
    serve(uri)->add(make_echo());
    const std::string path = uri->to_string().substr(std::string("ipc://").size());
    EXPECT_EQ(make_async_client(path)->get("/echo/1").get()->data(), "1");
}

TEST_F(AnAsyncClient, IsNullWithoutAnEndpointOrARuntime)
{
    EXPECT_EQ(make_async_client(Endpoint()), nullptr);
    EXPECT_EQ(make_async_client("://"), nullptr);
    EXPECT_EQ(make_async_client(static_cast<const char*>(nullptr)), nullptr);
    runtime.reset();
    EXPECT_EQ(make_async_client(uri), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_async_client, tarn not / no longer initialized"));
}

TEST_F(AnAsyncClient, CannotBeMadeOfWhatZeroMqRefuses)
{
    EXPECT_THROW((void)make_async_client("nonsense://x"), zmq::error_t);
    // And the others go on.
    serve(uri)->add(make_echo());
    EXPECT_EQ(make()->get("/echo/1").get()->data(), "1");
}

TEST_F(AnAsyncClient, CannotBeMadeWithoutFreeSockets)
{
    // Room for one client, and not for another.
    zmq_ctx_set(runtime->ctx()->handle(), ZMQ_MAX_SOCKETS, 5);
    AsyncPeer peer(uri);
    const auto client = make_async_client(uri);
    EXPECT_THROW((void)make_async_client(uri), zmq::error_t);
    auto pending = client->get("/a", {.timeout = long_time});
    peer.answer(peer.next().value(), "yes");
    EXPECT_EQ(pending.get()->text_or(""), "yes");
}

TEST_F(AnAsyncClient, ThrowsForARecipientThatCannotBeTakenApart)
{
    const auto client = make();
    EXPECT_THROW((void)client->get("/a@b"), Exception);
    EXPECT_EQ(client->in_flight(), 0u);
}

TEST_F(AnAsyncClient, HasNothingToSendWithoutAMessage)
{
    EXPECT_TRUE(is_local(make()->send(Request()).get(), Status::BadRequest, LocalCause::InvalidRequest));
}

TEST_F(AnAsyncClient, SendsACopyOfARequest)
{
    const auto client = make();
    Request request(factory()->make_get("/before"));
    auto pending = client->send(request, {.timeout = long_time});
    request.message->mutable_get()->mutable_head()->set_path("/after");

    AsyncPeer peer(uri);
    EXPECT_EQ(peer.next().value().request.path(), "/before");
}

// Which reply belongs to whom.

TEST_F(AnAsyncClient, FindsTheCallerOfEachReplyInAnyOrder)
{
    AsyncPeer peer(uri);
    const auto client = make();
    std::map<std::string, Pending> calls;
    for (int i = 0; i < 64; ++i) {
        const std::string path = "/" + std::to_string(i);
        calls.emplace(path, client->get(path, {.timeout = long_time}));
    }
    EXPECT_EQ(client->in_flight(), 64u);

    auto requests = peer.next_ones(64);
    std::shuffle(requests.begin(), requests.end(), std::mt19937(7));
    for (const AsyncRequest& request : requests)
        peer.answer(request, "reply to " + request.request.path());

    for (const auto& [path, pending] : calls)
        EXPECT_EQ(pending.get()->text_or(""), "reply to " + path);
    EXPECT_EQ(client->in_flight(), 0u);
    EXPECT_EQ(counted("tx"), 64u);
    EXPECT_EQ(counted("rx"), 64u);
    EXPECT_EQ(counted("dropped"), 0u);
}

TEST_F(AnAsyncClient, SendsInTheOrderOfTheCallsAndNeverUsesANumberTwice)
{
    AsyncPeer peer(uri);
    const auto client = make();
    std::set<std::string> numbers;
    for (int round = 0; round < 5; ++round) {
        std::vector<Pending> calls;
        for (int i = 0; i < 20; ++i)
            calls.push_back(client->get("/" + std::to_string(i), {.timeout = long_time}));
        for (int i = 0; i < 20; ++i) {
            const auto request = peer.next().value();
            EXPECT_EQ(request.request.path(), "/" + std::to_string(i));
            EXPECT_TRUE(numbers.insert(request.number).second);
            peer.answer(request, "");
        }
        for (auto& call : calls)
            (void)call.get();
    }
}

TEST_F(AnAsyncClient, DropsRepliesThatBelongToNoCall)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    const auto request = peer.next().value();
    const std::string reply = AsyncPeer::text_reply("false");

    peer.send({request.sender, "12345678", "", reply});               // an unknown number
    peer.send({request.sender, request.number, reply});               // no delimiter
    peer.send({request.sender, request.number, "x", reply});          // another delimiter
    peer.send({request.sender, "", reply});                           // no number
    peer.send({request.sender, request.number + "x", "", reply});     // a longer one
    peer.send({request.sender, request.number.substr(1), "", reply}); // a shorter one
    peer.send({request.sender, reply});
    peer.send({request.sender, ""});
    peer.send({request.sender, request.number});
    peer.send({request.sender, request.number, ""});
    std::vector<std::string> many(1000, "x");
    many.insert(many.begin(), request.sender);
    peer.send(many);
    ASSERT_TRUE(will_have_counted("dropped", 11));
    EXPECT_FALSE(pending.ready());

    peer.answer(request, "true");
    EXPECT_EQ(pending.get()->text_or(""), "true");
    peer.answer(request, "again");
    EXPECT_TRUE(will_have_counted("dropped", 12));
    EXPECT_EQ(pending.get()->text_or(""), "true");
    EXPECT_EQ(counted("rx"), 1u);
}

TEST_F(AnAsyncClient, BelievesNoReplyToARequestThatWasNotSentYet)
{
    // More requests than libzmq takes for a peer that doesn't read: the last ones wait in the client.
    constexpr std::uint64_t count = 1500;
    AsyncPeer peer(uri);
    const auto client = make({.max_in_flight = count});
    std::vector<Pending> calls;
    for (std::uint64_t i = 0; i < count; ++i)
        calls.push_back(client->put("/a", std::string(4096, 'x'), {.timeout = long_time}));
    const auto first = peer.next().value();
    std::uint64_t number = 0;
    std::memcpy(&number, first.number.data(), sizeof number);
    number += count - 10;
    std::string guess(sizeof number, '\0');
    std::memcpy(guess.data(), &number, sizeof number);

    peer.send({first.sender, guess, "", AsyncPeer::text_reply("guessed")});

    EXPECT_TRUE(will_have_counted("dropped", 1));
    EXPECT_EQ(client->in_flight(), count);
    for (std::uint64_t i = 1; i < count; ++i)
        peer.answer(peer.next().value(), "true");
    EXPECT_EQ(calls[count - 10].get()->text_or(""), "true");
}

TEST_F(AnAsyncClient, TakesAReplyWithFramesBehindIt)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    const auto request = peer.next().value();
    peer.send({request.sender, request.number, "", AsyncPeer::text_reply("yes"), "more", "and more"});
    EXPECT_EQ(pending.get()->text_or(""), "yes");
    EXPECT_EQ(counted("dropped"), 0u);
}

TEST_F(AnAsyncClient, GivesAReplyWithoutAMessageForAFrameThatDoesNotParse)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    const auto request = peer.next().value();
    peer.send({request.sender, request.number, "", "\xFF\xFF garbage"});
    const auto reply = pending.get();
    EXPECT_EQ(reply->message, nullptr);
    EXPECT_TRUE(reply->bad());
    EXPECT_FALSE(reply->is_local());
    EXPECT_EQ(counted("rx"), 1u);
}

// How long a call lasts.

TEST_F(AnAsyncClient, EndsCallsInTheOrderOfTheirDeadlinesAndNotBeforeThem)
{
    AsyncPeer peer(uri);
    const auto client = make_connected(peer, {.executor = [](const auto& function) { function(); }});
    Journal ended;
    std::latch all(3);
    const auto start = std::chrono::steady_clock::now();
    std::atomic<int> early{0};
    for (const int milliseconds : {150, 50, 100}) {
        client->get("/a", {.timeout = slate::Milliseconds(milliseconds)})
            .then([&, milliseconds](const ReplyPointer& reply) {
                EXPECT_TRUE(is_local(reply, Status::RequestTimeout, LocalCause::NoAnswerInTime));
                early += std::chrono::steady_clock::now() - start < milliseconds * 1ms ? 1 : 0;
                ended.add(std::to_string(milliseconds));
                all.count_down();
            });
    }
    all.wait();
    EXPECT_EQ(ended.entries(), (std::vector<std::string>{"50", "100", "150"}));
    EXPECT_EQ(early, 0);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 3u);
}

TEST_F(AnAsyncClient, CarriesWhatIsLeftOfItsTimeWhenItSends)
{
    const auto client = make();
    auto finite = client->get("/finite", {.timeout = slate::Minutes(5)});
    auto infinite = client->get("/infinite", {.timeout = slate::Duration::positive_infinity()});
    auto marker = client->get("/marker", {.timeout = slate::Milliseconds(100)});
    (void)marker.get(); // so much time passes before there is a server

    AsyncPeer peer(uri);
    const auto ttl = slate::Duration::parse(peer.next().value().request.meta("ttl")).value();
    EXPECT_LE(ttl, slate::Minutes(5) - slate::Milliseconds(100));
    EXPECT_GT(ttl, slate::Minutes(4));
    EXPECT_EQ(peer.next().value().request.meta("ttl"), "inf");
}

TEST_F(AnAsyncClient, SetsTheTtlOfARequestThatHasNone)
{
    const auto client = make();
    auto message = std::make_shared<Message>();
    message->mutable_get()->mutable_head()->set_path("/a");
    auto pending = client->send(Request(message), {.timeout = slate::Minutes(5)});
    AsyncPeer peer(uri);
    const auto ttl = slate::Duration::parse(peer.next().value().request.meta("ttl")).value();
    EXPECT_GT(ttl, slate::Minutes(4));
}

TEST_F(AnAsyncClient, NeverSendsAfterTheTimeIsOver)
{
    const auto client = make();
    EXPECT_TRUE(is_local(client->get("/late", {.timeout = slate::Milliseconds(50)}).get(),
                         Status::RequestTimeout, LocalCause::NoSuchEndpoint));
    EXPECT_TRUE(is_local(client->get("/never", {.timeout = slate::Seconds(0)}).get(), Status::RequestTimeout,
                         LocalCause::NoSuchEndpoint));
    EXPECT_TRUE(is_local(client->get("/before", {.timeout = slate::Seconds(-1)}).get(),
                         Status::RequestTimeout, LocalCause::NoSuchEndpoint));
    auto good = client->get("/good", {.timeout = long_time});

    AsyncPeer peer(uri);
    EXPECT_EQ(peer.next().value().request.path(), "/good");
    EXPECT_TRUE(will_have_counted("tx", 1)); // after it has been sent
}

TEST_F(AnAsyncClient, WaitsForItsServer)
{
    const auto client = make();
    auto pending = client->get("/echo/1", {.timeout = long_time});
    runtime->serve(uri, {make_echo()});
    EXPECT_EQ(pending.get()->text_or(""), "1");
}

TEST_F(AnAsyncClient, SaysWhyThereWasNoAnswer)
{
    const auto client = make();
    const auto reply = client->get("/a", {.timeout = slate::Milliseconds(50)}).get();
    const std::string why = "no answer from " + uri->to_string() + " within 50 ms: ";
    EXPECT_EQ(reply->status_message(), why + "no such file");
    const auto lines = logs.texts(slate::ErrorLevel, "request timeout; no reply to ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with("; " + why + "no such file")) << lines[0];

    AsyncPeer peer(uri);
    const auto other = make_connected(peer);
    EXPECT_EQ(other->get("/a", {.timeout = slate::Milliseconds(50)}).get()->status_message(),
              why + "somebody serves there, but doesn't answer");
}

TEST_F(AnAsyncClient, SaysThatThereWasNoConnectionOverTcp)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.bind("tcp://127.0.0.1:*");
    uri = slate::make_uri(holder.get(zmq::sockopt::last_endpoint));
    holder.close();
    const auto reply = make()->get("/a", {.timeout = slate::Milliseconds(50)}).get();
    EXPECT_EQ(reply->status_message(),
              "no answer from " + uri->to_string() + " within 50 ms: no connection came about");
}

TEST_F(AnAsyncClient, DropsALateReply)
{
    AsyncPeer peer(uri);
    const auto client = make_connected(peer);
    auto pending = client->get("/a", {.timeout = slate::Milliseconds(50)});
    const auto request = peer.next().value();
    EXPECT_EQ(pending.get()->local_cause(), LocalCause::NoAnswerInTime);
    peer.answer(request, "late");
    EXPECT_TRUE(will_have_counted("dropped", 1));
}

TEST_F(AnAsyncClient, WaitsForSomeTimeOnly)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    EXPECT_FALSE(pending.wait_for(slate::Milliseconds(20)));
    EXPECT_FALSE(pending.wait_for(slate::Seconds(-1)));
    EXPECT_FALSE(pending.ready());
    peer.answer(peer.next().value(), "");
    EXPECT_TRUE(pending.wait_for(slate::Duration::positive_infinity()));
    EXPECT_TRUE(pending.ready());
    EXPECT_TRUE(pending.wait_for(slate::Seconds(0)));
}

// Cancelling.

TEST_F(AnAsyncClient, NeverSendsWhatWasCancelledBefore)
{
    const auto client = make();
    auto pending = client->get("/cancelled", {.timeout = long_time});
    pending.cancel();
    EXPECT_TRUE(is_local(pending.get(), Status::RequestTimeout, LocalCause::Cancelled));
    EXPECT_EQ(client->in_flight(), 0u);
    auto good = client->get("/good", {.timeout = long_time});

    AsyncPeer peer(uri);
    EXPECT_EQ(peer.next().value().request.path(), "/good");
}

TEST_F(AnAsyncClient, DropsTheReplyToWhatWasCancelled)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    const auto request = peer.next().value();
    pending.cancel();
    pending.cancel();
    EXPECT_EQ(pending.get()->local_cause(), LocalCause::Cancelled);
    peer.answer(request, "late");
    EXPECT_TRUE(will_have_counted("dropped", 1));
}

TEST_F(AnAsyncClient, CannotCancelWhatHasItsReply)
{
    AsyncPeer peer(uri);
    const auto client = make();
    auto pending = client->get("/a", {.timeout = long_time});
    peer.answer(peer.next().value(), "yes");
    EXPECT_EQ(pending.get()->text_or(""), "yes");
    pending.cancel();
    EXPECT_EQ(pending.get()->text_or(""), "yes");
}

TEST_F(AnAsyncClient, IsCancelledByAStopToken)
{
    const auto client = make();
    std::stop_source stop;
    auto one = client->get("/one", {.timeout = long_time, .stop = stop.get_token()});
    auto other = client->get("/other", {.timeout = long_time, .stop = stop.get_token()});
    EXPECT_FALSE(one.ready());
    stop.request_stop();
    EXPECT_TRUE(is_local(one.get(), Status::RequestTimeout, LocalCause::Cancelled));
    EXPECT_TRUE(is_local(other.get(), Status::RequestTimeout, LocalCause::Cancelled));
    EXPECT_TRUE(is_local(client->get("/late", {.timeout = long_time, .stop = stop.get_token()}).get(),
                         Status::RequestTimeout, LocalCause::Cancelled));
    auto good = client->get("/good", {.timeout = long_time});

    AsyncPeer peer(uri);
    EXPECT_EQ(peer.next().value().request.path(), "/good");
}

TEST_F(AnAsyncClient, MayBeStoppedAfterTheCallHasEnded)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    std::stop_source stop;
    for (int i = 0; i < 50; ++i) {
        auto kept = client->get("/echo/1", {.stop = stop.get_token()});
        EXPECT_EQ(client->get("/echo/1", {.stop = stop.get_token()}).get()->text_or(""), "1");
        EXPECT_EQ(kept.get()->text_or(""), "1");
    }
    EXPECT_TRUE(stop.request_stop());
}

// How many calls there may be.

TEST_F(AnAsyncClient, RefusesMoreCallsThanMayBeInFlight)
{
    const auto client = make({.max_in_flight = 3}); // nobody is there to take them
    std::vector<Pending> calls;
    for (int i = 0; i < 3; ++i)
        calls.push_back(client->get("/a", {.timeout = long_time}));
    auto refused = client->get("/refused", {.timeout = long_time});
    EXPECT_TRUE(refused.ready());
    EXPECT_TRUE(is_local(refused.get(), Status::TooManyRequests, LocalCause::TooMany));
    EXPECT_EQ(client->in_flight(), 3u);
    EXPECT_EQ(counted("too_many"), 1u);

    calls[0].cancel();
    auto accepted = client->get("/accepted", {.timeout = long_time});
    EXPECT_FALSE(accepted.ready());

    AsyncPeer peer(uri);
    for (const auto& request : peer.next_ones(3)) {
        EXPECT_NE(request.request.path(), "/refused");
        peer.answer(request, "");
    }
    EXPECT_TRUE(accepted.get()->good());
    EXPECT_EQ(client->in_flight(), 0u);
}

/// Knows which of its requests live still.
class WatchingFactory : public ForwardingFactory {
public:
    using ForwardingFactory::make_put;
    MessagePtr make_put(std::string_view path, std::string&& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        auto message = ForwardingFactory::make_put(path, std::move(body), headers, ttl);
        newest_ = message;
        return message;
    }
    bool newest_lives() const { return !newest_.expired(); }
    MessagePtr newest() const { return newest_.lock(); }

private:
    mutable std::weak_ptr<Message> newest_;
};

TEST_F(AnAsyncClient, KeepsNoRequestThatHasItsReply)
{
    AsyncPeer peer(uri);
    const auto requests = std::make_shared<WatchingFactory>();
    const auto client = make_connected(peer, {.factory = requests});
    const auto is_gone = [&] { return !requests->newest_lives(); };

    auto answered = client->put("/a", "x", {.timeout = long_time});
    const auto request = peer.next().value();
    EXPECT_TRUE(requests->newest_lives());
    peer.answer(request, "yes");
    EXPECT_TRUE(wait_until(is_gone));

    auto cancelled = client->put("/a", "x", {.timeout = long_time});
    (void)peer.next();
    cancelled.cancel();
    EXPECT_TRUE(wait_until(is_gone));

    auto late = client->put("/a", "x", {.timeout = slate::Milliseconds(20)});
    (void)late.get();
    EXPECT_TRUE(wait_until(is_gone));

    auto ended = client->put("/a", "x", {.timeout = long_time});
    runtime.reset();
    EXPECT_TRUE(is_gone());
    auto refused = client->put("/a", "x", {.timeout = long_time});
    EXPECT_TRUE(is_gone());
    for (Pending* call : {&answered, &cancelled, &late, &ended, &refused})
        EXPECT_NE(call->get(), nullptr);
}

TEST_F(AnAsyncClient, KeepsOfARequestThatWasSentOnlyWhatTheLogShows)
{
    auto peer = std::make_optional<AsyncPeer>(uri);
    const auto requests = std::make_shared<WatchingFactory>();
    const auto client = make({.factory = requests});
    const auto headers = slate::make_dictionary({{"X-H", "shown"}});
    auto call = client->put("/a", std::string(1u << 20, 'x'), {.headers = headers, .timeout = long_time});
    const auto message = requests->newest();
    EXPECT_EQ(peer->next().value().request.data().size(), 1u << 20);
    peer.reset();
    EXPECT_EQ(call.get()->local_cause(), LocalCause::ConnectionLost);

    const Body& body = message->put().body();
    EXPECT_LT(body.txt().capacity() + body.bin().capacity(), 4096u);
    const auto lines = logs.texts(slate::ErrorLevel, "the connection was lost; no reply to ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("shown"), std::string::npos) << lines[0];
    EXPECT_TRUE(lines[0].ends_with("...")) << lines[0];
    EXPECT_GT(lines[0].size(), 500u) << lines[0];
}

TEST_F(AnAsyncClient, MayAlwaysHaveOneCallInFlight)
{
    serve(uri)->add(make_echo());
    const auto client = make({.max_in_flight = 0});
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(client->get("/echo/1").get()->text_or(""), "1");
}

TEST_F(AnAsyncClient, HasRoomForTheNextCallWhenAReplyIsHere)
{
    serve(uri)->add(make_echo());
    const auto client = make({.max_in_flight = 4});
    std::deque<Pending> window;
    for (int i = 0; i < 1000; ++i) {
        if (window.size() == 4) {
            EXPECT_EQ(window.front().get()->text_or(""), "1");
            window.pop_front();
        }
        window.push_back(client->get("/echo/1"));
    }
    EXPECT_EQ(counted("too_many"), 0u);
}

// Servers that go and come.

TEST_F(AnAsyncClient, EndsWhatWasInFlightOnALostConnectionAndSendsNothingAgain)
{
    auto peer = std::make_optional<AsyncPeer>(uri);
    const auto client = make();
    auto answered = client->get("/answered", {.timeout = long_time});
    auto lost = client->put("/lost", "x", {.timeout = long_time});
    const auto requests = peer->next_ones(2);
    peer->answer(requests[0], "yes");
    EXPECT_EQ(answered.get()->text_or(""), "yes");
    peer.reset();
    EXPECT_TRUE(is_local(lost.get(), Status::RequestTimeout, LocalCause::ConnectionLost));

    auto next = client->get("/next", {.timeout = long_time});
    peer.emplace(uri);
    const auto request = peer->next().value();
    EXPECT_EQ(request.request.path(), "/next");
    peer->answer(request, "yes");
    EXPECT_EQ(next.get()->text_or(""), "yes");
    EXPECT_EQ(counted("tx"), 3u);
}

TEST_F(AnAsyncClient, BelievesNoAnswerOfTheNextServerToAnOldNumber)
{
    auto peer = std::make_optional<AsyncPeer>(uri);
    const auto client = make();
    auto lost = client->get("/lost", {.timeout = long_time});
    const auto old = peer->next().value();
    peer.reset();
    EXPECT_EQ(lost.get()->local_cause(), LocalCause::ConnectionLost);
    peer.emplace(uri);
    auto next = client->get("/next", {.timeout = long_time});
    const auto request = peer->next().value();
    peer->send({request.sender, old.number, "", AsyncPeer::text_reply("forged")});
    peer->answer(request, "yes");
    EXPECT_EQ(next.get()->text_or(""), "yes");
    EXPECT_EQ(counted("dropped"), 1u);
}

TEST_F(AnAsyncClient, BelievesNoAnswerOfAServerThatCameBeforeTheLossWasNoticed)
{
    auto peer = std::make_optional<AsyncPeer>(uri);
    const auto gate = std::make_shared<Gate>();
    const auto client = make_connected(*peer);
    auto lost = client->get("/lost", {.timeout = long_time});
    const auto old = peer->next().value();
    auto first = client->get("/first", {.timeout = long_time});
    first.then([gate](const ReplyPointer&) { gate->pass(); }, [](const auto& function) { function(); });
    peer->answer(peer->next().value(), "");
    ASSERT_TRUE(gate->await(1)); // the thread of the exchange sees nothing now
    peer.reset();
    zmq::context_t other;
    zmq::socket_t forger(other, zmq::socket_type::dealer);
    forger.set(zmq::sockopt::linger, 0);
    forger.set(zmq::sockopt::sndhwm, 1);
    forger.bind(uri->to_string());
    // More than fits on the way: the first ones have certainly arrived then.
    for (int i = 0; i < 200; ++i)
        send_frames(forger, {old.number, "", AsyncPeer::text_reply(std::string(8192, 'x'))});

    gate->open();
    EXPECT_TRUE(is_local(lost.get(), Status::RequestTimeout, LocalCause::ConnectionLost));
    auto next = client->get("/next", {.timeout = long_time});
    const auto frames = receive_frames(forger);
    ASSERT_EQ(frames.size(), 3u);
    EXPECT_EQ(Request(factory()->make_message(frames[2].data(), frames[2].size())).path(), "/next");
}

TEST_F(AnAsyncClient, GetsWhatItsServerAnsweredBeforeItWent)
{
    for (int round = 0; round < 20; ++round) {
        zmq::context_t other;
        auto front = std::make_optional<zmq::socket_t>(other, zmq::socket_type::router);
        front->set(zmq::sockopt::linger, -1);
        front->bind(uri->to_string());
        const auto client = make();
        std::vector<Pending> calls;
        for (int i = 0; i < 10; ++i)
            calls.push_back(client->get("/a", {.timeout = long_time}));
        for (int i = 0; i < 10; ++i) {
            auto frames = receive_frames(*front);
            frames[3] = AsyncPeer::text_reply("yes");
            send_frames(*front, frames);
        }
        front.reset();
        other.close(); // once all that was sent has left
        for (auto& call : calls)
            EXPECT_EQ(call.get()->text_or(""), "yes") << call.get()->status_message();
    }
}

TEST_F(AnAsyncClient, KeepsWhatWasNotSentForTheNextServer)
{
    auto peer = std::make_optional<AsyncPeer>(uri);
    const auto client = make_connected(*peer);
    auto lost = client->get("/lost", {.timeout = long_time});
    (void)peer->next();
    peer.reset();
    EXPECT_EQ(lost.get()->local_cause(), LocalCause::ConnectionLost);
    std::vector<Pending> calls;
    for (int i = 0; i < 100; ++i)
        calls.push_back(client->get("/" + std::to_string(i), {.timeout = long_time}));
    peer.emplace(uri);
    for (const auto& request : peer->next_ones(100))
        peer->answer(request, request.request.path());
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(calls[static_cast<std::size_t>(i)].get()->text_or(""), "/" + std::to_string(i));
}

TEST_F(AnAsyncClient, FindsTheNextServerAtAnInprocEndpoint)
{
    uri = scratch_endpoint("inproc");
    const auto client = make();
    // The first request waits in libzmq, the others here.
    std::vector<Pending> calls;
    for (int i = 0; i < 50; ++i)
        calls.push_back(client->get("/echo/" + std::to_string(i), {.timeout = long_time}));
    for (int round = 0; round < 3; ++round) {
        auto front = std::make_optional<zmq::socket_t>(*runtime->ctx(), zmq::socket_type::router);
        front->set(zmq::sockopt::linger, 0);
        front->bind(uri->to_string());
        for (int i = 0; i < 50; ++i) {
            auto frames = receive_frames(*front);
            frames[3] = AsyncPeer::text_reply(std::to_string(i));
            send_frames(*front, frames);
        }
        for (int i = 0; i < 50; ++i)
            EXPECT_EQ(calls[static_cast<std::size_t>(i)].get()->text_or(""), std::to_string(i));
        auto lost = client->get("/lost", {.timeout = long_time});
        (void)receive_frames(*front);
        front.reset();
        EXPECT_TRUE(is_local(lost.get(), Status::RequestTimeout, LocalCause::ConnectionLost));
        for (auto& call : calls)
            call = client->get("/again", {.timeout = long_time});
    }
    EXPECT_EQ(counted("dropped"), 0u);
}

TEST_F(AnAsyncClient, SendsOneRequestAtMostToAnInprocEndpointThatNobodyServes)
{
    uri = scratch_endpoint("inproc");
    const auto client = make();
    const auto brief = slate::Milliseconds(50);
    std::vector<Pending> calls;
    for (int i = 0; i < 10; ++i)
        calls.push_back(client->get("/late", {.timeout = brief}));
    for (auto& call : calls)
        EXPECT_EQ(call.get()->local_cause(), LocalCause::NoAnswerInTime);
    EXPECT_EQ(counted("tx"), 1u);
}

// Where functions run.

TEST_F(AnAsyncClient, CallsAFunctionOnTheWorkQueue)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    std::promise<std::pair<std::string, std::string>> called;
    client->get("/echo/1").then([&](const ReplyPointer& reply) {
        called.set_value({reply->text_or(""), name_of_this_thread()});
    });
    EXPECT_EQ(called.get_future().get(), std::pair(std::string("1"), std::string("slate-queue")));
    EXPECT_EQ(counted("inline"), 0u);
}

TEST_F(AnAsyncClient, CallsAFunctionThatComesAfterTheReply)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    auto pending = client->get("/echo/1");
    (void)pending.get();
    std::promise<std::string> called;
    pending.then([&, moved = std::make_unique<int>(1)](const ReplyPointer&) {
        called.set_value(name_of_this_thread());
    });
    EXPECT_EQ(called.get_future().get(), "slate-queue");
    EXPECT_EQ(pending.get()->text_or(""), "1");
    EXPECT_THROW(pending.then([](const ReplyPointer&) {}), Exception);
}

TEST_F(AnAsyncClient, SurvivesAFunctionThatThrows)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    client->get("/echo/1").then([](const ReplyPointer&) { throw std::runtime_error("on purpose"); });
    client->get("/echo/1").then([](const ReplyPointer&) { throw 1; });
    std::promise<void> called;
    client->get("/echo/1").then([&](const ReplyPointer&) { called.set_value(); });
    called.get_future().get();
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "function of Pending::then() failed: on purpose"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "function of Pending::then() failed: unknown exception"));
}

TEST_F(AnAsyncClient, DelaysNoReplyByASlowFunction)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    const auto gate = std::make_shared<Gate>();
    client->get("/echo/1").then([gate](const ReplyPointer&) { gate->pass(); });
    ASSERT_TRUE(gate->await(1));
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(client->get("/echo/2").get()->text_or(""), "2");
    gate->open();
}

TEST_F(AnAsyncClient, CallsAFunctionItselfIfTheWorkQueueRefusesIt)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    const auto gate = std::make_shared<Gate>();
    const auto queue = runtime->queue()->get();
    queue->set_capacity(1);
    client->get("/echo/1").then([gate](const ReplyPointer&) { gate->pass(); });
    ASSERT_TRUE(gate->await(1));

    Journal threads;
    std::latch two(2);
    std::latch three(3);
    for (int i = 0; i < 3; ++i) { // of which one waits in the queue
        client->get("/echo/1").then([&](const ReplyPointer& reply) {
            threads.add(name_of_this_thread() + reply->text_or(""));
            if (name_of_this_thread() == "tarn-async")
                two.count_down();
            three.count_down();
        });
    }
    two.wait();
    EXPECT_TRUE(will_have_counted("inline", 2));
    gate->open();
    three.wait();
    EXPECT_EQ(threads.entries(), (std::vector<std::string>{"tarn-async1", "tarn-async1", "slate-queue1"}));

    // Also if the reply is here already.
    const auto second = std::make_shared<Gate>();
    queue->set_capacity(0);
    auto pending = client->get("/echo/1");
    (void)pending.get();
    queue->submit(make_work([second] { second->pass(); }));
    ASSERT_TRUE(second->await(1));
    std::promise<std::string> called;
    pending.then([&](const ReplyPointer&) { called.set_value(name_of_this_thread()); });
    EXPECT_EQ(called.get_future().get(), "tarn-async");
    second->open();
}

TEST_F(AnAsyncClient, CallsAFunctionWhereItIsTold)
{
    serve(uri)->add(make_echo());
    Journal where;
    const auto note = [&](const std::string& name) {
        return [&where, name](const std::function<void()>& function) {
            where.add(name);
            function();
        };
    };
    const auto client = make({.executor = note("client")});
    std::latch called(2);
    client->get("/echo/1").then([&](const ReplyPointer&) { called.count_down(); });
    ASSERT_TRUE(wait_until([&] { return called.try_wait() || where.entries().size() == 1; }));
    client->get("/echo/1").then([&](const ReplyPointer&) { called.count_down(); }, note("call"));
    called.wait();
    EXPECT_EQ(where.entries(), (std::vector<std::string>{"client", "call"}));
}

TEST_F(AnAsyncClient, CallsAFunctionOnceWhateverItsExecutorDoes)
{
    serve(uri)->add(make_echo());
    const auto client = make();
    std::atomic<int> calls{0};
    const auto count = [&](const ReplyPointer&) { ++calls; };
    client->get("/echo/1").then(count, [](const auto&) { throw std::runtime_error("refused"); });
    client->get("/echo/1").then(count, [](const auto&) {}); // drops it
    client->get("/echo/1").then(count, [](const auto& function) {
        function();
        function();
    });
    client->get("/echo/1").then(count, [](const auto& function) {
        function();
        throw 1;
    });
    ASSERT_TRUE(wait_until([&] { return calls == 4; }));
    EXPECT_EQ(client->get("/echo/1").get()->text_or(""), "1");
    EXPECT_EQ(calls, 4);
}

TEST_F(AnAsyncClient, MayBeAskedAndWaitedForInItsFunctions)
{
    serve(uri)->add(make_echo());
    const std::vector<Executor> executors = {{}, [](const auto& function) { function(); }};
    for (const Executor& executor : executors) { // on the work queue, and where the exchange is done
        const auto client = make({.executor = executor});
        std::promise<std::string> called;
        client->get("/echo/1").then([&](const ReplyPointer&) {
            auto inner = client->get("/echo/2");
            EXPECT_TRUE(inner.wait_for(long_time));
            client->get("/echo/3").then([&](const ReplyPointer& reply) {
                called.set_value(reply->text_or("") + client->get("/echo/4").get()->text_or(""));
            });
            EXPECT_EQ(inner.get()->text_or(""), "2");
        });
        EXPECT_EQ(called.get_future().get(), "34");
    }
}

TEST_F(AnAsyncClient, MayBeCancelledByAnotherThreadWhileItsOwnWaits)
{
    AsyncPeer peer(uri);
    const auto client = make_connected(peer, {.executor = [](const auto& function) { function(); }});
    std::stop_source stop;
    std::promise<void> waiting;
    std::promise<LocalCause> ended;
    client->get("/a", {.timeout = long_time}).then([&](const ReplyPointer&) {
        auto inner = client->get("/b", {.timeout = long_time, .stop = stop.get_token()});
        waiting.set_value();
        ended.set_value(inner.get()->local_cause());
    });
    peer.answer(peer.next().value(), "");
    waiting.get_future().get();
    (void)peer.next();
    stop.request_stop();
    EXPECT_EQ(ended.get_future().get(), LocalCause::Cancelled);
}

// Its end, and the runtime's.

TEST_F(AnAsyncClient, EndsItsCallsWhenItIsDestroyed)
{
    AsyncPeer peer(uri);
    auto client = make_connected(peer);
    auto sent = client->get("/sent", {.timeout = long_time});
    (void)peer.next();
    std::atomic<int> called{0};
    for (int i = 0; i < 100; ++i)
        client->get("/a", {.timeout = long_time}).then([&](const ReplyPointer& reply) {
            called += reply->local_cause() == LocalCause::Ended ? 1 : 0;
        });
    client.reset();
    EXPECT_EQ(called, 100);
    EXPECT_TRUE(is_local(sent.get(), Status::RequestTimeout, LocalCause::Ended));
    sent.cancel();
}

TEST_F(AnAsyncClient, WaitsForFunctionsThatRunWhenItIsDestroyed)
{
    serve(uri)->add(make_echo());
    auto client = make();
    const auto gate = std::make_shared<Gate>();
    std::atomic<bool> ended{false};
    client->get("/echo/1").then([&](const ReplyPointer&) {
        gate->pass();
        ended = true;
    });
    ASSERT_TRUE(gate->await(1));
    std::thread opener([&] { gate->open(); });
    client.reset();
    EXPECT_TRUE(ended);
    opener.join();
}

TEST_F(AnAsyncClient, RunsWhatTheWorkQueueHasNotBegunWhenItIsDestroyed)
{
    serve(uri)->add(make_echo());
    auto client = make();
    const auto gate = std::make_shared<Gate>();
    runtime->queue()->get()->submit(make_work([gate] { gate->pass(); }));
    ASSERT_TRUE(gate->await(1));
    std::atomic<int> called{0};
    auto pending = client->get("/echo/1");
    pending.then([&](const ReplyPointer& reply) { called += reply->good() ? 1 : 0; });
    (void)pending.get();
    client.reset(); // although the queue is busy
    EXPECT_EQ(called, 1);
    gate->open();
}

TEST_F(AnAsyncClient, MayBeDestroyedInItsFunctions)
{
    serve(uri)->add(make_echo());
    const std::vector<Executor> executors = {{}, [](const auto& function) { function(); }};
    for (const Executor& executor : executors) {
        auto client = make({.executor = executor});
        std::promise<void> destroyed;
        std::atomic<int> called{0};
        std::promise<void> go;
        auto ready = go.get_future().share();
        client->get("/echo/1").then([&, ready](const ReplyPointer&) {
            ready.get();
            client.reset();
            EXPECT_EQ(called, 5);
            destroyed.set_value();
        });
        for (int i = 0; i < 5; ++i)
            client->get("/echo/2").then([&](const ReplyPointer&) { ++called; });
        go.set_value();
        destroyed.get_future().get();
        EXPECT_EQ(client, nullptr);
    }
}

TEST_F(AnAsyncClient, EndsItsCallsWhenTheRuntimeEnds)
{
    AsyncPeer peer(uri);
    const auto client = make_connected(peer);
    auto sent = client->get("/sent", {.timeout = slate::Duration::positive_infinity()});
    (void)peer.next();
    std::promise<LocalCause> called;
    client->get("/a", {.timeout = slate::Duration::positive_infinity()}).then([&](const ReplyPointer& reply) {
        called.set_value(reply->local_cause());
    });

    runtime.reset();

    EXPECT_TRUE(is_local(sent.get(), Status::RequestTimeout, LocalCause::Ended));
    EXPECT_EQ(called.get_future().get(), LocalCause::Ended);
    auto late = client->get("/late", {.timeout = slate::Duration::positive_infinity()});
    EXPECT_TRUE(late.ready());
    EXPECT_TRUE(is_local(late.get(), Status::RequestTimeout, LocalCause::Ended));
    std::thread::id thread;
    late.then([&](const ReplyPointer&) { thread = std::this_thread::get_id(); });
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_EQ(client->in_flight(), 0u);
}

TEST_F(AnAsyncClient, GivesEveryFunctionItsReplyIfTheRuntimeEndsWhileTheQueueIsBusy)
{
    AsyncPeer peer(uri);
    const auto client = make_connected(peer);
    const auto gate = std::make_shared<Gate>();
    runtime->queue()->get()->submit(make_work([gate] { gate->pass(); }));
    ASSERT_TRUE(gate->await(1));
    std::atomic<int> called{0};
    for (int i = 0; i < 200; ++i) // more than the queue takes
        client->get("/a", {.timeout = long_time}).then([&](const ReplyPointer&) { ++called; });
    std::thread opener([&] {
        EXPECT_TRUE(wait_until([&] { return client->in_flight() == 0; }));
        gate->open();
    });
    runtime.reset();
    opener.join();
    EXPECT_TRUE(wait_until([&] { return called == 200; }));
}

TEST_F(AnAsyncClient, MayEndTheRuntimeInItsFunctions)
{
    const std::vector<Executor> executors = {{}, [](const auto& function) { function(); }};
    for (const Executor& executor : executors) {
        if (!runtime)
            runtime = std::make_unique<ZmqSubsystem>(settings);
        AsyncPeer peer(uri);
        auto client = make_connected(peer, {.executor = executor});
        auto other = client->get("/other", {.timeout = slate::Duration::positive_infinity()});
        std::promise<void> ended;
        client->get("/a", {.timeout = long_time}).then([&](const ReplyPointer&) {
            runtime.reset();
            EXPECT_EQ(other.get()->local_cause(), LocalCause::Ended);
            ended.set_value();
        });
        for (const auto& request : peer.next_ones(2)) {
            if (request.request.path() == "/a")
                peer.answer(request, "");
        }
        ended.get_future().get();
        client.reset();
    }
}

TEST_F(AnAsyncClient, IsUsedByHandlersWhileTheRuntimeEnds)
{
    // A handler that waits for ever for a peer that never answers.
    AsyncPeer peer(uri);
    const auto client = make_connected(peer);
    auto route = make_test_route("wait", "get", "/wait");
    std::atomic<int> waiting{0};
    route->on_get = [&](Context&) {
        ++waiting;
        (void)client->get("/x", {.timeout = slate::Duration::positive_infinity()}).get();
    };
    const auto own = scratch_endpoint();
    serve(own)->add(route);
    auto asked = make_async_client(own)->get("/wait", {.timeout = long_time});
    EXPECT_EQ(asked.get()->local_cause(), LocalCause::Ended);
    const auto asker = make_async_client(own);
    auto pending = asker->get("/wait", {.timeout = long_time});
    ASSERT_TRUE(wait_until([&] { return waiting > 0; }));
    runtime.reset(); // doesn't hang
    EXPECT_EQ(pending.get()->local_cause(), LocalCause::Ended);
}

TEST_F(AnAsyncClient, SurvivesManyThreadsThatCallCancelAndDestroy)
{
    serve(uri)->add(make_echo());
    std::vector<std::thread> threads;
    std::atomic<int> replies{0};
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            std::mt19937 random(static_cast<unsigned>(thread));
            for (int round = 0; round < 10; ++round) {
                const auto client = make_async_client(uri, {.max_in_flight = 32});
                std::stop_source stop;
                std::vector<Pending> calls;
                for (int i = 0; i < 40; ++i) {
                    calls.push_back(client->get("/echo/1", {.timeout = slate::Milliseconds(random() % 20),
                                                            .stop = stop.get_token()}));
                    if (random() % 3 == 0)
                        calls.back().then([&](const ReplyPointer&) { ++replies; });
                    if (random() % 5 == 0)
                        calls[random() % calls.size()].cancel();
                }
                if (random() % 2 == 0)
                    stop.request_stop();
                for (auto& call : calls)
                    EXPECT_NE(call.get(), nullptr);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_GT(replies, 0);
}

/// Can't make a message of what arrives.
class PoorFactory : public ForwardingFactory {
public:
    std::atomic<bool> is_poor{true};

    MessagePtr make_message(const void* data, std::size_t size) const override
    {
        if (is_poor)
            throw std::bad_alloc();
        return ForwardingFactory::make_message(data, size);
    }
};

TEST_F(AnAsyncClient, EndsACallWhoseReplyCannotBeTaken)
{
    AsyncPeer peer(uri);
    const auto factory = std::make_shared<PoorFactory>();
    const auto client = make({.factory = factory});
    auto first = client->get("/first", {.timeout = long_time});
    peer.answer(peer.next().value(), "x");
    EXPECT_TRUE(is_local(first.get(), Status::RequestTimeout, LocalCause::SocketFailed));
    EXPECT_EQ(client->in_flight(), 0u);
    factory->is_poor = false;
    auto second = client->get("/second", {.timeout = long_time});
    peer.answer(peer.next().value(), "y");
    EXPECT_EQ(second.get()->data(), "y");
}

// libzmq aborts the process if it drops a message of several frames that it has begun to write, and the peer
// goes in that moment; so it gets the time to write it.
TEST_F(AnAsyncClient, LetsWhatItHasSentLeaveAfterItsEnd)
{
    AsyncPeer peer(uri);
    auto client = make_connected(peer);
    constexpr std::size_t count = 10;
    std::vector<Pending> calls;
    for (std::size_t i = 0; i < count; ++i) // more than the socket of the system takes
        calls.push_back(client->put("/x", std::string(200000, 'x'), {.timeout = long_time}));
    ASSERT_TRUE(will_have_counted("tx", count + 1));
    client.reset();
    EXPECT_TRUE(is_local(calls.front().get(), Status::RequestTimeout, LocalCause::Ended));
    EXPECT_EQ(peer.next_ones(count).size(), count);
}

TEST_F(AnAsyncClient, LosesTheConnectionToWhoSendsMoreThanTheSettingAllowsAndConnectsAgain)
{
    settings->set("max_frame_bytes", "100000");
    AsyncPeer peer(uri);
    const auto client = make_connected(peer);
    auto large = client->get("/large", {.timeout = long_time});
    peer.answer(peer.next().value(), std::string(110000, 'x'));
    EXPECT_TRUE(is_local(large.get(), Status::RequestTimeout, LocalCause::ConnectionLost));
    auto small = client->get("/small", {.timeout = long_time});
    peer.answer(peer.next().value(), std::string(90000, 'x'));
    EXPECT_EQ(small.get()->data().size(), 90000u);
}
} // namespace
