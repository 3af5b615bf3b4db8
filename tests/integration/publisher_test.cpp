// SPDX-License-Identifier: Apache-2.0
#include "tarn/publisher.h"

#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <sstream>
#include <thread>

#include <sys/stat.h>

#include "slate/clock.h"
#include "support/own_process.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/utils/message_parts.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

std::string frame_of(const Stats& stats)
{
    Message message;
    Response* response = message.mutable_response();
    response->set_status(Status::Ok);
    response->mutable_head()->set_format(Format::Proto);
    response->mutable_body()->set_bin(stats.SerializeAsString());
    return message.SerializeAsString();
}

Stats stats_of(const std::string& tag, int packets)
{
    Stats stats;
    Stat* other = stats.add_stat();
    other->mutable_id()->set_tag("somebody else");
    other->set_total_packets(99);
    Stat* own = stats.add_stat();
    own->mutable_id()->set_tag(tag);
    own->set_total_packets(packets);
    return stats;
}

class APublisher : public RuntimeTest {
protected:
    std::optional<std::uint64_t> counted(const std::string& name)
    {
        for (const auto& shown : slate::snapshot()) {
            if (shown.name == "zmq.publisher")
                return counter("zmq.publisher", shown.instance, name);
        }
        return std::nullopt;
    }

    /// Connects a subscriber to a publisher that binds, and sees to it that it has subscribed: a publisher's
    /// own socket doesn't tell, so it publishes until something arrives.
    void subscribe(Publisher& publisher, zmq::socket_t& subscriber)
    {
        subscriber.connect(publisher.url()->to_string());
        subscriber.set(zmq::sockopt::subscribe, "");
        ASSERT_TRUE(wait_until([&] {
            publisher.put("/probe", "");
            return is_readable(subscriber, 5ms);
        }));
        publisher.put("/last probe", "");
        while (receive_frames(subscriber).at(0) != "/last probe") {
        }
    }

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    std::shared_ptr<const slate::Uri> stats_uri = scratch_endpoint();
    zmq::context_t context;
};

// --- Making one --------------------------------------------------------------------------------------

TEST_F(APublisher, IsNotMadeWithoutTheLibrary)
{
    runtime.reset();
    EXPECT_EQ(make_publisher(uri), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_publisher, tarn not / no longer initialized"));
}

TEST_F(APublisher, WithAnEndpointOfItsOwnBindsItAndAsksNobody)
{
    const auto publisher = make_publisher(uri);
    EXPECT_EQ(publisher->url(), uri);
    EXPECT_TRUE(std::filesystem::exists(uri->path()));
    EXPECT_EQ(providers("zmq.client"), 0u);
    EXPECT_EQ(counted("connect"), 0u);
}

TEST_F(APublisher, FindsTheRelayOfTheSettingsByDefault)
{
    settings->set("relay_sub", std::string_view(scratch_endpoint()->to_string()));
    settings->set("relay_pub", std::string_view(scratch_endpoint()->to_string()));
    settings->set("relay_url", std::string_view(stats_uri->to_string()));
    const auto relay = make_relay(relay_sub_sock(settings), relay_pub_sock(settings));
    const auto server = runtime->add_server(stats_uri);
    server->add(make_relay_stats_route());

    const auto publisher = make_publisher(nullptr, slate::Seconds(20), 0, slate::make_uri("ipc:///ignored"));

    EXPECT_EQ(publisher->url()->to_string(), relay_sub_sock(settings)->to_string());
    EXPECT_EQ(counted("connect"), 1u);
    EXPECT_EQ(counted("connect_error"), 0u);
    EXPECT_EQ(counted("tx"), 0u); // probes don't count
}

TEST_F(APublisher, MissesTheSettingsOfTheRelayByName)
{
    EXPECT_THROW(make_publisher(), Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "settings missing relay_sub"));
    settings->set("relay_sub", "ipc:///x");
    EXPECT_THROW(make_publisher(), Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "settings missing relay_url"));
}

TEST_F(APublisher, WhoseEndpointCannotBeBoundThrowsAndLeavesNoProvider)
{
    EXPECT_THROW(make_publisher(slate::make_uri("nonsense://x")), zmq::error_t);
    EXPECT_EQ(providers("zmq.publisher"), 0u);
}

