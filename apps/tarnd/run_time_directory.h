// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <string>

#include "options.h"

/// What must be in place in the file system before anything is bound. All throw std::runtime_error, whose
/// text names what is wrong and what to do.
namespace run_time_directory {
/// The directory itself: made if the options want that, and otherwise there already. That of a person must be
/// theirs alone.
void prepare(const Options& options);

/// Makes the directory of one part, "router" or "relay", and refuses one that somebody else has put there:
/// in a directory that a group may write to, that could be a link.
void prepare_part(const Options& options, const std::string& part);

/// Keeps two daemons apart that start in the same moment, before either serves: held until the process ends.
class Lock {
public:
    /// Throws if another process holds the lock of that part, and names `endpoint` and that process.
    Lock(const Options& options, const std::string& part, const std::string& endpoint);
    ~Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    int file_;
};
} // namespace run_time_directory
