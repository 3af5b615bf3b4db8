// SPDX-License-Identifier: Apache-2.0
#include "tarn/client.h"

#include <csignal>
#include <future>
#include <limits>
#include <set>
#include <sstream>
#include <thread>
#include <type_traits>

#include <pthread.h>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using Clock = std::chrono::steady_clock;

std::string reply_frame(Status status, const std::string& text = "")
{
    Message message;
    Response* response = message.mutable_response();
    response->set_status(status);
    if (!text.empty())
        response->mutable_body()->set_txt(text);
    return message.SerializeAsString();
}

Message parse(const std::string& frame)
{
    Message message;
    EXPECT_TRUE(message.ParseFromString(frame));
    return message;
}

/// Remembers what came and answers each request alike.
class RecordingPeer {
public:
    RecordingPeer(const std::shared_ptr<const slate::Uri>& uri, std::vector<std::string> answer)
        : peer_(uri, [this, answer = std::move(answer)](const std::string& frame) {
              const std::lock_guard lock(mutex_);
              frames_.push_back(frame);
              return answer;
          })
    {
    }

    std::vector<Message> messages() const
    {
        const std::lock_guard lock(mutex_);
        std::vector<Message> result;
        for (const std::string& frame : frames_)
            result.push_back(parse(frame));
        return result;
    }
    int requests() const { return peer_.requests(); }

private:
    mutable std::mutex mutex_; // guards frames_
    std::vector<std::string> frames_;
    ScriptedPeer peer_;
};

/// Answers "/hello" and nothing else. A client that has heard from it is connected, and what it sends then
/// arrives even if it does not wait for long: a new socket would drop it with the unfinished connection.
class PoliteSilentPeer : public ScriptedPeer {
public:
    explicit PoliteSilentPeer(const std::shared_ptr<const slate::Uri>& uri)
        : ScriptedPeer(uri, [](const std::string& frame) {
              const bool greets = parse(frame).get().head().path() == "/hello";
              return greets ? std::vector{reply_frame(Status::Ok)} : std::vector<std::string>();
          })
    {
    }
};

class AClient : public RuntimeTest {
protected:
    static const slate::Duration brief;

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();

    /// Ends a server, and waits until the clients that were made before see it.
    void end_and_be_seen_to(std::shared_ptr<Server>& server, const Endpoint& inproc)
    {
        // A server's sockets close behind its back. This one is attached after the client's, so once it sees
        // the end the client sees it too.
        zmq::socket_t probe(*runtime->ctx(), zmq::socket_type::dealer);
        probe.connect(inproc->to_string());
        server.reset();
        ASSERT_TRUE(wait_until([&] {
            zmq::pollitem_t item = {probe.handle(), 0, ZMQ_POLLOUT, 0};
            return zmq::poll(&item, 1, 0ms) == 0;
        }));
    }

    /// The only client's counters; instances count up over the process, and each test is alone in its own.
    std::optional<std::uint64_t> counted(const std::string& name)
    {
        for (const auto& shown : slate::snapshot()) {
            if (shown.name == "zmq.client")
                return counter("zmq.client", shown.instance, name);
        }
        return std::nullopt;
    }
};
const slate::Duration AClient::brief = slate::Milliseconds(50);

// --- Making one --------------------------------------------------------------------------------------

TEST_F(AClient, IsNotMadeBeforeTheLibraryIsUpNorAfterItWentDown)
{
    runtime.reset();

    EXPECT_EQ(make_client(uri), nullptr);
    EXPECT_EQ(make_client(), nullptr);
    EXPECT_EQ(make_client(std::filesystem::path("/nowhere.sock")), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>(3, "cannot make_client, tarn not / no longer initialized"));
}

TEST_F(AClient, IsMadeFromASocketPathAsAnIpcEndpoint)
{
    const auto client = make_client(std::filesystem::path("/run/some.sock"), 0);

    ASSERT_NE(client, nullptr);
    EXPECT_EQ(client->url()->to_string(), "ipc:///run/some.sock");
}

TEST_F(AClient, IsNotMadeFromAPathThatGivesNoValidEndpoint)
{
    EXPECT_EQ(make_client(std::filesystem::path()), nullptr);
    EXPECT_EQ(make_client(std::filesystem::path("/a\nb")), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "failed to create ipc client (  ): invalid uri"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "failed to create ipc client ( /a\nb ): invalid uri"));
}

TEST_F(AClient, IsNotMadeFromANullEndpoint)
{
    EXPECT_EQ(make_client(std::shared_ptr<const slate::Uri>()), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel), 1u);
}

