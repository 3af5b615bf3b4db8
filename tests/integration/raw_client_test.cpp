// SPDX-License-Identifier: Apache-2.0
// A raw client shares its exchange with Client; what is shown here is what a caller of it sees.
#include "tarn/raw/raw_client.h"

#include <cstdlib>
#include <future>
#include <thread>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

const slate::Duration brief = slate::Milliseconds(60);

class ARawClient : public RuntimeTest {
protected:
    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    Message message = *factory()->make_get("/a");
    const std::string sent = message.SerializeAsString();

    /// Answers everything with one frame.
    std::unique_ptr<ScriptedPeer> answer_with(const std::string& frame)
    {
        return std::make_unique<ScriptedPeer>(
            uri, [frame](const std::string&) { return std::vector<std::string>{frame}; });
    }

    static std::string ok_frame()
    {
        Message ok;
        ok.mutable_response()->set_status(Status::Ok);
        return ok.SerializeAsString();
    }

    /// The only raw client's counter.
    std::optional<std::uint64_t> counted(const std::string& name)
    {
        for (const auto& shown : slate::snapshot()) {
            if (shown.name == "zmq.raw_client")
                return counter("zmq.raw_client", shown.instance, name);
        }
        return std::nullopt;
    }
};

TEST_F(ARawClient, IsNotMadeBeforeTheLibraryIsUpNorAfterItWentDown)
{
    runtime.reset();

    EXPECT_EQ(make_raw_client(uri), nullptr);
    EXPECT_EQ(make_raw_client(std::filesystem::path("/nowhere.sock")), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              std::vector<std::string>(2, "cannot make_raw_client, tarn not / no longer initialized"));
}

TEST_F(ARawClient, IsMadeFromAnEndpointOrFromASocketPath)
{
    EXPECT_EQ(make_raw_client(uri)->url(), uri);
    EXPECT_EQ(make_raw_client(std::filesystem::path("/run/some.sock"), 0)->url()->to_string(),
              "ipc:///run/some.sock");
}

TEST_F(ARawClient, IsNotMadeFromWhatIsNotAnEndpoint)
{
    EXPECT_EQ(make_raw_client(std::filesystem::path()), nullptr);
    EXPECT_EQ(make_raw_client(std::filesystem::path("/a\nb")), nullptr);
    EXPECT_EQ(make_raw_client(std::shared_ptr<const slate::Uri>()), nullptr);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              (std::vector<std::string>{"make_raw_client: " + *check_endpoint("ipc://"),
                                        "failed to create raw ipc client (  ): invalid uri",
                                        "make_raw_client: " + *check_endpoint("ipc:///a\nb"),
                                        "failed to create raw ipc client ( /a\nb ): invalid uri",
                                        "cannot make_raw_client, no endpoint given"}));
}

TEST_F(ARawClient, ThrowsAndLeavesNoProviderIfItsSocketCannotBeConnected)
{
    EXPECT_THROW(make_raw_client(slate::make_uri("nonsense://x")), zmq::error_t);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "failed to create socket: "), 1u);
    EXPECT_EQ(providers("zmq.raw_client"), 0u);
}

TEST_F(ARawClient, HasAProviderWithARunningNumberOfItsOwnKind)
{
    auto first = make_raw_client(uri);
    const auto other_kind = make_client(uri);
    const auto second = make_raw_client(uri);
    std::vector<int> instances;
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.raw_client")
            instances.push_back(std::stoi(shown.instance));
    }
    ASSERT_EQ(instances.size(), 2u);
    EXPECT_EQ(std::abs(instances[1] - instances[0]), 1);
    first.reset();
    EXPECT_EQ(providers("zmq.raw_client"), 1u);
}

TEST_F(ARawClient, LogsItsEndpointAtTheExtremeLevel)
{
    slate::set_log_level(slate::ExtremeLevel);
    const auto client = make_raw_client(uri);
    EXPECT_TRUE(logs.has(slate::ExtremeLevel, "Connect: " + uri->to_string()));
}

TEST_F(ARawClient, PutsAGoodReplyInThePlaceOfTheRequest)
{
    const auto server = serve(uri);
    const auto route = make_test_route("a", "get", "/a");
    route->on_get = [](Context& context) { context.reply.set_reply_text("text"); };
    server->add(route);

    EXPECT_EQ(make_raw_client(uri)->visit(message), Status::Ok);

    ASSERT_TRUE(message.has_response());
    EXPECT_EQ(message.response().status(), Status::Ok);
    EXPECT_EQ(message.response().body().txt(), "text");
}

TEST_F(ARawClient, SendsTheMessageAsItIs)
{
    Journal journal;
    const ScriptedPeer peer(uri, [&](const std::string& frame) {
        journal.add(frame);
        return std::vector<std::string>{ok_frame()};
    });
    const auto client = make_raw_client(uri);
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(7);
    const std::string call_frame = call.SerializeAsString();
    Message empty;

    EXPECT_EQ(client->visit(message), Status::Ok);
    EXPECT_EQ(client->visit(call), Status::Ok);
    EXPECT_EQ(client->visit(empty), Status::Ok);
    EXPECT_EQ(journal.entries(), (std::vector<std::string>{sent, call_frame, ""}));
}

