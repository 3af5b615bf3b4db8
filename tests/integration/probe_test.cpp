// SPDX-License-Identifier: Apache-2.0
#include "tarn/probe.h"

#include <fstream>
#include <thread>

#include <netdb.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "support/runtime_test.h"

namespace {
using namespace tarn;
using namespace tarn_test;

class AProbe : public RuntimeTest {};

TEST_F(AProbe, FindsTheProcessThatServesASocketFile)
{
    const auto uri = scratch_endpoint();
    serve(uri);
    const Probe found = probe(uri);
    EXPECT_TRUE(found.served);
    EXPECT_EQ(found.pid, getpid());
    EXPECT_EQ(found.error, "");
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_F(AProbe, FindsWhoServesAnAbstractName)
{
    const auto uri = slate::make_uri("ipc://@tarn-probe-test-" + std::to_string(getpid()));
    EXPECT_EQ(probe(uri).error, "nobody listens");
    serve(uri);
    const Probe found = probe(uri);
    EXPECT_TRUE(found.served);
    EXPECT_EQ(found.pid, getpid());
}

bool is_known(const char* host)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* found = nullptr;
    const bool known = getaddrinfo(host, nullptr, &hints, &found) == 0;
    if (known)
        freeaddrinfo(found);
    return known;
}

TEST_F(AProbe, FindsWhetherATcpPortIsServed)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.bind("tcp://127.0.0.1:*");
    const auto uri = slate::make_uri(holder.get(zmq::sockopt::last_endpoint));
    EXPECT_TRUE(probe(uri).served);
    EXPECT_EQ(probe(uri).pid, std::nullopt);
    const auto port = uri->address().substr(uri->address().rfind(':'));
    EXPECT_TRUE(probe(slate::make_uri("tcp://*" + port)).served);
    // A minimal system may know no names at all.
    EXPECT_EQ(probe(slate::make_uri("tcp://localhost" + port)).served, is_known("localhost"));

    holder.close();
    context.close();
    EXPECT_TRUE(wait_until([&] { return probe(uri).error == "nobody listens"; }));
}

TEST_F(AProbe, SaysWhyNobodyIsReached)
{
    const auto path = folder.path() / "x.sock";
    const auto uri = slate::make_uri("ipc://" + path.string());
    EXPECT_EQ(probe(uri).error, "no such file");
    {
        zmq::context_t context;
        zmq::socket_t socket(context, zmq::socket_type::rep);
        socket.bind(uri->to_string());
    } // the file stays
    EXPECT_FALSE(probe(uri).served);
    EXPECT_EQ(probe(uri).error, "nobody listens");
    EXPECT_EQ(probe(slate::make_uri("ipc://" + std::string(200, 'x'))).error, "File name too long");
    EXPECT_EQ(probe(slate::make_uri("tcp://localhost")).error, "the port is missing");
    EXPECT_FALSE(probe(slate::make_uri("tcp://no such host:1")).served);
    EXPECT_EQ(probe(slate::make_uri("inproc://x")).error, "only ipc and tcp endpoints can be looked at");
    EXPECT_EQ(probe(nullptr).error, "not an endpoint");
    EXPECT_EQ(probe(uri).pid, std::nullopt);
}

TEST_F(AProbe, SaysThatASocketMayNotBeReached)
{
    const auto uri = scratch_endpoint();
    serve(uri);
    ASSERT_EQ(chmod(uri->path().c_str(), 0), 0);
    ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
    const bool is_root = geteuid() == 0;
    ASSERT_TRUE(!is_root || seteuid(65534) == 0); // root may reach everything
    const std::string error = probe(uri).error;
    ASSERT_TRUE(!is_root || seteuid(0) == 0);
    EXPECT_EQ(error, "permission denied");
}

TEST_F(AProbe, TellsSinceWhenAndWhatThePeerSaysOfItself)
{
    const auto uri = scratch_endpoint();
    const auto before = std::chrono::system_clock::now() - std::chrono::seconds(1); // files' times are coarse
    serve(uri);
    const auto after = std::chrono::system_clock::now() + std::chrono::seconds(1);
    ASSERT_EQ(chmod(uri->path().c_str(), 0700), 0); // which changes another time of the file
    std::string name;
    std::getline(std::ifstream("/proc/self/comm"), name);

    const Probe found = probe(uri);

    EXPECT_EQ(found.socket_type, "ROUTER");
    EXPECT_EQ(found.process_name, name);
    ASSERT_TRUE(found.since);
    EXPECT_GE(*found.since, before);
    EXPECT_LE(*found.since, after);
    EXPECT_TRUE(describe_server(found).starts_with("process " + std::to_string(getpid()) + ", which is " +
                                                   name + ", since 20"))
        << describe_server(found);
}

