// SPDX-License-Identifier: Apache-2.0
#include "slate/clock.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <memory>

#include "slate/multiply_divide.h"

namespace slate {
namespace {
constexpr unsigned long nanoseconds_per_second = 1'000'000'000;

// Where a long has 32 bits, nanoseconds would wrap around after four seconds.
constexpr unsigned long ticks_per_second =
    std::numeric_limits<unsigned long>::digits >= 64 ? nanoseconds_per_second : 1'000;

/// Ticks since the device started, including the time that it has spent asleep.
unsigned long ticks_since_boot()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now); // can't fail, as the kernel always has this clock
    return static_cast<unsigned long>(now.tv_sec) * ticks_per_second +
           static_cast<unsigned long>(now.tv_nsec) / (nanoseconds_per_second / ticks_per_second);
}

class ClockImpl : public Clock {
public:
    unsigned long ticks() const override { return ticks_since_boot() - start_; }
    unsigned long frequency() const override { return ticks_per_second; }

private:
    const unsigned long start_ = ticks_since_boot();
};

class ClockFactoryImpl : public ClockFactory {
public:
    std::shared_ptr<Clock> make_clock() const override { return std::make_shared<ClockImpl>(); }
};
} // namespace

std::shared_ptr<ClockFactory> make_clock_factory()
{
    return std::make_shared<ClockFactoryImpl>();
}

Duration clock_ticks_to_duration(unsigned long ticks, unsigned long frequency)
{
    if (frequency == 0)
        return {};

    constexpr auto most = std::numeric_limits<std::int64_t>::max();
    const auto nanoseconds = internal::multiply_divide(ticks, nanoseconds_per_second, frequency);
    if (!nanoseconds || nanoseconds->quotient > std::uint64_t{most})
        return std::chrono::nanoseconds(most);
    return std::chrono::nanoseconds(static_cast<std::int64_t>(nanoseconds->quotient));
}
} // namespace slate
