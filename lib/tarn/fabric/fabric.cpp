// SPDX-License-Identifier: Apache-2.0
#include "tarn/fabric/fabric.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "slate/dictionary.h"
#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/exception.h"
#include "tarn/internal/defaults.h"
#include "tarn/internal/fabric/choose_fabric.h"
#include "tarn/internal/router/service_path.h"
#include "tarn/internal/transport/look_at.h"

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

std::optional<std::string> check_personal_directory(const std::filesystem::path& directory)
{
    const std::string name = directory.string();
    struct stat status {};
    if (lstat(directory.c_str(), &status) != 0)
        return name + " can't be looked at: " + std::generic_category().message(errno);
    if (S_ISLNK(status.st_mode))
        return name + " is a link, which may lead to somebody else's directory; remove it";
    if (!S_ISDIR(status.st_mode))
        return name + " is not a directory; remove it";
    if (status.st_uid != geteuid())
        return name + " belongs to user " + std::to_string(status.st_uid) + ", not to user " +
               std::to_string(geteuid()) + "; choose another directory";
    if ((status.st_mode & 077) != 0)
        return name + " lets other users in; run chmod 700 " + name;
    return std::nullopt;
}

Fabric find_fabric()
{
    return tarn_internal::choose_fabric(default_run_time_directory, personal_run_time_directory());
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

Endpoint make_service_endpoint(const Fabric& fabric, const std::filesystem::path& name)
{
    auto endpoint = service_endpoint(fabric, name);
    if (!endpoint)
        return nullptr;
    auto directory = fabric.run_time_directory;
    for (const auto& part : name) {
        directory /= part;
        if (mkdir(directory.c_str(), 0777) != 0 && errno != EEXIST) {
            slate::log_error(SLATE_HERE, "the directory ", directory.string(),
                             " can't be made: ", std::generic_category().message(errno));
            return nullptr;
        }
    }
    return endpoint;
}
} // namespace tarn

namespace tarn_internal {
tarn::Fabric choose_fabric(const std::filesystem::path& device, const std::filesystem::path& personal)
{
    std::vector<tarn::Fabric> candidates = {tarn::make_fabric(device)};
    std::error_code ignored;
    if (std::filesystem::exists(std::filesystem::symlink_status(personal, ignored))) {
        if (const auto fault = tarn::check_personal_directory(personal))
            slate::log_warn(SLATE_HERE, "your own fabric is left out: ", *fault);
        else
            try {
                candidates.push_back(tarn::make_fabric(personal));
            }
            catch (const tarn::Exception&) { // whose path is too long; the log says so
            }
    }
    for (const auto& fabric : candidates) {
        if (look_at(fabric.router, slate::Seconds(0)).served)
            return fabric;
    }
    for (const auto& fabric : candidates) {
        if (std::filesystem::is_directory(fabric.run_time_directory, ignored))
            return fabric;
    }
    return candidates.front();
}
} // namespace tarn_internal
