// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

namespace tarn_test {
/// The folder in /proc of a thread of this process; empty if there is none of that name.
inline std::filesystem::path thread_of_this_process(const std::string& name)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string line;
        if (std::getline(std::ifstream(task.path() / "comm"), line) && line == name)
            return task.path();
    }
    return {};
}

/// How much memory this process has.
inline std::size_t resident_bytes()
{
    std::size_t size = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}
} // namespace tarn_test
