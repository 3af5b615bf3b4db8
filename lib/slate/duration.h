// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>
#include <string_view>

namespace slate {
/// A span of time: some nanoseconds, or positive infinity, or not initialized.
///
/// Exact to the nanosecond over about 292 years each way. What goes beyond stays at that end (saturates) and
/// is still finite. Infinity is greater than every other duration and stays infinity whatever is added or
/// taken; a duration that is not initialized is less than every other, and stays what it is (like NaN, it
/// also makes the other operand's result not initialized). Infinity less infinity is not initialized.
class Duration {
public:
    /// Not initialized.
    Duration() = default;
    explicit Duration(std::chrono::nanoseconds value) : state_(State::Finite), nanoseconds_(value.count()) {}

    static Duration positive_infinity();

    bool is_not_initialized() const { return state_ == State::NotInitialized; }
    bool is_negative() const { return state_ == State::Finite && nanoseconds_ < 0; }
    bool is_positive_infinity() const { return state_ == State::PositiveInfinity; }

    /// Whole units, rounded toward zero. The largest number for infinity, 0 if not initialized.
    std::int64_t to_milliseconds() const;
    std::int64_t to_nanoseconds() const;

    /// Text for people that from() reads back to the same value: "15min", "4s", "3.5s", "250ms", "-1us",
    /// "inf", and "uninitialized". The unit is the hour or the minute if it goes without a rest, else the
    /// largest of s, ms, us and ns that the value reaches. `digits` other than 0 rounds to at most that many
    /// decimals instead, and from() then reads the rounded value.
    std::string to_string(unsigned char digits = 0) const;

    /// Reads a text such as to_string gives: an optional sign, a decimal number and one of the units "ns",
    /// "us", "ms", "s", "min", "h" and "d", without blanks; or "inf", or "uninitialized". `dflt` for anything
    /// else, and for what has no exact value in nanoseconds or lies outside the range.
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
    // In ascending order. nanoseconds_ is 0 in all states but Finite.
    enum class State : unsigned char { NotInitialized, Finite, PositiveInfinity };

    State state_ = State::NotInitialized;
    std::int64_t nanoseconds_ = 0;
};

/// Durations from whole units; what doesn't fit saturates.
Duration Nanoseconds(long count);
Duration Microseconds(long count);
Duration Milliseconds(long count);
Duration Seconds(long count);
Duration Minutes(int count);

/// Measures how long something takes, on the monotonic clock.
class StopWatch {
public:
    /// Running from now on if `running`; else elapsed() is 0 until start().
    explicit StopWatch(bool running);

    void start();
    /// Microseconds since the start.
    std::int64_t elapsed() const;

private:
    bool running_;
    std::chrono::steady_clock::time_point start_;
};
} // namespace slate
