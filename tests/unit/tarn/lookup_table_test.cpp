// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/lookup_table.h"

#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "tarn/proto/message.pb.h"
#include "unit/tarn/thrown.h"

namespace {
using Table = tarn_internal::LookupTable<100>;

/// A function that leaves its mark in the message that it is called with.
Table::Function marking(const std::string& mark)
{
    return [mark](tarn::Message& message) { message.mutable_get()->mutable_head()->set_path(mark); };
}

/// The mark that a function leaves; "empty" for an empty one.
std::string mark_of(const Table::Function& function)
{
    if (!function)
        return "empty";
    tarn::Message message;
    function(message);
    return message.get().head().path();
}

TEST(LookupTable, StartsEmpty)
{
    const Table table;

    EXPECT_TRUE(table.overflow.empty());
    for (const auto& slot : table.slots)
        EXPECT_FALSE(slot);
}

TEST(LookupTable, PutsNumbersBelowItsSizeIntoSlots)
{
    Table table;

    table.add(99, marking("last"));

    EXPECT_EQ(mark_of(table.slots[99]), "last");
    EXPECT_TRUE(table.overflow.empty());
}

TEST(LookupTable, CountsZeroAsANumberLikeAnyOther)
{
    Table table;

    table.add(0, marking("first"));

    EXPECT_EQ(mark_of(table.slots[0]), "first");
    EXPECT_EQ(mark_of(table.find(0)), "first");
}

TEST(LookupTable, PutsNumbersFromItsSizeUpBehindTheSlots)
{
    Table table;

    table.add(100, marking("beyond"));

    ASSERT_EQ(table.overflow.size(), 1U);
    EXPECT_EQ(table.overflow[0].first, 100U);
    EXPECT_EQ(mark_of(table.overflow[0].second), "beyond");
}

TEST(LookupTable, KeepsTheOrderOfAddingBehindTheSlots)
{
    Table table;

    table.add(300, marking("a"));
    table.add(100, marking("b"));
    table.add(200, marking("c"));

    ASSERT_EQ(table.overflow.size(), 3U);
    EXPECT_EQ(table.overflow[0].first, 300U);
    EXPECT_EQ(table.overflow[1].first, 100U);
    EXPECT_EQ(table.overflow[2].first, 200U);
}

TEST(LookupTable, RefusesASecondFunctionForASlot)
{
    Table table;
    table.add(5, marking("first"));

    EXPECT_EQ(tarn_test::logged_and_thrown<tarn::Exception>([&] { table.add(5, marking("second")); }),
              "duplicate lookup table index: 5");
}

TEST(LookupTable, KeepsTheFirstFunctionWhenItRefusesASecond)
{
    const tarn_test::LogCapture log;
    Table table;
    table.add(5, marking("first"));

    EXPECT_THROW(table.add(5, marking("second")), tarn::Exception);

    EXPECT_EQ(mark_of(table.find(5)), "first");
}

TEST(LookupTable, LeavesASlotFreeForAnEmptyFunction)
{
    Table table;
    table.add(5, {});

    table.add(5, marking("real"));

    EXPECT_EQ(mark_of(table.find(5)), "real");
}

TEST(LookupTable, KeepsASecondFunctionBehindTheSlotsAndFindsTheFirst)
{
    Table table;
    table.add(100, marking("first"));

    table.add(100, marking("second"));

    EXPECT_EQ(table.overflow.size(), 2U);
    EXPECT_EQ(mark_of(table.find(100)), "first");
}

TEST(LookupTable, FindsTheSecondFunctionOnceTheFirstIsDeleted)
{
    Table table;
    table.add(100, marking("first"));
    table.add(100, marking("second"));

    table.del(100);

    EXPECT_EQ(mark_of(table.find(100)), "second");
}

TEST(LookupTable, KeepsTheOrderOfTheOthersWhenOneIsDeleted)
{
    Table table;
    table.add(300, marking("a"));
    table.add(100, marking("b"));
    table.add(200, marking("c"));

    table.del(100);

    ASSERT_EQ(table.overflow.size(), 2U);
    EXPECT_EQ(table.overflow[0].first, 300U);
    EXPECT_EQ(table.overflow[1].first, 200U);
}

TEST(LookupTable, EmptiesADeletedSlot)
{
    Table table;
    table.add(5, marking("old"));

    table.del(5);
    table.add(5, marking("new"));

    EXPECT_EQ(mark_of(table.find(5)), "new");
}

TEST(LookupTable, IgnoresTheDeletionOfUnknownNumbers)
{
    Table table;
    table.add(1, marking("slot"));
    table.add(101, marking("beyond"));

    table.del(2);
    table.del(102);

    EXPECT_EQ(mark_of(table.find(1)), "slot");
    EXPECT_EQ(mark_of(table.find(101)), "beyond");
}

TEST(LookupTable, FindsAnEmptyFunctionForUnknownNumbers)
{
    const Table table;

    EXPECT_FALSE(table.find(7));
    EXPECT_FALSE(table.find(100));
}

TEST(LookupTable, TakesTheLargestNumber)
{
    constexpr unsigned int largest = std::numeric_limits<unsigned int>::max();
    Table table;

    table.add(largest, marking("largest"));

    EXPECT_EQ(mark_of(table.find(largest)), "largest");
}

TEST(LookupTable, EmptiesSlotsAndAllBehindThemWhenCleared)
{
    Table table;
    table.add(5, marking("slot"));
    table.add(100, marking("beyond"));

    table.clear();

    EXPECT_FALSE(table.find(5));
    EXPECT_FALSE(table.find(100));
    EXPECT_TRUE(table.overflow.empty());
}
} // namespace
