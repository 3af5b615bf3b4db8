// SPDX-License-Identifier: Apache-2.0
#include "slate/lazy.h"

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {
TEST(Lazy, MakesItsValueOnFirstUseAndKeepsIt)
{
    int made = 0;
    slate::Lazy<int> lazy([&] { return std::make_shared<int>(++made); });
    EXPECT_EQ(made, 0);

    const auto first = lazy.get();

    EXPECT_EQ(*first, 1);
    EXPECT_EQ(lazy.get(), first);
    EXPECT_EQ(made, 1);
}

TEST(Lazy, TriesAgainAfterAFailure)
{
    int calls = 0;
    slate::Lazy<int> lazy([&] {
        if (++calls == 1)
            throw std::runtime_error("not yet");
        return calls == 2 ? nullptr : std::make_shared<int>(calls);
    });

    EXPECT_THROW(lazy.get(), std::runtime_error);
    EXPECT_EQ(lazy.get(), nullptr);
    EXPECT_EQ(*lazy.get(), 3);
    EXPECT_EQ(calls, 3);
}

TEST(Lazy, ThrowsWithoutAMaker)
{
    slate::Lazy<int> lazy(nullptr);

    EXPECT_THROW(lazy.get(), std::bad_function_call);
}

TEST(Lazy, MakesOneValueForManyThreads)
{
    std::atomic<int> made{0};
    slate::Lazy<int> lazy([&] { return std::make_shared<int>(++made); });

    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] { EXPECT_EQ(*lazy.get(), 1); });
    for (auto& thread : threads)
        thread.join();

    EXPECT_EQ(made, 1);
}
} // namespace
