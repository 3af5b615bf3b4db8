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
/// A device's network settings: a small document in a file, that is read as JSON, as text for people or as
/// protobuf, and written as JSON or protobuf.
///
/// What is written is saved first and applied later, so it may stay saved and unapplied: the work queue was
/// full, which the writer is told, or the process ended. The next start applies it.
///
/// There is one document, so parameters and policies make no difference. Status 404 while there is none, 400
/// for what can't be settings, 415 for other formats.
class NetworkSettings : public tarn::ResourceBase {
public:
    /// `apply` brings settings into force after each write, on the work queue, one call at a time.
    NetworkSettings(const std::filesystem::path& file, std::function<void(const Network&)> apply);

    /// Applies what the file holds, if anything, for the start of a service. A failure is logged.
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
