// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "output/terminal.h"

namespace tarn_command {
struct Cell {
    std::string text; ///< escaped already
    Colour colour = Colour::Plain;
};

/// Writes rows under headings. On a terminal what has no room in the last column goes to a line of its own.
void write_table(const std::vector<std::string>& headings, const std::vector<std::vector<Cell>>& rows);
} // namespace tarn_command
