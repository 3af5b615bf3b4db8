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
/// One string in a file and in memory: read from memory, and written through to the file like that of a
/// FileStore. The file is read once, by the constructor; what others do to it later is not seen.
///
/// A write or erase that fails leaves memory as it was, and passes the failure on. If only the last step of a
/// write fails, the sync of its folder, the file has the new content all the same. MemoryStore and FileStore
/// have the same operations.
///
/// One revision is kept: the `revision` of read and exists, and the policy of erase, make no difference.
///
/// Threads: one at a time, for read too.
class CachedFileStore {
public:
    /// Throws what FileStore does, and std::filesystem::filesystem_error if there is a file that can't be
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
