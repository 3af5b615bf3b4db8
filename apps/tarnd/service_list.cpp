// SPDX-License-Identifier: Apache-2.0
#include "service_list.h"

#include <algorithm>
#include <system_error>

namespace {
bool is_number(const std::string& name)
{
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Those of several that share a name, each in a directory with a number.
std::vector<Service> list_numbered(const std::filesystem::path& directory, const std::string& name)
{
    std::vector<Service> services;
    std::error_code error; // what can't be read has no numbered services for the router either
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string number = entry->path().filename().string();
        std::error_code unknown;
        if (is_number(number) && entry->is_directory(unknown))
            services.push_back({name + "/" + number, entry->path() / "zmq.sock"});
    }
    return services;
}
} // namespace

std::vector<Service> list_services(const std::filesystem::path& run_time_directory)
{
    std::vector<Service> services;
    for (const auto& entry : std::filesystem::directory_iterator(run_time_directory)) {
        const std::string name = entry.path().filename().string();
        std::error_code unknown;
        if (name.starts_with('.') || !entry.is_directory(unknown))
            continue;
        const auto numbered = list_numbered(entry.path(), name);
        services.insert(services.end(), numbered.begin(), numbered.end());
        // A directory that only holds numbered ones is no service itself.
        if (numbered.empty() || std::filesystem::exists(entry.path() / "zmq.sock", unknown))
            services.push_back({name, entry.path() / "zmq.sock"});
    }
    std::sort(services.begin(), services.end(),
              [](const Service& a, const Service& b) { return a.name < b.name; });
    return services;
}