/// A publisher at a relay that hears its probes and then reads nothing more, and what it counts until 2,000
/// changes of 32 KiB are out of its hands.
class APublisherAtADeafRelay : public APublisher {
protected:
    int publish_many()
    {
        zmq::socket_t hearing(context, zmq::socket_type::sub);
        hearing.set(zmq::sockopt::rcvhwm, 1);
        hearing.bind(uri->to_string());
        hearing.set(zmq::sockopt::subscribe, "");
        int shown = 0;
        ScriptedPeer peer(stats_uri, [&](const std::string&) {
            if (!is_readable(hearing, 0ms))
                return std::vector{frame_of(Stats())};
            Message probe;
            EXPECT_TRUE(probe.ParseFromString(receive_frames(hearing).at(1)));
            return std::vector{frame_of(stats_of(probe.put().head().from().tag(), ++shown))};
        });
        const auto publisher = make_publisher(uri, slate::Seconds(20), 0, stats_uri);
        int refused = 0;
        for (int i = 0; i < 2000; ++i) {
            const auto reply = publisher->put("/x", std::string(32768, 'x'));
            refused += reply->bad() ? 1 : 0;
            EXPECT_EQ(reply->status(), reply->bad() ? Status::RequestTimeout : Status::Ok);
        }
        EXPECT_EQ(counted("err"), static_cast<unsigned>(refused));
        EXPECT_EQ(counted("tx"), static_cast<unsigned>(2000 - refused));
        return refused;
    }
};

TEST_F(APublisherAtADeafRelay, DropsInSilenceWhatTheSocketHasNoRoomFor)
{
    EXPECT_EQ(publish_many(), 0);
}

TEST_F(APublisherAtADeafRelay, SaysSoIfItWasToldHowManyMayWait)
{
    settings->set("high_water_mark", 100);
    const int refused = publish_many();
    EXPECT_GT(refused, 1500);
    EXPECT_LT(refused, 2000);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "dropped message"), static_cast<std::size_t>(refused));
}

TEST_F(APublisherAtADeafRelay, KeepsAsManyAsItWasTold)
{
    settings->set("high_water_mark", 3000);
    EXPECT_EQ(publish_many(), 0);
}

TEST_F(APublisher, KeepsAskingUntilTheRelayShowsMovement)
{
    // The statistics show nothing of the publisher at first, then 0, then the number 3.
    zmq::socket_t hearing(context, zmq::socket_type::sub);
    hearing.bind(uri->to_string());
    hearing.set(zmq::sockopt::subscribe, "");
    // The first probes are lost, as the connection takes a while to stand.
    int shown = 0;
    std::string tag;
    ScriptedPeer peer(stats_uri, [&](const std::string&) {
        while (is_readable(hearing, 0ms)) {
            Message probe;
            EXPECT_TRUE(probe.ParseFromString(receive_frames(hearing).at(1)));
            tag = probe.put().head().from().tag();
        }
        if (tag.empty())
            return std::vector{frame_of(Stats())};
        return std::vector{frame_of(stats_of(tag, shown++ == 0 ? 0 : 3))};
    });

    const auto publisher = make_publisher(uri, slate::Seconds(20), 0, stats_uri);

    EXPECT_GE(peer.requests(), 2); // 0 does not count as movement
    EXPECT_EQ(counted("connect"), 1u);
    EXPECT_EQ(counted("tx"), 0u);
}

TEST_F(APublisher, ProbesTheRelayWithAPutToItsOwnPath)
{
    zmq::socket_t hearing(context, zmq::socket_type::sub);
    hearing.bind(uri->to_string());
    hearing.set(zmq::sockopt::subscribe, "");
    const auto publishing = std::async(std::launch::async, [&] {
        EXPECT_THROW(make_publisher(uri, slate::Milliseconds(500), 0, stats_uri), std::runtime_error);
    });

    ASSERT_TRUE(is_readable(hearing, 20s));
    const auto frames = receive_frames(hearing);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], "/relay");
    Message probe;
    ASSERT_TRUE(probe.ParseFromString(frames[1]));
    EXPECT_EQ(probe.put().head().path(), "/relay");
    EXPECT_EQ(probe.put().head().format(), Format::Text);
    EXPECT_EQ(probe.put().body().txt(), "hi");
    EXPECT_EQ(probe.put().head().meta(0).value(), "500ms");
    EXPECT_EQ(probe.put().head().from().tag().size(), 36u);
}

/// Answers that don't show that the publisher is heard.
class APublisherThatIsAnswered : public APublisher, public ::testing::WithParamInterface<std::string> {};

