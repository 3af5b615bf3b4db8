// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// The services of a fabric, as a router finds them: by the directories in the run-time directory.
struct Service {
    std::string name; ///< "clock", or "clock/2" for one of several
    std::filesystem::path socket;
};

/// Sorted by name. Hidden directories are left out. Throws std::filesystem::filesystem_error if the directory
/// can't be read.
std::vector<Service> list_services(const std::filesystem::path& run_time_directory);