TEST_F(AClient, ConnectsToTheEndpointOfTheSettingsByDefault)
{
    settings->set("relay_url", "ipc:///run/default.sock");
    EXPECT_EQ(make_client()->url()->to_string(), "ipc:///run/default.sock");

    settings->remove("relay_url");
    EXPECT_THROW(make_client(), tarn::Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "settings missing relay_url"));
}

TEST_F(AClient, ThrowsAndLeavesNoProviderIfItsSocketCannotBeConnected)
{
    EXPECT_THROW(make_client(slate::make_uri("nonsense://x")), zmq::error_t);

    EXPECT_EQ(logs.count(slate::ErrorLevel, "failed to create socket: "), 1u);
    EXPECT_EQ(providers("zmq.client"), 0u);
}

TEST_F(AClient, HasAProviderOfItsOwnForAsLongAsItLives)
{
    auto first = make_client(uri);
    auto second = make_client(uri);
    EXPECT_EQ(providers("zmq.client"), 2u);

    first.reset();
    EXPECT_EQ(providers("zmq.client"), 1u);
    second.reset();
    EXPECT_EQ(providers("zmq.client"), 0u);
}

TEST_F(AClient, GetsAnInstanceNumberOfItsOwnAlsoIfManyAreMadeAtOnce)
{
    std::vector<std::shared_ptr<Client>> clients(16);
    {
        std::vector<std::jthread> threads;
        for (auto& client : clients)
            threads.emplace_back([&] { client = make_client(uri); });
    }

    std::set<std::string> instances;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.client")
            instances.insert(shown.instance);
    }
    EXPECT_EQ(instances.size(), clients.size());
}

TEST_F(AClient, LogsItsEndpointAtTheExtremeLevel)
{
    slate::set_log_level(slate::ExtremeLevel);
    const auto client = make_client(uri);
    EXPECT_TRUE(logs.has(slate::ExtremeLevel, "Connect: " + uri->to_string()));
}

TEST_F(AClient, MayOutliveTheLibrary)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok)});
    const auto client = make_client(uri);
    runtime.reset();

    EXPECT_EQ(client->get("/a")->status(), Status::Ok);
}

// --- From a text, a path or an endpoint ---------------------------------------------------------------

// Nothing that could be given before has become ambiguous.
static_assert(std::is_same_v<decltype(make_client()), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client(0)), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client(0u)), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client(0L)), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client(nullptr)), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client(std::filesystem::path())), std::shared_ptr<Client>>);
static_assert(
    std::is_same_v<decltype(make_client(std::filesystem::directory_entry())), std::shared_ptr<Client>>);
static_assert(std::is_same_v<decltype(make_client("/a.sock", 3u, nullptr)), std::shared_ptr<Client>>);

std::string endpoint_of(const std::shared_ptr<Client>& client)
{
    return client ? client->url()->to_string() : "no client";
}

TEST_F(AClient, IsMadeFromATextOfAnyType)
{
    const char* const constant = "ipc:///run/some.sock";
    char changeable[] = "ipc:///run/some.sock";
    const std::string string = constant;
    std::string another = constant;

    EXPECT_EQ(endpoint_of(make_client("ipc:///run/some.sock")), constant);
    EXPECT_EQ(endpoint_of(make_client(constant)), constant);
    EXPECT_EQ(endpoint_of(make_client(changeable)), constant);
    EXPECT_EQ(endpoint_of(make_client(static_cast<char*>(changeable))), constant);
    EXPECT_EQ(endpoint_of(make_client(string)), constant);
    EXPECT_EQ(endpoint_of(make_client(another)), constant);
    EXPECT_EQ(endpoint_of(make_client(std::string(constant))), constant);
    EXPECT_EQ(endpoint_of(make_client(std::string_view(constant))), constant);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(AClient, IsMadeFromATextWithASchemeAtThatEndpoint)
{
    for (const std::string text :
         {"tcp://127.0.0.1:5555", "inproc://some/name", "ipc:///run/some.sock", "ipc://@abstract"})
        EXPECT_EQ(endpoint_of(make_client(text)), text);
}

TEST_F(AClient, IsMadeFromATextWithoutASchemeAtTheSocketOfThatPath)
{
    EXPECT_EQ(endpoint_of(make_client("/run/some.sock")), "ipc:///run/some.sock");
    EXPECT_EQ(endpoint_of(make_client(std::string("/run/with:colon"))), "ipc:///run/with:colon");
    EXPECT_EQ(endpoint_of(make_client(std::string_view("/run/some.sock.bak").substr(0, 14))),
              "ipc:///run/some.sock");
}

TEST_F(AClient, IsMadeFromATextAndTalksToTheServerThere)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok, "42")});

    EXPECT_EQ(make_client(uri->to_string())->get("/a")->text_or("none"), "42");
    EXPECT_EQ(make_client(uri->path())->get("/a")->text_or("none"), "42");
}

