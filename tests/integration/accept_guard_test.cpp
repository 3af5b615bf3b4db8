// SPDX-License-Identifier: Apache-2.0
// What a process does that peers have left without a file descriptor.
#include <array>
#include <csignal>
#include <cstring>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "support/environment.h"
#include "support/server_kinds.h"
#include "tarn/relay.h"

namespace {
using namespace tarn;
using namespace tarn_test;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool calls_are_intercepted = true;
#else
constexpr bool calls_are_intercepted = false;
#endif

/// Another process that holds as many connections to one socket file as it can get, up to a number, once it
/// is told to start.
class ConnectionHoarder {
public:
    ConnectionHoarder(const std::string& path, int count)
    {
        if (pipe(ready_.data()) != 0 || pipe(begin_.data()) != 0)
            throw std::runtime_error("no pipe");
        pid_ = fork();
        if (pid_ == 0)
            hoard(path.c_str(), count);
        close(ready_[1]);
        close(begin_[0]);
    }
    void start() const { EXPECT_EQ(write(begin_[1], "x", 1), 1); }
    void wait() const
    {
        char word = 0;
        EXPECT_EQ(read(ready_[0], &word, 1), 1);
    }
    ~ConnectionHoarder()
    {
        close(ready_[0]);
        close(begin_[1]);
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    ConnectionHoarder(const ConnectionHoarder&) = delete;
    ConnectionHoarder& operator=(const ConnectionHoarder&) = delete;

private:
    [[noreturn]] void hoard(const char* path, int count)
    {
        // Only system calls, since this process was forked from one with threads.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        char word = 0;
        if (read(begin_[0], &word, 1) != 1)
            _exit(1);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        for (int i = 0; i < count; ++i) {
            const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
            if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
                _exit(1);
        }
        if (write(ready_[1], "x", 1) != 1)
            _exit(1);
        for (;;) { // and asks for more
            usleep(20000);
            const int connection = socket(AF_UNIX, SOCK_STREAM, 0);
            (void)!connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address);
            close(connection);
        }
    }

    std::array<int, 2> ready_{};
    std::array<int, 2> begin_{};
    pid_t pid_ = -1;
};

class AServerWithoutDescriptors : public ServerTest {
    void SetUp() override
    {
        if (calls_are_intercepted)
            GTEST_SKIP() << "the sanitizer stands between libzmq and the system";
    }
};
INSTANTIATE_SERVER_KINDS(AServerWithoutDescriptors);

TEST_P(AServerWithoutDescriptors, ServesThoseWhoAreConnectedAndLaterOthersAgain)
{
    const auto server = make({uri});
    const auto client = make_client(uri, 0);
    ASSERT_EQ(client->get("/index")->status(), Status::Ok);
    {
        const DescriptorLimit limit(256);
        const ConnectionHoarder hoarder(uri->path(), 1000);
        hoarder.start();
        hoarder.wait();
        EXPECT_TRUE(wait_until([&] { // it reports once a second
            return !logs.texts(slate::WarnLevel).empty() &&
                   logs.texts(slate::WarnLevel)
                       .back()
                       .starts_with("no file descriptor left; dropped connections: ");
        }));
        EXPECT_EQ(client->get("/index")->status(), Status::Ok);
    }
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_P(AServerWithoutDescriptors, SurvivesABurstOnEachOfItsEndpointsAtOnce)
{
    const auto second = scratch_endpoint();
    const auto relay_in = scratch_endpoint();
    const auto server = make({uri, second});
    const auto relay = make_relay(relay_in, scratch_endpoint());
    const auto client = make_client(uri, 0);
    ASSERT_EQ(client->get("/index")->status(), Status::Ok);
    const DescriptorLimit limit(200);
    {
        const ConnectionHoarder hoarders[] = {
            {uri->path(), 500}, {second->path(), 500}, {relay_in->path(), 500}};
        for (const auto& hoarder : hoarders)
            hoarder.start();
        for (const auto& hoarder : hoarders)
            hoarder.wait();
    }
    EXPECT_EQ(client->get("/index")->status(), Status::Ok);
}

TEST(AProgram, HearsItselfThatItHasNoDescriptorLeft)
{
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX; // the system chooses a name
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ASSERT_EQ(listen(listener, 5), 0);
    const int peer = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(connect(peer, reinterpret_cast<const sockaddr*>(&address), length), 0);
    {
        const DescriptorLimit limit(static_cast<rlim_t>(peer));
        EXPECT_EQ(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), -1);
        EXPECT_EQ(errno, EMFILE);
    }
    const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    EXPECT_GE(connection, 0);
    close(connection);
    close(peer);
    close(listener);
}
} // namespace
