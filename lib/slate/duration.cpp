// SPDX-License-Identifier: Apache-2.0
#include "slate/duration.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numeric>

#include "slate/multiply_divide.h"
#include "slate/strings.h"

namespace slate {
namespace {
constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min();
constexpr std::uint64_t least_magnitude = std::uint64_t{most} + 1;

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

std::uint64_t magnitude_of(std::int64_t number)
{
    return number < 0 ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
}

/// The greatest magnitude that a number of this sign may have.
constexpr std::uint64_t greatest_magnitude(bool negative)
{
    return negative ? least_magnitude : std::uint64_t{most};
}

/// The number of this sign and magnitude, which is not beyond greatest_magnitude().
std::int64_t with_sign(bool negative, std::uint64_t magnitude)
{
    return static_cast<std::int64_t>(negative ? 0 - magnitude : magnitude);
}

std::int64_t end_of_range(bool negative)
{
    return negative ? least : most;
}

std::int64_t add_saturated(std::int64_t a, std::int64_t b)
{
    std::int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? end_of_range(b < 0) : sum;
}

std::int64_t subtract_saturated(std::int64_t a, std::int64_t b)
{
    std::int64_t difference = 0;
    return __builtin_sub_overflow(a, b, &difference) ? end_of_range(b >= 0) : difference;
}

/// `factor` is not negative.
std::int64_t multiply_saturated(std::int64_t number, std::int64_t factor)
{
    std::int64_t product = 0;
    return __builtin_mul_overflow(number, factor, &product) ? end_of_range(number < 0) : product;
}

/// The nanoseconds in `ticks` ticks of numerator / denominator seconds each, rounded and saturated.
std::int64_t ticks_to_nanoseconds(bool negative, std::uint64_t ticks, std::uint64_t numerator,
                                  std::uint64_t denominator)
{
    constexpr auto per_second = static_cast<std::uint64_t>(second.nanoseconds);
    std::uint64_t factor = 0;
    // Each tick is a whole number of nanoseconds, as nearly always.
    if (per_second % denominator == 0 &&
        !__builtin_mul_overflow(numerator, per_second / denominator, &factor)) {
        std::uint64_t product = 0;
        const bool beyond =
            __builtin_mul_overflow(ticks, factor, &product) || product > greatest_magnitude(negative);
        return beyond ? end_of_range(negative) : with_sign(negative, product);
    }

    // Whole seconds and the rest apart, as their sum in nanoseconds may need more than 128 bits.
    const auto seconds = internal::multiply_divide(ticks, numerator, denominator);
    if (!seconds || seconds->quotient > least_magnitude / per_second)
        return end_of_range(negative);
    // Less than a second, as the remainder is less than the denominator.
    const auto rest = *internal::multiply_divide(seconds->remainder, per_second, denominator);
    const std::uint64_t rounded = rest.quotient + (rest.remainder >= denominator - rest.remainder ? 1 : 0);
    const std::uint64_t magnitude = seconds->quotient * per_second + rounded;
    return magnitude > greatest_magnitude(negative) ? end_of_range(negative) : with_sign(negative, magnitude);
}

/// The nanoseconds of a unit, which are never negative.
constexpr std::uint64_t size_of(const Unit& unit)
{
    return static_cast<std::uint64_t>(unit.nanoseconds);
}

Unit unit_for(std::uint64_t magnitude)
{
    if (magnitude == 0)
        return second;
    for (const Unit& unit : {hour, minute}) {
        if (magnitude % size_of(unit) == 0)
            return unit;
    }
    for (const Unit& unit : {second, millisecond, microsecond}) {
        if (magnitude >= size_of(unit))
            return unit;
    }
    return nanosecond;
}

/// Rounds to `digits` decimals of the value's unit: halves away from zero, or toward zero if `limit` is
/// exceeded.
std::uint64_t round_magnitude(std::uint64_t magnitude, std::uint64_t limit, unsigned int digits)
{
    std::uint64_t quantum = size_of(unit_for(magnitude));
    for (; digits > 0 && quantum > 1; --digits)
        quantum /= 10;
    if (quantum <= 1 || magnitude % quantum == 0)
        return magnitude;

    const std::uint64_t rounded = (magnitude + quantum / 2) / quantum * quantum;
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
std::optional<std::uint64_t> number_from(std::string_view digits)
{
    std::uint64_t number = 0;
    for (const char digit : digits) {
        if (number > least_magnitude / 10) // the next digit could overflow
            return std::nullopt;
        number = number * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    return number <= least_magnitude ? std::optional(number) : std::nullopt;
}

/// The nanoseconds in a decimal fraction of a unit, if that is a whole number of them.
std::optional<std::uint64_t> fraction_from(std::string_view digits, const Unit& unit)
{
    while (!digits.empty() && digits.back() == '0')
        digits.remove_suffix(1);
    if (digits.size() > max_decimals)
        return std::nullopt;

    std::uint64_t scale = 1;
    for (std::size_t i = 0; i < digits.size(); ++i)
        scale *= 10;
    const auto nanoseconds = internal::multiply_divide(*number_from(digits), size_of(unit), scale);
    if (nanoseconds->remainder != 0)
        return std::nullopt;
    return nanoseconds->quotient;
}

/// The nanoseconds that a text such as "-3.5s" stands for, unless they are out of range.
std::optional<std::int64_t> nanoseconds_from(std::string_view text)
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

    std::uint64_t magnitude = 0;
    if (__builtin_mul_overflow(*whole, size_of(*unit), &magnitude) ||
        __builtin_add_overflow(magnitude, *fraction, &magnitude) || magnitude > greatest_magnitude(negative))
        return std::nullopt;
    return with_sign(negative, magnitude);
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

    std::uint64_t magnitude = magnitude_of(nanoseconds_);
    if (digits != 0)
        magnitude = round_magnitude(magnitude, greatest_magnitude(nanoseconds_ < 0), digits);

    // Rounding may have reached the next unit.
    const Unit unit = unit_for(magnitude);
    const std::uint64_t whole = magnitude / size_of(unit);
    const auto rest = static_cast<std::int64_t>(magnitude % size_of(unit));

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
    if (!nanoseconds)
        return std::nullopt;
    return finite(*nanoseconds);
}

Duration Duration::from(std::string_view text, const Duration& dflt)
{
    return parse(text).value_or(dflt);
}

Duration Duration::finite(std::int64_t nanoseconds)
{
    Duration result;
    result.state_ = State::Finite;
    result.nanoseconds_ = nanoseconds;
    return result;
}

Duration Duration::from_ticks(std::int64_t count, std::intmax_t numerator, std::intmax_t denominator)
{
    return finite(ticks_to_nanoseconds(count < 0, magnitude_of(count), magnitude_of(numerator),
                                       magnitude_of(denominator)));
}

Duration Duration::from_ticks(std::uint64_t count, std::intmax_t numerator, std::intmax_t denominator)
{
    return finite(ticks_to_nanoseconds(false, count, magnitude_of(numerator), magnitude_of(denominator)));
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
        return finite(most);
    if (nanoseconds < -end)
        return finite(least);
    return finite(static_cast<std::int64_t>(nanoseconds));
}

Duration& Duration::operator+=(const Duration& other)
{
    if (is_not_initialized() || other.is_not_initialized())
        *this = Duration();
    else if (is_positive_infinity() || other.is_positive_infinity())
        *this = positive_infinity();
    else
        nanoseconds_ = add_saturated(nanoseconds_, other.nanoseconds_);
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
        nanoseconds_ = subtract_saturated(nanoseconds_, other.nanoseconds_);
    return *this;
}

Duration Nanoseconds(long count)
{
    return Duration::finite(count);
}

Duration Microseconds(long count)
{
    return Duration::finite(multiply_saturated(count, microsecond.nanoseconds));
}

Duration Milliseconds(long count)
{
    return Duration::finite(multiply_saturated(count, millisecond.nanoseconds));
}

Duration Seconds(long count)
{
    return Duration::finite(multiply_saturated(count, second.nanoseconds));
}

Duration Minutes(int count)
{
    return Duration::finite(multiply_saturated(count, minute.nanoseconds));
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
