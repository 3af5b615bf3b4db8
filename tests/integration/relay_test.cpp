// SPDX-License-Identifier: Apache-2.0
#include "tarn/relay.h"

#include <filesystem>

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/peers.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;

class ARelay : public RuntimeTest {
protected:
    /// Waits until what the subscriber asked for has reached the publisher through the relay.
    static void await_subscription(zmq::socket_t& publisher, const std::string& topic)
    {
        for (;;) {
            ASSERT_TRUE(is_readable(publisher, std::chrono::seconds(20)));
            if (receive_frames(publisher).at(0) == "\x01" + topic)
                return;
        }
    }

    std::shared_ptr<const slate::Uri> sub_uri = scratch_endpoint();
    std::shared_ptr<const slate::Uri> pub_uri = scratch_endpoint();
    std::shared_ptr<const slate::Uri> uri_of_statistics = scratch_endpoint();
    zmq::context_t context;
};

TEST_F(ARelay, IsNotMadeWithoutTheLibrary)
{
    runtime.reset();
    EXPECT_EQ(make_relay(sub_uri, pub_uri), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_relay, tarn not / no longer initialized"));
}

TEST_F(ARelay, ForwardsWhatIsAskedForAndNothingElse)
{
    const auto relay = make_relay(sub_uri, pub_uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "/wanted");
    // A ZMQ_XPUB socket shows the subscriptions that reach it.
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.connect(sub_uri->to_string());
    await_subscription(publisher, "/wanted");

    send_frames(publisher, {"/other", "1"});
    send_frames(publisher, {"/wanted", "2"});
    send_frames(publisher, {"/wanted/too", "3", "third"});

    ASSERT_TRUE(is_readable(subscriber, std::chrono::seconds(20)));
    EXPECT_EQ(receive_frames(subscriber), (std::vector<std::string>{"/wanted", "2"}));
    ASSERT_TRUE(is_readable(subscriber, std::chrono::seconds(20)));
    EXPECT_EQ(receive_frames(subscriber), (std::vector<std::string>{"/wanted/too", "3", "third"}));
}

TEST_F(ARelay, LeavesTheAccessToItsSocketsToTheUmask)
{
    const mode_t before = umask(027);
    const auto relay = make_relay(sub_uri, pub_uri);
    umask(before);
    for (const auto& uri : {sub_uri, pub_uri}) {
        struct stat info {};
        ASSERT_EQ(stat(uri->path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0750u);
    }
    EXPECT_EQ(logs.count(slate::WarnLevel), 0u);
}

TEST_F(ARelay, GivesItsSocketsTheModeAndTheGroupOfTheSettings)
{
    const gid_t group = geteuid() == 0 ? 1 : getgid();
    settings->set("socket_mode", "0730");
    settings->set("socket_group", std::string_view(getgrgid(group)->gr_name));
    const auto relay = make_relay(sub_uri, pub_uri);
    for (const auto& uri : {sub_uri, pub_uri}) {
        struct stat info {};
        ASSERT_EQ(stat(uri->path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0730u);
        EXPECT_EQ(info.st_gid, group);
    }
}

class TheMarksOfARelay : public ARelay, public ::testing::WithParamInterface<int> {};

/// How many changes survive that are published while the subscriber doesn't read.
TEST_P(TheMarksOfARelay, AreThoseOfTheSettings)
{
    if (GetParam() != 1000)
        settings->set("high_water_mark", GetParam());
    const auto relay = make_relay(sub_uri, pub_uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.set(zmq::sockopt::rcvhwm, 1);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "");
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.set(zmq::sockopt::sndhwm, 0);
    publisher.connect(sub_uri->to_string());
    await_subscription(publisher, "");

    const std::string body(32768, 'x'); // so that few wait in the sockets of the system
    constexpr int count = 4000;
    for (int i = 0; i < count; ++i)
        send_frames(publisher, {"/x", body});
    zmq::socket_t last(context,
                       zmq::socket_type::sub); // one that hears the end knows that the relay is through
    last.set(zmq::sockopt::rcvhwm, 0);
    last.connect(pub_uri->to_string());
    last.set(zmq::sockopt::subscribe, "/end");
    await_subscription(publisher, "/end");
    send_frames(publisher, {"/end", ""});
    ASSERT_TRUE(is_readable(last, std::chrono::seconds(20)));

    int heard = 0;
    while (is_readable(subscriber, std::chrono::milliseconds(500)))
        heard += receive_frames(subscriber).at(0) == "/x" ? 1 : 0;
    EXPECT_GE(heard, std::min(GetParam(), count));
    EXPECT_LT(heard, GetParam() + 200 < count ? GetParam() + 200 : count + 1);
}
INSTANTIATE_TEST_SUITE_P(Marks, TheMarksOfARelay, ::testing::Values(100, 1000, 10000));

// libzmq releases each subscription of a peer that goes by a recursion over its bytes.
TEST_F(ARelay, SurvivesSubscriptionsWithoutMeasureAndTakesLongOnes)
{
    const auto relay = make_relay(sub_uri, pub_uri);
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.connect(sub_uri->to_string());
    for (int i = 0; i < 3; ++i)
        subscribe_and_go(pub_uri->path(), "/" + std::string(1 << 20, 'x'));
    const std::string topic = "/" + std::string(4000, 'y');
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, topic);
    await_subscription(publisher, topic);
    send_frames(publisher, {topic, "1"});
    ASSERT_TRUE(is_readable(subscriber, std::chrono::seconds(20)));
    EXPECT_EQ(receive_frames(subscriber), (std::vector<std::string>{topic, "1"}));
    zmq::socket_t other(context, zmq::socket_type::sub);
    other.connect(pub_uri->to_string());
    other.set(zmq::sockopt::subscribe, "/" + std::string(5000, 'z'));
    other.set(zmq::sockopt::subscribe, "/later");
    EXPECT_FALSE(is_readable(publisher, std::chrono::milliseconds(200)));
}

// The relay tells each publisher that connects what is subscribed, in a form that is longer than what it
// took.
TEST_F(ARelay, ServesPublishersThatConnectAfterTheLongestSubscriptions)
{
    const auto relay = make_relay(sub_uri, pub_uri);
    const auto statistics = make_server(1, settings, {uri_of_statistics}, pub_uri, make_message_factory(),
                                        {make_relay_stats_route()});
    zmq::socket_t xsub(context, zmq::socket_type::xsub);
    xsub.set(zmq::sockopt::linger, 0);
    xsub.connect(pub_uri->to_string());
    const std::string longest = "/" + std::string(4094, 'x');
    send_frames(xsub, {"\x01" + longest}); // with the first byte 4,096, which the relay takes
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "/x");
    zmq::socket_t observer(context, zmq::socket_type::xpub);
    observer.set(zmq::sockopt::linger, 0);
    observer.connect(sub_uri->to_string());
    await_subscription(observer, longest);

    const auto publisher = make_publisher(sub_uri, slate::Seconds(20), 0, uri_of_statistics);
    ASSERT_TRUE(wait_until([&] {
        (void)publisher->put("/x", "1");
        return is_readable(subscriber, std::chrono::milliseconds(20));
    }));
    EXPECT_EQ(receive_frames(subscriber).at(0), "/x");
}

TEST_F(ARelay, LeavesTheSocketFilesOfItsSuccessorAlone)
{
    auto first = make_relay(sub_uri, pub_uri);
    auto second = make_relay(sub_uri, pub_uri);
    first.reset();
    EXPECT_TRUE(std::filesystem::exists(sub_uri->path()));
    EXPECT_TRUE(std::filesystem::exists(pub_uri->path()));
    second.reset();
    EXPECT_FALSE(std::filesystem::exists(sub_uri->path()));
    EXPECT_FALSE(std::filesystem::exists(pub_uri->path()));
}

TEST_F(ARelay, LogsItsEndpoints)
{
    slate::set_log_level(slate::DebugLevel);
    const auto relay = make_relay(sub_uri, pub_uri);
    EXPECT_TRUE(logs.has(slate::DebugLevel, "bind " + sub_uri->to_string()));
    EXPECT_TRUE(logs.has(slate::DebugLevel, "bind " + pub_uri->to_string()));
}

TEST_F(ARelay, RemovesItsSocketFilesWhenItEnds)
{
    auto relay = make_relay(sub_uri, pub_uri);
    EXPECT_TRUE(std::filesystem::exists(sub_uri->path()));
    EXPECT_TRUE(std::filesystem::exists(pub_uri->path()));
    relay.reset();
    EXPECT_FALSE(std::filesystem::exists(sub_uri->path()));
    EXPECT_FALSE(std::filesystem::exists(pub_uri->path()));
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ARelay, WhoseEndpointIsTakenThrowsAndLeavesTheFirstOneAtWork)
{
    zmq::socket_t probe(context, zmq::socket_type::rep);
    probe.bind("tcp://127.0.0.1:*");
    const auto taken = slate::make_uri(probe.get(zmq::sockopt::last_endpoint));

    EXPECT_THROW(make_relay(taken, pub_uri), zmq::error_t);
    EXPECT_THROW(make_relay(sub_uri, taken), zmq::error_t);
    EXPECT_TRUE(logs.lines().empty());
    probe.close();

    const auto relay = make_relay(taken, pub_uri);
    EXPECT_THROW(make_relay(taken, scratch_endpoint()), zmq::error_t);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "/a");
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.connect(taken->to_string());
    await_subscription(publisher, "/a");
    send_frames(publisher, {"/a", "1"});
    EXPECT_TRUE(is_readable(subscriber, std::chrono::seconds(20)));
}

