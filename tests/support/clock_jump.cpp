// SPDX-License-Identifier: Apache-2.0
#include "support/clock_jump.h"

#include <atomic>
#include <cstdint>
#include <ctime>

#include <sys/syscall.h>
#include <unistd.h>

namespace {
constexpr std::int64_t nanoseconds_per_second = 1'000'000'000;

std::atomic<std::int64_t> jumped{0};
} // namespace

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    const long result = syscall(SYS_clock_gettime, clock, time);
    if (result == 0 && jumped != 0) {
        const std::int64_t nanoseconds = time->tv_nsec + jumped;
        time->tv_sec += nanoseconds / nanoseconds_per_second;
        time->tv_nsec = nanoseconds % nanoseconds_per_second;
    }
    return static_cast<int>(result);
}

namespace tarn_test {
ClockJump::~ClockJump()
{
    jumped = 0;
}

void ClockJump::add(std::chrono::nanoseconds time)
{
    jumped += time.count();
}
} // namespace tarn_test
