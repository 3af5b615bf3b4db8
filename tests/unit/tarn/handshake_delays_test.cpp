// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/handshake_delays.h"

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
} // namespace
