// SPDX-License-Identifier: Apache-2.0
#include "slate/duration.h"

#include <chrono>
#include <limits>
#include <ostream>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace slate {
void PrintTo(const Duration& duration, std::ostream* out)
{
    *out << duration.to_string();
}
} // namespace slate

namespace {
using slate::Duration;
using slate::Microseconds;
using slate::Milliseconds;
using slate::Minutes;
using slate::Nanoseconds;
using slate::Seconds;

constexpr auto most = std::numeric_limits<std::int64_t>::max();
constexpr auto least = std::numeric_limits<std::int64_t>::min();

Duration nanoseconds(std::int64_t count)
{
    return Duration(std::chrono::nanoseconds(count));
}

const Duration uninitialized;
const Duration infinity = Duration::positive_infinity();
const Duration longest = nanoseconds(most);
const Duration shortest = nanoseconds(least);

/// Parses with a default that no row of the tables below has.
Duration read(std::string_view text)
{
    return Duration::from(text, Nanoseconds(-987654321));
}

bool is_refused(std::string_view text)
{
    return read(text) == Nanoseconds(-987654321) && Duration::from(text, infinity) == infinity;
}

TEST(Duration, IsNotInitializedAtFirst)
{
    EXPECT_TRUE(Duration().is_not_initialized());
    EXPECT_FALSE(Duration().is_negative());
    EXPECT_FALSE(Duration().is_positive_infinity());
    EXPECT_EQ(Duration().to_milliseconds(), 0);
    EXPECT_EQ(Duration().to_nanoseconds(), 0);
}

TEST(Duration, KnowsItsState)
{
    EXPECT_TRUE(Milliseconds(-1).is_negative());
    EXPECT_FALSE(Milliseconds(0).is_negative());
    EXPECT_FALSE(Milliseconds(0).is_not_initialized());
    EXPECT_FALSE(longest.is_positive_infinity());
    EXPECT_TRUE(shortest.is_negative());
    EXPECT_TRUE(infinity.is_positive_infinity());
    EXPECT_FALSE(infinity.is_negative());
    EXPECT_FALSE(infinity.is_not_initialized());
}

TEST(Duration, IsMadeFromWholeUnits)
{
    EXPECT_EQ(Nanoseconds(5).to_nanoseconds(), 5);
    EXPECT_EQ(Microseconds(5).to_nanoseconds(), 5'000);
    EXPECT_EQ(Milliseconds(-5).to_nanoseconds(), -5'000'000);
    EXPECT_EQ(Seconds(5).to_nanoseconds(), 5'000'000'000);
    EXPECT_EQ(Minutes(5).to_nanoseconds(), 300'000'000'000);
    EXPECT_EQ(Duration(std::chrono::seconds(2)), Seconds(2));
}

TEST(Duration, SaturatesInTheMaking)
{
    constexpr auto longest_count = std::numeric_limits<long>::max();
    constexpr auto least_count = std::numeric_limits<long>::min();

    for (const auto& made :
         {Microseconds(longest_count), Milliseconds(longest_count), Seconds(longest_count)})
        EXPECT_EQ(made, longest);
    for (const auto& made : {Microseconds(least_count), Milliseconds(least_count), Seconds(least_count)})
        EXPECT_EQ(made, shortest);
    EXPECT_EQ(Nanoseconds(longest_count), longest);
    EXPECT_EQ(Minutes(std::numeric_limits<int>::max()), longest);
    EXPECT_EQ(Minutes(std::numeric_limits<int>::min()), shortest);
}

TEST(Duration, CountsWholeUnitsRoundedTowardZero)
{
    EXPECT_EQ(Microseconds(1999).to_milliseconds(), 1);
    EXPECT_EQ(Microseconds(-1999).to_milliseconds(), -1);
    EXPECT_EQ(Nanoseconds(999'999).to_milliseconds(), 0);
    EXPECT_EQ(shortest.to_nanoseconds(), least);
    EXPECT_EQ(longest.to_milliseconds(), most / 1'000'000);
    EXPECT_EQ(infinity.to_milliseconds(), most);
    EXPECT_EQ(infinity.to_nanoseconds(), most);
}

TEST(Duration, OrdersUninitializedBeforeAllAndInfinityBehind)
{
    const std::vector<Duration> ascending{uninitialized,  shortest,        Nanoseconds(-1), Nanoseconds(0),
                                          Nanoseconds(1), Milliseconds(1), longest,         infinity};

    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j) {
            EXPECT_EQ(ascending[i] < ascending[j], i < j) << i << " and " << j;
            EXPECT_EQ(ascending[i] == ascending[j], i == j) << i << " and " << j;
        }
    }
}

struct Arithmetic {
    Duration a;
    Duration b;
    Duration sum;
    Duration difference;
};

TEST(Duration, AddsAndSubtracts)
{
    const std::vector<Arithmetic> rows{
        {Seconds(3), Milliseconds(500), Milliseconds(3500), Milliseconds(2500)},
        {Seconds(1), Seconds(2), Seconds(3), Seconds(-1)},
        {longest, Nanoseconds(1), longest, nanoseconds(most - 1)},
        {longest, shortest, Nanoseconds(-1), longest},
        {shortest, longest, Nanoseconds(-1), shortest},
        {shortest, Nanoseconds(1), nanoseconds(least + 1), shortest},
        {Nanoseconds(0), shortest, shortest, longest},
        {infinity, Seconds(1), infinity, infinity},
        {infinity, shortest, infinity, infinity},
        {Seconds(1), infinity, infinity, shortest},
        {infinity, infinity, infinity, uninitialized},
        {uninitialized, Seconds(1), uninitialized, uninitialized},
        {Seconds(1), uninitialized, uninitialized, uninitialized},
        {infinity, uninitialized, uninitialized, uninitialized},
        {uninitialized, infinity, uninitialized, uninitialized},
    };

    for (const auto& row : rows) {
        EXPECT_EQ(row.a + row.b, row.sum) << row.a.to_string() << " + " << row.b.to_string();
        EXPECT_EQ(row.a - row.b, row.difference) << row.a.to_string() << " - " << row.b.to_string();
    }
}

struct Text {
    Duration value;
    const char* text;
};

const std::vector<Text> texts{
    {Seconds(0), "0s"},
    {Minutes(15), "15min"},
    {Seconds(4), "4s"},
    {Milliseconds(3500), "3.5s"},
    {Milliseconds(250), "250ms"},
    {Microseconds(-1), "-1us"},
    {Nanoseconds(1), "1ns"},
    {Nanoseconds(999), "999ns"},
    {Nanoseconds(1001), "1.001us"},
    {Nanoseconds(1'000'001), "1.000001ms"},
    {Nanoseconds(1'000'000'001), "1.000000001s"},
    {Nanoseconds(-1'050'000'000), "-1.05s"},
    {Seconds(59), "59s"},
    {Seconds(60), "1min"},
    {Seconds(61), "61s"},
    {Milliseconds(60'500), "60.5s"},
    {Minutes(60), "1h"},
    {Minutes(-90), "-90min"},
    {Minutes(120), "2h"},
    {Minutes(24 * 60), "24h"},
    {longest, "9223372036.854775807s"},
    {shortest, "-9223372036.854775808s"},
    {infinity, "inf"},
    {uninitialized, "uninitialized"},
};

TEST(Duration, PrintsTheUnitThatSuitsIt)
{
    for (const auto& row : texts)
        EXPECT_EQ(row.value.to_string(), row.text);
}

TEST(Duration, ReadsBackWhatItPrints)
{
    for (const auto& row : texts)
        EXPECT_EQ(read(row.text), row.value) << row.text;

    std::mt19937_64 random(20240229);
    for (int i = 0; i < 20'000; ++i) {
        const auto value = nanoseconds(static_cast<std::int64_t>(random()) >> (random() % 64));
        ASSERT_EQ(read(value.to_string()), value) << value.to_string();
    }
}

TEST(Duration, ReadsEveryUnitAndSign)
{
    const std::vector<Text> rows{
        {Nanoseconds(7), "7ns"},
        {Microseconds(7), "7us"},
        {Milliseconds(7), "7ms"},
        {Seconds(7), "7s"},
        {Minutes(7), "7min"},
        {Minutes(7 * 60), "7h"},
        {Minutes(7 * 24 * 60), "7d"},
        {Seconds(4), "+4s"},
        {Milliseconds(-500), "-0.5s"},
        {Seconds(0), "-0s"},
        {Seconds(1), "0001s"},
        {Seconds(1), "1.000000000000000000000000000000s"},
        {Seconds(90), "1.5min"},
        {Minutes(36 * 60), "1.5d"},
        {Nanoseconds(1), "0.000000001s"},
        {Nanoseconds(1), "0.001us"},
        {Nanoseconds(1'318'359'375), "0.0000152587890625d"}, // 1 / 65536, the longest exact fraction
        {longest, "9223372036854775807ns"},
        {shortest, "-9223372036854775808ns"},
        {longest, "9223372036854775.807us"},
        {Minutes(106'751 * 24 * 60), "106751d"},
    };

    for (const auto& row : rows)
        EXPECT_EQ(read(row.text), row.value) << row.text;
}

TEST(Duration, RefusesWhatIsNoDuration)
{
    const std::vector<std::string> rows{
        "",
        " ",
        "s",
        "1",
        "1.5",
        "-",
        "+s",
        "-s",
        " 1s",
        "1s ",
        "1 s",
        "1\ts",
        "+ 1s",
        "--1s",
        "+-1s",
        "1..5s",
        "1.5.5s",
        ".5s",
        "5.s",
        "-.5s",
        "1,5s",
        "1e3s",
        "0x10s",
        "1S",
        "1sec",
        "1m",
        "1Min",
        "1mins",
        "1hour",
        "1w",
        "1y",
        "1ss",
        "1s1",
        "1s 1ms",
        "1min30s",
        "infinity",
        "-inf",
        "+inf",
        "Inf",
        "inf ",
        "nan",
        "Uninitialized",
        "-uninitialized",
        "s1",
        "\xd9\xa1s",
        "1\xc2\xb5s",
        std::string("1s\0", 3),
        std::string("1\0s", 3),
    };

    for (const auto& text : rows)
        EXPECT_TRUE(is_refused(text)) << text;
}

TEST(Duration, RefusesWhatHasNoExactValueInRange)
{
    const std::vector<std::string> rows{
        "0.5ns",
        "0.0001us",
        "1.0000000001s",
        "0.00000000000000000000000000000000000000000001s",
        "0.00000762939453125d1",
        "0.00000762939453125s",
        "9223372036854775808ns",
        "-9223372036854775809ns",
        "9223372036.854775808s",
        "-9223372036.854775809s",
        "106752d",
        "99999999999999999999s",
        "340282366920938463463374607431768211456ns",
        "340282366920938463463374607431768211457s",
        std::string(1000, '9') + "s",
        "1." + std::string(1000, '1') + "s",
    };

    for (const auto& text : rows)
        EXPECT_TRUE(is_refused(text)) << text;
}

struct Rounding {
    Duration value;
    unsigned char digits;
    const char* text;
};

TEST(Duration, RoundsToTheDecimalsAskedFor)
{
    const std::vector<Rounding> rows{
        {Microseconds(3'141'592), 2, "3.14s"},
        {Microseconds(3'141'592), 3, "3.142s"},
        {Microseconds(3'141'592), 6, "3.141592s"},
        {Microseconds(3'141'592), 255, "3.141592s"},
        {Milliseconds(3500), 1, "3.5s"},
        {Milliseconds(3500), 3, "3.5s"},
        {Microseconds(3'001'000), 2, "3s"},
        {Milliseconds(1050), 1, "1.1s"},
        {Milliseconds(-1050), 1, "-1.1s"},
        {Milliseconds(1049), 1, "1s"},
        {Microseconds(999'999), 2, "1s"},
        {Nanoseconds(-999'960), 1, "-1ms"},
        {Milliseconds(59'999), 1, "1min"},
        {Nanoseconds(999), 1, "999ns"},
        {Nanoseconds(1'234), 3, "1.234us"},
        {Minutes(15), 1, "15min"},
        {Seconds(0), 1, "0s"},
        {longest, 1, "9223372036.8s"}, // half away from zero would leave the range
        {longest, 2, "9223372036.85s"},
        {shortest, 1, "-9223372036.8s"},
        {infinity, 1, "inf"},
        {uninitialized, 1, "uninitialized"},
    };

    for (const auto& row : rows) {
        EXPECT_EQ(row.value.to_string(row.digits), row.text);
        EXPECT_FALSE(is_refused(row.text)) << row.text;
    }
}

TEST(Duration, PrintsNoMoreThanTheRoundedValueOnceRead)
{
    std::mt19937_64 random(42);
    for (int i = 0; i < 20'000; ++i) {
        const auto value = nanoseconds(static_cast<std::int64_t>(random()) >> (random() % 64));
        const auto digits = static_cast<unsigned char>(1 + random() % 9);
        const auto text = value.to_string(digits);
        ASSERT_EQ(read(text).to_string(digits), text);
        ASSERT_EQ(read(text).to_string(), text);
    }
}

TEST(StopWatch, ShowsNothingUntilItIsStarted)
{
    slate::StopWatch watch(false);
    EXPECT_EQ(watch.elapsed(), 0);

    watch.start();
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::microseconds(50)) {
    }

    EXPECT_GE(watch.elapsed(), 50);
}

TEST(StopWatch, MeasuresMicroseconds)
{
    const auto before = std::chrono::steady_clock::now();
    const slate::StopWatch watch(true);
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(2)) {
    }

    const auto elapsed = watch.elapsed();
    const auto whole = std::chrono::steady_clock::now() - before;

    EXPECT_GE(elapsed, 2000);
    EXPECT_LE(elapsed, std::chrono::duration_cast<std::chrono::microseconds>(whole).count());
}
} // namespace