TEST_F(AClient, IsMadeFromATextWithRetriesAndAFactoryToo)
{
    const auto client = make_client("/nowhere.sock", 1, tarn::make_message_factory());

    (void)client->get("/a", nullptr, brief);

    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 2u);
}

TEST_F(AClient, IsNotMadeFromATextThatIsNotAnEndpoint)
{
    EXPECT_EQ(make_client("tcp://a\nb"), nullptr);
    EXPECT_EQ(make_client("://"), nullptr);
    EXPECT_EQ(make_client(std::string()), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "make_client: "), 3u); // what is wrong with each
    EXPECT_EQ(logs.texts(slate::ErrorLevel, "failed"),
              (std::vector<std::string>{"failed to create client ( tcp://a\nb ): invalid uri",
                                        "failed to create client ( :// ): invalid uri",
                                        "failed to create ipc client (  ): invalid uri"}));
}

TEST_F(AClient, IsNotMadeFromANullText)
{
    const char* const null = nullptr;
    EXPECT_EQ(make_client(null), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel, "failed"),
              std::vector<std::string>{"failed to create ipc client (  ): invalid uri"});
}

TEST_F(AClient, IsNotMadeFromATextBeforeTheLibraryIsUp)
{
    runtime.reset();
    EXPECT_EQ(make_client("/run/some.sock"), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>{"cannot make_client, tarn not / no longer initialized"});
}

TEST_F(AClient, TakesAPathForAPathWhateverItLooksLike)
{
    EXPECT_EQ(endpoint_of(make_client(std::filesystem::path("/run/some.sock"))), "ipc:///run/some.sock");
    EXPECT_EQ(endpoint_of(make_client(std::filesystem::directory_entry("/run/some.sock"))),
              "ipc:///run/some.sock");
    EXPECT_EQ(endpoint_of(make_client(std::filesystem::path("tcp://x"))), "ipc://tcp://x");
}

TEST_F(AClient, TakesANumberForItsRetries)
{
    settings->set("relay_url", std::string_view(uri->to_string()));
    for (const auto& client : {make_client(0), make_client(0u), make_client(0L)}) {
        logs.clear();
        EXPECT_EQ(endpoint_of(client), uri->to_string());
        (void)client->get("/a", nullptr, brief);
        EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 1u);
    }
}

TEST_F(AClient, TakesNullForAnEndpointThatIsMissing)
{
    EXPECT_EQ(make_client(nullptr), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>{"cannot make_client, no endpoint given"});
}

// --- What it sends -----------------------------------------------------------------------------------

TEST_F(AClient, SendsOneFrameForEachVerbThatNamesItsTimeout)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok)});
    const auto client = make_client(uri);
    const auto headers = slate::make_dictionary();
    headers->set("X-A", "1");
    const slate::Duration timeout = slate::Seconds(7);
    const std::string kept = "copied";
    std::string moved(100, 'm');

    client->head("/h", headers, timeout);
    client->get("/g", headers, timeout);
    client->put("/p", kept, headers, timeout);
    client->put("/q", std::move(moved), headers, timeout);
    client->post("/r", kept, headers, timeout);
    client->post("/s", std::string(100, 'n'), headers, timeout);
    client->del("/d", headers, timeout);

    const auto sent = peer.messages();
    ASSERT_EQ(sent.size(), 7u);
    EXPECT_EQ(sent[0].head().path(), "/h");
    EXPECT_EQ(sent[1].get().head().path(), "/g");
    EXPECT_EQ(sent[2].put().body().bin(), "copied");
    EXPECT_EQ(sent[3].put().body().bin(), std::string(100, 'm'));
    EXPECT_EQ(sent[4].post().body().bin(), "copied");
    EXPECT_EQ(sent[5].post().body().bin(), std::string(100, 'n'));
    EXPECT_EQ(sent[6].del().head().path(), "/d");
    EXPECT_EQ(kept, "copied");
    EXPECT_TRUE(moved.empty());
    for (const Message& message : sent) {
        const Head& head = *tarn_internal::find_head(message);
        EXPECT_EQ(head.from().pid(), getpid());
        EXPECT_EQ(head.meta(0).key(), "ttl");
        EXPECT_EQ(head.meta(0).value(), "7s");
        EXPECT_EQ(head.headers(0).key(), "X-A");
    }
}

TEST_F(AClient, WorksWithNothingButAnEndpointAndAPath)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok, "42")});

    EXPECT_EQ(make_client(uri)->get("/status/cpu")->data(), "42");

    EXPECT_EQ(peer.messages().at(0).get().head().meta(0).value(), "4s");
}