TEST_F(ARawClient, SendsATextThatIsNotUtf8AsBytesAndLeavesItAsItWasIfThatFails)
{
    Journal came;
    ScriptedPeer peer(uri, [&](const std::string& frame) {
        came.add(frame);
        Message failed;
        failed.mutable_response()->set_status(Status::Gone);
        return std::vector<std::string>{failed.SerializeAsString()};
    });
    Message put;
    put.mutable_put()->mutable_head()->set_format(Format::Text);
    put.mutable_put()->mutable_body()->set_txt("a\xF6z");
    const auto client = make_raw_client(uri);

    EXPECT_EQ(client->visit(put), Status::Gone);

    EXPECT_EQ(put.put().body().txt(), "a\xF6z");
    Message bytes = put;
    bytes.mutable_put()->mutable_body()->set_bin("a\xF6z");
    EXPECT_EQ(came.entries(), std::vector<std::string>{bytes.SerializeAsString()});
}

TEST_F(ARawClient, GivesOnlyTheStatusOfAFailureAndLeavesTheRequest)
{
    const auto server = serve(uri);
    EXPECT_EQ(make_raw_client(uri)->visit(message), Status::NotFound);
    EXPECT_EQ(message.SerializeAsString(), sent);
}

TEST_F(ARawClient, TakesAReplyWithoutAStatusForWhatItSays)
{
    // A call without a result counts as good, so it is copied, but it has no status.
    Message call;
    call.mutable_call()->mutable_select()->set_method_number(7);
    const auto peer = answer_with(call.SerializeAsString());
    EXPECT_EQ(make_raw_client(uri)->visit(message), Status::UnknownStatus);
    EXPECT_EQ(message.SerializeAsString(), call.SerializeAsString());
}

