// SPDX-License-Identifier: Apache-2.0
#include "fabric_map.h"

#include <cstdlib>

#include <nlohmann/json.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>
#include <unistd.h>

#include "command.h"
#include "failure.h"
#include "options.h"
#include "output/terminal.h"
#include "service_list.h"

namespace tarn_command {
namespace {
/// Terminals without the variable of the login session, as after su, don't see the fabric of those with it.
std::string hint_at_session()
{
    const auto session = "/run/user/" + std::to_string(geteuid());
    std::error_code ignored;
    if (std::getenv("XDG_RUNTIME_DIR") || !std::filesystem::is_directory(session + "/tarn", ignored))
        return "";
    return " " + session + "/tarn, as XDG_RUNTIME_DIR isn't set here";
}
} // namespace

tarn::Fabric find_fabric(const Place& place)
{
    if (!place.run_time_directory.empty())
        return fabric_in(place.run_time_directory);
    const auto device = fabric_in(tarn::default_run_time_directory);
    if (look_at_endpoint(device.router).served)
        return device;
    const auto own = fabric_in(tarn::personal_run_time_directory().string());
    std::vector<tarn::Fabric> candidates = {device};
    const auto why_not = distrust(own);
    if (!why_not)
        candidates.push_back(own);
    if (!why_not && look_at_endpoint(own.router).served)
        return own;
    for (const auto& fabric : candidates) {
        std::error_code ignored;
        if (std::filesystem::is_directory(fabric.run_time_directory, ignored))
            return fabric;
    }
    if (why_not)
        throw Failure(ExitUnreachable, "there is no fabric: " + device.run_time_directory.string() +
                                           " is missing, and " + escape(*why_not) +
                                           "; or name another fabric with --run-dir");
    throw Failure(ExitUnreachable, "there is no fabric: neither " + device.run_time_directory.string() +
                                       " nor " + escape(own.run_time_directory.string()) +
                                       " is there; start " + fabric_programs() +
                                       ", or name one with --run-dir" + hint_at_session());
}

std::vector<std::string> service_names(const std::filesystem::path& directory)
{
    try {
        return services::list_names(directory);
    }
    catch (const std::filesystem::filesystem_error& error) {
        throw Failure(ExitUnreachable, "cannot look into " + escape(directory.string()) + ": " +
                                           error.code().message() +
                                           "; look at it with `tarn doctor`, or name "
                                           "another directory with --run-dir");
    }
}

std::vector<Service> look_at_services(const tarn::Fabric& fabric, const slate::Duration& timeout)
{
    return services::look_at_all(fabric, service_names(fabric.run_time_directory), timeout,
                                 slate::Duration::positive_infinity()); // a person can press Ctrl-C
}

nlohmann::ordered_json routes_json(const tarn::RoutingDetails& routes, const std::string& prefix)
{
    auto array = nlohmann::ordered_json::array();
    for (const auto& route : routes.details()) {
        for (const std::string& pattern : route.patterns())
            array.push_back({{"pattern", prefix + pattern},
                             {"methods", slate::split<std::vector<std::string>>(services::methods_text(route),
                                                                                ",", false, true)},
                             {"access", slate::to_lower(tarn::Access_Name(route.access()))}});
    }
    return array;
}
} // namespace tarn_command
