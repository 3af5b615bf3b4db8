// SPDX-License-Identifier: Apache-2.0
// The library as it is used: a service in one process, clients in others.
#include <csignal>
#include <filesystem>

#include <sys/wait.h>
#include <unistd.h>

#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;

/// A process that serves one route at a socket until it is told to end. Started before this process has
/// threads.
class ServiceProcess {
public:
    explicit ServiceProcess(const std::filesystem::path& socket)
    {
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        pid_ = fork();
        if (pid_ == 0)
            run(socket, ready[1]);
        close(ready[1]);
        char byte = 0;
        EXPECT_EQ(read(ready[0], &byte, 1), 1);
        close(ready[0]);
    }
    ~ServiceProcess() { end(SIGTERM); }

    pid_t pid() const { return pid_; }

    int end(int signal)
    {
        if (pid_ <= 0)
            return 0;
        int status = 0;
        kill(pid_, signal);
        waitpid(pid_, &status, 0);
        pid_ = 0;
        return status;
    }

private:
    [[noreturn]] static void run(const std::filesystem::path& socket, int ready)
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        slate::set_log_sinks({});
        {
            ZmqSubsystem subsystem;
            const auto server = subsystem.add_server(slate::make_uri("ipc://" + socket.string()));
            const auto route = make_test_route("pid", "get", "/pid");
            route->on_get = [](Context& context) {
                context.reply.set_reply_text(std::to_string(context.pid));
            };
            server->add(route);
            server->add(make_test_route("private", "get", "/private", Access::Private));
            (void)!write(ready, "x", 1);
            int signal = 0;
            sigwait(&signals, &signal);
        }
        _exit(0);
    }

    pid_t pid_;
};

class AServiceProcess : public ::testing::Test {
protected:
    ScratchFolder folder;
    std::filesystem::path socket = folder.path() / "service.sock";
};

TEST_F(AServiceProcess, AnswersAClientProcessByPath)
{
    const ServiceProcess service(socket);
    LogCapture logs;
    ZmqSubsystem subsystem;
    const auto client = make_client(socket);

    EXPECT_EQ(client->get("/pid")->data(), std::to_string(service.pid()));
    EXPECT_EQ(client->get("/private")->status(), Status::NotFound);
}

TEST_F(AServiceProcess, EndsCleanlyAndTakesItsSocketAlong)
{
    ServiceProcess service(socket);
    {
        LogCapture logs;
        ZmqSubsystem subsystem;
        EXPECT_EQ(make_client(socket)->get("/pid")->status(), Status::Ok);
    }

    const int status = service.end(SIGTERM);

    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(std::filesystem::exists(socket));
}

TEST_F(AServiceProcess, ThatWasKilledIsReachedAgainOnceItIsBack)
{
    ServiceProcess first(socket);
    {
        LogCapture logs;
        ZmqSubsystem subsystem;
        const auto client = make_client(socket, 0);
        EXPECT_EQ(client->get("/pid")->status(), Status::Ok);

        first.end(SIGKILL);
        EXPECT_EQ(client->get("/pid", nullptr, slate::Milliseconds(200))->status(), Status::RequestTimeout);

        // Asked before anybody is back: the request waits for the server that takes the dead one's place.
        const auto server = subsystem.add_server(slate::make_uri("ipc://" + socket.string()));
        EXPECT_EQ(client->get("/index", nullptr, slate::Seconds(30))->status(), Status::Ok);
    }
}
} // namespace
