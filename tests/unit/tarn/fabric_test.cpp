// SPDX-License-Identifier: Apache-2.0
#include "tarn/fabric/fabric.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "slate/dictionary.h"
#include "slate/uri.h"
#include "support/log_capture.h"
#include "tarn/exception.h"

namespace {
using namespace tarn;

TEST(AFabric, HasItsSocketsInTheRunTimeDirectory)
{
    const Fabric device = make_fabric();
    EXPECT_EQ(device.run_time_directory, "/run/tide");
    EXPECT_EQ(device.router->to_string(), "ipc:///run/tide/router/zmq.sock");
    EXPECT_EQ(device.relay_stats->to_string(), "ipc:///run/tide/relay/zmq.sock");
    EXPECT_EQ(device.relay_in->to_string(), "ipc:///run/tide/relay/in.sock");
    EXPECT_EQ(device.relay_out->to_string(), "ipc:///run/tide/relay/out.sock");

    EXPECT_EQ(make_fabric("/x/../run/y/").router->to_string(), "ipc:///run/y/router/zmq.sock");
    EXPECT_EQ(make_fabric("here").run_time_directory, std::filesystem::current_path() / "here");
}

TEST(AFabric, GivesAnApplicationItsSettings)
{
    const auto settings = make_settings(make_fabric("/run/y"));
    EXPECT_EQ(settings->get("relay_url", ""), "ipc:///run/y/router/zmq.sock");
    EXPECT_EQ(settings->get("relay_sub", ""), "ipc:///run/y/relay/in.sock");
    EXPECT_EQ(settings->get("relay_pub", ""), "ipc:///run/y/relay/out.sock");
    EXPECT_EQ(settings->get("run_time_directory", ""), "/run/y");
    EXPECT_EQ(settings->keys().size(), 4u);
}

TEST(AFabric, OfAPersonKeepsItsSocketsFromOthers)
{
    const auto settings = make_settings(make_fabric(personal_run_time_directory()));
    EXPECT_TRUE(settings->has("socket_group"));
    EXPECT_EQ(settings->get("socket_group", "x"), "");
    EXPECT_EQ(settings->get("socket_mode", ""), "0700");
}

TEST(AFabric, CannotBeWhereNoEndpointCanBe)
{
    const tarn_test::LogCapture logs;
    const std::string longest = "/" + std::string(107 - std::string("//router/zmq.sock").size(), 'x');
    EXPECT_EQ(make_fabric(longest).router->address().size(), 107u);
    EXPECT_THROW((void)make_fabric(longest + "x"), Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "no endpoint can be in the directory " + longest + "x"));
}

TEST(AFabric, TellsWhereAServiceHasToServe)
{
    const tarn_test::LogCapture logs;
    const Fabric fabric = make_fabric("/run/y");
    EXPECT_EQ(service_endpoint(fabric, "clock")->to_string(), "ipc:///run/y/clock/zmq.sock");
    EXPECT_EQ(service_endpoint(fabric, "clock/2")->to_string(), "ipc:///run/y/clock/2/zmq.sock");
    EXPECT_TRUE(logs.lines().empty());
    for (const std::string name : {"", ".", "..", "../x", "x/../y", "/x", "x/", "line\nbreak"})
        EXPECT_EQ(service_endpoint(fabric, name), nullptr) << name;
    EXPECT_EQ(service_endpoint(fabric, std::string(107, 'x')), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "no service can have the name \"../x\""));
}

TEST(APersonalRunTimeDirectory, IsBelowTheOneOfTheSession)
{
    ASSERT_EQ(setenv("XDG_RUNTIME_DIR", "/run/user/7", 1), 0);
    EXPECT_EQ(personal_run_time_directory(), "/run/user/7/tarn");
    for (const char* other : {"", "relative"}) {
        ASSERT_EQ(setenv("XDG_RUNTIME_DIR", other, 1), 0);
        EXPECT_EQ(personal_run_time_directory(), "/tmp/tarn-" + std::to_string(getuid()));
    }
    ASSERT_EQ(unsetenv("XDG_RUNTIME_DIR"), 0);
    EXPECT_EQ(personal_run_time_directory(), "/tmp/tarn-" + std::to_string(getuid()));
}
} // namespace
