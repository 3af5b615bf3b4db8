// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tarn/tarn.h>

#include "network_settings.pb.h"

namespace example {
/// A device's network settings: a small document in a file. Clients read it as JSON, as text for people or as
/// protobuf, and write it as JSON or protobuf.
///
/// A write saves the settings at once and applies them later. Settings can therefore be saved and not
/// applied: if the work queue was full, which the reply tells, or if the process ended. The next start
/// applies them.
///
/// There is one document, so parameters and policies have no effect. Status 404 if nothing has been written,
/// 400 for a body that holds no settings, 415 for any other format.
class NetworkSettings : public tarn::ResourceBase {
public:
    /// `apply` puts settings into effect after each write. It runs on the work queue, one call at a time.
    NetworkSettings(const std::filesystem::path& file, std::function<void(const Network&)> apply);

    /// Applies the settings in the file, if there is one, at the start of a service. Logs failures.
    void apply_stored();

    std::vector<tarn::Format> formats() const override;
    std::string name() const override;
    std::pair<std::string, tarn::Format> read(const std::shared_ptr<slate::Dictionary>& params,
                                              tarn::Format format) const override;
    void write(const std::shared_ptr<slate::Dictionary>& params, const tarn::Format& format,
               const std::string& data, const tarn::WritePolicy& policy) override;
    void erase(const std::shared_ptr<slate::Dictionary>& params) override;
    using ResourceBase::exists;
    bool exists(const std::shared_ptr<slate::Dictionary>& params) const override;

private:
    Network current() const;
    void apply_later(const Network& network);

    tarn::CachedFileStore store_; // holds JSON
    const std::function<void(const Network&)> apply_;
};
} // namespace example
