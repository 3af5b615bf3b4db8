// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "tarn/policies.h"
#include "tarn/storage/file_store.h"
#include "tarn/storage/memory_store.h"

namespace tarn {
/// One string in a file and in memory: reads come from memory, and writes go through to the file, as those of
/// a FileStore do. Only the constructor reads the file; later changes by other programs are not seen.
///
/// A write or erase that fails leaves memory as it was, and throws. If only the last step of a write fails,
/// the sync of its directory, the file has the new content nevertheless. MemoryStore and FileStore have the
/// same operations.
///
/// One revision is kept: the `revision` of read and exists, and the policy of erase, are ignored.
///
/// Threads: one at a time, for read too.
class CachedFileStore {
public:
    /// Throws what FileStore throws, and std::filesystem::filesystem_error if the file exists and can't be
    /// read.
    CachedFileStore(const std::filesystem::path& path, const std::shared_ptr<slate::Provider>& provider);

    std::optional<std::string> read(long revision) const;
    void write(const std::string& data);
    bool exists(long revision) const;
    void erase(PurgePolicy policy);

private:
    std::filesystem::path path_;
    std::shared_ptr<slate::Provider> provider_;
    FileStore file_store_;
    std::unique_ptr<MemoryStore> memory_store_;
};
} // namespace tarn