TEST_P(APublisherThatIsAnswered, WithoutBeingShownGivesUpAfterElevenTries)
{
    ScriptedPeer peer(stats_uri, [&](const std::string&) { return std::vector{GetParam()}; });

    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(make_publisher(uri, slate::Milliseconds(1024), 0, stats_uri), std::runtime_error);

    EXPECT_EQ(peer.requests(), 11);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1020ms); // 0, 1, 2, 4, ... 512 ms
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "failed to connect to the relay"));
    EXPECT_EQ(providers("zmq.publisher"), 0u);
}

std::string status_frame(Status status)
{
    Message message;
    message.mutable_response()->set_status(status);
    return message.SerializeAsString();
}

INSTANTIATE_TEST_SUITE_P(Answers, APublisherThatIsAnswered,
                         ::testing::Values(frame_of(Stats()),                    // nobody
                                           frame_of(stats_of("another one", 5)), // somebody else
                                           status_frame(Status::NotFound),       // no such path
                                           std::string("\xFF")));                // no message

TEST_F(APublisher, GivesUpOnAReplyThatIsNotAStatistic)
{
    Message message;
    message.mutable_response()->set_status(Status::Ok);
    message.mutable_response()->mutable_body()->set_txt("not statistics");
    ScriptedPeer peer(stats_uri,
                      [&](const std::string&) { return std::vector{message.SerializeAsString()}; });

    EXPECT_THROW(make_publisher(uri, slate::Milliseconds(50), 0, stats_uri), std::runtime_error);
    EXPECT_EQ(peer.requests(), 11);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "envelope.as<T> not possible: "), 11u);
}

TEST_F(APublisher, TakesANegativeTimeForNone)
{
    EXPECT_THROW(make_publisher(uri, slate::Milliseconds(-4000), 0, stats_uri), std::runtime_error);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 11u);
}

TEST_F(APublisher, ToADeadRelayWaitsForEachOfElevenAnswers)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THROW(make_publisher(uri, slate::Milliseconds(20), 0, stats_uri), std::runtime_error);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 11 * 19ms);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 11u);
}

TEST_F(APublisher, ToADeadRelayLogsTheCauseBehindTheExceptionsText)
{
    EXPECT_THROW(make_publisher(uri, slate::Milliseconds(20), 0, stats_uri), std::runtime_error);
    const auto lines = logs.texts(slate::ErrorLevel);
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_EQ(lines[11], "failed to connect to the relay");
    EXPECT_EQ(lines[12], "nobody answers for its statistics at " + stats_uri->to_string() + ": no such file");
}

/// A publisher that has one time for all attempts.
class APublisherWithALimit : public APublisher {
protected:
    /// What the exception says behind the time.
    std::string cause_of_failure(const slate::Duration& limit)
    {
        try {
            const auto publisher =
                make_publisher({.timeout = limit, .endpoint = uri, .stats_endpoint = stats_uri});
        }
        catch (const std::runtime_error& error) {
            const std::string text = error.what();
            EXPECT_EQ(logs.texts(slate::ErrorLevel), std::vector<std::string>{text});
            EXPECT_TRUE(text.starts_with("failed to connect to the relay within ")) << text;
            return text.substr(std::min(text.size(), text.find(": ") + 2));
        }
        return "";
    }
};

TEST_F(APublisherWithALimit, TakesNoLongerThanThatAndSaysWhyInOneLine)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(cause_of_failure(slate::Milliseconds(300)),
              "nobody answers for its statistics at " + stats_uri->to_string() + ": no such file");
    const auto time = std::chrono::steady_clock::now() - start;
    EXPECT_GE(time, 200ms);
    EXPECT_LT(time, 5s); // a loaded machine
    EXPECT_EQ(providers("zmq.publisher"), 0u);
}

TEST_F(APublisherWithALimit, TriesOnceIfThereIsNoTime)
{
    EXPECT_EQ(cause_of_failure(slate::Seconds(-1)),
              "nobody answers for its statistics at " + stats_uri->to_string() + ": no such file");
}

TEST_F(APublisherWithALimit, SaysThatTheStatisticsDoNotAnswer)
{
    const SilentPeer peer(stats_uri);
    EXPECT_EQ(cause_of_failure(slate::Milliseconds(100)), "nobody answers for its statistics at " +
                                                              stats_uri->to_string() +
                                                              ": somebody serves there, but doesn't answer");
}

TEST_F(APublisherWithALimit, SaysThatThereAreNoStatistics)
{
    ScriptedPeer peer(stats_uri,
                      [&](const std::string&) { return std::vector{status_frame(Status::NotFound)}; });
    EXPECT_EQ(cause_of_failure(slate::Milliseconds(100)),
              "there are no statistics of a relay at " + stats_uri->to_string() + ": no body: 404");
}

