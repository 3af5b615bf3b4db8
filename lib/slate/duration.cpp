// SPDX-License-Identifier: Apache-2.0
#include "slate/duration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numeric>

#include "slate/strings.h"

namespace slate {
namespace {
// Wide enough for every product below, so that a single check of the range at the end is enough.
__extension__ typedef __int128 Wide;

constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();

struct Unit {
    std::string_view name;
    std::int64_t nanoseconds;
};

constexpr Unit day{"d", 86'400'000'000'000};
constexpr Unit hour{"h", 3'600'000'000'000};
constexpr Unit minute{"min", 60'000'000'000};
constexpr Unit second{"s", 1'000'000'000};
constexpr Unit millisecond{"ms", 1'000'000};
constexpr Unit microsecond{"us", 1'000};
constexpr Unit nanosecond{"ns", 1};

constexpr std::array units{day, hour, minute, second, millisecond, microsecond, nanosecond};

constexpr std::string_view infinity_text = "inf";
constexpr std::string_view uninitialized_text = "uninitialized";

// A fraction of a day with more decimals, not counting trailing zeros, is no whole number of nanoseconds.
constexpr int max_decimals = 16;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

std::int64_t saturate(Wide nanoseconds)
{
    return static_cast<std::int64_t>(std::clamp(nanoseconds, Wide{least}, Wide{most}));
}

Duration make_saturated(Wide nanoseconds)
{
    return std::chrono::nanoseconds(saturate(nanoseconds));
}

/// The nearest whole number; halves go away from zero.
Wide divide_rounded(Wide dividend, Wide divisor)
{
    const Wide half = divisor / 2;
    return (dividend < 0 ? dividend - half : dividend + half) / divisor;
}

/// The nanoseconds in `ticks` ticks of numerator / denominator seconds each, saturated.
std::int64_t ticks_to_nanoseconds(Wide ticks, std::intmax_t numerator, std::intmax_t denominator)
{
    // Whole seconds and the rest apart, as their sum in nanoseconds may need more than 128 bits.
    constexpr Wide beyond_range = Wide{most} / second.nanoseconds + 1;
    const Wide product = ticks * numerator;
    const Wide seconds = std::clamp(product / denominator, -beyond_range, beyond_range);
    const Wide rest = divide_rounded(product % denominator * second.nanoseconds, denominator);
    return saturate(seconds * second.nanoseconds + rest);
}

Unit unit_for(Wide magnitude)
{
    if (magnitude == 0)
        return second;
    for (const Unit& unit : {hour, minute}) {
        if (magnitude % unit.nanoseconds == 0)
            return unit;
    }
    for (const Unit& unit : {second, millisecond, microsecond}) {
        if (magnitude >= unit.nanoseconds)
            return unit;
    }
    return nanosecond;
}

/// Rounds to `digits` decimals of the value's unit: halves away from zero, or toward zero if `limit` is
/// exceeded.
Wide round_magnitude(Wide magnitude, Wide limit, unsigned int digits)
{
    Wide quantum = unit_for(magnitude).nanoseconds;
    for (; digits > 0 && quantum > 1; --digits)
        quantum /= 10;
    if (quantum <= 1 || magnitude % quantum == 0)
        return magnitude;

    const Wide rounded = (magnitude + quantum / 2) / quantum * quantum;
    return rounded <= limit ? rounded : rounded - quantum;
}

/// The decimals of the fraction rest / whole, without trailing zeros. `rest` is less than `whole`.
std::string decimals(std::int64_t rest, std::int64_t whole)
{
    std::string result;
    for (; rest != 0; rest %= whole) {
        whole /= 10;
        result += static_cast<char>('0' + rest / whole);
    }
    return result;
}

/// Removes the digits at the beginning of `text` and returns them.
std::string_view take_digits(std::string_view& text)
{
    const auto end = std::find_if_not(text.begin(), text.end(), is_digit);
    const auto digits = text.substr(0, static_cast<std::size_t>(end - text.begin()));
    text.remove_prefix(digits.size());
    return digits;
}

/// The number that the digits stand for, unless it is too large for any duration.
std::optional<Wide> number_from(std::string_view digits)
{
    Wide number = 0;
    for (const char digit : digits) {
        number = number * 10 + (digit - '0');
        if (number > -Wide{least})
            return std::nullopt;
    }
    return number;
}

/// The nanoseconds in a decimal fraction of a unit, if that is a whole number of them.
std::optional<Wide> fraction_from(std::string_view digits, const Unit& unit)
{
    while (!digits.empty() && digits.back() == '0')
        digits.remove_suffix(1);
    if (digits.size() > max_decimals)
        return std::nullopt;

    Wide scale = 1;
    for (std::size_t i = 0; i < digits.size(); ++i)
        scale *= 10;
    const Wide product = *number_from(digits) * unit.nanoseconds;
    if (product % scale != 0)
        return std::nullopt;
    return product / scale;
}

/// The nanoseconds that a text such as "-3.5s" stands for.
std::optional<Wide> nanoseconds_from(std::string_view text)
{
    const bool negative = starts_with(text, "-");
    if (negative || starts_with(text, "+"))
        text.remove_prefix(1);

    const auto whole_digits = take_digits(text);
    if (whole_digits.empty())
        return std::nullopt;

    std::string_view fraction_digits;
    if (starts_with(text, ".")) {
        text.remove_prefix(1);
        fraction_digits = take_digits(text);
        if (fraction_digits.empty())
            return std::nullopt;
    }

    const auto unit = std::find_if(units.begin(), units.end(), [&](const Unit& u) { return u.name == text; });
    if (unit == units.end())
        return std::nullopt;

    const auto whole = number_from(whole_digits);
    const auto fraction = fraction_from(fraction_digits, *unit);
    if (!whole || !fraction)
        return std::nullopt;

    const Wide magnitude = *whole * unit->nanoseconds + *fraction;
    return negative ? -magnitude : magnitude;
}
} // namespace

Duration Duration::positive_infinity()
{
    Duration result;
    result.state_ = State::PositiveInfinity;
    return result;
}

std::int64_t Duration::to_milliseconds() const
{
    return is_positive_infinity() ? most : nanoseconds_ / 1'000'000;
}

std::int64_t Duration::to_nanoseconds() const
{
    return is_positive_infinity() ? most : nanoseconds_;
}

std::string Duration::to_string(unsigned char digits) const
{
    if (is_not_initialized())
        return std::string(uninitialized_text);
    if (is_positive_infinity())
        return std::string(infinity_text);

    Wide magnitude = nanoseconds_ < 0 ? -Wide{nanoseconds_} : Wide{nanoseconds_};
    if (digits != 0)
        magnitude = round_magnitude(magnitude, nanoseconds_ < 0 ? -Wide{least} : Wide{most}, digits);

    // Rounding may have reached the next unit.
    const Unit unit = unit_for(magnitude);
    const auto whole = static_cast<std::uint64_t>(magnitude / unit.nanoseconds);
    const auto rest = static_cast<std::int64_t>(magnitude % unit.nanoseconds);

    std::string text = nanoseconds_ < 0 ? "-" : "";
    text += std::to_string(whole);
    if (rest != 0)
        text += "." + decimals(rest, unit.nanoseconds);
    text += unit.name;
    return text;
}

std::optional<Duration> Duration::parse(std::string_view text)
{
    if (text == infinity_text)
        return positive_infinity();
    if (text == uninitialized_text)
        return Duration();

    const auto nanoseconds = nanoseconds_from(text);
    if (!nanoseconds || *nanoseconds != saturate(*nanoseconds))
        return std::nullopt;
    return make_saturated(*nanoseconds);
}

Duration Duration::from(std::string_view text, const Duration& dflt)
{
    return parse(text).value_or(dflt);
}

Duration Duration::from_ticks(std::int64_t count, std::intmax_t numerator, std::intmax_t denominator)
{
    Duration result;
    result.state_ = State::Finite;
    result.nanoseconds_ = ticks_to_nanoseconds(count, numerator, denominator);
    return result;
}

Duration Duration::from_ticks(std::uint64_t count, std::intmax_t numerator, std::intmax_t denominator)
{
    return make_saturated(ticks_to_nanoseconds(count, numerator, denominator));
}

Duration Duration::from_ticks(long double count, std::intmax_t numerator, std::intmax_t denominator)
{
    if (std::isnan(count))
        return {};
    if (std::isinf(count) && count > 0)
        return positive_infinity();

    // Powers of ten are reduced first: 1000 is exact as a floating-point number, but 1 / 1000 isn't.
    const std::intmax_t common = std::gcd(denominator, std::intmax_t{second.nanoseconds});
    const std::intmax_t multiplier = second.nanoseconds / common;
    const std::intmax_t divisor = denominator / common;
    const auto factor = static_cast<long double>(numerator) * static_cast<long double>(multiplier);
    const long double nanoseconds = std::round(count * factor / static_cast<long double>(divisor));

    constexpr auto end = -static_cast<long double>(least); // one beyond the range, and exact in any format
    if (nanoseconds >= end)
        return make_saturated(most);
    if (nanoseconds < -end)
        return make_saturated(least);
    return make_saturated(static_cast<std::int64_t>(nanoseconds));
}

Duration& Duration::operator+=(const Duration& other)
{
    if (is_not_initialized() || other.is_not_initialized())
        *this = Duration();
    else if (is_positive_infinity() || other.is_positive_infinity())
        *this = positive_infinity();
    else
        nanoseconds_ = saturate(Wide{nanoseconds_} + other.nanoseconds_);
    return *this;
}

Duration& Duration::operator-=(const Duration& other)
{
    if (is_not_initialized() || other.is_not_initialized() ||
        (is_positive_infinity() && other.is_positive_infinity()))
        *this = Duration();
    else if (other.is_positive_infinity())
        nanoseconds_ = least; // there is no negative infinity
    else if (!is_positive_infinity())
        nanoseconds_ = saturate(Wide{nanoseconds_} - other.nanoseconds_);
    return *this;
}

Duration Nanoseconds(long count)
{
    return make_saturated(count);
}

Duration Microseconds(long count)
{
    return make_saturated(Wide{count} * 1'000);
}

Duration Milliseconds(long count)
{
    return make_saturated(Wide{count} * 1'000'000);
}

Duration Seconds(long count)
{
    return make_saturated(Wide{count} * second.nanoseconds);
}

Duration Minutes(int count)
{
    return make_saturated(Wide{count} * minute.nanoseconds);
}

StopWatch::StopWatch(bool running) : running_(running)
{
    if (running)
        start();
}

void StopWatch::start()
{
    running_ = true;
    start_ = std::chrono::steady_clock::now();
}

std::int64_t StopWatch::elapsed() const
{
    if (!running_)
        return 0;
    const auto time = std::chrono::steady_clock::now() - start_;
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}
} // namespace slate
