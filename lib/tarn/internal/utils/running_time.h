// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "slate/clock.h"

namespace tarn_internal {
/// The time on a clock, which goes on where the clock's ticks begin at 0 again: after 49 days, where a long
/// has 32 bits. A turn that nobody sees, since nobody asks for the time for as long, is left out.
///
/// Threads: any.
class RunningTime {
public:
    explicit RunningTime(std::shared_ptr<const slate::Clock> clock) : clock_(std::move(clock)) {}

    slate::Duration now() const
    {
        const std::lock_guard lock(mutex_); // over the reading too, so that a late one is no turn
        const unsigned long ticks = clock_->ticks();
        const unsigned long frequency = clock_->frequency();
        if (ticks < last_ticks_) {
            turns_ += slate::clock_ticks_to_duration(std::numeric_limits<unsigned long>::max(), frequency);
            turns_ += slate::clock_ticks_to_duration(1, frequency);
        }
        last_ticks_ = ticks;
        return turns_ + slate::clock_ticks_to_duration(ticks, frequency);
    }

private:
    const std::shared_ptr<const slate::Clock> clock_;
    mutable std::mutex mutex_; // guards the two below
    mutable unsigned long last_ticks_ = 0;
    mutable slate::Duration turns_ = slate::Seconds(0);
};
} // namespace tarn_internal
