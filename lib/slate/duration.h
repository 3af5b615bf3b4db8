// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/require_cxx20.h"

#include <chrono>
#include <compare>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <ratio>
#include <string>
#include <string_view>
#include <type_traits>

namespace slate {
/// A type of numbers from which a Duration can be made: floating-point, or integers of at most 64 bits.
template <class T>
concept TickCount = std::floating_point<T> ||(std::integral<T> && sizeof(T) <= sizeof(std::int64_t));

/// A TickCount with values that the integer type `Whole` can't hold: fractions, or larger numbers.
template <class T, class Whole>
concept TickCountBeyond = TickCount<T> &&
    (std::floating_point<T> || std::numeric_limits<T>::digits > std::numeric_limits<Whole>::digits);

/// A span of time: a number of nanoseconds, or positive infinity, or not initialized.
///
/// The range is about 292 years each way, in steps of one nanosecond. A result beyond the range stays at its
/// end (it saturates) and is still finite.
///
/// Infinity is greater than every other duration. Adding to it or subtracting from it leaves it infinite, but
/// infinity less infinity is not initialized. There is no negative infinity: a finite duration less infinity
/// is the lowest finite one. A duration that is not initialized is less than every other, and like NaN it
/// makes every sum and difference in which it takes part not initialized.
///
/// Threads: a plain value. Several threads may read one, but none may do so while another changes it.
class Duration {
public:
    /// Not initialized.
    Duration() = default;

    /// Converts a duration of the standard library, so that a caller can pass `std::chrono::seconds(4)`
    /// wherever a Duration is expected. It is rounded to the nearest nanosecond, halves away from zero, and
    /// saturates. For floating-point durations, infinity becomes positive infinity, negative infinity becomes
    /// the lowest finite duration, and NaN becomes not initialized.
    template <TickCount Count, class Period>
    Duration(const std::chrono::duration<Count, Period>& value)
        : Duration(from_ticks(static_cast<Ticks<Count>>(value.count()), Period::num, Period::den))
    {
    }

    static Duration positive_infinity();

    bool is_not_initialized() const { return state_ == State::NotInitialized; }
    bool is_negative() const { return state_ == State::Finite && nanoseconds_ < 0; }
    bool is_positive_infinity() const { return state_ == State::PositiveInfinity; }

    /// Whole units, rounded toward zero. The largest number for infinity, 0 if not initialized.
    std::int64_t to_milliseconds() const;
    std::int64_t to_nanoseconds() const;

    /// Readable text that parse() turns back into the same value: "15min", "4s", "3.5s", "250ms", "-1us",
    /// "inf", "uninitialized". The unit is the hour or the minute if the value is a whole number of them,
    /// else the largest of s, ms, us and ns that the value reaches. If `digits` is not 0, the value is
    /// rounded to that many decimals at most, and parse() then gives the rounded value.
    std::string to_string(unsigned char digits = 0) const;

    /// Reads what to_string() writes, and more: an optional sign, a decimal number, and one of the units
    /// "ns", "us", "ms", "s", "min", "h" and "d", without blanks; or "inf"; or "uninitialized", which gives a
    /// duration that is not initialized. Returns nothing for any other text, and for a number that is not a
    /// whole number of nanoseconds or lies outside the range. The locale plays no part.
    static std::optional<Duration> parse(std::string_view text);

    /// The same, with `dflt` for a text that parse() can't read.
    static Duration from(std::string_view text, const Duration& dflt);

    Duration& operator+=(const Duration& other);
    Duration& operator-=(const Duration& other);

    friend Duration operator+(Duration a, const Duration& b) { return a += b; }
    friend Duration operator-(Duration a, const Duration& b) { return a -= b; }
    friend bool operator==(const Duration& a, const Duration& b) { return (a <=> b) == 0; }
    friend std::strong_ordering operator<=>(const Duration& a, const Duration& b)
    {
        if (const auto order = a.state_ <=> b.state_; order != 0)
            return order;
        return a.nanoseconds_ <=> b.nanoseconds_;
    }

private:
    // In ascending order. nanoseconds_ is 0 in every state but Finite.
    enum class State : unsigned char { NotInitialized, Finite, PositiveInfinity };

    /// The widest number type of the same kind, so that nothing is lost on the way to from_ticks().
    template <class Count>
    using Ticks =
        std::conditional_t<std::is_floating_point_v<Count>, long double,
                           std::conditional_t<std::is_signed_v<Count>, std::int64_t, std::uint64_t>>;

    friend Duration Nanoseconds(long count);
    friend Duration Microseconds(long count);
    friend Duration Milliseconds(long count);
    friend Duration Seconds(long count);
    friend Duration Minutes(int count);

    static Duration finite(std::int64_t nanoseconds);

    // Ticks of numerator / denominator seconds each.
    static Duration from_ticks(std::int64_t count, std::intmax_t numerator, std::intmax_t denominator);
    static Duration from_ticks(std::uint64_t count, std::intmax_t numerator, std::intmax_t denominator);
    static Duration from_ticks(long double count, std::intmax_t numerator, std::intmax_t denominator);

    State state_ = State::NotInitialized;
    std::int64_t nanoseconds_ = 0;
};

/// A duration of `count` units, saturated.
Duration Nanoseconds(long count);
Duration Microseconds(long count);
Duration Milliseconds(long count);
Duration Seconds(long count);
Duration Minutes(int count);

/// The same for a count that the functions above can't take without cutting it: a fraction, as in
/// `Seconds(0.5)`, or an integer of a larger type. Converted as a duration of the standard library is.
template <TickCountBeyond<long> Count>
Duration Nanoseconds(Count count)
{
    return std::chrono::duration<Count, std::nano>(count);
}

template <TickCountBeyond<long> Count>
Duration Microseconds(Count count)
{
    return std::chrono::duration<Count, std::micro>(count);
}

template <TickCountBeyond<long> Count>
Duration Milliseconds(Count count)
{
    return std::chrono::duration<Count, std::milli>(count);
}

template <TickCountBeyond<long> Count>
Duration Seconds(Count count)
{
    return std::chrono::duration<Count>(count);
}

template <TickCountBeyond<int> Count>
Duration Minutes(Count count)
{
    return std::chrono::duration<Count, std::ratio<60>>(count);
}

/// Measures how long something takes, on the monotonic clock. One thread at a time, or many that only read.
class StopWatch {
public:
    /// Starts at once if `running`; otherwise elapsed() is 0 until start() is called.
    explicit StopWatch(bool running);

    /// Starts, or starts again from 0.
    void start();
    /// Microseconds since the start.
    std::int64_t elapsed() const;

private:
    bool running_;
    std::chrono::steady_clock::time_point start_;
};
} // namespace slate
