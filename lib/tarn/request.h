// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarn/internal/envelope.h"

namespace tarn {
/// The request side of an exchange. All operations of Envelope are available.
class Request : public tarn_internal::Envelope {
public:
    Request() = default;
    explicit Request(const std::shared_ptr<Message>& shared) : Envelope(shared) {}

    /// Transport metadata, keys compared exactly: the value of the first entry of that key, or empty.
    std::string meta(const std::string& key) const;
    void set_meta(const std::string& key, const std::string& value);

    /// The position of a chunk in a transfer. Throws MessageException, status 400, if the header is no
    /// number.
    std::optional<std::uint32_t> chunk_number() const;

    /// The formats that the requester accepts or sends, the preferred one first, with duplicates: the head's,
    /// then those of "accept", then that of "content-type"; for a put or post without any of them, the format
    /// that its body looks like. Empty if the requester states no preference. Throws Exception for a `call`.
    std::vector<Format> formats() const;
};
} // namespace tarn
