// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

/// What a router says of a path that names no service: which services there are, and the one that was
/// probably meant.
std::string describe_unknown_path(const std::filesystem::path& run_time_directory, const std::string& path);
