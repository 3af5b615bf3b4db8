// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "command.h"

namespace CLI {
class App;
}

namespace tarn_command {
/// The help of one command, or of the program if `command` is null, wrapped to that many columns.
std::string help_page_of(const CLI::App& app, const Command* command, const std::vector<Command>& commands,
                         std::size_t columns);

/// The same as a page of manual, in section 1.
std::string manual_page_of(const CLI::App& app, const Command* command, const std::vector<Command>& commands);
} // namespace tarn_command
