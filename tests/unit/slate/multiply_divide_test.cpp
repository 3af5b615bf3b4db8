// SPDX-License-Identifier: Apache-2.0
#include "slate/multiply_divide.h"

#include <cstdint>
#include <ostream>

#include <gtest/gtest.h>

namespace slate::internal {
bool operator==(const Division& a, const Division& b)
{
    return a.quotient == b.quotient && a.remainder == b.remainder;
}

void PrintTo(const Division& division, std::ostream* out)
{
    *out << division.quotient << " remainder " << division.remainder;
}
} // namespace slate::internal

namespace {
using slate::internal::Division;
using slate::internal::multiply_divide;

TEST(MultiplyDivide, DividesAProductOf64Bits)
{
    EXPECT_EQ(multiply_divide(0, 5, 7), (Division{0, 0}));
    EXPECT_EQ(multiply_divide(6, 7, 42), (Division{1, 0}));
    EXPECT_EQ(multiply_divide(6, 7, 10), (Division{4, 2}));
    EXPECT_EQ(multiply_divide(UINT64_MAX, 1, UINT64_MAX), (Division{1, 0}));
    EXPECT_EQ(multiply_divide(1, UINT64_MAX, 1), (Division{UINT64_MAX, 0}));
}

TEST(MultiplyDivide, DividesAProductOf128Bits)
{
    constexpr auto half = std::uint64_t{1} << 63;

    EXPECT_EQ(multiply_divide(UINT64_MAX, UINT64_MAX, UINT64_MAX), (Division{UINT64_MAX, 0}));
    EXPECT_EQ(multiply_divide(UINT64_MAX, UINT64_MAX - 1, UINT64_MAX), (Division{UINT64_MAX - 1, 0}));
    EXPECT_EQ(multiply_divide(UINT64_MAX - 1, UINT64_MAX - 1, UINT64_MAX), (Division{UINT64_MAX - 2, 1}));
    EXPECT_EQ(multiply_divide(half, 4, half + 1), (Division{3, half - 3}));
    EXPECT_EQ(multiply_divide(1'000'000'000'000'000'000, 1'000'000'007, 1'000'000'000'000),
              (Division{1'000'000'007'000'000, 0}));
    EXPECT_EQ(multiply_divide(12'345'678'901'234'567'890u, 9'876'543'210, 10'000'000'007),
              (Division{12'193'263'103'947'569'038u, 3'630'543'634}));
}

TEST(MultiplyDivide, GivesNothingIfTheQuotientNeedsMoreThan64Bits)
{
    EXPECT_EQ(multiply_divide(UINT64_MAX, 2, 1), std::nullopt);
    EXPECT_EQ(multiply_divide(std::uint64_t{1} << 32, std::uint64_t{1} << 32, 1), std::nullopt);
    EXPECT_EQ(multiply_divide(UINT64_MAX, UINT64_MAX, UINT64_MAX - 1), std::nullopt);
    EXPECT_EQ(multiply_divide(UINT64_MAX, 2, 2), (Division{UINT64_MAX, 0}));
}
} // namespace
