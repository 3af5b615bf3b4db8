// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "tarn/reply.h"

namespace tarn {
/// The size of a chunk unless an option says otherwise, and the largest one.
inline constexpr std::size_t max_chunk_bytes = 1048576;

/// Called after each chunk, on the thread that transfers, with the bytes acknowledged or received so far.
/// What it throws passes to the caller.
using TransferProgress = std::function<void(std::uint64_t bytes)>;

/// How a transfer ended.
struct TransferResult {
    bool good() const { return reply->good(); }
    bool bad() const { return reply->bad(); }

    /// The reply that ended it, never null: the route's own if the whole body has arrived, otherwise the one
    /// that failed, or one that was made here (see Reply::local_cause).
    std::shared_ptr<Reply> reply;
    /// The bytes that the server has acknowledged, or that were received.
    std::uint64_t bytes = 0;
};
} // namespace tarn
