// SPDX-License-Identifier: Apache-2.0
// A fabric with two services in this process, to try things on.

#include <cerrno>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <slate/dictionary.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>
#include <tarn/publisher.h>
#include <tarn/relay.h>
#include <tarn/relay_stats.h>
#include <tarn/server.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "demo_services.h"
#include "fabric_choice.h"
#include "interrupt.h"
#include "options.h"
#include "output/body.h"
#include "output/terminal.h"
#include "personal_directory.h"
#include "program_limits.h"
#include "services_route.h"
#include "start.h"
#include "unknown_path.h"

namespace tarn_command {
namespace {
/// The directory of a demo, with a directory for each service, which are removed at the end as far as they
/// are empty and were made here.
class DemoDirectory {
public:
    explicit DemoDirectory(const std::filesystem::path& directory) : directory_(directory)
    {
        make(directory);
        personal_directory::require(directory);
        for (const char* name : {"router", "relay", "clock", "machine"})
            make(directory / name);
    }
    ~DemoDirectory()
    {
        std::error_code ignored;
        for (const char* socket : {"router/zmq.sock", "relay/zmq.sock", "relay/in.sock", "relay/out.sock",
                                   "clock/zmq.sock", "machine/zmq.sock"}) {
            if (!tarn::probe(slate::make_uri("ipc://" + (directory_ / socket).string()), slate::Seconds(0))
                     .served)
                std::filesystem::remove(directory_ / socket, ignored);
        }
        for (auto made = made_.rbegin(); made != made_.rend(); ++made)
            (void)rmdir(made->c_str()); // fails if it isn't empty, which is right
    }
    DemoDirectory(const DemoDirectory&) = delete;
    DemoDirectory& operator=(const DemoDirectory&) = delete;

private:
    void make(const std::filesystem::path& directory)
    {
        if (mkdir(directory.c_str(), 0700) == 0)
            made_.push_back(directory);
        else if (errno != EEXIST)
            throw std::runtime_error(directory.string() +
                                     " can't be made: " + std::generic_category().message(errno));
    }

    const std::filesystem::path directory_;
    std::vector<std::filesystem::path> made_;
};

/// Refuses what is served or isn't this person's own.
std::unique_ptr<DemoDirectory> prepare(const tarn::Fabric& fabric)
{
    try {
        start::refuse_if_served({fabric.router, fabric.relay_stats, fabric.relay_in, fabric.relay_out});
        return std::make_unique<DemoDirectory>(fabric.run_time_directory);
    }
    catch (const std::runtime_error& error) {
        throw Failure(ExitOther, escape(error.what()) + "; --run-dir names another directory");
    }
}

void print_welcome(const tarn::Fabric& fabric, bool is_named)
{
    const std::string more = is_named ? " --run-dir " + escape(fabric.run_time_directory.string()) : "";
    write_out("A fabric with a clock and the state of this machine is up in " +
              escape(fabric.run_time_directory.string()) + ".\nTry it in another terminal:\n\n");
    for (const char* line : {"services", "get%s /clock/time", "watch%s /clock", "put%s /clock/zone UTC",
                             "get%s -H 'Accept: application/json' /machine/memory", "who%s /machine/load"}) {
        std::string text = line;
        if (const auto at = text.find("%s"); at != std::string::npos)
            text.replace(at, 2, more);
        else
            text += more;
        write_out("  tarn " + text + "\n");
    }
    write_out("\nCtrl-C ends it.\n");
    flush_out();
}

int demo(const Place& place)
{
    const bool is_named = !place.run_time_directory.empty();
    if (!is_named) {
        const auto device = fabric_in(tarn::default_run_time_directory);
        for (const auto& endpoint : {device.router, device.relay_stats, device.relay_in, device.relay_out}) {
            if (look_at_endpoint(endpoint).served)
                throw Failure(ExitOther, "the fabric of this device answers at " + endpoint->to_string() +
                                             ", and commands would go there; use that one, or name a "
                                             "directory for the demo with --run-dir");
        }
    }
    const auto fabric =
        fabric_in(is_named ? place.run_time_directory : tarn::personal_run_time_directory().string());
    start::raise_descriptor_limit();
    Interrupt interrupt;
    const auto directory = prepare(fabric);
    DemoClock clock; // outlives the subsystem, whose servers use it
    {
        // Without those of the relay, which every server would subscribe to.
        const auto settings = ProgramLimits().to_settings();
        settings->set("socket_mode", "0700");
        settings->set("socket_group", "");
        tarn::ZmqSubsystem subsystem(settings);
        const auto relay = tarn::make_relay(fabric.relay_in, fabric.relay_out);
        subsystem.add_server({fabric.relay_stats}, fabric.relay_out)->add(tarn::make_relay_stats_route());
        (void)subsystem.serve(tarn::service_endpoint(fabric, "clock"), clock.make_routes());
        (void)subsystem.serve(tarn::service_endpoint(fabric, "machine"), make_machine_routes());
        const auto router =
            tarn::make_router(subsystem.settings(), {fabric.router}, nullptr, tarn::make_message_factory(),
                              fabric.run_time_directory, {make_services_route(fabric, {fabric.router})},
                              [&fabric](const std::string& path) {
                                  return describe_unknown_path(fabric.run_time_directory, path);
                              });
        const auto reply = tarn::make_client(fabric.router, 0)->get("/clock/time");
        if (!reply->good() || reply->head().from().pid() != getpid())
            throw Failure(ExitOther, "the demo can't answer at " + escape(fabric.router->to_string()) +
                                         "; see why with -v");
        const auto publisher =
            tarn::make_publisher({.endpoint = fabric.relay_in, .stats_endpoint = fabric.relay_stats});
        clock.set_publisher(publisher);
        print_welcome(fabric, is_named);
        while (interrupt.wait(slate::Seconds(1)) == Interrupt::Cause::Time)
            clock.publish_time();
        clock.set_publisher(nullptr);
    }
    return ExitGood;
}
} // namespace

Command demo_command()
{
    return {
        "demo",
        "a fabric of your own to try things on",
        "Starts a router, a relay, a clock and a service that tells the state of this machine, in a "
        "directory of your own, until Ctrl-C. The commands of this program then find it by themselves. It "
        "needs no root, and refuses to start while the fabric of the device answers, unless you name a "
        "directory.",
        {{"tarn demo", "in your own directory"},
         {"tarn demo --run-dir /tmp/x", "elsewhere; name it to the other commands, too"}},
        [](CLI::App& app) {
            const auto place = add_place(app, nullptr);
            return [=] { return demo(*place); };
        }};
}
} // namespace tarn_command
