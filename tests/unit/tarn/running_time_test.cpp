// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/running_time.h"

#include <limits>
#include <memory>

#include <gtest/gtest.h>

namespace {
using slate::Milliseconds;
using slate::Seconds;

constexpr auto greatest = std::numeric_limits<unsigned long>::max();

/// Its ticks begin at 0 again after 16 seconds.
struct SetClock : slate::Clock {
    unsigned long ticks() const override { return ticks_; }
    unsigned long frequency() const override { return greatest / 16 + 1; }
    unsigned long ticks_ = 0;
};

class RunningTime : public testing::Test {
protected:
    slate::Duration at(unsigned long ticks)
    {
        clock->ticks_ = ticks;
        return time.now();
    }

    std::shared_ptr<SetClock> clock = std::make_shared<SetClock>();
    tarn_internal::RunningTime time{clock};
    const unsigned long per_second = clock->frequency();
};

TEST_F(RunningTime, IsThatOfTheClock)
{
    EXPECT_EQ(at(0), Seconds(0));
    EXPECT_EQ(at(per_second / 4), Milliseconds(250));
    EXPECT_EQ(at(per_second * 15), Seconds(15));
}

TEST_F(RunningTime, GoesOnWhereTheTicksBeginAgain)
{
    EXPECT_EQ(at(per_second * 15), Seconds(15));
    EXPECT_NEAR(static_cast<double>((at(0) - Seconds(16)).to_nanoseconds()), 0, 5); // as a tick isn't whole
    EXPECT_NEAR(static_cast<double>((at(per_second * 15) - Seconds(31)).to_nanoseconds()), 0, 5);
    EXPECT_NEAR(static_cast<double>((at(per_second) - Seconds(33)).to_nanoseconds()), 0, 5);
}
} // namespace