TEST_F(APublisherWithALimit, SaysThatTheStatisticsDoNotShowIt)
{
    ScriptedPeer peer(stats_uri,
                      [&](const std::string&) { return std::vector{frame_of(stats_of("other", 5))}; });
    EXPECT_EQ(cause_of_failure(slate::Milliseconds(100)), "its statistics at " + stats_uri->to_string() +
                                                              " don't show what was sent to " +
                                                              uri->to_string() + ": no such file");
}

TEST_F(APublisherWithALimit, SaysThatTheStatisticsCannotBeRead)
{
    Message message;
    message.mutable_response()->set_status(Status::Ok);
    message.mutable_response()->mutable_body()->set_txt("not statistics");
    ScriptedPeer peer(stats_uri,
                      [&](const std::string&) { return std::vector{message.SerializeAsString()}; });
    EXPECT_TRUE(cause_of_failure(slate::Milliseconds(100)).starts_with("its statistics at "));
}

TEST_F(APublisherWithALimit, FindsARelayThatStartsMeanwhile)
{
    settings->set("relay_sub", std::string_view(uri->to_string()));
    settings->set("relay_pub", std::string_view(scratch_endpoint()->to_string()));
    settings->set("relay_url", std::string_view(stats_uri->to_string()));
    auto publishing =
        std::async(std::launch::async, [] { return make_publisher({.timeout = slate::Seconds(60)}); });
    ASSERT_TRUE(wait_until([&] { return providers("zmq.publisher") == 1; }));
    const auto relay = make_relay(relay_sub_sock(settings), relay_pub_sock(settings));
    const auto server = make_server(settings, {stats_uri}, relay_pub_sock(settings));
    server->add(make_relay_stats_route());
    ASSERT_EQ(publishing.wait_for(20s), std::future_status::ready);
    EXPECT_EQ(publishing.get()->url()->to_string(), uri->to_string());
    EXPECT_EQ(logs.count(slate::ErrorLevel), 0u);
}

TEST_F(APublisherWithALimit, BindsWithoutStatistics)
{
    settings->set("socket_mode", "0710");
    settings->set("socket_group", "");
    const auto publisher = make_publisher({.endpoint = uri});
    struct stat info {};
    ASSERT_EQ(stat(uri->path().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0710u);
}

// --- Publishing --------------------------------------------------------------------------------------

TEST_F(APublisher, SendsTheTopicAndTheMessageWithItsOwnTag)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    const auto headers = slate::make_dictionary();
    headers->set("X-A", "1");

    publisher->put("/a/b/c", "body", headers);
    auto frames = receive_frames(subscriber);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0], "/a");
    Message message;
    ASSERT_TRUE(message.ParseFromString(frames[1]));
    EXPECT_EQ(message.put().head().path(), "/a/b/c");
    EXPECT_EQ(message.put().head().meta(0).value(), "4s");
    EXPECT_EQ(message.put().head().headers(0).key(), "X-A");
    EXPECT_EQ(message.put().body().bin(), "body");
    const std::string tag = message.put().head().from().tag();
    EXPECT_EQ(tag.size(), 36u);

    publisher->del("/a", headers);
    frames = receive_frames(subscriber);
    EXPECT_EQ(frames[0], "/a");
    ASSERT_TRUE(message.ParseFromString(frames[1]));
    EXPECT_EQ(message.del().head().path(), "/a");
    EXPECT_EQ(message.del().head().from().tag(), tag);
}

TEST_F(APublisher, PublishesTheRestOfAStreamInOneMessage)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    std::istringstream stream(std::string(3 << 20, 's'));

    EXPECT_EQ(publisher->put("/a", stream)->status(), Status::Ok);

    Message message;
    ASSERT_TRUE(message.ParseFromString(receive_frames(subscriber).at(1)));
    EXPECT_EQ(message.put().body().bin().size(), 3u << 20);
}

