// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>
#include <slate/duration.h>
#include <tarn/types.h>

#include "fabric_choice.h"
#include "service_survey.h"

namespace tarn_command {
using services::Service;

/// The fabric that was named, or the one whose router is served, or the one whose directory is there. Throws
/// Failure if there is none.
tarn::Fabric find_fabric(const Place& place);

/// The names of the services that have a directory, sorted. Throws Failure if the directory can't be read.
std::vector<std::string> service_names(const std::filesystem::path& directory);

/// The services of a fabric, asked side by side.
std::vector<Service> look_at_services(const tarn::Fabric& fabric, const slate::Duration& timeout);

/// The routes as an array of objects; `prefix` is put before each pattern.
nlohmann::ordered_json routes_json(const tarn::RoutingDetails& routes, const std::string& prefix);
} // namespace tarn_command
