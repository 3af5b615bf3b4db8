// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/socket_poller.h"

#include <csignal>
#include <thread>

#include <sys/resource.h>

#include "slate/duration.h"
#include "slate/uri.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn_test;
using namespace tarn_internal;
const slate::Duration for_ever = slate::Duration::positive_infinity();
const slate::Duration a_moment = slate::Milliseconds(20);

class ASocketPoller : public RuntimeTest {
protected:
    ASocketPoller()
    {
        for (auto* ends : {&first_ends, &second_ends}) {
            const auto endpoint = scratch_endpoint()->to_string();
            ends->here.bind(endpoint);
            ends->there.connect(endpoint);
        }
    }

    struct Ends {
        explicit Ends(zmq::context_t& context)
            : here(context, zmq::socket_type::pair),
              there(context, zmq::socket_type::pair)
        {
            here.set(zmq::sockopt::linger, 0);
            there.set(zmq::sockopt::linger, 0);
        }
        void send() { there.send(zmq::str_buffer("x"), zmq::send_flags::none); }
        void receive()
        {
            zmq::message_t frame;
            EXPECT_TRUE(here.recv(frame, zmq::recv_flags::dontwait).has_value());
        }
        zmq::socket_t here;
        zmq::socket_t there;
    };

    /// Until a socket has something; false if the time passed.
    bool waits(const slate::Duration& time)
    {
        while (poller.wait(time)) {
            const bool first_has = poller.is_readable(first);
            const bool second_has = poller.is_readable(second);
            if (first_has || second_has)
                return true;
        }
        return false;
    }

    Ends first_ends{*runtime->ctx()};
    Ends second_ends{*runtime->ctx()};
    SocketPoller poller;
    const SocketPoller::Index first = poller.add(first_ends.here);
    const SocketPoller::Index second = poller.add(second_ends.here);
};

TEST_F(ASocketPoller, FindsTheSocketThatHasAMessage)
{
    EXPECT_FALSE(waits(a_moment));
    second_ends.send();
    ASSERT_TRUE(waits(for_ever));
    EXPECT_FALSE(poller.is_readable(first));
    EXPECT_TRUE(poller.is_readable(second));
    second_ends.receive();
    EXPECT_FALSE(waits(a_moment));
    EXPECT_FALSE(poller.is_readable(second));
}

TEST_F(ASocketPoller, FindsAMessageAgainUntilItIsRead)
{
    first_ends.send();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(waits(for_ever));
        EXPECT_TRUE(poller.is_readable(first));
    }
}

TEST_F(ASocketPoller, FindsEachOfManyMessagesThatCameAtOnce)
{
    constexpr int count = 1000;
    for (int i = 0; i < count; ++i)
        first_ends.send();
    second_ends.send();
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(waits(for_ever));
        ASSERT_TRUE(poller.is_readable(first));
        first_ends.receive();
    }
    while (!poller.is_readable(second))
        ASSERT_TRUE(waits(for_ever));
    second_ends.receive();
    EXPECT_FALSE(waits(a_moment));
}

TEST_F(ASocketPoller, LetsNoSocketThatIsNeverEmptyHideAnother)
{
    first_ends.send();
    ASSERT_TRUE(waits(for_ever));
    ASSERT_FALSE(poller.is_readable(second));
    second_ends.send();
    EXPECT_TRUE(wait_until([&] { return poller.wait(for_ever) && poller.is_readable(second); }));
    EXPECT_TRUE(poller.is_readable(first));
}

TEST_F(ASocketPoller, DoesNotWaitWhileASocketIsUnsettled)
{
    EXPECT_FALSE(waits(a_moment));
    EXPECT_FALSE(poller.is_unsettled(first));
    first_ends.send();
    ASSERT_TRUE(poller.wait(for_ever));
    EXPECT_TRUE(poller.is_unsettled(first));
    first_ends.receive();
    EXPECT_TRUE(poller.wait(for_ever));
    poller.settle(first);
    EXPECT_FALSE(waits(a_moment));
    poller.touch(first);
    EXPECT_TRUE(poller.wait(for_ever));
    EXPECT_FALSE(poller.is_readable(first));
    EXPECT_FALSE(poller.is_unsettled(first));
}

