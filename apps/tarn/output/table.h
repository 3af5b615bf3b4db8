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

/// Writes rows under headings. On a terminal the last column is cut to its width; into a pipe nothing is.
void write_table(const std::vector<std::string>& headings, const std::vector<std::vector<Cell>>& rows);
} // namespace tarn_command
