// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ios>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace slate {
/// The bytes of a text.
std::vector<unsigned char> slurp_bytes(std::string_view text);

/// The text that consists of these bytes.
std::string slurp(const std::vector<unsigned char>& bytes);

/// The rest of a stream.
std::string slurp(std::istream& stream);

/// The contents of a file, byte by byte whatever `mode` says. Throws std::filesystem::filesystem_error, with
/// path and reason, if `path` can't be opened or read, or is a directory.
template <class T>
T slurp_file(const std::string& path, std::ios_base::openmode mode);
template <>
std::string slurp_file<std::string>(const std::string& path, std::ios_base::openmode mode);

/// The contents of a file, as slurp_file gives them. But a symbolic link of another user in a folder that
/// others may write to isn't followed: it might lead to any file that this process may read. Such a link is
/// not ours, not root's and not the folder's owner's. Throws std::filesystem::filesystem_error, for such a
/// link with EACCES.
std::string slurp_trusted_file(const std::filesystem::path& path);

/// How long powersafe_write and remove_powersafe_leftover wait for others who write the same file.
inline constexpr std::chrono::seconds powersafe_patience{10};

/// Replaces a file such that a power cut at any moment leaves either the old contents or the new, complete.
///
/// `writer` is called once, on this thread, and fills a new file in the same directory. That file gets the
/// mode of the old file (and its owner and group, as far as the process may set them), is synced to the disk,
/// and is renamed to `path`; finally the directory is synced. A symbolic link is followed. The new file is
/// hidden and always has the same name, so that the next write takes over what a crash has left behind.
///
/// Threads and processes that write one file at the same time wait for each other. They can't do so on a
/// filesystem without locks, or if one of them may not open the new file of another, and may then spoil each
/// other's contents; a writer that finds its new file taken away fails.
///
/// Throws std::filesystem::filesystem_error, with path and reason, if a step fails, and passes on what
/// `writer` throws. The old file is then untouched, and the new one is removed. There is one exception: if
/// only the directory can't be synced, which comes last, the file has its new contents already, but may lose
/// them in a power cut.
void powersafe_write(const std::filesystem::path& path, const std::function<void(std::ofstream&)>& writer);

/// Removes the unfinished new file of a powersafe_write to `path` whose process was killed, if there is one
/// and this process may remove it. Waits for a powersafe_write that is under way, for powersafe_patience at
/// most. The file at `path` itself stays. Errors are ignored.
void remove_powersafe_leftover(const std::filesystem::path& path);

/// Removes a file, or an empty folder, such that a power cut doesn't bring it back: the folder of `path` is
/// synced. Returns whether there was one. Throws std::filesystem::filesystem_error; if only the folder can't
/// be synced, the file is gone nevertheless, but may come back in a power cut.
bool powersafe_remove(const std::filesystem::path& path);

/// Creates a folder, and those that it lies in, such that they survive a power cut: the folder of each is
/// synced. Does nothing for a folder that exists. Throws std::filesystem::filesystem_error.
void powersafe_create_directories(const std::filesystem::path& path);
} // namespace slate
