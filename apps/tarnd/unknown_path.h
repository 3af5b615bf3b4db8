// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

/// What a router says of a path that names no service: which services there are, and the one that was
/// probably meant.
std::string describe_unknown_path(const std::filesystem::path& run_time_directory, const std::string& path);

/// The name that is spelled most like `name`, or empty if none is alike.
std::string find_nearest(std::string_view name, const std::vector<std::string>& names);
