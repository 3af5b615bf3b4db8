// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/memory_return.h"

#include <cstdlib> // which says whether this is the GNU C library

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace tarn_internal {
namespace {
/// What is smaller is freed and used again within the memory that a process keeps anyway.
constexpr std::size_t large_message = 256 * 1024;
/// So many of them can leave memory behind too: a relay keeps something of each subscription.
constexpr std::size_t many_messages = 10000;
} // namespace

void MemoryReturn::note(std::size_t bytes)
{
    ++messages_;
    if (pending_ || (bytes < large_message && messages_ < many_messages))
        return;
    pending_ = true;
    since_pending_ = slate::StopWatch(true);
}

slate::Duration MemoryReturn::wait_time() const
{
    return pending_ ? slate::Duration(slate::Seconds(1)) : slate::Duration::positive_infinity();
}

void MemoryReturn::after_wait(bool has_message)
{
    if (pending_ && (!has_message || slate::Microseconds(since_pending_.elapsed()) >= longest_))
        give_back();
}

void MemoryReturn::give_back()
{
    pending_ = false;
    messages_ = 0;
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}
} // namespace tarn_internal