TEST_F(APublisher, PublishesTextAsTextAndWhatIsNotUtf8AsBytes)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    const auto heard = [&] {
        Message message;
        EXPECT_TRUE(message.ParseFromString(receive_frames(subscriber).at(1)));
        return message.put();
    };
    Message as_it_is;
    as_it_is.mutable_put()->mutable_head()->set_path("/a");
    as_it_is.mutable_put()->mutable_head()->set_format(Format::Json);
    as_it_is.mutable_put()->mutable_body()->set_txt("a\xF6z");

    EXPECT_TRUE(publisher->put("/a?format=text", std::string("a\xC3\xB6z"))->good());
    EXPECT_EQ(heard().body().txt(), "a\xC3\xB6z");
    EXPECT_TRUE(publisher->put("/a?format=text", std::string("a\xF6z"))->good());
    const Put bytes = heard();
    EXPECT_EQ(bytes.body().bin(), "a\xF6z");
    EXPECT_EQ(bytes.head().format(), Format::Text);
    EXPECT_TRUE(publisher->send(Request(std::make_shared<Message>(as_it_is)))->good());
    const Put sent = heard();
    EXPECT_EQ(sent.body().bin(), "a\xF6z");
    EXPECT_EQ(sent.head().format(), Format::Json);
}

TEST_F(APublisher, AddsTheSlashThatAPathLacks)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    EXPECT_EQ(publisher->put("relative/path", "x")->status(), Status::Ok);
    EXPECT_EQ(receive_frames(subscriber).at(0), "/relative");
}

TEST_F(APublisher, StampsItsTagIntoTheMessageThatItIsGiven)
{
    const auto publisher = make_publisher(uri);
    const auto message = factory()->make_put("/a", "x");
    EXPECT_EQ(publisher->send(Request(message))->status(), Status::Ok);
    EXPECT_EQ(message->put().head().from().tag().size(), 36u);
}

TEST_F(APublisher, CountsWhatItPublishesWhetherOrNotAnybodyHears)
{
    const auto publisher = make_publisher(uri);
    publisher->put("/a", "x");
    publisher->del("/a");
    publisher->send(Request(factory()->make_put("/a", "x")));
    EXPECT_EQ(counted("tx"), 3u);
    EXPECT_EQ(counted("err"), 0u);
}

struct Refusal {
    std::string what;
    std::shared_ptr<Message> message;
    std::string text;
};

std::shared_ptr<Message> put_to(const std::string& path)
{
    auto message = std::make_shared<Message>();
    message->mutable_put()->mutable_head()->set_path(path);
    return message;
}

std::shared_ptr<Message> del_to(const std::string& path)
{
    auto message = std::make_shared<Message>();
    message->mutable_del()->mutable_head()->set_path(path);
    return message;
}

std::shared_ptr<Message> a_get()
{
    auto message = std::make_shared<Message>();
    message->mutable_get()->mutable_head()->set_path("/a");
    return message;
}

class APublisherGiven : public APublisher, public ::testing::WithParamInterface<Refusal> {};

TEST_P(APublisherGiven, WhatCannotBePublishedRefusesItByName)
{
    const auto publisher = make_publisher(uri);
    EXPECT_EQ(publisher->send(Request(GetParam().message))->status(), Status::BadRequest);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, GetParam().text));
    EXPECT_EQ(counted("tx"), 0u);
    EXPECT_EQ(counted("err"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, APublisherGiven,
    ::testing::Values(
        Refusal{"Nothing", nullptr, "Unable to put message, nullptr"},
        Refusal{"AGet", a_get(), "Unable to send message, not a put or del"},
        Refusal{"NoType", std::make_shared<Message>(), "Unable to send message, not a put or del"},
        Refusal{"APutNowhere", put_to(""), "Unable to put message, missing path"},
        Refusal{"ARelativePut", put_to("a/b"), "Unable to put message; path needs to start with '/'"},
        Refusal{"ADeleteNowhere", del_to(""), "Unable to del message, missing path"},
        Refusal{"ARelativeDelete", del_to("a/b"), "Unable to del message; path needs to start with '/'"}),
    [](const auto& refusal) { return refusal.param.what; });

TEST_F(APublisher, WhoseContextEndsThrows)
{
    const auto publisher = make_publisher(uri);
    runtime->ctx()->shutdown();
    EXPECT_THROW(publisher->put("/a", "x"), zmq::error_t);
}

TEST_F(APublisher, SharedByManyThreadsKeepsTheFramesOfEachMessageTogether)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.set(zmq::sockopt::rcvhwm, 0);
    subscribe(*publisher, subscriber);
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 100; ++i)
                    publisher->put("/" + std::to_string(t), std::to_string(t));
            });
        }
    }

    for (int i = 0; i < 400; ++i) {
        ASSERT_TRUE(is_readable(subscriber, 20s));
        const auto frames = receive_frames(subscriber);
        ASSERT_EQ(frames.size(), 2u);
        Message message;
        ASSERT_TRUE(message.ParseFromString(frames[1]));
        EXPECT_EQ(frames[0], "/" + message.put().body().bin());
    }
}

