// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/proxy.h"

#include <fstream>
#include <future>
#include <iterator>
#include <sstream>

#include "support/own_process.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/transport/controlled_thread.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
using namespace tarn_internal;
using Frames = std::vector<std::string>;

class AProxy : public RuntimeTest {
protected:
    /// Runs a proxy between two endpoints until it is told to end.
    void start(const std::shared_ptr<const slate::Uri>& front, const std::shared_ptr<const slate::Uri>& back)
    {
        thread.start("tarn-test", [this, front, back] {
            zmq::socket_t router(*runtime->ctx(), zmq::socket_type::router);
            zmq::socket_t dealer(*runtime->ctx(), zmq::socket_type::dealer);
            zmq::socket_t control(*runtime->ctx(), zmq::socket_type::sub);
            // What a peer never reads is no reason to wait. Not 0: libzmq aborts if the peer of a closed
            // socket goes while a message of several frames is half written to it.
            router.set(zmq::sockopt::linger, 1000);
            dealer.set(zmq::sockopt::linger, 1000);
            router.bind(front->to_string());
            dealer.bind(back->to_string());
            if (connect_control(control, thread.endpoint(), nullptr))
                run_proxy(router, dealer, control, "test proxy", nullptr);
        });
    }

    ControlledThread thread{runtime->ctx(), scratch_endpoint("inproc")};
};

TEST_F(AProxy, PassesMessagesOnBothWaysWithAllTheirFrames)
{
    const auto front = scratch_endpoint();
    const auto back = scratch_endpoint();
    start(front, back);
    RawPeer asker(front, zmq::socket_type::dealer);
    RawPeer answerer(back, zmq::socket_type::dealer);

    asker.send({"", "one", "two"});
    auto request = answerer.receive();
    ASSERT_TRUE(request.has_value());
    ASSERT_EQ(request->size(), 4u); // the address of the sender stands in front
    EXPECT_EQ(std::vector<std::string>(request->begin() + 1, request->end()),
              (std::vector<std::string>{"", "one", "two"}));
    request->back() = "answer";
    answerer.send(*request);
    EXPECT_EQ(asker.receive(), (std::vector<std::string>{"", "one", "answer"}));
}

/// The processor time that a thread of this process has used, in ticks of the system's clock.
long time_of_thread(const std::string& name)
{
    std::ifstream file(thread_of_this_process(name) / "stat");
    const std::string stat((std::istreambuf_iterator<char>(file)), {});
    if (stat.empty()) {
        ADD_FAILURE() << "no thread " << name;
        return 0;
    }
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 0; i < 11; ++i)
        fields >> field;
    long user = 0;
    long system = 0;
    fields >> user >> system;
    return user + system;
}

TEST_F(AProxy, SleepsWhenMessagesHavePassedBothWays)
{
    const auto front = scratch_endpoint();
    const auto back = scratch_endpoint();
    start(front, back);
    RawPeer asker(front, zmq::socket_type::dealer);
    RawPeer answerer(back, zmq::socket_type::dealer);
    asker.send(Frames{"", "one"});
    const auto request = answerer.receive();
    ASSERT_TRUE(request.has_value());
    answerer.send(*request);
    ASSERT_TRUE(asker.receive().has_value());

    const long before = time_of_thread("tarn-test");
    EXPECT_FALSE(asker.receive(300ms).has_value()); // so much time passes
    EXPECT_LT(time_of_thread("tarn-test") - before, 10);
}

TEST_F(AProxy, GoesOnAfterAWordThatIsNotTheEnd)
{
    const auto front = scratch_endpoint();
    const auto back = scratch_endpoint();
    start(front, back);
    thread.send("worker-listening");
    thread.send("");
    RawPeer asker(front, zmq::socket_type::dealer);
    RawPeer answerer(back, zmq::socket_type::dealer);
    asker.send(Frames{"", "one"});
    EXPECT_TRUE(answerer.receive().has_value());
    thread.stop();
}

TEST_F(AProxy, PassesAnswersOnWhileRequestsHaveNowhereToGo)
{
    const auto front = scratch_endpoint();
    const auto back = scratch_endpoint();
    start(front, back);
    RawPeer asker(front, zmq::socket_type::dealer);
    RawPeer answerer(back, zmq::socket_type::dealer);
    asker.send(Frames{"", "first"});
    const auto first = answerer.receive();
    ASSERT_TRUE(first.has_value());

    RawPeer flood(front, zmq::socket_type::dealer);
    ASSERT_LT(flood.send_until_full([](int) { return Frames{"flood"}; }), 100000);
    answerer.send(*first);

    EXPECT_EQ(asker.receive(), (std::vector<std::string>{"", "first"}));
    thread.stop();
}

TEST_F(AProxy, LosesNothingThatHadToWait)
{
    const auto front = scratch_endpoint();
    const auto back = scratch_endpoint();
    start(front, back);
    RawPeer asker(front, zmq::socket_type::dealer);
    RawPeer answerer(back, zmq::socket_type::dealer);
    const int sent = asker.send_until_full([](int i) { return Frames{std::to_string(i)}; });
    ASSERT_LT(sent, 100000);

    for (int i = 0; i < sent; ++i) {
        const auto message = answerer.receive();
        ASSERT_TRUE(message.has_value()) << i << " of " << sent;
        ASSERT_EQ(message->back(), std::to_string(i));
    }
}

TEST_F(AProxy, HasWhatStoppedItInTheLog)
{
    zmq::socket_t front(*runtime->ctx(), zmq::socket_type::router);
    zmq::socket_t back(*runtime->ctx(), zmq::socket_type::dealer);
    zmq::socket_t control(*runtime->ctx(), zmq::socket_type::sub);
    back.close();
    run_proxy(front, back, control, "test proxy", nullptr);
    EXPECT_TRUE(
        logs.has(slate::ErrorLevel, "test proxy has stopped working: Socket operation on non-socket"));
}
} // namespace
