// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <tarn/types.h>

#include "program_limits.h"

/// What the command line says.
struct Options {
    std::filesystem::path run_time_directory;
    /// Whether that is this person's own, which nobody else may use, and not a device's.
    bool is_personal = false;
    bool makes_directory = false;
    bool has_router = true;
    bool has_relay = true;
    /// Of the router, besides the one in the run-time directory.
    std::vector<tarn::Endpoint> endpoints;
    /// Of the socket files; empty: "corvane" if there is such a group and we may use it.
    std::string group;
    std::optional<mode_t> mode;
    ProgramLimits limits;
    std::string log_level = "info";
    std::string log_sink = "stderr";
};

/// Reads the command line. If the process has to end because of it, prints what there is to say and returns
/// the exit status in `status`: 0 for help and version, 2 for a mistake.
std::optional<Options> read_options(int argc, char** argv, int& status);