TEST_F(AProbe, LeavesTheServerAsItWas)
{
    const auto uri = scratch_endpoint();
    serve(uri);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(probe(uri).socket_type, "ROUTER");
    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
    for (const auto& shown : slate::snapshot()) {
        if (shown.name == "zmq.server") {
            EXPECT_EQ(counter(shown.name, shown.instance, "rx"), 1u);
        }
    }
    EXPECT_EQ(logs.count(slate::WarnLevel, "rx"), 0u);
    EXPECT_EQ(logs.count(slate::ErrorLevel), 0u);
}

TEST_F(AProbe, HearsWhichSideOfARelayItIs)
{
    const auto in = scratch_endpoint();
    const auto out = scratch_endpoint();
    const auto relay = make_relay(in, out);
    EXPECT_EQ(probe(in).socket_type, "XSUB");
    EXPECT_EQ(probe(out).socket_type, "XPUB");
}

TEST_F(AProbe, HearsATcpPeerToo)
{
    zmq::context_t context;
    zmq::socket_t holder(context, zmq::socket_type::rep);
    holder.set(zmq::sockopt::routing_id, std::string(255, 'x')); // it says that too, in a long frame
    holder.bind("tcp://127.0.0.1:*");
    const Probe found = probe(slate::make_uri(holder.get(zmq::sockopt::last_endpoint)));
    EXPECT_EQ(found.socket_type, "REP");
    EXPECT_EQ(found.since, std::nullopt);
    EXPECT_EQ(found.process_name, "");
    EXPECT_EQ(describe_server(found), "somebody");
}

TEST_F(AProbe, NeedNotAsk)
{
    const auto uri = scratch_endpoint();
    serve(uri);
    const Probe found = probe(uri, slate::Seconds(0));
    EXPECT_TRUE(found.served);
    EXPECT_EQ(found.socket_type, "");
}

struct Impostor {
    std::string name;
    std::string says;
};

/// Peers that don't say what a ZeroMQ socket says.
class AProbeOf : public AProbe, public ::testing::WithParamInterface<Impostor> {};

TEST_P(AProbeOf, AnImpostorEndsInTimeAndTellsNothing)
{
    const auto uri = scratch_endpoint();
    const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    uri->address().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listening, 1), 0);
    std::thread impostor([&] {
        const int connection = accept(listening, nullptr, nullptr);
        const std::string& says = GetParam().says;
        (void)!send(connection, says.data(), says.size(), MSG_NOSIGNAL);
        char heard = 0;
        while (recv(connection, &heard, 1, 0) > 0) { // until the probe ends
        }
        close(connection);
    });
    const auto start = std::chrono::steady_clock::now();
    const Probe found = probe(uri, slate::Milliseconds(200));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(found.served);
    EXPECT_EQ(found.pid, getpid());
    EXPECT_EQ(found.socket_type, "");
    impostor.join();
    close(listening);
}

std::string greeting()
{
    return "\xFF" + std::string(63, '\0');
}

std::string ready(const std::string& type)
{
    const std::string body =
        "\x05READY\x0BSocket-Type" + std::string(3, '\0') + static_cast<char>(type.size()) + type;
    return "\x04" + std::string(1, static_cast<char>(body.size())) + body;
}

INSTANTIATE_TEST_SUITE_P(
    Peers, AProbeOf,
    ::testing::Values(Impostor{"Silent", ""}, Impostor{"Http", "HTTP/1.1 400 Bad Request\r\n\r\n"},
                      Impostor{"GreetsOnly", greeting()},
                      Impostor{"OddLetters", greeting() + ready("evil\x1b[31m")},
                      Impostor{"TooLong", greeting() + ready(std::string(33, 'X'))},
                      Impostor{"TalksOn", greeting() + std::string(10000, 'x')},
                      Impostor{"HugeFrame", greeting() + "\x06" + std::string(8, '\xFF') + "\x05READY"},
                      Impostor{"HugeValue",
                               greeting() + std::string("\x04\x0B\x05READY\x01x\xFF\xFF\xFF\xFF", 13)}),
    [](const auto& row) { return row.param.name; });
} // namespace