TEST_F(APublisher, MayOutliveTheLibraryAndLetsItsLastMessagesLeave)
{
    auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    runtime.reset();

    publisher->put("/last", "words");
    publisher.reset();

    ASSERT_TRUE(is_readable(subscriber, 20s));
    EXPECT_EQ(receive_frames(subscriber).at(0), "/last");
    EXPECT_EQ(providers("zmq.publisher"), 0u);
}

// --- The statistics that it asks for -----------------------------------------------------------------

class RelayStatistics : public RuntimeTest {
protected:
    void count(const std::string& tag, bool by_put = true, std::int32_t pid = 1)
    {
        Context context;
        context.request.message = by_put ? factory()->make_put("/relay", "x") : factory()->make_del("/relay");
        Identity& from = *tarn_internal::find_or_make_head(*context.request.message)->mutable_from();
        from.set_tag(tag);
        from.set_pid(pid);
        by_put ? route->put(context) : route->del(context);
    }

    Reply ask(const std::string& recipient)
    {
        Context context;
        context.request.message = factory()->make_get(recipient);
        context.reply.message = factory()->make_response(context.request.message, 1);
        route->get(context);
        return context.reply;
    }

    struct SetClock : slate::Clock {
        unsigned long ticks() const override { return ticks_; }
        unsigned long frequency() const override { return frequency_; }
        unsigned long ticks_ = 0;
        unsigned long frequency_ = 1;
    };

    std::shared_ptr<SetClock> clock = std::make_shared<SetClock>();
    std::shared_ptr<Route> route = make_relay_stats_route(clock);
};

TEST_F(RelayStatistics, CountTheMessagesOfEachSender)
{
    count("a");
    count("b");
    count("a", false);

    const auto stats = ask("/relay/stats").into<Stats>();
    ASSERT_EQ(stats.stat_size(), 2);
    EXPECT_EQ(stats.stat(0).id().tag(), "a"); // the one heard last comes first
    EXPECT_EQ(stats.stat(0).total_packets(), 2);
    EXPECT_FALSE(slate::Duration::from(stats.stat(0).age(), {}).is_not_initialized());
    EXPECT_EQ(stats.stat(1).total_packets(), 1);
}

TEST_F(RelayStatistics, AreGivenInTheFormatThatIsAskedFor)
{
    count("a");
    EXPECT_EQ(ask("/relay/stats").format(), Format::Proto);
    const Reply json = ask("/relay/stats?format=json");
    EXPECT_EQ(json.format(), Format::Json);
    EXPECT_EQ(json.into<Stats>().stat_size(), 1);
    EXPECT_NE(ask("/relay/stats?format=text").data().find("total_packets: 1"), std::string::npos);
}

TEST_F(RelayStatistics, AreNotWhatThePathOfTheProbesAnswers)
{
    EXPECT_THROW(ask("/relay"), MessageException);
}

TEST_F(RelayStatistics, AreAlsoGivenWhereARouterHasTakenTheServicesNameOffThePath)
{
    count("a");
    EXPECT_EQ(ask("/stats").into<Stats>().stat_size(), 1);
    EXPECT_EQ(ask("/stats?format=json").format(), Format::Json);
}

TEST_F(RelayStatistics, DoNotCountWhatSomebodyElsePublishesUnderThatName)
{
    for (const auto& message : {factory()->make_put("/stats", "x"), factory()->make_del("/stats")}) {
        Context context;
        context.request.message = message;
        tarn_internal::find_or_make_head(*message)->mutable_from()->set_tag("a");
        message->has_put() ? route->put(context) : route->del(context);
    }
    EXPECT_EQ(ask("/stats").into<Stats>().stat_size(), 0);
}

TEST_F(RelayStatistics, ForgetTheSenderThatWasSilentLongestBeyondAThousand)
{
    for (int i = 0; i <= 1000; ++i) {
        count(std::to_string(i));
        count("kept");
    }
    const auto stats = ask("/relay/stats").into<Stats>();
    EXPECT_EQ(stats.stat_size(), 1000);
    EXPECT_EQ(stats.stat(0).id().tag(), "kept");
    EXPECT_EQ(stats.stat(0).total_packets(), 1001);
    for (const Stat& stat : stats.stat())
        EXPECT_NE(stat.id().tag(), "0");
}

