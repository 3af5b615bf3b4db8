// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>
#include <slate/duration.h>
#include <tarn/proto/routing.pb.h>
#include <tarn/types.h>

#include "fabric_choice.h"

namespace tarn_command {
/// One service of a fabric, as it has shown itself.
struct Service {
    std::string name; ///< as it stands in paths, such as "clock" or "clock/2"
    tarn::Endpoint endpoint;
    std::string problem; ///< why it doesn't answer; empty if it does
    std::optional<int> pid;
    double milliseconds = 0; ///< how long its answer took
    tarn::RoutingDetails routes;
};

/// The fabric that was named, or the one whose router is served, or the one whose directory is there. Throws
/// Failure if there is none.
tarn::Fabric find_fabric(const Place& place);

/// The names of the services that have a directory, sorted. Throws Failure if the directory can't be read.
std::vector<std::string> service_names(const std::filesystem::path& directory);

/// Asks a server for its index.
Service look_at(const std::string& name, const tarn::Endpoint& endpoint, const slate::Duration& timeout);

/// The services of a fabric, asked all at once, so that silent ones don't add up.
std::vector<Service> look_at_services(const tarn::Fabric& fabric, const slate::Duration& timeout);

/// "GET,PUT".
std::string methods_text(const tarn::RoutingDetail& route);

/// "clock_service", from the system; empty if it doesn't tell.
std::string process_name(int pid);

/// The routes as an array of objects; `prefix` is put before each pattern.
nlohmann::ordered_json routes_json(const tarn::RoutingDetails& routes, const std::string& prefix);
} // namespace tarn_command
