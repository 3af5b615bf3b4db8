// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "slate/provider.h"

namespace tarn_internal {
/// A provider that is registered for the lifetime of its owner, even if the owner's constructor throws.
class OwnedProvider {
public:
    OwnedProvider(const std::string& name, const std::string& instance)
        : provider_(slate::add_provider(name, instance, true))
    {
    }
    OwnedProvider(const std::string& name, int instance) : OwnedProvider(name, std::to_string(instance)) {}
    ~OwnedProvider() { slate::remove_provider(provider_->name()); }
    OwnedProvider(const OwnedProvider&) = delete;
    OwnedProvider& operator=(const OwnedProvider&) = delete;

    operator const std::shared_ptr<slate::Provider>&() const { return provider_; }
    slate::Provider& operator*() const { return *provider_; }
    slate::Provider* operator->() const { return provider_.get(); }

private:
    const std::shared_ptr<slate::Provider> provider_;
};
} // namespace tarn_internal
