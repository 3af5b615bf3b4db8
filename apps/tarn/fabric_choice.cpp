// SPDX-License-Identifier: Apache-2.0
#include "fabric_choice.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <system_error>
#include <thread>

#include <CLI/CLI.hpp>
#include <slate/duration.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <sys/un.h>
#include <tarn/check_endpoint.h>
#include <tarn/exception.h>
#include <unistd.h>

#include "command.h"
#include "options.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
constexpr std::size_t max_socket_path = sizeof(sockaddr_un::sun_path) - 1;

bool is_silent(const tarn::Probe& found)
{
    return !found.served && found.error == std::generic_category().message(ETIMEDOUT);
}

/// Until it succeeds, or has taken so many times that long.
void try_again(const slate::Duration& patience, unsigned int times, const std::function<bool()>& attempt)
{
    for (unsigned int i = 0; i < times; ++i) {
        const slate::StopWatch watch(true);
        while (slate::Microseconds(watch.elapsed()) < patience) {
            if (attempt())
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
}

std::string shown(const tarn::Endpoint& endpoint)
{
    return escape(endpoint->to_string());
}
} // namespace

std::shared_ptr<Place> add_place(CLI::App& app, const char* meaning)
{
    auto place = std::make_shared<Place>();
    if (meaning)
        app.add_option("-e,--endpoint", place->endpoint, meaning)
            ->check(not_empty("ipc:///run/x.sock"))
            ->type_name("ENDPOINT");
    auto* directory = app.add_option("--run-dir", place->run_time_directory,
                                     "the fabric in this directory, instead of the device's or your own")
                          ->check(not_empty("/run/tide"))
                          ->type_name("DIR");
    if (meaning)
        directory->excludes("--endpoint");
    return place;
}

tarn::Endpoint parse_endpoint(const std::string& text)
{
    const bool is_path = !text.empty() && !slate::contains(text, "://");
    const std::string uri = (is_path ? "ipc://" : "") + text;
    if (const auto fault = tarn::check_endpoint(uri))
        throw Failure(ExitUsage, escape(*fault));
    const auto endpoint = slate::make_uri(uri);
    if (endpoint->scheme() != "ipc" && endpoint->scheme() != "tcp")
        throw Failure(ExitUsage, "no other process can be reached at '" + brief(uri) +
                                     "'; write ipc:///run/x.sock or tcp://127.0.0.1:5555");
    return endpoint;
}

tarn::Fabric fabric_in(const std::string& directory)
{
    try {
        return tarn::make_fabric(directory);
    }
    catch (const std::exception&) {
        throw Failure(ExitUsage, "no fabric can be in '" + brief(directory) + "': a socket's path has " +
                                     std::to_string(max_socket_path) +
                                     " bytes at most; use a shorter directory");
    }
}

std::string advice(const std::string& error, const tarn::Endpoint& endpoint)
{
    const auto part = std::filesystem::path(endpoint->address()).parent_path().filename();
    const bool is_tarnd = endpoint->scheme() == "ipc" && (part == "router" || part == "relay");
    if (error == "no such file")
        return is_tarnd ? "start `tarnd`" : "start the service";
    if (error == "nobody listens")
        return is_tarnd ? "start `tarnd` again" : "start its process (again)";
    if (error == "permission denied")
        return "look at the modes and groups with `tarn doctor`";
    return "check the endpoint";
}

tarn::Probe look_at_endpoint(const tarn::Endpoint& endpoint)
{
    if (endpoint->scheme() != "tcp")
        return tarn::probe(endpoint, slate::Seconds(0));
    auto found = tarn::probe(endpoint, slate::Milliseconds(100)); // enough for most networks
    return is_silent(found) ? tarn::probe(endpoint, slate::Seconds(1)) : found;
}

bool is_unreachable(const tarn::Probe& found)
{
    return !found.served && !is_silent(found);
}

void require_served(const tarn::Endpoint& endpoint, const std::string& name, const slate::Duration& patience,
                    unsigned int times)
{
    auto found = look_at_endpoint(endpoint);
    try_again(patience, times, [&] {
        if (is_unreachable(found))
            found = look_at_endpoint(endpoint);
        return !is_unreachable(found);
    });
    std::error_code ignored;
    if (endpoint->scheme() == "ipc" && std::filesystem::is_directory(endpoint->address(), ignored))
        throw Failure(ExitUnreachable,
                      name + " can't be reached at " + shown(endpoint) +
                          ": it is a directory; perhaps you mean the socket in it, zmq.sock");
    if (is_unreachable(found))
        throw Failure(ExitUnreachable, name + " can't be reached at " + shown(endpoint) + ": " + found.error +
                                           "; " + advice(found.error, endpoint));
}

std::optional<std::string> distrust(const tarn::Fabric& fabric)
{
    std::error_code ignored;
    if (fabric.run_time_directory != tarn::personal_run_time_directory().lexically_normal() ||
        !std::filesystem::exists(std::filesystem::symlink_status(fabric.run_time_directory, ignored)))
        return std::nullopt;
    return tarn::check_personal_directory(fabric.run_time_directory);
}

std::string fabric_programs()
{
    std::error_code ignored;
    if (const auto personal = tarn::personal_run_time_directory();
        std::filesystem::exists(std::filesystem::symlink_status(personal, ignored)) &&
        tarn::check_personal_directory(personal))
        return "`tarn demo --run-dir DIR` with a directory of yours";
    const auto own = geteuid() == 0 ? std::filesystem::path(tarn::default_run_time_directory)
                                    : tarn::personal_run_time_directory();
    return std::string(std::filesystem::exists(own, ignored) ? "`tarnd`" : "`tarnd --make-run-dir`") +
           " or `tarn demo`";
}

Target choose_target(const Place& place, tarn::Endpoint tarn::Fabric::*role, const std::string& name)
{
    if (!place.endpoint.empty())
        return {parse_endpoint(place.endpoint), std::nullopt};
    if (!place.run_time_directory.empty()) {
        const auto fabric = fabric_in(place.run_time_directory);
        return {fabric.*role, fabric};
    }
    std::string looked;
    bool may_not = false;
    for (const auto& directory :
         {std::filesystem::path(tarn::default_run_time_directory), tarn::personal_run_time_directory()}) {
        const auto fabric = fabric_in(directory.string());
        std::string error;
        if (const auto why = distrust(fabric))
            error = escape(*why);
        else {
            const auto found = look_at_endpoint(fabric.*role);
            if (found.served) {
                say_verbosely("using " + shown(fabric.*role));
                return {fabric.*role, fabric};
            }
            error = found.error;
        }
        may_not = may_not || error == "permission denied";
        looked += (looked.empty() ? "" : ", nor at ") + shown(fabric.*role) + ": " + error;
        say_verbosely("not at " + shown(fabric.*role) + ": " + error);
    }
    throw Failure(ExitUnreachable,
                  "no " + name + " can be reached at " + looked + "; " +
                      (may_not ? "look at the modes and groups with `tarn doctor`"
                               : "start " + fabric_programs() + ", or name one with -e or --run-dir"));
}

Target wait_for_target(const Place& place, tarn::Endpoint tarn::Fabric::*role, const std::string& name,
                       const slate::Duration& patience, unsigned int times)
{
    std::optional<Target> found;
    try_again(patience, times, [&] {
        try {
            found = choose_target(place, role, name);
        }
        catch (const Failure& failure) {
            if (failure.exit_status != ExitUnreachable)
                throw;
        }
        return found.has_value();
    });
    return found ? *found : choose_target(place, role, name);
}

tarn::Fabric choose_fabric(const Place& place)
{
    if (!place.run_time_directory.empty())
        return fabric_in(place.run_time_directory);
    return *choose_target(place, &tarn::Fabric::router, "router").fabric;
}
} // namespace tarn_command
