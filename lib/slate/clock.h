// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "slate/duration.h"

namespace slate {
/// A clock that counts the ticks since it was made. It keeps counting while the device sleeps, and setting
/// the date doesn't affect it.
///
/// Threads: any thread may use it at any time.
class Clock {
public:
    virtual ~Clock() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// Ticks since the clock was made. Where a long has 32 bits, they begin at 0 again after 49 days; the
    /// difference of two readings is right as long as it is shorter than that.
    virtual unsigned long ticks() const = 0;
    /// Ticks per second.
    virtual unsigned long frequency() const = 0;
};

/// Makes clocks. Any thread may use it at any time.
class ClockFactory {
public:
    virtual ~ClockFactory() = default;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// A new clock, never null.
    virtual std::shared_ptr<Clock> make_clock() const = 0;
};

/// The factory of clocks that run on the device's own clock. Never null.
std::shared_ptr<ClockFactory> make_clock_factory();

/// The time that `ticks` ticks take at `frequency` ticks per second, rounded toward zero and saturated. It is
/// not initialized if `frequency` is 0.
Duration clock_ticks_to_duration(unsigned long ticks, unsigned long frequency);
} // namespace slate