TEST_F(RelayStatistics, ForgetOnlyTheTagsOfAProcessThatMakesThemUpWithoutEnd)
{
    count("silent", true, 2);
    for (int i = 0; i < 3000; ++i)
        count(std::to_string(i));
    count("new", true, 3);

    const auto stats = ask("/relay/stats").into<Stats>();
    ASSERT_EQ(stats.stat_size(), 1000);
    EXPECT_EQ(stats.stat(0).id().tag(), "new");
    EXPECT_EQ(stats.stat(1).id().tag(), "2999");
    EXPECT_EQ(stats.stat(998).id().tag(), "2002");
    EXPECT_EQ(stats.stat(999).id().tag(), "silent");
}

TEST_F(RelayStatistics, KeepOnlyThePidAndTheTagOfASender)
{
    Context context;
    context.request.message = factory()->make_put("/relay", "x");
    Identity* from = tarn_internal::find_or_make_head(*context.request.message)->mutable_from();
    from->set_pid(4711);
    from->set_tag("a");
    from->GetReflection()->MutableUnknownFields(from)->AddLengthDelimited(999)->assign(100'000, 'x');
    route->put(context);

    const auto stats = ask("/relay/stats").into<Stats>();
    ASSERT_EQ(stats.stat_size(), 1);
    Identity kept;
    kept.set_pid(4711);
    kept.set_tag("a");
    EXPECT_EQ(stats.stat(0).id().SerializeAsString(), kept.SerializeAsString());
}

TEST_F(RelayStatistics, KnowHowOldASenderIsWhereTheTicksBeginAgain)
{
    const unsigned long per_second = std::numeric_limits<unsigned long>::max() / 64 + 1;
    clock->frequency_ = per_second;
    clock->ticks_ = 63 * per_second;
    count("a");
    clock->ticks_ = 4 * per_second; // five seconds later

    const auto stats = ask("/relay/stats").into<Stats>();

    ASSERT_EQ(stats.stat_size(), 1);
    const auto age = slate::Duration::from(stats.stat(0).age(), {});
    EXPECT_GT(age, slate::Milliseconds(4999));
    EXPECT_LT(age, slate::Milliseconds(5001));
}

TEST_F(RelayStatistics, ForgetASenderAfterFifteenMinutesOfSilence)
{
    count("silent");
    clock->ticks_ = 10 * 60;
    count("heard");
    clock->ticks_ = 15 * 60;
    EXPECT_EQ(ask("/relay/stats").into<Stats>().stat_size(), 2);
    clock->ticks_ = 15 * 60 + 1;
    auto stats = ask("/relay/stats").into<Stats>();
    ASSERT_EQ(stats.stat_size(), 1);
    EXPECT_EQ(stats.stat(0).id().tag(), "heard");
    EXPECT_EQ(slate::Duration::from(stats.stat(0).age(), {}), slate::Seconds(5 * 60 + 1));

    count("heard");
    count("silent"); // begins at 1 again, since its old entry is gone
    stats = ask("/relay/stats").into<Stats>();
    ASSERT_EQ(stats.stat_size(), 2);
    EXPECT_EQ(stats.stat(0).total_packets(), 1);
}

TEST_F(RelayStatistics, TakeNoSenderWithoutATagOrWithATagOfAnyLength)
{
    count("");
    count(std::string(65, 'x'));
    EXPECT_EQ(ask("/relay/stats").into<Stats>().stat_size(), 0);
}

TEST_F(APublisher, IsNotMadeIfASettingIsNotAnEndpoint)
{
    settings->set("relay_sub", std::string_view(uri->to_string()));
    settings->set("relay_url", "nonsense");
    EXPECT_EQ(make_publisher(), nullptr); // rather than take the relay's endpoint over
    EXPECT_FALSE(std::filesystem::exists(uri->path()));
    settings->set("relay_sub", "nonsense");
    settings->set("relay_url", std::string_view(stats_uri->to_string()));
    EXPECT_EQ(make_publisher(), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "setting is not an endpoint: relay_url = nonsense"));
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "setting is not an endpoint: relay_sub = nonsense"));
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot make_publisher, a relay setting is not an endpoint"), 2u);
}

TEST_F(APublisher, GoesOnWithoutAnErrorWhenItsRelayHasGone)
{
    const auto pub_uri = scratch_endpoint();
    auto relay = make_relay(uri, pub_uri);
    auto server = runtime->add_server({stats_uri}, pub_uri);
    server->add(make_relay_stats_route());
    const auto publisher = make_publisher(uri, slate::Seconds(20), 0, stats_uri);
    relay.reset();

    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(publisher->put("/a", "x")->status(), Status::Ok);
    EXPECT_EQ(counted("tx"), 100u);
    EXPECT_EQ(counted("err"), 0u);
}