TEST_F(ARelay, EndsAtOnceHoweverSoonItIsDestroyed)
{
    for (int i = 0; i < 1000; ++i)
        make_relay(scratch_endpoint("inproc"), scratch_endpoint("inproc")).reset();
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ARelay, CarriesMessagesOfManyMegabytes)
{
    const auto relay = make_relay(sub_uri, pub_uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "");
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.set(zmq::sockopt::linger, 0);
    publisher.connect(sub_uri->to_string());
    await_subscription(publisher, "");

    const std::string payload(20 << 20, 'p');
    send_frames(publisher, {"/a", payload});
    ASSERT_TRUE(is_readable(subscriber, std::chrono::seconds(20)));
    EXPECT_EQ(receive_frames(subscriber).at(1), payload);
}

TEST_F(ARelay, SaysWhichOneStopsWorkingWhenItsContextEnds)
{
    const auto relay = make_relay(sub_uri, pub_uri);
    zmq::socket_t subscriber(context, zmq::socket_type::sub);
    subscriber.connect(pub_uri->to_string());
    subscriber.set(zmq::sockopt::subscribe, "/a");
    zmq::socket_t publisher(context, zmq::socket_type::xpub);
    publisher.connect(sub_uri->to_string());
    await_subscription(publisher, "/a"); // it is at work

    runtime->ctx()->shutdown();
    EXPECT_TRUE(wait_until([&] {
        return logs.count(slate::ErrorLevel, "relay from " + sub_uri->to_string() + " to " +
                                                 pub_uri->to_string() + " has stopped working: ") == 1;
    }));
}
} // namespace
