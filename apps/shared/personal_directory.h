// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>

/// A directory of one person's sockets, which may be in /tmp, where others can make directories too.
namespace personal_directory {
/// Throws std::runtime_error, which says what is wrong and what to do, unless `directory` is a directory and
/// no link, belongs to this process's user, and lets nobody else in.
void require(const std::filesystem::path& directory);

/// Makes it with mode 0700 if nothing is there, and then requires it.
void make(const std::filesystem::path& directory);
} // namespace personal_directory
