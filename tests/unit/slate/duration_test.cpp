// SPDX-License-Identifier: Apache-2.0
#include "slate/duration.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <random>
#include <ratio>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "comma_locale.h"

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

/// Reads a text, with a default that is in none of the tables below.
Duration read(std::string_view text)
{
    return Duration::from(text, Nanoseconds(-987654321));
}

bool is_refused(std::string_view text)
{
    return !Duration::parse(text) && read(text) == Nanoseconds(-987654321) &&
           Duration::from(text, infinity) == infinity;
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
}

TEST(Duration, SaturatesWhenItIsMade)
{
    constexpr auto longest_count = most;
    constexpr auto least_count = least;

    // The functions for a long saturate where it has 64 bits, and else the templates for larger integers do.
    for (const auto& made :
         {Microseconds(longest_count), Milliseconds(longest_count), Seconds(longest_count)})
        EXPECT_EQ(made, longest);
    for (const auto& made : {Microseconds(least_count), Milliseconds(least_count), Seconds(least_count)})
        EXPECT_EQ(made, shortest);
    EXPECT_EQ(Nanoseconds(longest_count), longest);
    EXPECT_EQ(Nanoseconds(least_count), shortest);
    EXPECT_EQ(Minutes(std::numeric_limits<int>::max()), longest);
    EXPECT_EQ(Minutes(std::numeric_limits<int>::min()), shortest);
}

