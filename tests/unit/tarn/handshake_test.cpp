// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/handshake.h"

#include <limits>

#include <gtest/gtest.h>

#include "slate/duration.h"

namespace {
using tarn_internal::handshake_delays;
using Delays = std::vector<std::uint32_t>;

TEST(HandshakeDelays, DoubleUpToHalfTheTime)
{
    EXPECT_EQ(handshake_delays(slate::Seconds(4)), (Delays{0, 3, 7, 15, 31, 62, 125, 250, 500, 1000, 2000}));
    EXPECT_EQ(handshake_delays(slate::Milliseconds(1)), Delays(11, 0));
}

TEST(HandshakeDelays, TakeANegativeTimeForNone)
{
    for (const auto time : {slate::Milliseconds(-1), slate::Seconds(-4), slate::Seconds(-1e9)})
        EXPECT_EQ(handshake_delays(time), Delays(11, 0));
}

TEST(HandshakeDelays, TakeInfinityForTheLongestTimeOf32Bits)
{
    const Delays longest = handshake_delays(slate::Duration::positive_infinity());
    EXPECT_EQ(longest.size(), 11u);
    EXPECT_EQ(longest.front(), 0u);
    EXPECT_EQ(longest.back(), std::numeric_limits<std::uint32_t>::max() / 2);
    EXPECT_EQ(handshake_delays(slate::Milliseconds(std::int64_t{1} << 40)), longest);
}

TEST(TheElevenAttempts, AllHaveTheWholeTimeForTheirAnswer)
{
    tarn_internal::ElevenAttempts schedule(slate::Seconds(4));
    for (const std::uint32_t delay : handshake_delays(slate::Seconds(4))) {
        const auto attempt = schedule.next();
        ASSERT_TRUE(attempt);
        EXPECT_EQ(attempt->pause, slate::Milliseconds(delay));
        EXPECT_EQ(attempt->patience, slate::Seconds(4));
    }
    EXPECT_FALSE(schedule.next());
}

TEST(AttemptsWithinATime, TakeNoMoreThanThatTogether)
{
    const auto time = slate::Milliseconds(100);
    const slate::StopWatch watch(true);
    tarn_internal::AttemptsWithin schedule(time);
    int count = 0;
    slate::Duration last_pause = slate::Milliseconds(-1);
    while (const auto attempt = schedule.next()) {
        ++count;
        EXPECT_LE(slate::Microseconds(watch.elapsed()) + attempt->pause + attempt->patience,
                  time + slate::Milliseconds(50)); // what this thread itself takes
        EXPECT_GE(attempt->pause, last_pause);
        last_pause = attempt->pause;
    }
    EXPECT_GE(count, 2);
    EXPECT_GE(watch.elapsed(), 0);
}

TEST(AttemptsWithinATime, AreOneIfThereIsNone)
{
    for (const slate::Duration time :
         {slate::Duration(slate::Seconds(0)), slate::Duration(slate::Seconds(-4))}) {
        tarn_internal::AttemptsWithin schedule(time);
        const auto attempt = schedule.next();
        ASSERT_TRUE(attempt);
        EXPECT_EQ(attempt->patience, slate::Seconds(0));
        EXPECT_FALSE(schedule.next());
    }
}

TEST(AttemptsWithinATime, GoOnForEverIfThatIsTheTime)
{
    tarn_internal::AttemptsWithin schedule(slate::Duration::positive_infinity());
    for (int i = 0; i < 100; ++i) {
        const auto attempt = schedule.next();
        ASSERT_TRUE(attempt);
        EXPECT_LE(attempt->pause, slate::Milliseconds(250));
        EXPECT_FALSE(attempt->patience.is_positive_infinity());
    }
}
} // namespace
