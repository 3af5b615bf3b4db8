// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "slate/provider.h"

namespace tarn_internal {
/// How many calls one client has without a reply, and how many it may have.
///
/// Threads: any.
class CallLimit {
public:
    /// `refused` counts what was refused.
    CallLimit(std::size_t most, std::shared_ptr<slate::Counter> refused)
        : most_(std::max<std::size_t>(most, 1)),
          refused_(std::move(refused))
    {
    }

    std::size_t in_flight() const { return in_flight_; }

private:
    friend class CallPlace;

    const std::size_t most_;
    const std::shared_ptr<slate::Counter> refused_;
    std::atomic<std::size_t> in_flight_{0};
};

/// The place of one call among those in flight, which it leaves when this goes.
///
/// Threads: one at a time.
class CallPlace {
public:
    enum class Room {
        Limited,
        Always, ///< counts, and is never refused
    };

    CallPlace() = default;
    CallPlace(std::shared_ptr<CallLimit> limit, Room room)
    {
        // One step for looking and taking, so that no number of threads exceeds the limit.
        if (limit->in_flight_.fetch_add(1) < limit->most_ || room == Room::Always) {
            limit_ = std::move(limit);
            return;
        }
        --limit->in_flight_;
        limit->refused_->increment();
    }
    ~CallPlace() { leave(); }
    CallPlace(CallPlace&& other) noexcept : limit_(std::move(other.limit_)) {}
    CallPlace& operator=(CallPlace&&) = delete;

    /// Whether there was one.
    explicit operator bool() const { return limit_ != nullptr; }

    void leave()
    {
        if (const auto limit = std::exchange(limit_, nullptr))
            --limit->in_flight_;
    }

private:
    std::shared_ptr<CallLimit> limit_;
};
} // namespace tarn_internal
