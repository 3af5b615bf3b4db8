// SPDX-License-Identifier: Apache-2.0
#include "tarn/zmq_subsystem.h"

#include <future>
#include <stdexcept>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <zmq.hpp>

#include "slate/queue.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/relay.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

/// Notes when it goes, which is when its server does, and whether the library is still there then.
class FarewellRoute : public Route {
public:
    FarewellRoute(const std::string& route_name, std::shared_ptr<Journal> journal)
        : Route(route_name, "get", RoutePattern("/" + route_name), Access::Public),
          journal_(std::move(journal))
    {
    }
    ~FarewellRoute() override
    {
        journal_->add(name + (ZmqSubsystem::self() ? ", library up" : ", library down"));
    }

private:
    const std::shared_ptr<Journal> journal_;
};

/// Whether a request sent over a socket of that context is answered at that endpoint.
bool is_answered(zmq::context_t& context, const slate::Uri& uri)
{
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.set(zmq::sockopt::linger, 0);
    socket.connect(uri.to_string());
    send_frames(socket, {make_message_factory()->make_get("/index")->SerializeAsString()});
    return is_readable(socket, 20s);
}

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
    const LogCapture logs;
    ZmqSubsystem first;
    EXPECT_TRUE(logs.lines().empty());
    ZmqSubsystem second;

    EXPECT_EQ(
        logs.texts(slate::WarnLevel),
        std::vector<std::string>{"a second ZmqSubsystem in this process: the make_ functions go on with the "
                                 "first, and the end of either leaves them without one"});
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

TEST(ZmqSubsystem, DestroysItsServersFirstToLastBeforeItIsGoneForEverybody)
{
    const auto journal = std::make_shared<Journal>();
    auto subsystem = std::make_unique<ZmqSubsystem>();
    for (const std::string name : {"first", "second", "third"}) {
        const auto server = subsystem->add_server(slate::make_uri("inproc://" + name));
        server->add(std::make_shared<FarewellRoute>(name, journal));
    }
    EXPECT_TRUE(journal->entries().empty());

    subsystem.reset();

    EXPECT_EQ(journal->entries(),
              (std::vector<std::string>{"first, library up", "second, library up", "third, library up"}));
    EXPECT_EQ(ZmqSubsystem::self(), nullptr);
}

TEST(ZmqSubsystem, GivesItsContextToAllThatIsMadeWhileItIsTheFirst)
{
    const auto served = slate::make_uri("inproc://served");
    const auto added = slate::make_uri("inproc://added");
    const auto published = slate::make_uri("inproc://published");
    const auto relay_in = slate::make_uri("inproc://relay/in");
    const auto relay_out = slate::make_uri("inproc://relay/out");
    ZmqSubsystem first;
    ZmqSubsystem second;

    const auto server = make_server(first.settings(), {served}, nullptr);
    second.add_server(added); // it keeps the server, but the context is that of the first
    for (const auto& uri : {served, added}) {
        EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
        EXPECT_TRUE(is_answered(*first.ctx(), *uri));
    }

    // Who is connected over inproc has the same context. Both of these bind, so in the second one the names
    // are still free.
    const auto publisher = make_publisher(published);
    const auto relay = make_relay(relay_in, relay_out);
    for (const auto& uri : {served, added, published, relay_in, relay_out}) {
        zmq::socket_t of_second(*second.ctx(), zmq::socket_type::dealer);
        EXPECT_NO_THROW(of_second.bind(uri->to_string()));
        zmq::socket_t of_first(*first.ctx(), zmq::socket_type::dealer);
        EXPECT_THROW(of_first.bind(uri->to_string()), zmq::error_t) << uri->to_string();
    }
}

TEST(ZmqSubsystem, MakesNothingAnyMoreOnceTheFirstOfTwoIsDestroyed)
{
    LogCapture logs;
    const auto uri = slate::make_uri("inproc://a");
    auto first = std::make_unique<ZmqSubsystem>();
    ZmqSubsystem second;

    first.reset();

    EXPECT_EQ(ZmqSubsystem::self(), nullptr);
    EXPECT_EQ(make_client(uri), nullptr);
    EXPECT_EQ(make_server(second.settings(), {uri}, nullptr), nullptr);
    EXPECT_EQ(make_server(2, second.settings(), {uri}, nullptr), nullptr);
    EXPECT_EQ(make_subscriber(second.settings(), uri), nullptr);
    EXPECT_EQ(make_publisher(uri), nullptr);
    EXPECT_EQ(make_relay(uri, slate::make_uri("inproc://b")), nullptr);
    EXPECT_EQ(second.add_server(uri), nullptr);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "cannot make_"), 7u);
}

TEST(ZmqSubsystem, TriesAgainAfterASetupOfItsQueueThatFailed)
{
    int setups = 0;
    ZmqSubsystem subsystem(slate::make_dictionary(), [&](slate::Queue&) {
        if (++setups == 1)
            throw std::runtime_error("not yet");
    });

    EXPECT_THROW(subsystem.queue()->get(), std::runtime_error);
    EXPECT_EQ(providers("zmq.work_queue"), 0u);

    EXPECT_NE(subsystem.queue()->get(), nullptr);
    EXPECT_EQ(setups, 2);
    EXPECT_EQ(providers("zmq.work_queue"), 1u);
}

TEST(ZmqSubsystem, LeavesItsQueueToWhomeverHoldsIt)
{
    auto subsystem = std::make_unique<ZmqSubsystem>();
    auto lazy = subsystem->queue();
    auto queue = lazy->get();
    subsystem.reset();
    EXPECT_EQ(providers("zmq.work_queue"), 1u);
    lazy.reset();
    EXPECT_EQ(providers("zmq.work_queue"), 1u);

    class Job : public slate::DeferredWork {
        Result perform() override { return 7; }
    };
    EXPECT_EQ(queue->submit(std::make_shared<Job>())->future.get(), 7);

    queue.reset();
    EXPECT_EQ(providers("zmq.work_queue"), 0u);
}

TEST(ZmqSubsystem, KeepsTheSetupOfItsQueueUntilItIsNeeded)
{
    const auto setups = std::make_shared<std::atomic<int>>(0);
    std::unique_ptr<ZmqSubsystem> subsystem;
    {
        const std::function<void(slate::Queue&)> setup = [setups](slate::Queue&) { ++*setups; };
        subsystem = std::make_unique<ZmqSubsystem>(slate::make_dictionary(), setup);
    }

    subsystem->queue()->get();

    EXPECT_EQ(*setups, 1);
}

TEST(ZmqSubsystem, WaitsUntilEverySocketIsClosedWhenItIsDestroyed)
{
    auto subsystem = std::make_unique<ZmqSubsystem>();
    zmq::socket_t socket(*subsystem->ctx(), zmq::socket_type::dealer);
    std::atomic<bool> destroyed{false};
    std::thread destroying([&] {
        subsystem.reset();
        destroyed = true;
    });

    // The context tells its sockets that it is ending as soon as it waits for them.
    EXPECT_THROW(is_readable(socket, 20s), zmq::error_t);
    EXPECT_FALSE(wait_until([&] { return destroyed.load(); }, 100ms));
    socket.close();

    EXPECT_TRUE(wait_until([&] { return destroyed.load(); }));
    destroying.join();
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

TEST(TheRelaysEndpoints, AreNullIfTheSettingIsNotAnEndpoint)
{
    const auto settings = slate::make_dictionary();
    settings->set("relay_pub", "nonsense");
    EXPECT_EQ(relay_pub_sock(settings), nullptr);
}
} // namespace
