// SPDX-License-Identifier: Apache-2.0
#include "unknown_path.h"

#include <algorithm>
#include <set>
#include <vector>

#include "nearest_name.h"
#include "service_list.h"

namespace {
constexpr std::size_t max_name = 255; // of a text; a directory's name is no longer
constexpr std::size_t max_names = 20;

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
std::vector<std::string> list_first_segments(const std::filesystem::path& run_time_directory)
{
    std::set<std::string> names;
    for (const std::string& name : services::list_names(run_time_directory))
        names.insert(name.substr(0, name.find('/')));
    return {names.begin(), names.end()};
}
} // namespace

std::string describe_unknown_path(const std::filesystem::path& run_time_directory, const std::string& path)
{
    std::string name = first_segment(path);
    const std::vector<std::string> names = list_first_segments(run_time_directory);
    const std::vector<std::string> own = {"index", "services"};
    const bool is_own = std::find(own.begin(), own.end(), name) != own.end();

    std::string text;
    if (name.empty())
        text = "the path names no service";
    else if (is_own || std::find(names.begin(), names.end(), name) != names.end())
        text = "the router has no such path";
    else {
        std::vector<std::string> candidates = names;
        candidates.insert(candidates.end(), own.begin(), own.end());
        const std::string nearest = find_nearest(name, candidates);
        if (name.size() > max_name)
            name = name.substr(0, max_name) + "...";
        text = "there is no service \"" + name + "\"";
        if (!nearest.empty())
            text += ", but perhaps you mean \"/" + nearest + "\"";
    }
    text += "; ";
    if (names.empty())
        return text + "no service has a directory in " + run_time_directory.string();
    return text + "the services are " + join_names(names) + "; get \"/services\" for more";
}
