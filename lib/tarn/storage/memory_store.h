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
/// One revision is kept: the `revision` of read and exists, and the policy of erase, are ignored.
/// Beware of an initial value: it becomes current at the first read, and then replaces what was written or
/// erased before. So read once before the first write.
///
/// Threads: one at a time, for read too.
class MemoryStore {
public:
    /// `provider` may be null; nothing is logged through it. The path is ignored; it is there for symmetry
    /// with the other stores.
    explicit MemoryStore(std::shared_ptr<slate::Provider> provider);
    MemoryStore(const std::filesystem::path& path, std::shared_ptr<slate::Provider> provider);
    MemoryStore(const std::filesystem::path& path, std::shared_ptr<slate::Provider> provider,
                std::string initial);

    /// Makes the initial value the current one, if it was not taken over yet.
    void lazy_load() const;

    /// The value, or nothing.
    std::optional<std::string> read(long revision) const;
    void write(const std::string& data);
    /// Whether there is a value, initial or current.
    bool exists(long revision) const;
    void erase(PurgePolicy policy);

private:
    mutable std::optional<std::string> initial_; // not yet taken over
    mutable std::optional<std::string> value_;
    std::shared_ptr<slate::Provider> provider_;
};
} // namespace tarn
