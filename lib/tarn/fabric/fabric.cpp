// SPDX-License-Identifier: Apache-2.0
#include "tarn/fabric/fabric.h"

#include <algorithm>
#include <cstdlib>
#include <string>

#include <sys/un.h>
#include <unistd.h>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/exception.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/router/service_path.h"

namespace tarn {
namespace {
constexpr std::size_t max_path_bytes = sizeof(sockaddr_un::sun_path) - 1;

/// Null if no endpoint can have that path.
Endpoint at(const std::filesystem::path& socket)
{
    return socket.native().size() <= max_path_bytes ? slate::make_uri("ipc://" + socket.string()) : nullptr;
}
} // namespace

Fabric make_fabric(const std::filesystem::path& run_time_directory)
{
    const auto directory = tarn_internal::normalise_directory(run_time_directory);
    Fabric fabric{directory, at(directory / "router/zmq.sock"), at(directory / "relay/zmq.sock"),
                  at(directory / "relay/in.sock"), at(directory / "relay/out.sock")};
    for (const Endpoint& endpoint : {fabric.router, fabric.relay_stats, fabric.relay_in, fabric.relay_out}) {
        if (!endpoint)
            throw Exception(
                slate::trace_error(SLATE_HERE, "no endpoint can be in the directory ", directory.string()));
    }
    return fabric;
}

std::filesystem::path personal_run_time_directory()
{
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && *runtime == '/') // else the variable is to be ignored, by its own rules
        return std::filesystem::path(runtime) / "tarn";
    return "/tmp/tarn-" + std::to_string(getuid());
}

std::shared_ptr<slate::Dictionary> make_settings(const Fabric& fabric)
{
    auto settings = slate::make_dictionary();
    settings->set(relay_url(), std::string_view(fabric.router->to_string()));
    settings->set(relay_sub(), std::string_view(fabric.relay_in->to_string()));
    settings->set(relay_pub(), std::string_view(fabric.relay_out->to_string()));
    if (fabric.run_time_directory == tarn_internal::normalise_directory(personal_run_time_directory())) {
        settings->set("socket_group", ""); // which nobody else gets at
        settings->set("socket_mode", "0700");
    }
    settings->set("run_time_directory", std::string_view(fabric.run_time_directory.native()));
    return settings;
}

Endpoint service_endpoint(const Fabric& fabric, const std::filesystem::path& name)
{
    const bool leads_down = !name.empty() && name.is_relative() && name.has_filename() &&
                            std::none_of(name.begin(), name.end(), [](const std::filesystem::path& part) {
                                return part == "." || part == "..";
                            });
    auto endpoint = leads_down ? at(fabric.run_time_directory / name / "zmq.sock") : nullptr;
    if (!endpoint)
        slate::log_error(SLATE_HERE, "no service can have the name \"", name.string(), "\"");
    return endpoint;
}
} // namespace tarn
