// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/defaults.h"

#include <gtest/gtest.h>

#include "slate/duration.h"

namespace {
TEST(Defaults, KeepAChunkedTransferForFifteenMinutes)
{
    EXPECT_EQ(tarn::default_session_ttl(), slate::Minutes(15));
}

TEST(Defaults, WaitFourSecondsForAReply)
{
    EXPECT_EQ(tarn::default_timeout(), slate::Seconds(4));
}

TEST(Defaults, WaitTwiceMoreAfterTheFirstWait)
{
    EXPECT_EQ(tarn::default_retries(), 2U);
}

TEST(Defaults, NameTheSettingOfTheRequestEndpoint)
{
    EXPECT_EQ(tarn::relay_url(), "relay_url");
}

TEST(Defaults, NameTheSettingOfTheEndpointWhereChangesComeOut)
{
    EXPECT_EQ(tarn::relay_pub(), "relay_pub");
}

TEST(Defaults, NameTheSettingOfTheEndpointWhereChangesGoIn)
{
    EXPECT_EQ(tarn::relay_sub(), "relay_sub");
}

TEST(Defaults, NameTheSettingOfTheLifeOfAChunkedTransfer)
{
    EXPECT_EQ(tarn::session_ttl(), "session_ttl");
}
} // namespace