TEST_F(AClient, SendsTheMessageOfARequestAsItIs)
{
    RecordingPeer peer(uri, {reply_frame(Status::Accepted)});
    auto message = std::make_shared<Message>();
    message->mutable_put()->mutable_head()->set_path("/odd path");
    const auto client = make_client(uri);

    EXPECT_EQ(client->send(Request(message))->status(), Status::Accepted);

    EXPECT_EQ(peer.messages().at(0).SerializeAsString(), message->SerializeAsString());
}

TEST_F(AClient, AnswersARequestWithoutAMessageItself)
{
    SilentPeer peer(uri);
    const auto client = make_client(uri);

    EXPECT_EQ(client->send(Request())->status(), Status::BadRequest);

    EXPECT_EQ(peer.requests(), 0);
    EXPECT_EQ(counted("tx"), 0u);
    EXPECT_EQ(counted("err"), 0u);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(AClient, ThrowsForAProcessListThatIsNotOfNumbersAndStaysUsable)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok)});
    const auto client = make_client(uri);

    EXPECT_THROW(client->get("/a@x"), tarn::Exception);
    EXPECT_THROW(client->get("@12"), std::out_of_range);
    EXPECT_EQ(client->get("/a")->status(), Status::Ok);
}

// --- Waiting for the reply ---------------------------------------------------------------------------

TEST_F(AClient, CountsWhatItSendsAndWhatComesBack)
{
    RecordingPeer peer(uri, {reply_frame(Status::NotFound)});
    const auto client = make_client(uri);

    client->get("/a");
    client->get("/b");

    EXPECT_EQ(counted("tx"), 2u);
    EXPECT_EQ(counted("rx"), 2u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_F(AClient, SendsItsRequestOnceHoweverOftenItWaits)
{
    PoliteSilentPeer peer(uri);
    const auto client = make_client(uri, 2);
    ASSERT_EQ(client->get("/hello")->status(), Status::Ok);

    const auto start = Clock::now();
    const auto reply = client->get("/cpu", nullptr, slate::Milliseconds(150));
    const auto blocked = Clock::now() - start;

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(peer.requests(), 2);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 3u);
    EXPECT_GE(blocked, 440ms); // three waits of 150 ms, less rounding
    EXPECT_EQ(counted("tx"), 2u);
    EXPECT_EQ(counted("rx"), 1u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_F(AClient, NamesTheRequestThatGotNoReplyInTheLog)
{
    const auto client = make_client(uri, 0);
    const auto reply = client->get("/cpu", nullptr, brief);

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    const auto lines = logs.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].text.starts_with("request timeout; no reply to get {")) << lines[0].text;
    EXPECT_NE(lines[0].text.find("path: \"/cpu\""), std::string::npos);
    EXPECT_TRUE(lines[0].provider.starts_with("zmq.client["));
}

TEST_F(AClient, WaitsForAPostOnlyOnce)
{
    PoliteSilentPeer peer(uri);
    const auto client = make_client(uri, 2);
    ASSERT_EQ(client->get("/hello")->status(), Status::Ok);

    const auto reply = client->post("/cpu", "x", nullptr, slate::Milliseconds(150));

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 1u);
    EXPECT_EQ(peer.requests(), 2);
}

TEST_F(AClient, WaitsOnceWithoutRetries)
{
    const auto client = make_client(uri, 0);
    EXPECT_EQ(client->get("/cpu", nullptr, brief)->status(), Status::RequestTimeout);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 1u);
}

TEST_F(AClient, MakesANewSocketAfterEachWait)
{
    slate::set_log_level(slate::ExtremeLevel);
    const auto client = make_client(uri, 2);
    logs.clear();

    client->get("/cpu", nullptr, brief);
    EXPECT_EQ(logs.count(slate::ExtremeLevel, "Connect: "), 3u);

    logs.clear();
    client->post("/cpu", "x", nullptr, brief);
    EXPECT_EQ(logs.count(slate::ExtremeLevel, "Connect: "), 1u);
}

TEST_F(AClient, NeverSeesAReplyThatComesAfterTheFirstWait)
{
    // Answers the request only when the client has given its first socket up.
    ScriptedPeer peer(uri, [&](const std::string&) {
        wait_until([&] { return logs.count(slate::ErrorLevel, "request timeout; no reply to ") >= 1; });
        return std::vector{reply_frame(Status::Ok, "late")};
    });
    const auto client = make_client(uri, 2);

    EXPECT_EQ(client->get("/a", nullptr, slate::Milliseconds(100))->status(), Status::RequestTimeout);
    EXPECT_EQ(counted("rx"), 0u);
}

