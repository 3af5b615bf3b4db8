// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace services {
/// The names of a fabric's services as a router finds them, by the directories in the run-time directory:
/// "clock", or "clock/2" for one of several. Sorted; hidden directories are left out. Throws
/// std::filesystem::filesystem_error if the directory can't be read.
std::vector<std::string> list_names(const std::filesystem::path& run_time_directory);
} // namespace services
