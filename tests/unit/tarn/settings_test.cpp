// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/settings.h"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "slate/dictionary.h"
#include "support/log_capture.h"

namespace {
using tarn_internal::count_setting;
using tarn_internal::duration_setting;

const slate::Duration dflt = slate::Minutes(15);

slate::Duration read(const std::string& text)
{
    const auto settings = slate::make_dictionary();
    settings->set("session_ttl", std::string_view(text));
    return duration_setting(*settings, "session_ttl", dflt);
}

TEST(ADurationSetting, IsReadWithItsUnit)
{
    const tarn_test::LogCapture log;
    EXPECT_EQ(read("90s"), slate::Seconds(90));
    EXPECT_EQ(read("0s"), slate::Seconds(0));
    EXPECT_EQ(read("-1s"), slate::Seconds(-1));
    EXPECT_EQ(read("250ms"), slate::Milliseconds(250));
    EXPECT_TRUE(log.lines().empty());
}

TEST(ADurationSetting, HasADefaultThatAppliesSilentlyIfItIsAbsent)
{
    const tarn_test::LogCapture log;
    EXPECT_EQ(duration_setting(*slate::make_dictionary(), "session_ttl", dflt), dflt);
    EXPECT_TRUE(log.lines().empty());
}

TEST(ADurationSetting, HasADefaultThatAppliesWithAnErrorInTheLogIfItIsNotADuration)
{
    for (const std::string text : {"a while", "s", "-"}) {
        const tarn_test::LogCapture log;
        EXPECT_EQ(read(text), dflt) << text;
        EXPECT_EQ(log.texts(slate::ErrorLevel),
                  std::vector<std::string>{"setting is not a duration: session_ttl = " + text});
    }
}

std::optional<int> read_count(const std::string& text)
{
    const auto settings = slate::make_dictionary();
    settings->set("high_water_mark", std::string_view(text));
    return count_setting(*settings, "high_water_mark");
}

TEST(ACountSetting, IsAPositiveNumberThatAnIntHolds)
{
    const tarn_test::LogCapture log;
    EXPECT_EQ(read_count("1"), 1);
    EXPECT_EQ(read_count("2147483647"), 2147483647);
    EXPECT_EQ(count_setting(*slate::make_dictionary(), "high_water_mark"), std::nullopt);
    EXPECT_TRUE(log.lines().empty());
}

TEST(ACountSetting, IsAbsentWithAnErrorInTheLogIfItIsAnythingElse)
{
    for (const std::string text : {"0", "-1", "2147483648", "99999999999999999999", "1.5", "many", ""}) {
        const tarn_test::LogCapture log;
        EXPECT_EQ(read_count(text), std::nullopt) << text;
        EXPECT_EQ(log.texts(slate::ErrorLevel),
                  std::vector<std::string>{"setting is not a number of messages: high_water_mark = " + text});
    }
}

std::optional<std::filesystem::perms> read_mode(const std::string& text)
{
    const auto settings = slate::make_dictionary();
    settings->set("socket_mode", std::string_view(text));
    return tarn_internal::mode_setting(*settings, "socket_mode");
}

TEST(AModeSetting, IsThreeOctalDigits)
{
    const tarn_test::LogCapture log;
    EXPECT_EQ(read_mode("770"), static_cast<std::filesystem::perms>(0770));
    EXPECT_EQ(read_mode("0707"), static_cast<std::filesystem::perms>(0707));
    EXPECT_EQ(read_mode("000"), std::filesystem::perms::none);
    EXPECT_EQ(tarn_internal::mode_setting(*slate::make_dictionary(), "socket_mode"), std::nullopt);
    EXPECT_TRUE(log.lines().empty());
}

TEST(AModeSetting, IsAbsentWithAnErrorInTheLogIfItIsAnythingElse)
{
    for (const std::string text : {"", "77", "1777", "07700", "788", "rwx", "-770"}) {
        const tarn_test::LogCapture log;
        EXPECT_EQ(read_mode(text), std::nullopt) << text;
        EXPECT_EQ(log.texts(slate::ErrorLevel),
                  std::vector<std::string>{"setting is not a mode, such as 0770: socket_mode = " + text});
    }
}
} // namespace
