// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace tarn_test {
/// Lets the process's clocks jump forward, for as long as it lives; waits of the system take as long as
/// before. A program that uses it has clock_jump.cpp among its sources, which takes the place of
/// clock_gettime. One at a time.
class ClockJump {
public:
    ClockJump() = default;
    explicit ClockJump(std::chrono::nanoseconds time) { add(time); }
    ~ClockJump();
    ClockJump(const ClockJump&) = delete;
    ClockJump& operator=(const ClockJump&) = delete;

    /// Any thread.
    void add(std::chrono::nanoseconds time);
};
} // namespace tarn_test
