// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/memory_return.h"

#include <cstddef>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "support/own_process.h"

namespace {
using tarn_internal::MemoryReturn;
using tarn_test::resident_bytes;

TEST(AMemoryReturn, WaitsWithoutEndUntilALargeMessageHasBeenHandled)
{
    MemoryReturn memory;
    EXPECT_TRUE(memory.wait_time().is_positive_infinity());
    memory.note(100000);
    EXPECT_TRUE(memory.wait_time().is_positive_infinity());
    memory.note(1000000);
    memory.note(1);
    EXPECT_EQ(memory.wait_time(), slate::Seconds(1));
    memory.after_wait(true);
    EXPECT_EQ(memory.wait_time(), slate::Seconds(1));
    memory.after_wait(false);
    EXPECT_TRUE(memory.wait_time().is_positive_infinity());
    for (int i = 0; i < 9999; ++i)
        memory.note(1);
    EXPECT_TRUE(memory.wait_time().is_positive_infinity());
    memory.note(1);
    EXPECT_EQ(memory.wait_time(), slate::Seconds(1));
}

TEST(AMemoryReturn, GivesBackWhatABurstHasLeft)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer has an allocator of its own";
#endif
    // Small pieces, as the entries of messages are, and one that keeps the C library from giving back the
    // rest.
    std::vector<std::unique_ptr<char[]>> pieces;
    for (int i = 0; i < 1000000; ++i) {
        pieces.push_back(std::make_unique<char[]>(64));
        pieces.back()[0] = 'x';
    }
    const auto last = std::move(pieces.back());
    pieces.clear();
    const std::size_t before = resident_bytes();
    MemoryReturn memory;
    memory.note(1 << 20);
    memory.after_wait(false);
    EXPECT_LT(resident_bytes() + (std::size_t{40} << 20), before);
}

TEST(AMemoryReturn, GivesBackAlsoIfThereIsAlwaysAnotherMessage)
{
    MemoryReturn memory(slate::Milliseconds(30));
    memory.note(1 << 20);
    const slate::StopWatch watch(true);
    while (!memory.wait_time().is_positive_infinity() && watch.elapsed() < 20000000) {
        memory.note(100);
        memory.after_wait(true);
    }
    EXPECT_TRUE(memory.wait_time().is_positive_infinity());
    EXPECT_GE(watch.elapsed(), 30000);
}
} // namespace
