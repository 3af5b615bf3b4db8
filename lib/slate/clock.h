// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "slate/duration.h"

namespace slate {
/// Counts the time since it was made. It goes on while the device sleeps, and no change of the date moves it.
/// Any thread.
class Clock {
public:
    virtual ~Clock() = default;

    virtual unsigned long ticks() const = 0;
    /// Ticks per second.
    virtual unsigned long frequency() const = 0;
};

class ClockFactory {
public:
    virtual ~ClockFactory() = default;

    virtual std::shared_ptr<Clock> make_clock() const = 0;
};

std::shared_ptr<ClockFactory> make_clock_factory();

/// The time that `ticks` ticks take at `frequency` ticks a second; not initialized for a frequency of 0.
Duration clock_ticks_to_duration(unsigned long ticks, unsigned long frequency);
} // namespace slate
