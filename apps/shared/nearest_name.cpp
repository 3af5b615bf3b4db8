// SPDX-License-Identifier: Apache-2.0
#include "nearest_name.h"

#include <algorithm>

namespace {
constexpr std::size_t max_name = 255; // the time grows with the square; a directory's name is no longer

/// How many characters have to be changed, added, left out or swapped with their neighbour.
std::size_t edit_distance(std::string_view one, std::string_view other)
{
    std::vector<std::vector<std::size_t>> cost(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
    for (std::size_t i = 0; i <= one.size(); ++i) {
        for (std::size_t j = 0; j <= other.size(); ++j) {
            if (i == 0 || j == 0) {
                cost[i][j] = i + j;
                continue;
            }
            const std::size_t changed = one[i - 1] == other[j - 1] ? 0 : 1;
            cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + changed});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
        }
    }
    return cost[one.size()][other.size()];
}
} // namespace

std::string find_nearest(std::string_view name, const std::vector<std::string>& names)
{
    std::string nearest;
    std::size_t best = (std::min(name.size(), max_name) + 2) / 3 + 1; // a third of the letters may be wrong
    for (const std::string& candidate : names) {
        if (name.size() > max_name)
            break;
        const std::size_t distance = edit_distance(name, candidate);
        if (distance < best) {
            best = distance;
            nearest = candidate;
        }
    }
    return nearest;
}
