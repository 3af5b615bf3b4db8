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
/// One revision is kept: the `revision` of read and exists, and the policy of erase, make no difference.
///
/// Errors: whatever the file system refuses passes out as std::filesystem::filesystem_error, with path and
/// reason.
///
/// A write may fail at its very end, when its folder can't be synced; the new content is in place then.
///
/// Threads: one at a time. Processes that share a file see each other's writes, whole; nothing keeps the
/// write of one from undoing that of another.
class FileStore {
public:
    /// The file need not exist; `path` needs a folder in it to be written, which need not exist either:
    /// "./file", not "file", which fails at each write. Throws Exception for an empty path, that of a
    /// directory, and a null provider.
    FileStore(const std::filesystem::path& path, const std::shared_ptr<slate::Provider>& provider);

    /// The file's bytes; none if there is no file. An empty file is an empty value.
    std::optional<std::string> read(long revision) const;
    /// Makes the folder first, if there is none. Blocks until the bytes are on the disk; a power cut soon
    /// after may still take away a folder that was just made, with the file.
    void write(const std::string& data);
    /// Whether anything has that path, be it a directory that was made since.
    bool exists(long revision) const;
    /// A missing file is fine. Takes along what a killed writer left beside it. Doesn't wait for the disk: a
    /// power cut soon after may bring the file back.
    void erase(PurgePolicy policy);

private:
    std::filesystem::path path_;
    std::shared_ptr<slate::Provider> provider_; // not null
};
} // namespace tarn
