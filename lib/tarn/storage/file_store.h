// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tarn/policies.h"

namespace slate {
class Provider;
}

namespace tarn {
/// One string in a file, byte for byte. A power cut, or the end of the process, at any moment leaves the old
/// content or the new, whole; see slate::powersafe_write. MemoryStore and CachedFileStore have the same
/// operations.
///
/// One revision is kept: the `revision` of read and exists, and the policy of erase, are ignored.
///
/// Errors: failures of the file system throw std::filesystem::filesystem_error, with path and reason.
///
/// The file may be a symbolic link, but in a folder that others may write to only one of this process's user,
/// of root or of the folder's owner: see slate::slurp_trusted_file.
///
/// If a write fails in its last step, the sync of its directory, the new content is in place nevertheless.
///
/// Threads: one at a time. Processes that share a file see each other's complete writes, but nothing keeps
/// the write of one from undoing that of another.
class FileStore {
public:
    /// Neither the file nor its directory need exist. `path` needs a directory part to be written: "./file",
    /// not "file", with which each write fails. Throws Exception for an empty path, for that of a directory,
    /// and for a null provider.
    FileStore(const std::filesystem::path& path, const std::shared_ptr<slate::Provider>& provider);

    /// The file's bytes; nothing if there is no file. An empty file is an empty value.
    std::optional<std::string> read(long revision) const;
    /// Creates the directory if it doesn't exist. Blocks until the bytes, and a new directory's name, are on
    /// the disk, and for slate::powersafe_patience at most while another process writes the file.
    void write(const std::string& data);
    /// Whether the path exists, even as a directory that was created since.
    bool exists(long revision) const;
    /// A missing file is not an error. Also removes the unfinished file of a writer that was killed. Blocks
    /// until the removal is on the disk; if only this last step fails, the file is gone nevertheless.
    void erase(PurgePolicy policy);

private:
    std::filesystem::path path_;
    std::shared_ptr<slate::Provider> provider_; // not null
};
} // namespace tarn