TEST_F(ASocketPoller, WaitsUntilAMessageComes)
{
    EXPECT_FALSE(waits(slate::Milliseconds(0)));
    std::thread sender([&] { first_ends.send(); });
    EXPECT_TRUE(waits(for_ever));
    EXPECT_TRUE(poller.is_readable(first));
    sender.join();
}

TEST_F(ASocketPoller, IgnoresWhatIsNotWantedAndSleepsMeanwhile)
{
    first_ends.send();
    ASSERT_TRUE(waits(for_ever));
    poller.want(first, 0);
    rusage before{};
    getrusage(RUSAGE_THREAD, &before);
    EXPECT_FALSE(waits(slate::Milliseconds(200)));
    rusage after{};
    getrusage(RUSAGE_THREAD, &after);
    EXPECT_LT(after.ru_nvcsw - before.ru_nvcsw, 20); // it doesn't turn round and round
    EXPECT_LT((after.ru_utime.tv_sec - before.ru_utime.tv_sec) * 1000000 + after.ru_utime.tv_usec -
                  before.ru_utime.tv_usec,
              100000);
    EXPECT_FALSE(poller.is_readable(first));

    poller.want(first, ZMQ_POLLIN);
    EXPECT_TRUE(waits(for_ever));
    EXPECT_TRUE(poller.is_readable(first));
}

TEST_F(ASocketPoller, FindsWhatArrivedWhileTheSocketWasUsedOtherwise)
{
    EXPECT_FALSE(waits(a_moment));
    zmq::pollitem_t item{first_ends.here.handle(), 0, ZMQ_POLLIN, 0};
    first_ends.send();
    ASSERT_EQ(zmq_poll(&item, 1, -1), 1); // which takes the signal back
    poller.touch(first);
    EXPECT_TRUE(waits(for_ever));
    EXPECT_TRUE(poller.is_readable(first));
}

TEST_F(ASocketPoller, WaitsForRoomWhereThatIsWanted)
{
    zmq::socket_t full(*runtime->ctx(), zmq::socket_type::push);
    zmq::socket_t drain(*runtime->ctx(), zmq::socket_type::pull);
    const auto endpoint = scratch_endpoint("inproc")->to_string();
    for (zmq::socket_t* socket : {&full, &drain}) {
        socket->set(zmq::sockopt::sndhwm, 1);
        socket->set(zmq::sockopt::rcvhwm, 1);
    }
    drain.bind(endpoint);
    full.connect(endpoint);
    int sent = 0;
    while (full.send(zmq::str_buffer("x"), zmq::send_flags::dontwait).has_value())
        ++sent;
    SocketPoller room;
    const auto index = room.add(full);
    room.want(index, ZMQ_POLLOUT);
    while (room.wait(a_moment))
        EXPECT_FALSE(room.is_writable(index));
    for (; sent > 0; --sent) {
        zmq::message_t frame;
        ASSERT_TRUE(drain.recv(frame, zmq::recv_flags::none).has_value());
    }
    while (!room.is_writable(index))
        EXPECT_TRUE(room.wait(for_ever));
    EXPECT_FALSE(room.is_readable(index));
}

TEST_F(ASocketPoller, IsNotCutShortByASignal)
{
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    const pthread_t waiting = pthread_self();
    std::thread sender([&] {
        for (int i = 0; i < 1000; ++i)
            pthread_kill(waiting, SIGUSR1);
        first_ends.send();
    });
    EXPECT_TRUE(waits(for_ever));
    sender.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(ASocketPoller, FailsWhenTheContextEnds)
{
    zmq::context_t context;
    zmq::socket_t socket(context, zmq::socket_type::pair);
    SocketPoller ending;
    ending.add(socket);
    std::thread ender([&] { context.shutdown(); });
    try {
        while (ending.wait(for_ever))
            (void)ending.is_readable(0);
        ADD_FAILURE() << "the wait ended without an error";
    }
    catch (const zmq::error_t& error) {
        EXPECT_EQ(error.num(), ETERM);
    }
    ender.join();
}
} // namespace
