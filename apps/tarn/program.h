// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "command.h"

namespace tarn_command {
/// Reads the arguments, runs the command that they name, and reports how it failed. The exit status.
int run_program(int argc, char** argv, const std::vector<Command>& commands);
} // namespace tarn_command