TEST_F(AClient, IsUsableAtOnceAfterATimeout)
{
    PoliteSilentPeer peer(uri);
    const auto client = make_client(uri, 0);

    EXPECT_EQ(client->get("/a", nullptr, brief)->status(), Status::RequestTimeout);
    EXPECT_EQ(client->get("/hello")->status(), Status::Ok);
}

TEST_F(AClient, WaitsForEverIfItIsTold)
{
    std::promise<void> go;
    ScriptedPeer peer(uri, [&](const std::string&) {
        go.get_future().wait();
        return std::vector{reply_frame(Status::Ok)};
    });
    const auto client = make_client(uri, 0);

    auto reply = std::async(std::launch::async,
                            [&] { return client->get("/a", nullptr, slate::Duration::positive_infinity()); });
    EXPECT_EQ(reply.wait_for(200ms), std::future_status::timeout);
    go.set_value();

    EXPECT_EQ(reply.get()->status(), Status::Ok);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(AClient, DoesNotWaitForANegativeTime)
{
    SilentPeer peer(uri);
    const auto client = make_client(uri, 0);

    EXPECT_EQ(client->get("/a", nullptr, slate::Milliseconds(-5))->status(), Status::RequestTimeout);
}

TEST_F(AClient, GivesAReplyWithoutAMessageForAFrameThatDoesNotParse)
{
    RecordingPeer peer(uri, {"\xFF\xFF not a message"});
    const auto client = make_client(uri);

    const auto reply = client->get("/a");

    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->message, nullptr);
    EXPECT_TRUE(reply->bad());
    EXPECT_EQ(counted("rx"), 1u);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(AClient, ReadsTheFirstFrameOfAReplyAndStaysUsable)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok, "first"), reply_frame(Status::Ok, "second"), "third"});
    const auto client = make_client(uri);

    EXPECT_EQ(client->get("/a")->data(), "first");
    EXPECT_EQ(client->get("/a")->data(), "first");
    EXPECT_EQ(peer.requests(), 2);
}

TEST_F(AClient, HandsBackABodyOfManyMegabytesWhole)
{
    const std::string body(20 << 20, 'x');
    RecordingPeer peer(uri, {reply_frame(Status::Ok, body)});

    EXPECT_EQ(make_client(uri)->get("/a", nullptr, slate::Seconds(30))->data(), body);
}

TEST_F(AClient, ReportsABrokenExchangeAsATimeoutAndRecovers)
{
    // A context that shuts down under a client breaks its socket for good, whatever is tried.
    const auto client = make_client(uri, 0);
    runtime->ctx()->shutdown();

    const auto reply = client->get("/a", nullptr, brief);

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(counted("err"), 1u);
    EXPECT_EQ(counted("tx"), 0u);
    const auto errors = logs.texts(slate::ErrorLevel);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(", request: get {"), std::string::npos) << errors[0];
}

TEST_F(AClient, GivesUpTheRemainingWaitsWhenItsSocketBreaksInOneOfThem)
{
    SilentPeer peer(uri);
    const auto client = make_client(uri, 5);
    std::jthread breaker([&] {
        wait_until([&] { return peer.requests() == 1; });
        runtime->ctx()->shutdown();
    });

    const auto reply = client->get("/a", nullptr, slate::Seconds(20));

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(counted("err"), 1u); // no new socket could be made
    const auto errors = logs.texts(slate::ErrorLevel);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_NE(errors[0].find("; request: get {"), std::string::npos) << errors[0];
    EXPECT_NE(errors[1].find(", request: get {"), std::string::npos) << errors[1];
}

// --- Threads -----------------------------------------------------------------------------------------