TEST(Duration, IsMadeFromFractionsOfUnits)
{
    EXPECT_EQ(Seconds(0.5), Milliseconds(500));
    EXPECT_EQ(Seconds(-0.25f), Milliseconds(-250));
    EXPECT_EQ(Seconds(1e-3L), Milliseconds(1));
    EXPECT_EQ(Seconds(0.1), Milliseconds(100)); // though no binary fraction is 0.1
    EXPECT_EQ(Milliseconds(2.5), Microseconds(2500));
    EXPECT_EQ(Microseconds(0.125), Nanoseconds(125));
    EXPECT_EQ(Minutes(1.5), Seconds(90));
    EXPECT_EQ(Minutes(0.1f), Nanoseconds(6'000'000'089)); // the float is slightly more than 0.1
}

TEST(Duration, RoundsFractionsToTheNearestNanosecond)
{
    EXPECT_EQ(Nanoseconds(0.49), Nanoseconds(0));
    EXPECT_EQ(Nanoseconds(0.5), Nanoseconds(1));
    EXPECT_EQ(Nanoseconds(2.5), Nanoseconds(3));
    EXPECT_EQ(Nanoseconds(-0.49), Nanoseconds(0));
    EXPECT_EQ(Nanoseconds(-0.5), Nanoseconds(-1));
    EXPECT_EQ(Nanoseconds(-2.5), Nanoseconds(-3));
    EXPECT_EQ(Microseconds(0.0625), Nanoseconds(63)); // 62.5 ns
    EXPECT_EQ(Seconds(1e-10), Nanoseconds(0));
}

TEST(Duration, SaturatesWhenItIsMadeFromFractions)
{
    for (const auto& made :
         {Nanoseconds(9223372036854775808.0), Nanoseconds(1e300), Microseconds(1e16), Milliseconds(1e300),
          Seconds(std::numeric_limits<float>::max()), Seconds(std::numeric_limits<double>::max()),
          Minutes(std::numeric_limits<long double>::max())})
        EXPECT_EQ(made, longest);
    for (const auto& made : {Nanoseconds(-9223372036854775808.0), Nanoseconds(-1e300), Microseconds(-1e16),
                             Seconds(std::numeric_limits<double>::lowest()),
                             Minutes(std::numeric_limits<long double>::lowest())})
        EXPECT_EQ(made, shortest);
    EXPECT_EQ(Nanoseconds(9223372036854774784.0),
              nanoseconds(9223372036854774784)); // the last double in range
}

template <class T>
class FloatingPointCount : public testing::Test {
};
using FloatingPoints = testing::Types<float, double, long double>;
TYPED_TEST_SUITE(FloatingPointCount, FloatingPoints);

TYPED_TEST(FloatingPointCount, BecomesAnInfiniteOrUninitializedDurationIfItIsNotFinite)
{
    constexpr auto infinite = std::numeric_limits<TypeParam>::infinity();
    constexpr auto nan = std::numeric_limits<TypeParam>::quiet_NaN();

    EXPECT_EQ(Seconds(infinite), infinity);
    EXPECT_EQ(Nanoseconds(infinite), infinity);
    EXPECT_EQ(Seconds(-infinite), shortest); // there is no negative infinity
    EXPECT_EQ(Seconds(nan), uninitialized);
    EXPECT_EQ(Seconds(-nan), uninitialized);
    EXPECT_EQ(Duration(std::chrono::duration<TypeParam, std::ratio<3600>>(infinite)), infinity);
    EXPECT_EQ(Duration(std::chrono::duration<TypeParam, std::pico>(nan)), uninitialized);
}

TEST(Duration, IsMadeFromIntegersOfAnyType)
{
    constexpr auto beyond_int = std::int64_t{1} << 32;

    EXPECT_EQ(Minutes(beyond_int + 5), longest);
    EXPECT_EQ(Minutes(-beyond_int - 5), shortest);
    EXPECT_EQ(Minutes(90L), Seconds(5400));
    EXPECT_EQ(Minutes(3'000'000'000u), longest);
    EXPECT_EQ(Minutes(90u), Seconds(5400));
    EXPECT_EQ(Seconds(std::numeric_limits<unsigned long long>::max()), longest);
    EXPECT_EQ(Nanoseconds(std::numeric_limits<std::uint64_t>::max()), longest);
    EXPECT_EQ(Milliseconds(5ull), Milliseconds(5));
}

// Integers that fit still go to the functions without a template, and nothing but numbers is a count.
static_assert(!slate::TickCountBeyond<bool, long>);
static_assert(!slate::TickCountBeyond<short, int>);
static_assert(!slate::TickCountBeyond<int, int>);
static_assert(slate::TickCountBeyond<unsigned int, int>);
static_assert(!slate::TickCountBeyond<long, long>);
static_assert(!slate::TickCountBeyond<unsigned int, std::int64_t>);
static_assert(slate::TickCountBeyond<std::uint64_t, long>);
static_assert(slate::TickCountBeyond<float, long>);
static_assert(!slate::TickCountBeyond<std::chrono::seconds, long>);

TEST(Duration, IsMadeFromDurationsOfTheStandardLibrary)
{
    using namespace std::chrono_literals;

    EXPECT_EQ(Duration(5ns), Nanoseconds(5));
    EXPECT_EQ(Duration(-5us), Microseconds(-5));
    EXPECT_EQ(Duration(5ms), Milliseconds(5));
    EXPECT_EQ(Duration(5s), Seconds(5));
    EXPECT_EQ(Duration(5min), Minutes(5));
    EXPECT_EQ(Duration(5h), Minutes(300));
    EXPECT_EQ(Duration(std::chrono::days(-2)), Minutes(-2 * 24 * 60));
    EXPECT_EQ(Duration(1.5min), Seconds(90));
    EXPECT_EQ(Duration(std::chrono::duration<float>(0.5f)), Milliseconds(500));
    EXPECT_EQ(Duration(std::chrono::duration<std::int8_t, std::deci>(-7)), Milliseconds(-700));
    EXPECT_EQ(Duration(std::chrono::duration<unsigned char, std::ratio<7, 2>>(200)), Seconds(700));
}

TEST(Duration, RoundsFinerTicksToTheNearestNanosecond)
{
    using Picoseconds = std::chrono::duration<std::int64_t, std::pico>;
    using Thirds = std::chrono::duration<int, std::ratio<1, 3>>;
    using Attoseconds = std::chrono::duration<std::uint64_t, std::atto>;

    EXPECT_EQ(Duration(Picoseconds(1499)), Nanoseconds(1));
    EXPECT_EQ(Duration(Picoseconds(1500)), Nanoseconds(2));
    EXPECT_EQ(Duration(Picoseconds(-1499)), Nanoseconds(-1));
    EXPECT_EQ(Duration(Picoseconds(-1500)), Nanoseconds(-2));
    EXPECT_EQ(Duration(Thirds(1)), Nanoseconds(333'333'333));
    EXPECT_EQ(Duration(Thirds(2)), Nanoseconds(666'666'667));
    EXPECT_EQ(Duration(Thirds(-5)), Nanoseconds(-1'666'666'667));
    EXPECT_EQ(Duration(Attoseconds(std::numeric_limits<std::uint64_t>::max())), Nanoseconds(18'446'744'074));
    EXPECT_EQ(Duration(std::chrono::duration<double, std::pico>(1500)), Nanoseconds(2));
    EXPECT_EQ(Duration(std::chrono::duration<double, std::ratio<1, 3>>(2)), Nanoseconds(666'666'667));
}

TEST(Duration, SaturatesWithDurationsOfTheStandardLibrary)
{
    using Exaseconds = std::chrono::duration<std::int64_t, std::exa>;
    using Odd = std::chrono::duration<std::uint64_t, std::ratio<INTMAX_MAX, INTMAX_MAX - 1>>;
    using FractionsOfExaseconds = std::chrono::duration<double, std::exa>;
    constexpr auto whole_seconds = most / 1'000'000'000;

    EXPECT_EQ(Duration(std::chrono::nanoseconds::max()), longest);
    EXPECT_EQ(Duration(std::chrono::nanoseconds::min()), shortest);
    EXPECT_EQ(Duration(std::chrono::hours::max()), longest);
    EXPECT_EQ(Duration(std::chrono::hours::min()), shortest);
    EXPECT_EQ(Duration(Exaseconds(most)), longest);
    EXPECT_EQ(Duration(Exaseconds(least)), shortest);
    EXPECT_EQ(Duration(Exaseconds(0)), Seconds(0));
    // In nanoseconds these would overflow even 128 bits, and change their sign.
    EXPECT_EQ(Duration(Exaseconds(200'000'000'000)), longest);
    EXPECT_EQ(Duration(Exaseconds(-200'000'000'000)), shortest);
    EXPECT_EQ(Duration(Odd(std::numeric_limits<std::uint64_t>::max())), longest);
    EXPECT_EQ(Duration(Odd(1)), Seconds(1));
    EXPECT_EQ(Duration(std::chrono::duration<std::uint64_t, std::nano>(most)), longest);
    EXPECT_EQ(Duration(std::chrono::duration<std::uint64_t, std::nano>(most - 1)), nanoseconds(most - 1));
    EXPECT_EQ(Duration(std::chrono::duration<std::uint64_t, std::nano>(std::uint64_t{most} + 1)), longest);
    EXPECT_EQ(Duration(std::chrono::seconds(whole_seconds)), Seconds(whole_seconds));
    EXPECT_EQ(Duration(std::chrono::seconds(whole_seconds + 1)), longest);
    EXPECT_EQ(Duration(std::chrono::seconds(-whole_seconds - 1)), shortest);
    EXPECT_EQ(Duration(FractionsOfExaseconds(1e-18)), Seconds(1));
    EXPECT_EQ(Duration(FractionsOfExaseconds(1)), longest);
    EXPECT_EQ(Duration(FractionsOfExaseconds(-1)), shortest);
}

// Durations of the standard library convert implicitly, and nothing else does.
static_assert(std::is_convertible_v<std::chrono::nanoseconds, Duration>);
static_assert(std::is_convertible_v<std::chrono::hours, Duration>);
static_assert(std::is_convertible_v<const std::chrono::duration<float>&, Duration>);
static_assert(!std::is_constructible_v<Duration, int>);
static_assert(!std::is_constructible_v<Duration, double>);
static_assert(!std::is_constructible_v<Duration, std::string_view>);
static_assert(!std::is_constructible_v<Duration, std::chrono::steady_clock::time_point>);
static_assert(!std::is_convertible_v<Duration, std::chrono::nanoseconds>);
static_assert(std::is_trivially_copyable_v<Duration>);

/// Declared only: the result tells which overload a call takes.
struct Overloads {
    static Duration take(const Duration&);
    static double take(double);
    static std::string_view take(std::string_view);

    static Duration take_seconds(const Duration&);
    static std::chrono::seconds take_seconds(std::chrono::seconds);
};

static_assert(std::is_same_v<decltype(Overloads::take(std::chrono::milliseconds(1))), Duration>);
static_assert(std::is_same_v<decltype(Overloads::take(1)), double>);
static_assert(std::is_same_v<decltype(Overloads::take("1s")), std::string_view>);
static_assert(
    std::is_same_v<decltype(Overloads::take_seconds(std::chrono::seconds(1))), std::chrono::seconds>);
static_assert(std::is_same_v<decltype(Overloads::take_seconds(Duration())), Duration>);

TEST(Duration, MixesWithDurationsOfTheStandardLibrary)
{
    using namespace std::chrono_literals;

    Duration timeout = 250ms;
    timeout += 1s;
    timeout -= 50ms;

    EXPECT_EQ(timeout, Milliseconds(1200));
    EXPECT_EQ(timeout, 1200ms);
    EXPECT_EQ(1200ms, timeout);
    EXPECT_LT(timeout, 2s);
    EXPECT_LT(1s, timeout);
    EXPECT_EQ(timeout + 1min, Milliseconds(61'200));
    EXPECT_EQ(1min - timeout, Milliseconds(58'800));
    EXPECT_EQ(Duration::from("no duration", 4s), Seconds(4));
    EXPECT_EQ(Duration::from("5s", Duration()), Seconds(5));
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

TEST(Duration, OrdersUninitializedFirstAndInfinityLast)
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

TEST(Duration, PrintsItselfInTheUnitThatSuitsIt)
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

TEST(Duration, ParsesTextOrReturnsNothing)
{
    EXPECT_EQ(Duration::parse("250ms"), Milliseconds(250));
    EXPECT_EQ(Duration::parse("inf"), infinity);
    EXPECT_EQ(Duration::parse("-9223372036854775808ns"), shortest);
    EXPECT_EQ(Duration::parse("9223372036854775808ns"), std::nullopt);
    EXPECT_EQ(Duration::parse("1"), std::nullopt);
    EXPECT_EQ(Duration::parse(""), std::nullopt);

    const auto parsed = Duration::parse("uninitialized"); // a valid text, as to_string() writes it
    ASSERT_TRUE(parsed.has_value());
    EXPECT_TRUE(parsed->is_not_initialized());
    EXPECT_TRUE(Duration::from("uninitialized", Seconds(1)).is_not_initialized());
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

TEST(Duration, RefusesTextThatIsNoDuration)
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

TEST(Duration, RefusesTextWithoutAnExactValueInRange)
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
        {longest, 1, "9223372036.8s"}, // rounded up, it would exceed the range
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

TEST(Duration, PrintsTheSameAgainOnceItsRoundedTextIsRead)
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

TEST(Duration, DoesntDependOnTheLocale)
{
    const CommaLocale locale;
    if (!locale.is_set())
        GTEST_SKIP() << "localedef makes no locale here";

    EXPECT_EQ(Milliseconds(1'234'500).to_string(), "1234.5s");
    EXPECT_EQ(Duration::parse("1234.5s"), Milliseconds(1'234'500));
    EXPECT_EQ(Duration::parse("1234,5s"), std::nullopt);
    EXPECT_EQ(Duration::parse("1.234,5s"), std::nullopt);
}

TEST(StopWatch, ShowsZeroUntilItIsStarted)
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