TEST_F(ARawClient, GivesAnUnknownStatusForAFrameThatDoesNotParseAndLeavesTheRequest)
{
    const auto peer = answer_with("\xFF");
    const auto client = make_raw_client(uri);
    EXPECT_EQ(client->visit(message), Status::UnknownStatus);
    EXPECT_EQ(message.SerializeAsString(), sent);
    EXPECT_EQ(counted("rx"), 1u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_F(ARawClient, WaitsOnceMoreForEachRetryAndSendsOnce)
{
    const SilentPeer peer(uri);
    const auto client = make_raw_client(uri, 2);
    const slate::StopWatch watch(true);

    EXPECT_EQ(client->visit(message, slate::Milliseconds(200)), Status::RequestTimeout);

    EXPECT_GE(watch.elapsed(), 600000);
    EXPECT_LT(watch.elapsed(), 1500000);
    EXPECT_EQ(message.SerializeAsString(), sent);
    EXPECT_EQ(peer.requests(), 1);
    const std::string text = "request timeout; no reply to " + to_string(message);
    EXPECT_EQ(logs.texts(slate::ErrorLevel),
              (std::vector<std::string>{text, text,
                                        text + "; no answer from " + uri->to_string() +
                                            " within 600 ms: somebody serves there, but doesn't answer"}));
}

TEST_F(ARawClient, WaitsForAPostOnlyOnceWhoeverIsThere)
{
    Message post = *factory()->make_post("/a", "body");
    const std::string before = post.SerializeAsString();
    const slate::StopWatch watch(true);

    EXPECT_EQ(make_raw_client(uri, 20)->visit(post, brief), Status::RequestTimeout);

    EXPECT_GE(watch.elapsed(), 60000);
    EXPECT_EQ(post.SerializeAsString(), before);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 1u);
}

TEST_F(ARawClient, WaitsForEverIfItIsTold)
{
    std::promise<Status> status;
    const auto client = make_raw_client(uri, 0);
    std::jthread asker(
        [&] { status.set_value(client->visit(message, slate::Duration::positive_infinity())); });
    auto result = status.get_future();
    EXPECT_EQ(result.wait_for(200ms), std::future_status::timeout);
    const auto peer = answer_with(ok_frame());
    EXPECT_EQ(result.get(), Status::Ok);
}

TEST_F(ARawClient, NeverSeesAReplyThatComesAfterTheFirstWait)
{
    std::promise<void> gate;
    auto open = gate.get_future().share();
    const ScriptedPeer peer(uri, [&, open](const std::string&) {
        open.wait();
        return std::vector<std::string>{ok_frame()};
    });
    const auto client = make_raw_client(uri, 1);
    std::jthread late([&] {
        ASSERT_TRUE(
            wait_until([&] { return logs.count(slate::ErrorLevel, "request timeout; no reply to ") == 1; }));
        gate.set_value();
    });
    EXPECT_EQ(client->visit(message, slate::Milliseconds(300)), Status::RequestTimeout);
    EXPECT_EQ(message.SerializeAsString(), sent);
}

TEST_F(ARawClient, ReadsTheFirstFrameOfAReply)
{
    const ScriptedPeer peer(uri, [](const std::string&) {
        return std::vector<std::string>{ok_frame(), "second", "third"};
    });
    const auto client = make_raw_client(uri);
    EXPECT_EQ(client->visit(message), Status::Ok);
    EXPECT_EQ(client->visit(message), Status::Ok);
}

TEST_F(ARawClient, CopiesACallsResultIfThatIsGood)
{
    for (const auto& [status, copied] : {std::pair(Status::Ok, true), std::pair(Status::NotFound, false)}) {
        Message call;
        call.mutable_call()->mutable_result()->set_status(status);
        const auto endpoint = scratch_endpoint();
        const ScriptedPeer peer(endpoint, [frame = call.SerializeAsString()](const std::string&) {
            return std::vector<std::string>{frame};
        });
        Message asked = *factory()->make_get("/a");
        EXPECT_EQ(make_raw_client(endpoint)->visit(asked), status);
        EXPECT_EQ(asked.has_call(), copied);
    }
}

TEST_F(ARawClient, DropsWhatItCouldNotSendWhenItGoes)
{
    const slate::StopWatch watch(true);
    auto client = make_raw_client(uri, 0);
    EXPECT_EQ(client->visit(message, slate::Milliseconds(0)), Status::RequestTimeout);
    client.reset();
    runtime.reset(); // would wait for ever for a request that is kept
    EXPECT_LT(watch.elapsed(), 3000000);
}

TEST_F(ARawClient, IsUsableAtOnceAfterATimeout)
{
    const auto client = make_raw_client(uri, 0);
    EXPECT_EQ(client->visit(message, brief), Status::RequestTimeout);
    const auto server = serve(uri);
    Message index = *factory()->make_get("/index");
    EXPECT_EQ(client->visit(index, slate::Seconds(20)), Status::Ok);
}

TEST_F(ARawClient, CountsWhatItSendsAndWhatComesBack)
{
    const auto client = make_raw_client(uri, 0);
    {
        const auto server = make_server(settings, {uri}, nullptr);
        Message index = *factory()->make_get("/index");
        EXPECT_EQ(client->visit(index), Status::Ok);
        EXPECT_EQ(counted("tx"), 1u);
        EXPECT_EQ(counted("rx"), 1u);
    }
    EXPECT_EQ(client->visit(message, brief), Status::RequestTimeout);
    EXPECT_EQ(counted("tx"), 2u);
    EXPECT_EQ(counted("rx"), 1u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_F(ARawClient, FailsToSendWhileItsInprocServerIsGoneAndFindsTheNextOne)
{
    const auto inproc = scratch_endpoint("inproc");
    auto server = make_server(settings, {inproc}, nullptr);
    const auto client = make_raw_client(inproc, 0);
    Message index = *factory()->make_get("/index");
    const Message again = index;
    EXPECT_EQ(client->visit(index), Status::Ok);
    {
        // A server's sockets close behind its back. This one is attached after the client's, so once it sees
        // the end the client sees it too.
        zmq::socket_t probe(*runtime->ctx(), zmq::socket_type::dealer);
        probe.connect(inproc->to_string());
        server.reset();
        ASSERT_TRUE(wait_until([&] { return (probe.get(zmq::sockopt::events) & ZMQ_POLLOUT) == 0; }));
    }

    index = again;
    EXPECT_EQ(client->visit(index, brief), Status::RequestTimeout);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "send failed: " + to_string(again) + "; nobody serves inproc://"),
              1u);
    EXPECT_EQ(counted("err"), 1u);
    EXPECT_EQ(index.SerializeAsString(), again.SerializeAsString());

    server = make_server(settings, {inproc}, nullptr);
    EXPECT_EQ(client->visit(index, slate::Seconds(20)), Status::Ok);
}

TEST_F(ARawClient, SharedByManyThreadsGivesEachItsOwnReply)
{
    const auto server = serve(uri);
    const auto route = make_test_route("echo", "get", "/echo/:n");
    route->on_get = [](Context& context) { context.reply.set_reply_text(context.params->get("n", "")); };
    server->add(route);
    const auto client = make_raw_client(uri);
    std::atomic<int> right{0};
    {
        std::vector<std::jthread> callers;
        for (int c = 0; c < 4; ++c) {
            callers.emplace_back([&, c] {
                for (int i = 0; i < 50; ++i) {
                    const std::string n = std::to_string(100 * c + i);
                    Message mine = *factory()->make_get("/echo/" + n);
                    right += client->visit(mine) == Status::Ok && mine.response().body().txt() == n ? 1 : 0;
                }
            });
        }
    }
    EXPECT_EQ(right, 200);
}

TEST_F(ARawClient, MayOutliveTheLibrary)
{
    const auto peer = answer_with(ok_frame());
    const auto client = make_raw_client(uri);
    runtime.reset();
    EXPECT_EQ(client->visit(message), Status::Ok);
}
} // namespace