TEST_F(AClient, SharedByManyThreadsGivesEachItsOwnReply)
{
    ScriptedPeer peer(uri, [](const std::string& frame) {
        return std::vector{reply_frame(Status::Ok, parse(frame).get().head().path())};
    });
    const auto client = make_client(uri);

    std::atomic<int> right{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 25; ++i) {
                    const std::string path = "/" + std::to_string(t) + "/" + std::to_string(i);
                    right += client->get(path, nullptr, slate::Seconds(30))->data() == path ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(right, 200);
}

TEST_F(AClient, SendsRequestsOfSeveralThreadsOneAtATime)
{
    std::promise<Clock::time_point> second_came;
    ScriptedPeer peer(uri, [&](const std::string& frame) {
        const std::string path = parse(frame).get().head().path();
        if (path == "/first")
            return std::vector<std::string>();
        if (path == "/second")
            second_came.set_value(Clock::now());
        return std::vector{reply_frame(Status::Ok)};
    });
    const auto client = make_client(uri, 0);
    ASSERT_EQ(client->get("/hello")->status(), Status::Ok); // so that it is connected

    const auto start = Clock::now();
    auto first = std::async(std::launch::async, [&] {
        return client->get("/first", nullptr, slate::Milliseconds(300))->status();
    });
    ASSERT_TRUE(wait_until([&] { return peer.requests() == 2; }));
    ASSERT_EQ(client->get("/second", nullptr, slate::Seconds(20))->status(), Status::Ok);

    EXPECT_EQ(first.get(), Status::RequestTimeout);
    // The first call held the client for 300 ms, less rounding.
    EXPECT_GE(second_came.get_future().get() - start, 290ms);
}

// --- Trouble on the way ------------------------------------------------------------------------------

TEST_F(AClient, FailsToSendWhileItsInprocServerIsGoneAndFindsTheNextOne)
{
    const auto inproc = scratch_endpoint("inproc");
    auto server = make_server(settings, {inproc}, nullptr);
    const auto client = make_client(inproc, 0);
    ASSERT_EQ(client->get("/index")->status(), Status::Ok);
    end_and_be_seen_to(server, inproc);

    EXPECT_EQ(client->get("/gone", nullptr, slate::Milliseconds(200))->status(), Status::RequestTimeout);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "send failed: get {"), 1u);
    EXPECT_EQ(logs.count(slate::ErrorLevel), 1u);
    EXPECT_EQ(counted("err"), 1u);
    EXPECT_EQ(counted("tx"), 1u); // of the first request

    server = make_server(settings, {inproc}, nullptr);
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    EXPECT_EQ(counted("tx"), 2u);
}

TEST_F(AClient, DoesNotHangOnASocketThatSpeaksAnotherLanguage)
{
    for (const auto& endpoint : {uri, scratch_endpoint("inproc")}) {
        zmq::socket_t publisher(*runtime->ctx(), zmq::socket_type::pub);
        publisher.bind(endpoint->to_string());
        const auto client = make_client(endpoint, 0);

        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(client->get("/a", nullptr, brief)->status(), Status::RequestTimeout)
                << endpoint->to_string();
    }
}

/// Makes a signal interrupt waits, and puts back what it did before.
class InterruptingSignal {
public:
    InterruptingSignal()
    {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = 0; // in particular not SA_RESTART
        sigaction(SIGUSR1, &action, &before_);
    }
    ~InterruptingSignal() { sigaction(SIGUSR1, &before_, nullptr); }
    InterruptingSignal(const InterruptingSignal&) = delete;
    InterruptingSignal& operator=(const InterruptingSignal&) = delete;

private:
    struct sigaction before_ {};
};

/// The result of `action` on a thread that gets a signal every millisecond.
template <class Action>
auto under_signals(Action action)
{
    const InterruptingSignal signal;
    std::packaged_task<decltype(action())()> task(action);
    auto result = task.get_future();
    std::thread caller(std::move(task));
    do {
        pthread_kill(caller.native_handle(), SIGUSR1);
    } while (result.wait_for(1ms) != std::future_status::ready);
    caller.join();
    return result.get();
}

