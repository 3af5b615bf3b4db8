// SPDX-License-Identifier: Apache-2.0
#include "tarn/storage/memory_store.h"

#include <utility>

namespace tarn {
MemoryStore::MemoryStore(std::shared_ptr<slate::Provider> provider) : provider_(std::move(provider)) {}

MemoryStore::MemoryStore(const std::filesystem::path& /*path*/, std::shared_ptr<slate::Provider> provider)
    : provider_(std::move(provider))
{
}

MemoryStore::MemoryStore(const std::filesystem::path& /*path*/, std::shared_ptr<slate::Provider> provider,
                         std::string initial)
    : initial_(std::move(initial)),
      provider_(std::move(provider))
{
}

void MemoryStore::lazy_load() const
{
    if (!initial_)
        return;
    value_ = std::move(initial_);
    initial_.reset();
}

std::optional<std::string> MemoryStore::read(long /*revision*/) const
{
    lazy_load();
    return value_;
}

void MemoryStore::write(const std::string& data)
{
    // Copied first, so that the old value stays if there is no memory for the new one, and its memory is
    // freed if there is.
    value_ = std::string(data);
}

bool MemoryStore::exists(long /*revision*/) const
{
    return initial_ || value_;
}

void MemoryStore::erase(PurgePolicy /*policy*/)
{
    value_.reset();
}
} // namespace tarn
