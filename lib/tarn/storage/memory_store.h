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
/// One string in memory. FileStore and CachedFileStore have the same operations.
///
/// One revision is kept: the `revision` of read and exists, and the policy of erase, make no difference.
///
/// Beware of an initial value: it waits for the first read, and only a read takes it over. Until then write
/// and erase leave it waiting, so that the next read brings it back in place of what was written or erased.
/// Read first if there is one.
///
/// Threads: one at a time, for read too.
class MemoryStore {
public:
    /// `provider` may be null; it is kept, and nothing is logged. The path is for symmetry with the other
    /// stores, and makes no difference.
    explicit MemoryStore(std::shared_ptr<slate::Provider> provider);
    MemoryStore(const std::filesystem::path& path, std::shared_ptr<slate::Provider> provider);
    MemoryStore(const std::filesystem::path& path, std::shared_ptr<slate::Provider> provider,
                std::string initial);

    /// Takes over the initial value, if it still waits, in place of the current one.
    void lazy_load() const;

    /// The value; none if there is none.
    std::optional<std::string> read(long revision) const;
    void write(const std::string& data);
    /// Whether there is a value, be it one that still waits.
    bool exists(long revision) const;
    void erase(PurgePolicy policy);

private:
    mutable std::optional<std::string> initial_; // not yet taken over
    mutable std::optional<std::string> value_;
    std::shared_ptr<slate::Provider> provider_;
};
} // namespace tarn
