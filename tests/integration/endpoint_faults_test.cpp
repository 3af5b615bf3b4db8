// SPDX-License-Identifier: Apache-2.0
#include "support/runtime_test.h"
#include "tarn/check_endpoint.h"

namespace {
using namespace tarn;
using namespace tarn_test;

/// What a factory makes of an endpoint that nobody can use.
struct Factory {
    std::string name;
    std::string prefix; // of the line in the log
    std::function<void(ZmqSubsystem&, const Endpoint& faulty, const Endpoint& other)> make;
};

void PrintTo(const Factory& factory, std::ostream* stream)
{
    *stream << factory.name;
}

class AFactory : public RuntimeTest, public ::testing::WithParamInterface<Factory> {};

TEST_P(AFactory, SaysFirstWhatIsWrongWithAnEndpoint)
{
    const auto faulty = slate::make_uri("nonsense://x");
    const auto sentence = check_endpoint(faulty->to_string());
    ASSERT_TRUE(sentence);
    try {
        GetParam().make(*runtime, faulty, scratch_endpoint());
    }
    catch (const zmq::error_t&) { // as without the sentence
    }
    const auto lines = logs.texts(slate::ErrorLevel);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), GetParam().prefix + ": " + *sentence);
}

const auto names = [](const auto& row) { return row.param.name; };

INSTANTIATE_TEST_SUITE_P(
    Of, AFactory,
    ::testing::Values(
        Factory{"Client", "make_client",
                [](auto&, const auto& faulty, const auto&) { (void)make_client(faulty); }},
        Factory{"ClientOfAText", "make_client",
                [](auto&, const auto& faulty, const auto&) { (void)make_client(faulty->to_string()); }},
        Factory{"RawClient", "make_raw_client",
                [](auto&, const auto& faulty, const auto&) { (void)make_raw_client(faulty); }},
        Factory{"AsyncClient", "make_async_client",
                [](auto&, const auto& faulty, const auto&) { (void)make_async_client(faulty); }},
        Factory{"DeviceClient", "make_device_client",
                [](auto&, const auto& faulty, const auto&) { (void)make_device_client("/nowhere", faulty); }},
        Factory{"Publisher", "make_publisher",
                [](auto&, const auto& faulty, const auto&) { (void)make_publisher(faulty); }},
        Factory{"PublishersStatistics", "make_publisher",
                [](auto&, const auto& faulty, const auto& other) {
                    (void)make_publisher({.endpoint = other, .stats_endpoint = faulty});
                }},
        Factory{"RelayIn", "make_relay",
                [](auto&, const auto& faulty, const auto& other) { (void)make_relay(faulty, other); }},
        Factory{"RelayOut", "make_relay",
                [](auto&, const auto& faulty, const auto& other) { (void)make_relay(other, faulty); }},
        Factory{"Router", "make_router",
                [](auto&, const auto& faulty, const auto&) {
                    (void)make_router(nullptr, {faulty}, nullptr, nullptr, "/nowhere");
                }},
        // A server would wait 25 s for its thread; a null endpoint ends the factory before that.
        Factory{"Server", "make_server",
                [](auto& runtime, const auto& faulty, const auto&) {
                    EXPECT_EQ(runtime.add_server({faulty, nullptr}, nullptr), nullptr);
                }},
        Factory{"ServersRelay", "make_server",
                [](auto& runtime, const auto& faulty, const auto&) {
                    EXPECT_EQ(runtime.add_server({nullptr}, faulty), nullptr);
                }},
        Factory{"ServerWithWorkers", "make_server",
                [](auto& runtime, const auto& faulty, const auto&) {
                    EXPECT_EQ(runtime.add_server(2, {faulty, nullptr}, nullptr), nullptr);
                }}),
    names);

class TheEndpointFaults : public RuntimeTest {};

TEST_F(TheEndpointFaults, OfATextThatIsNoEndpointComeFirstToo)
{
    EXPECT_EQ(make_client("ipc://"), nullptr);
    EXPECT_EQ(make_async_client("ipc://"), nullptr);
    settings->set("relay_url", "nonsense");
    EXPECT_EQ(make_client(), nullptr);
    const auto lines = logs.texts(slate::ErrorLevel);
    ASSERT_GE(lines.size(), 6u);
    EXPECT_EQ(lines[0], "make_client: " + *check_endpoint("ipc://"));
    EXPECT_EQ(lines[1], "failed to create client ( ipc:// ): invalid uri");
    EXPECT_EQ(lines[2], "make_async_client: " + *check_endpoint("ipc://"));
    EXPECT_EQ(lines[3], "failed to create asynchronous client ( ipc:// ): invalid uri");
    EXPECT_EQ(lines[4], "setting relay_url: " + *check_endpoint("nonsense"));
    EXPECT_EQ(lines[5], "setting is not an endpoint: relay_url = nonsense");
}
} // namespace
