// SPDX-License-Identifier: Apache-2.0
#include "slate/uuid.h"

#include <cstddef>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {
TEST(Uuid, IsAllZeroAtFirst)
{
    EXPECT_EQ(slate::Uuid().to_string(), "00000000-0000-0000-0000-000000000000");
}

TEST(Uuid, ReadsBackItsText)
{
    const std::string text = "01234567-89ab-cdef-0123-456789abcdef";

    EXPECT_EQ(slate::Uuid(text).to_string(), text);
    EXPECT_EQ(slate::Uuid("01234567-89AB-CDEF-0123-456789ABCDEF").to_string(), text);
    const auto random = slate::make_uuid();
    EXPECT_EQ(slate::Uuid(random.to_string()), random);
}

TEST(Uuid, RefusesOtherTextAndQuotesIt)
{
    const std::vector<std::string> rows{
        "",
        "abc",
        "01234567-89ab-cdef-0123-456789abcde",
        "01234567-89ab-cdef-0123-456789abcdef0",
        "01234567-89ab-cdef-0123-456789abcdeg",
        "0123456789abcdef0123456789abcdef",
        "0123456-789ab-cdef-0123-456789abcdef",
        "{1234567-89ab-cdef-0123-456789abcde}",
        " 1234567-89ab-cdef-0123-456789abcdef",
        std::string("01234567-89ab-cdef-0123-456789abcde\0", 36),
        "01234567-89ab-cdef-0123-456789abcdef" + std::string("\0", 1),
    };

    for (const auto& text : rows) {
        try {
            slate::Uuid uuid(text);
            ADD_FAILURE() << "accepted " << text;
        }
        catch (const std::invalid_argument& error) {
            EXPECT_NE(std::string(error.what()).find(text.c_str()), std::string::npos) << error.what();
        }
    }
}

TEST(Uuid, IsUniqueAmongThreads)
{
    std::vector<std::vector<std::string>> made(4);
    std::vector<std::thread> threads;
    for (auto& list : made) {
        threads.emplace_back([&list] {
            for (int i = 0; i < 250; ++i)
                list.push_back(slate::make_uuid().to_string());
        });
    }
    for (auto& thread : threads)
        thread.join();

    std::set<std::string> different;
    for (const auto& list : made)
        different.insert(list.begin(), list.end());
    EXPECT_EQ(different.size(), 1000u);
}

TEST(Uuid, IsRandomAndInLowerCase)
{
    const auto text = slate::make_uuid().to_string();

    ASSERT_EQ(text.size(), 36u);
    EXPECT_EQ(text.find_first_not_of("0123456789abcdef-"), std::string::npos);
    EXPECT_EQ(text[14], '4'); // the version of random UUIDs
    for (const std::size_t hyphen : {8u, 13u, 18u, 23u})
        EXPECT_EQ(text[hyphen], '-');
}

TEST(Uuid, IsOrderedByItsBytes)
{
    const slate::Uuid low("00000000-0000-0000-0000-000000000001");
    const slate::Uuid high("10000000-0000-0000-0000-000000000000");

    EXPECT_LT(low, high);
    EXPECT_LT(slate::Uuid(), low);
    EXPECT_NE(low, high);
    EXPECT_EQ(low, slate::Uuid(low.to_string()));
}
} // namespace