TEST_F(APublisher, LogsWhatItSendsAtTheExtremeLevel)
{
    const auto publisher = make_publisher(uri);
    slate::set_log_level(slate::ExtremeLevel);
    publisher->put("/a", "x");
    EXPECT_EQ(logs.count(slate::ExtremeLevel, "sent: put {"), 1u);
}

// --- Subscribers that come and go ---------------------------------------------------------------------

/// A publisher that sends nothing for long, while others subscribe and unsubscribe.
class AnIdlePublisher : public APublisher {
protected:
    AnIdlePublisher()
    {
        // Shows all that a publisher is told, and so when it has been told.
        observer.set(zmq::sockopt::rcvhwm, 0);
        observer.set(zmq::sockopt::linger, 0);
    }

    /// Waits until the observer has been told that often, and returns the last thing that it was.
    std::string await(int count)
    {
        std::string told;
        for (; count > 0; --count) {
            if (::testing::Test::HasFailure() || !is_readable(observer, 20s)) {
                ADD_FAILURE() << "nothing comes";
                return told;
            }
            told = receive_frames(observer).at(0);
        }
        return told;
    }

    bool reaches(Publisher& publisher, zmq::socket_t& subscriber, const std::string& path)
    {
        return wait_until(
            [&] {
                publisher.put(path, "x");
                return is_readable(subscriber, 10ms);
            },
            5s);
    }

    zmq::socket_t observer{context, zmq::socket_type::xpub};
};

TEST_F(AnIdlePublisher, HearsOfASubscriberAfterManyThousandsThatHaveComeAndGone)
{
    constexpr int restarts = 40'000;
    constexpr int burst = 200; // less than any queue on the way takes
    const auto relay_out = scratch_endpoint();
    const auto relay = make_relay(uri, relay_out);
    const auto server = runtime->add_server({stats_uri}, relay_out);
    server->add(make_relay_stats_route());
    const auto publisher = make_publisher(uri, slate::Seconds(20), 0, stats_uri);
    observer.connect(uri->to_string());
    // The server's subscriptions come first; the last one is ours.
    zmq::socket_t restarting(context, zmq::socket_type::sub);
    restarting.connect(relay_out->to_string());
    restarting.set(zmq::sockopt::subscribe, "/first");
    while (await(1) != "\x01/first") {
    }

    for (int i = 0; i < restarts; i += burst) {
        (void)is_readable(restarting, 0ms); // a socket learns only then that there is room for more
        for (int n = 0; n < burst; ++n) {
            restarting.set(zmq::sockopt::subscribe, "/restarting");
            restarting.set(zmq::sockopt::unsubscribe, "/restarting");
        }
        (void)await(2 * burst);
    }
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(relay_out->to_string());
    subscriber.set(zmq::sockopt::subscribe, "/a");
    EXPECT_EQ(await(1), "\x01/a");

    EXPECT_TRUE(reaches(*publisher, subscriber, "/a"));
}

// libzmq releases each subscription of a peer that goes by a recursion over its bytes.
TEST_F(AnIdlePublisher, TakesNoSubscriptionWithoutMeasure)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(uri->to_string());
    const std::string long_topic = "/" + std::string(4000, 'y');
    subscriber.set(zmq::sockopt::subscribe, long_topic);
    EXPECT_TRUE(reaches(*publisher, subscriber, long_topic));

    zmq::socket_t greedy(context, zmq::socket_type::sub);
    greedy.connect(uri->to_string());
    const std::string longer_topic = "/" + std::string(5000, 'z');
    greedy.set(zmq::sockopt::subscribe, longer_topic);
    for (int i = 0; i < 30; ++i) {
        publisher->put(longer_topic, "x");
        EXPECT_FALSE(is_readable(greedy, 10ms));
    }
}

TEST_F(AnIdlePublisher, SleepsWhileNothingComes)
{
    const auto publisher = make_publisher(uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscribe(*publisher, subscriber);
    const auto thread = thread_of_this_process("tarn-publisher");
    ASSERT_FALSE(thread.empty());
    const auto wake_ups = [&] {
        std::ifstream status(thread / "status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("voluntary_ctxt_switches:"))
                return line;
        }
        return std::string();
    };

    // Nothing tells that a thread goes on sleeping; one that looks now and then would be seen in this time.
    std::string before;
    EXPECT_TRUE(wait_until([&] {
        before = wake_ups();
        std::this_thread::sleep_for(500ms);
        return wake_ups() == before;
    }));
    EXPECT_FALSE(before.empty());
}
} // namespace
