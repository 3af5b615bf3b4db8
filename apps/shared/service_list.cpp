// SPDX-License-Identifier: Apache-2.0
#include "service_list.h"

#include <algorithm>
#include <system_error>

namespace services {
namespace {
bool is_number(const std::string& name)
{
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Those of several that share a name, each in a directory with a number.
std::vector<std::string> list_numbered(const std::filesystem::path& directory, const std::string& name)
{
    std::vector<std::string> names;
    std::error_code error; // what can't be read has no numbered services for the router either
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string number = entry->path().filename().string();
        std::error_code unknown;
        if (is_number(number) && entry->is_directory(unknown))
            names.push_back(name + "/" + number);
    }
    return names;
}
} // namespace

std::vector<std::string> list_names(const std::filesystem::path& run_time_directory)
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(run_time_directory)) {
        const std::string name = entry.path().filename().string();
        std::error_code unknown;
        if (name.starts_with('.') || !entry.is_directory(unknown))
            continue;
        const auto numbered = list_numbered(entry.path(), name);
        names.insert(names.end(), numbered.begin(), numbered.end());
        // A directory that only holds numbered ones is no service itself.
        if (numbered.empty() || std::filesystem::exists(entry.path() / "zmq.sock", unknown))
            names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}
} // namespace services