TEST_F(AClient, WaitsForTheRestOfItsTimeThroughSignals)
{
    SilentPeer peer(uri);
    const auto client = make_client(uri, 1);

    const slate::StopWatch watch(true);
    const auto reply = under_signals([&] { return client->get("/a", nullptr, slate::Milliseconds(100)); });

    EXPECT_GE(watch.elapsed(), 190000);
    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(reply->local_cause(), LocalCause::NoAnswerInTime);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to get {"), 2u);
    EXPECT_EQ(logs.count(slate::ErrorLevel), 2u);
    EXPECT_EQ(peer.requests(), 1u);
}

TEST_F(AClient, GetsEveryAnswerThroughSignals)
{
    auto server = make_server(settings, {uri}, nullptr);
    const auto client = make_client(uri, 0);

    const int good = under_signals([&] {
        int answers = 0;
        for (int i = 0; i < 2000; ++i)
            answers += client->get("/index")->good() ? 1 : 0;
        return answers;
    });

    EXPECT_EQ(good, 2000);
    EXPECT_EQ(logs.count(slate::ErrorLevel), 0u);
}

TEST_F(AClient, WaitsForItsTurnNoLongerThanForAnAnswer)
{
    std::promise<void> go;
    ScriptedPeer peer(uri, [gate = go.get_future().share()](const std::string&) {
        gate.wait();
        return std::vector{reply_frame(Status::Ok)};
    });
    const auto client = make_client(uri, 0);
    auto first = std::async(std::launch::async, [&] {
        return client->get("/first", nullptr, slate::Duration::positive_infinity());
    });
    ASSERT_TRUE(wait_until([&] { return counted("tx") == 1u; }));

    const auto second = client->get("/second", nullptr, slate::Milliseconds(50));

    EXPECT_EQ(second->status(), Status::RequestTimeout);
    EXPECT_EQ(second->local_cause(), LocalCause::TooMany);
    EXPECT_EQ(
        logs.count(slate::ErrorLevel, "request timeout; other requests are under way, nothing sent: get {"),
        1u);
    EXPECT_EQ(counted("tx"), 1u);
    go.set_value();
    EXPECT_TRUE(first.get()->good());
}

TEST_F(AClient, WaitsNotAtAllWithoutTimeHoweverManyWaitsThereAre)
{
    std::promise<void> go;
    ScriptedPeer peer(uri, [gate = go.get_future().share()](const std::string&) {
        gate.wait();
        return std::vector{reply_frame(Status::Ok)};
    });
    const auto client = make_client(uri, std::numeric_limits<unsigned int>::max());
    auto first =
        std::async(std::launch::async, [&] { return client->get("/first", nullptr, slate::Minutes(5)); });
    ASSERT_TRUE(wait_until([&] { return counted("tx") == 1u; }));

    const slate::StopWatch watch(true);
    EXPECT_EQ(client->get("/second", nullptr, slate::Seconds(0))->local_cause(), LocalCause::TooMany);
    EXPECT_LT(watch.elapsed(), 2000000); // four thousand million turns take longer
    go.set_value();
    EXPECT_TRUE(first.get()->good());
}

// A socket of unknown state is never used again.

TEST_F(AClient, FindsTheNextServerAtAnInprocEndpoint)
{
    // This server goes, so the client waits for a peer, on a socket that will never see the next server.
    const auto inproc = scratch_endpoint("inproc");
    auto server = make_server(settings, {inproc}, nullptr);
    const auto client = make_client(inproc, 0);
    ASSERT_EQ(client->get("/index")->status(), Status::Ok);
    end_and_be_seen_to(server, inproc);

    const auto reply = under_signals([&] { return client->get("/gone", nullptr, slate::Milliseconds(100)); });
    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(reply->local_cause(), LocalCause::NoSuchEndpoint);

    server = make_server(settings, {inproc}, nullptr);
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
}

TEST_F(AClient, ReplacesASocketThatCouldNotBeReplacedAtOnce)
{
    // The context has room for the client's socket and one more.
    zmq_ctx_set(runtime->ctx()->handle(), ZMQ_MAX_SOCKETS, 2);
    const auto answers = [](const std::string& frame) {
        return parse(frame).get().head().path() == "/lost" ? std::vector<std::string>()
                                                           : std::vector{reply_frame(Status::Ok)};
    };
    ScriptedPeer peer(uri, answers);
    const auto client = make_client(uri, 0);
    ASSERT_EQ(client->get("/hello")->status(), Status::Ok);

    auto taken = std::make_optional<zmq::socket_t>(*runtime->ctx(), zmq::socket_type::pair);
    const auto lost = client->get("/lost", nullptr, slate::Milliseconds(100));
    EXPECT_EQ(lost->status(), Status::RequestTimeout);
    EXPECT_EQ(lost->local_cause(), LocalCause::SocketFailed);
    EXPECT_EQ(counted("err"), 1u);
    taken.reset();

    // The context counts a closed socket until its own thread has done away with it.
    std::shared_ptr<Reply> reply;
    ASSERT_TRUE(wait_until([&] {
        reply = client->get("/hello");
        return reply->local_cause() != LocalCause::SocketFailed;
    }));
    // The old socket, which has sent and not received, would have refused this.
    EXPECT_EQ(reply->status(), Status::Ok);
}

// --- Whose reply it is --------------------------------------------------------------------------------

TEST_F(AClient, MakesTheReplyItselfIfNoAnswerComesInTime)
{
    SilentPeer peer(uri);
    for (const unsigned int retries : {0u, 2u}) {
        const auto client = make_client(uri, retries);
        EXPECT_EQ(client->get("/a", nullptr, brief)->local_cause(), LocalCause::NoAnswerInTime);
        EXPECT_EQ(client->put("/a", "x", nullptr, brief)->local_cause(), LocalCause::NoAnswerInTime);
        EXPECT_EQ(client->post("/a", "x", nullptr, brief)->local_cause(), LocalCause::NoAnswerInTime);
        EXPECT_TRUE(client->del("/a", nullptr, brief)->is_local());
    }
}

TEST_F(AClient, MakesTheReplyItselfIfNobodyListensAtAnIpcEndpoint)
{
    EXPECT_EQ(make_client(uri, 0)->get("/a", nullptr, brief)->local_cause(), LocalCause::NoSuchEndpoint);
}

TEST_F(AClient, MakesTheReplyItselfIfNobodyServesAnInprocEndpointAnyMore)
{
    const auto inproc = scratch_endpoint("inproc");
    auto server = make_server(settings, {inproc}, nullptr);
    const auto client = make_client(inproc, 0);
    ASSERT_EQ(client->get("/index")->local_cause(), LocalCause::None);
    end_and_be_seen_to(server, inproc);

    EXPECT_EQ(client->get("/gone", nullptr, brief)->local_cause(), LocalCause::NoSuchEndpoint);
}

TEST_F(AClient, MakesTheReplyItselfToARequestThatHoldsNothing)
{
    const auto reply = make_client(uri)->send(Request());
    EXPECT_EQ(reply->status(), Status::BadRequest);
    EXPECT_EQ(reply->local_cause(), LocalCause::InvalidRequest);
}

TEST_F(AClient, MakesTheReplyItselfIfTheStreamToUploadCannotBeRead)
{
    std::istringstream broken("x");
    broken.setstate(std::ios::badbit);
    EXPECT_EQ(make_client(uri)->put("/a", broken)->local_cause(), LocalCause::InvalidRequest);
    EXPECT_EQ(make_client(uri)->post("/a", broken)->local_cause(), LocalCause::InvalidRequest);
}

TEST_F(AClient, MakesTheReplyItselfIfTheContextHasEnded)
{
    const auto client = make_client(uri, 0);
    runtime->ctx()->shutdown();
    EXPECT_EQ(client->get("/a", nullptr, brief)->local_cause(), LocalCause::SocketFailed);
}

TEST_F(AClient, PassesAServersFailuresOnAsTheServersOwn)
{
    for (const Status status : {Status::RequestTimeout, Status::BadRequest, Status::ServiceUnavailable}) {
        const auto endpoint = scratch_endpoint();
        RecordingPeer peer(endpoint, {reply_frame(status)});

        const auto reply = make_client(endpoint)->get("/a");

        EXPECT_EQ(reply->status(), status);
        EXPECT_FALSE(reply->is_local());
        EXPECT_EQ(reply->local_cause(), LocalCause::None);
    }
}

TEST_F(AClient, TakesNoPeersWordForAReplyOfItsOwn)
{
    // Every small field number, with every cause as its value, behind a reply that looks like the client's.
    std::string forged = reply_frame(Status::RequestTimeout);
    for (const char cause : {'\1', '\2', '\3', '\4', '\5', '\6', '\7', '\x08'}) {
        for (char field = 7; field < 16; ++field)
            forged += {static_cast<char>(field << 3), cause};
    }
    for (const std::string& frame : {forged, std::string("\xFF no message"), std::string()}) {
        const auto endpoint = scratch_endpoint();
        RecordingPeer peer(endpoint, {frame});

        const auto reply = make_client(endpoint)->get("/a");

        EXPECT_EQ(peer.requests(), 1);
        EXPECT_FALSE(reply->is_local());
        EXPECT_EQ(reply->local_cause(), LocalCause::None);
    }
}

// --- Text that is not UTF-8 ---------------------------------------------------------------------------

TEST_F(AClient, SendsTextAsTextAndWhatIsNotUtf8AsBytes)
{
    RecordingPeer peer(uri, {reply_frame(Status::Ok)});
    const auto client = make_client(uri);
    const std::string valid = "gr\xC3\xB6\xC3\x9F"
                              "e";
    const std::string invalid = "gr\xF6\xDF"
                                "e";
    Message as_it_is;
    as_it_is.mutable_put()->mutable_head()->set_format(Format::Json);
    as_it_is.mutable_put()->mutable_body()->set_txt(invalid);

    client->put("/a?format=text", valid);
    client->post("/a?format=text", valid);
    client->put("/a?format=text", invalid);
    client->post("/a?format=text", std::string(invalid));
    client->send(Request(std::make_shared<Message>(as_it_is)));

    const auto sent = peer.messages(); // which all of them parse
    ASSERT_EQ(sent.size(), 5u);
    EXPECT_EQ(sent[0].put().body().txt(), valid);
    EXPECT_EQ(sent[1].post().body().txt(), valid);
    EXPECT_EQ(sent[2].put().body().bin(), invalid);
    EXPECT_EQ(sent[2].put().head().format(), Format::Text);
    EXPECT_EQ(sent[3].post().body().bin(), invalid);
    EXPECT_EQ(sent[3].post().head().format(), Format::Text);
    EXPECT_EQ(sent[4].put().body().bin(), invalid);
    EXPECT_EQ(sent[4].put().head().format(), Format::Json);
    EXPECT_EQ(as_it_is.put().body().txt(), invalid); // the caller's message stays as it is
}
} // namespace
