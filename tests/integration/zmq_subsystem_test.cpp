// SPDX-License-Identifier: Apache-2.0
#include "tarn/zmq_subsystem.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zmq.hpp>

#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;

TEST(ZmqSubsystem, TellsItsNameAndVersionWithoutAnyObject)
{
    EXPECT_EQ(ZmqSubsystem::name(), "ZeroMQ");
    EXPECT_EQ(ZmqSubsystem::version(), std::to_string(ZMQ_VERSION_MAJOR) + "." +
                                           std::to_string(ZMQ_VERSION_MINOR) + "." +
                                           std::to_string(ZMQ_VERSION_PATCH));
    EXPECT_EQ(ZmqSubsystem::self(), nullptr);
}

TEST(ZmqSubsystem, IsFoundFromEverywhereWhileItLives)
{
    {
        ZmqSubsystem subsystem;
        EXPECT_EQ(ZmqSubsystem::self(), &subsystem);
    }
    EXPECT_EQ(ZmqSubsystem::self(), nullptr);
}

TEST(ZmqSubsystem, HoldsItsContextItsSettingsItsQueueAndNoServers)
{
    const auto settings = slate::make_dictionary();
    const ZmqSubsystem subsystem(settings);

    EXPECT_EQ(subsystem.settings(), settings);
    EXPECT_NE(subsystem.ctx(), nullptr);
    EXPECT_EQ(subsystem.ctx(), subsystem.ctx());
    EXPECT_NE(subsystem.queue(), nullptr);
    EXPECT_TRUE(subsystem.servers().empty());
    EXPECT_EQ(subsystem.ctx()->get(zmq::ctxopt::io_threads), 1);
    EXPECT_EQ(subsystem.ctx()->get(zmq::ctxopt::max_sockets), 1023);
}

TEST(ZmqSubsystem, TakesNoSettingsForEmptyOnes)
{
    const ZmqSubsystem subsystem(nullptr);
    ASSERT_NE(subsystem.settings(), nullptr);
    EXPECT_TRUE(subsystem.settings()->keys().empty());
}

TEST(ZmqSubsystem, StaysTheFirstOneWhenASecondIsMade)
{
    ZmqSubsystem first;
    ZmqSubsystem second;

    EXPECT_EQ(ZmqSubsystem::self(), &first);
    EXPECT_NE(first.ctx(), second.ctx());
}

TEST(ZmqSubsystem, IsGoneForEverybodyOnceEitherOfTwoIsDestroyed)
{
    LogCapture logs;
    ZmqSubsystem first;
    {
        ZmqSubsystem second;
    }
    EXPECT_EQ(ZmqSubsystem::self(), nullptr);
    EXPECT_EQ(make_client(slate::make_uri("ipc:///x")), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot make_client, tarn not / no longer initialized"));
}

TEST(ZmqSubsystem, BuildsItsWorkQueueAtFirstUseAndLetsTheApplicationSetItUp)
{
    int setups = 0;
    ZmqSubsystem subsystem(slate::make_dictionary(), [&](slate::Queue& queue) {
        ++setups;
        queue.set_capacity(1);
    });
    EXPECT_EQ(setups, 0);
    EXPECT_EQ(providers("zmq.work_queue"), 0u);

    const auto queue = subsystem.queue()->get();
    EXPECT_NE(queue, nullptr);
    EXPECT_EQ(subsystem.queue()->get(), queue);
    EXPECT_EQ(setups, 1);
    EXPECT_EQ(providers("zmq.work_queue"), 1u);
}

TEST(ZmqSubsystem, WhoseContextCannotBeMadeThrowsAndLeavesNothingBehind)
{
    // In a process of its own, as it runs out of file descriptors.
    const pid_t child = fork();
    if (child == 0) {
        const struct rlimit none = {3, 3};
        setrlimit(RLIMIT_NOFILE, &none);
        bool thrown = false;
        try {
            ZmqSubsystem subsystem;
        }
        catch (const zmq::error_t&) {
            thrown = true;
        }
        _exit(thrown && ZmqSubsystem::self() == nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ZmqSubsystem, SendsWhatProtobufLogsWhereAllOtherLinesGo)
{
    LogCapture logs;
    ZmqSubsystem subsystem;
    Message message;
    message.mutable_put()->mutable_body()->set_txt("\xFF");

    (void)message.SerializeAsString();

    const auto lines = logs.texts(slate::ErrorLevel, "protobuf: ");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("UTF-8"), std::string::npos) << lines[0];
}

TEST(TheRelaysEndpoints, AreReadFromTheSettings)
{
    const auto settings = slate::make_dictionary();
    settings->set("relay_url", "ipc:///run/url.sock");
    settings->set("relay_pub", "ipc:///run/pub.sock");
    settings->set("relay_sub", "ipc:///run/sub.sock");

    EXPECT_EQ(relay_zmq_sock(settings)->to_string(), "ipc:///run/url.sock");
    EXPECT_EQ(relay_pub_sock(settings)->to_string(), "ipc:///run/pub.sock");
    EXPECT_EQ(relay_sub_sock(settings)->to_string(), "ipc:///run/sub.sock");
}

TEST(TheRelaysEndpoints, AreMissedByName)
{
    LogCapture logs;
    const auto settings = slate::make_dictionary();
    const auto text_of = [&](auto function) -> std::string {
        try {
            function(settings);
        }
        catch (const Exception& error) {
            return error.what();
        }
        return "";
    };

    EXPECT_EQ(text_of(relay_zmq_sock), "settings missing relay_url");
    EXPECT_EQ(text_of(relay_pub_sock), "settings missing relay_pub");
    EXPECT_EQ(text_of(relay_sub_sock), "settings missing relay_sub");
    EXPECT_EQ(logs.count(slate::ErrorLevel, "settings missing relay_"), 3u);
}

TEST(TheRelaysEndpoints, AreNullIfTheSettingIsNoEndpoint)
{
    const auto settings = slate::make_dictionary();
    settings->set("relay_pub", "nonsense");
    EXPECT_EQ(relay_pub_sock(settings), nullptr);
}
} // namespace
