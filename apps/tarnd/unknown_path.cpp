// SPDX-License-Identifier: Apache-2.0
#include "unknown_path.h"

#include <algorithm>
#include <set>

#include "service_list.h"

namespace {
constexpr std::size_t max_name = 255; // a directory's name is no longer
constexpr std::size_t max_names = 20;

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

std::string join_names(const std::vector<std::string>& names)
{
    std::string text;
    const std::size_t shown = std::min(names.size(), max_names);
    for (std::size_t i = 0; i < shown; ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    if (shown < names.size())
        text += " and " + std::to_string(names.size() - shown) + " more";
    return text;
}

std::string first_segment(const std::string& path)
{
    const auto begin = path.find_first_not_of('/');
    return begin == std::string::npos ? "" : path.substr(begin, path.find('/', begin) - begin);
}

/// Names without the numbers of those that share one.
std::vector<std::string> list_names(const std::filesystem::path& run_time_directory)
{
    std::set<std::string> names;
    for (const Service& service : list_services(run_time_directory))
        names.insert(service.name.substr(0, service.name.find('/')));
    return {names.begin(), names.end()};
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

std::string describe_unknown_path(const std::filesystem::path& run_time_directory, const std::string& path)
{
    std::string name = first_segment(path);
    const std::vector<std::string> services = list_names(run_time_directory);
    const std::vector<std::string> own = {"index", "services"};
    const bool is_own = std::find(own.begin(), own.end(), name) != own.end();

    std::string text;
    if (name.empty())
        text = "the path names no service";
    else if (is_own || std::find(services.begin(), services.end(), name) != services.end())
        text = "the router has no such path";
    else {
        std::vector<std::string> candidates = services;
        candidates.insert(candidates.end(), own.begin(), own.end());
        const std::string nearest = find_nearest(name, candidates);
        if (name.size() > max_name)
            name = name.substr(0, max_name) + "...";
        text = "there is no service \"" + name + "\"";
        if (!nearest.empty())
            text += ", but perhaps you mean \"/" + nearest + "\"";
    }
    text += "; ";
    if (services.empty())
        return text + "no service has a directory in " + run_time_directory.string();
    return text + "the services are " + join_names(services) + "; get \"/services\" for more";
}
