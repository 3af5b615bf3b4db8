// SPDX-License-Identifier: Apache-2.0
#include "output/table.h"

#include <algorithm>

#include <unistd.h>

#include "output/body.h"

namespace tarn_command {
namespace {
constexpr std::size_t gap = 2;
constexpr std::size_t indent = 2;
} // namespace

void write_table(const std::vector<std::string>& headings, const std::vector<std::vector<Cell>>& rows)
{
    std::vector<std::size_t> widths;
    for (const std::string& heading : headings)
        widths.push_back(heading.size());
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], columns_of(row[i].text));
    }
    std::size_t before_last = 0;
    for (std::size_t i = 0; i + 1 < widths.size(); ++i)
        before_last += widths[i] + gap;
    const std::size_t width =
        is_terminal(STDOUT_FILENO) ? terminal_width(STDOUT_FILENO) : std::string().max_size();

    const auto write_row = [&](const std::vector<Cell>& row) {
        std::string line;
        for (std::size_t i = 0; i + 1 < row.size(); ++i)
            line += paint(row[i].text, row[i].colour) +
                    std::string(widths[i] - columns_of(row[i].text) + gap, ' ');
        if (before_last + columns_of(row.back().text) > width)
            line += "\n" + std::string(indent, ' ');
        write_out(line + paint(row.back().text, row.back().colour) + "\n");
    };
    std::vector<Cell> head;
    for (const std::string& heading : headings)
        head.push_back({heading, Colour::Bold});
    write_row(head);
    for (const auto& row : rows)
        write_row(row);
}
} // namespace tarn_command
