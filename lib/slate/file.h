// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace slate {
/// Bytes from text and back.
std::vector<unsigned char> slurp_bytes(std::string_view text);
std::string slurp(const std::vector<unsigned char>& bytes);

/// The rest of a stream.
std::string slurp(std::istream& stream);

/// A file's contents. Throws std::filesystem::filesystem_error, with path and reason, if it can't be read; a
/// directory can't.
template <class T>
T slurp_file(const std::string& path, std::ios_base::openmode mode);
template <>
std::string slurp_file<std::string>(const std::string& path, std::ios_base::openmode mode);

/// Replaces a file such that a power cut at any moment leaves the old content or the new, whole.
///
/// `writer` fills a new file beside the target (hidden, and always of the same name, so that one left behind
/// by a crash is taken over by the next write). It is then synced, given the mode of the file that it
/// replaces, and renamed over it, and the directory is synced. A symbolic link is followed. Writes of one
/// file by several threads or processes wait for each other, unless the filesystem has no locks, or they may
/// not open each other's new files.
///
/// Throws std::filesystem::filesystem_error, with path and reason, if anything fails, or whatever `writer`
/// throws. The old file is then untouched and the new one gone; but a directory that can't be synced, which
/// comes last, is told with the new file in place.
void powersafe_write(const std::filesystem::path& path, const std::function<void(std::ofstream&)>& writer);

/// Takes away what a powersafe_write of that file left beside it when its process was killed, as far as this
/// process may. Waits for one that is under way. The file itself stays.
void remove_powersafe_leftover(const std::filesystem::path& path);
} // namespace slate
