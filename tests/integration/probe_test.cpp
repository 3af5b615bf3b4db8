// SPDX-License-Identifier: Apache-2.0
#include "tarn/probe.h"

#include <netdb.h>
#include <sys/stat.h>
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
} // namespace
