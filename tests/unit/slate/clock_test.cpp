// SPDX-License-Identifier: Apache-2.0
#include "slate/clock.h"

#include <cstdint>
#include <ctime>
#include <limits>

#include <gtest/gtest.h>

#include "slate/duration.h"

namespace {
constexpr unsigned long greatest = std::numeric_limits<unsigned long>::max();

slate::Duration since_boot()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return slate::Seconds(now.tv_sec) + slate::Nanoseconds(now.tv_nsec);
}

TEST(Clock, CountsTheTimeSinceItWasMadeIncludingSleep)
{
    const auto factory = slate::make_clock_factory();
    const auto before_making = since_boot();
    const auto clock = factory->make_clock();
    const auto after_making = since_boot();

    const auto before_reading = since_boot();
    const auto time = slate::clock_ticks_to_duration(clock->ticks(), clock->frequency());
    const auto after_reading = since_boot();

    EXPECT_GE(time + slate::Milliseconds(1), before_reading - after_making);
    EXPECT_LE(time, after_reading - before_making + slate::Milliseconds(1));
}

TEST(Clock, NeverGoesBack)
{
    const auto clock = slate::make_clock_factory()->make_clock();

    for (unsigned long last = 0, i = 0; i < 1000; ++i) {
        const auto now = clock->ticks();
        ASSERT_GE(now, last);
        last = now;
    }
}

TEST(Clock, IsMadeAnewByEachCallOfTheFactory)
{
    const auto factory = slate::make_clock_factory();

    EXPECT_NE(factory->make_clock(), factory->make_clock());
    EXPECT_GT(factory->make_clock()->frequency(), 0u);
}

TEST(ClockTicks, BecomeADuration)
{
    EXPECT_EQ(slate::clock_ticks_to_duration(0, 1000), slate::Seconds(0));
    EXPECT_EQ(slate::clock_ticks_to_duration(1500, 1000), slate::Milliseconds(1500));
    EXPECT_EQ(slate::clock_ticks_to_duration(7, 1), slate::Seconds(7));
    EXPECT_EQ(slate::clock_ticks_to_duration(1, 3), slate::Nanoseconds(333'333'333));
    EXPECT_EQ(slate::clock_ticks_to_duration(greatest, 1'000'000'000),
              slate::Seconds(greatest / 1'000'000'000) + slate::Nanoseconds(greatest % 1'000'000'000));
}

TEST(ClockTicks, SaturateOutsideTheRange)
{
    // Beyond the range only where a long has 64 bits.
    EXPECT_EQ(slate::clock_ticks_to_duration(greatest, 1), slate::Seconds(std::uint64_t{greatest}));
    EXPECT_FALSE(slate::clock_ticks_to_duration(greatest, 1).is_positive_infinity());
    EXPECT_EQ(slate::clock_ticks_to_duration(greatest, greatest), slate::Seconds(1));
}

TEST(ClockTicks, AreNotInitializedAtAFrequencyOfZero)
{
    EXPECT_TRUE(slate::clock_ticks_to_duration(1, 0).is_not_initialized());
}
} // namespace
