// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/cached_file_store.h"

#include <utility>

#include "slate/log.h"

namespace tarn {
namespace {
// The only revision that the stores keep.
constexpr long current_revision = 0;
} // namespace

CachedFileStore::CachedFileStore(const std::filesystem::path& path,
                                 const std::shared_ptr<slate::Provider>& provider)
    : path_(path),
      provider_(provider),
      file_store_(path, provider)
{
    if (auto content = file_store_.read(current_revision))
        memory_store_ = std::make_unique<MemoryStore>(path_, provider_, std::move(*content));
    else
        memory_store_ = std::make_unique<MemoryStore>(path_, provider_);
}

std::optional<std::string> CachedFileStore::read(long revision) const
{
    return memory_store_->read(revision);
}

void CachedFileStore::write(const std::string& data)
{
    const auto old = memory_store_->read(current_revision);
    try {
        memory_store_->write(data);
        file_store_.write(data);
    }
    catch (...) {
        try {
            if (old)
                memory_store_->write(*old);
            else
                memory_store_->erase(PurgePolicy::KeepHistory);
        }
        catch (...) {
            slate::log_error(
                provider_, SLATE_HERE,
                "cached file store; unable to rollback write changes to memory; path: ", path_.native());
        }
        throw; // the first failure
    }
}

bool CachedFileStore::exists(long revision) const
{
    return memory_store_->exists(revision);
}

void CachedFileStore::erase(PurgePolicy policy)
{
    const auto old = memory_store_->read(current_revision);
    try {
        memory_store_->erase(policy);
        file_store_.erase(policy);
    }
    catch (...) {
        try {
            if (old)
                memory_store_->write(*old);
        }
        catch (...) {
            slate::log_error(
                provider_, SLATE_HERE,
                "cached file store; unable to rollback erase changes to memory; path: ", path_.native());
        }
        throw; // the first failure
    }
}
} // namespace tarn
