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

namespace {
template <class Time>
int get_time(long call, clockid_t clock, Time* time)
{
    const long result = syscall(call, clock, time);
    if (result == 0 && jumped != 0) {
        const std::int64_t nanoseconds = time->tv_nsec + jumped;
        time->tv_sec += static_cast<decltype(time->tv_sec)>(nanoseconds / nanoseconds_per_second);
        time->tv_nsec = static_cast<decltype(time->tv_nsec)>(nanoseconds % nanoseconds_per_second);
    }
    return static_cast<int>(result);
}
} // namespace

#if __SIZEOF_POINTER__ == 4 && defined(SYS_clock_gettime64)
// Here it is the function for times of 64 bits, which has another name as a symbol. The standard library
// calls the one for 32 bits.
struct ShortTime {
    std::int32_t tv_sec;
    std::int32_t tv_nsec;
};

extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    return get_time(SYS_clock_gettime64, clock, time);
}

extern "C" int short_clock_gettime(clockid_t clock, ShortTime* time) noexcept asm("clock_gettime");

extern "C" int short_clock_gettime(clockid_t clock, ShortTime* time) noexcept
{
    return get_time(SYS_clock_gettime, clock, time);
}
#else
extern "C" int clock_gettime(clockid_t clock, struct timespec* time) noexcept
{
    return get_time(SYS_clock_gettime, clock, time);
}
#endif

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
