// SPDX-License-Identifier: Apache-2.0
#include "tarn/fabric/fabric.h"

#include <cstdlib>
#include <string>

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.hpp>

#include "slate/dictionary.h"
#include "slate/uri.h"
#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "tarn/internal/fabric/choose_fabric.h"

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

TEST(AFabric, HasADirectoryForEachServiceThatServes)
{
    const tarn_test::LogCapture logs;
    const tarn_test::ScratchFolder folder;
    const Fabric fabric = make_fabric(folder.path());
    for (int i = 0; i < 2; ++i) {
        ASSERT_NE(make_service_endpoint(fabric, "clock/2"), nullptr);
        EXPECT_TRUE(std::filesystem::is_directory(folder.path() / "clock/2"));
    }
    EXPECT_EQ(make_service_endpoint(fabric, "clock/2")->address(),
              (folder.path() / "clock/2/zmq.sock").string());
    EXPECT_EQ(make_service_endpoint(fabric, "../x"), nullptr);
    EXPECT_EQ(make_service_endpoint(make_fabric(folder.path() / "missing"), "x"), nullptr);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "the directory " + (folder.path() / "missing/x").string() +
                                                " can't be made: No such file or directory"));
}

TEST(APersonalDirectory, LetsNobodyElseIn)
{
    const tarn_test::ScratchFolder folder;
    const auto own = folder.path() / "own";
    EXPECT_EQ(check_personal_directory(own), own.string() + " can't be looked at: No such file or directory");
    ASSERT_EQ(mkdir(own.c_str(), 0700), 0);
    EXPECT_EQ(check_personal_directory(own), std::nullopt);
    ASSERT_EQ(chmod(own.c_str(), 0710), 0);
    EXPECT_EQ(check_personal_directory(own),
              own.string() + " lets other users in; run chmod 700 " + own.string());
    const auto link = folder.path() / "link";
    std::filesystem::create_symlink(own, link);
    EXPECT_EQ(check_personal_directory(link),
              link.string() + " is a link, which may lead to somebody else's directory; remove it");
    const auto file = folder.path() / "file";
    std::ofstream(file).close();
    EXPECT_EQ(check_personal_directory(file), file.string() + " is not a directory; remove it");
    if (geteuid() != 0) {
        EXPECT_EQ(check_personal_directory("/"), "/ belongs to user 0, not to user " +
                                                     std::to_string(geteuid()) +
                                                     "; choose another directory");
    }
    else if (chmod(own.c_str(), 0700) == 0 && chown(own.c_str(), 4711, 4711) == 0) {
        EXPECT_EQ(check_personal_directory(own),
                  own.string() + " belongs to user 4711, not to user 0; choose another directory");
    }
}

/// Serves as a router does, so that somebody listens.
void listen_at(zmq::socket_t& socket, const Fabric& fabric)
{
    std::filesystem::create_directories(fabric.run_time_directory / "router");
    socket.bind(fabric.router->to_string());
}

TEST(AFabricThatIsFound, IsTheFirstThatIsServedOrThere)
{
    const tarn_test::LogCapture logs;
    const tarn_test::ScratchFolder folder;
    const auto device = folder.path() / "device";
    const auto own = folder.path() / "own";
    const auto found = [&] { return tarn_internal::choose_fabric(device, own).run_time_directory; };
    EXPECT_EQ(found(), device);
    ASSERT_EQ(mkdir(own.c_str(), 0700), 0);
    EXPECT_EQ(found(), own);
    ASSERT_EQ(mkdir(device.c_str(), 0755), 0);
    EXPECT_EQ(found(), device);
    zmq::context_t context;
    zmq::socket_t own_router(context, zmq::socket_type::router);
    listen_at(own_router, make_fabric(own));
    EXPECT_EQ(found(), own);
    {
        zmq::socket_t device_router(context, zmq::socket_type::router);
        listen_at(device_router, make_fabric(device));
        EXPECT_EQ(found(), device);
    }
    EXPECT_TRUE(logs.lines().empty());
}

TEST(AFabricThatIsFound, IsNoneThatOthersGetInto)
{
    const tarn_test::LogCapture logs;
    const tarn_test::ScratchFolder folder;
    const auto device = folder.path() / "device";
    const auto own = folder.path() / "own";
    zmq::context_t context;
    zmq::socket_t router(context, zmq::socket_type::router);
    listen_at(router, make_fabric(own));
    ASSERT_EQ(chmod(own.c_str(), 0755), 0);
    EXPECT_EQ(tarn_internal::choose_fabric(device, own).run_time_directory, device);
    EXPECT_TRUE(logs.has(slate::WarnLevel, "your own fabric is left out: " + own.string() +
                                               " lets other users in; run chmod 700 " + own.string()));
}

TEST(AFabricThatIsFound, IsNoneWhosePathIsTooLong)
{
    const tarn_test::LogCapture logs;
    const tarn_test::ScratchFolder folder;
    const auto own = folder.path() / std::string(100, 'x');
    ASSERT_EQ(mkdir(own.c_str(), 0700), 0);
    EXPECT_EQ(tarn_internal::choose_fabric(folder.path() / "device", own).run_time_directory,
              folder.path() / "device");
}

TEST(AFabricThatIsFound, MayBeThePersonsOwn)
{
    if (std::filesystem::exists(default_run_time_directory))
        GTEST_SKIP() << "this machine has a fabric";
    const tarn_test::ScratchFolder folder;
    ASSERT_EQ(mkdir((folder.path() / "tarn").c_str(), 0700), 0);
    ASSERT_EQ(setenv("XDG_RUNTIME_DIR", folder.path().c_str(), 1), 0);
    EXPECT_EQ(find_fabric().run_time_directory, folder.path() / "tarn");
    ASSERT_EQ(unsetenv("XDG_RUNTIME_DIR"), 0);
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
