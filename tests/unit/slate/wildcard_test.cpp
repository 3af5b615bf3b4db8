// SPDX-License-Identifier: Apache-2.0
#include "slate/strings.h"

#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "allocation_counter.h"

namespace {
struct Row {
    const char* text;
    const char* pattern;
    bool matches;
};

const Row rows[] = {
    // without a wildcard
    {"", "", true},
    {"a", "", false},
    {"", "a", false},
    {"abc", "abc", true},
    {"abc", "ABC", false},
    {"abc", "ab", false},
    {"ab", "abc", false},
    // "?" stands for one byte
    {"a", "?", true},
    {"", "?", false},
    {"ab", "?", false},
    {"/", "?", true},
    {"abc", "a?c", true},
    {"ac", "a?c", false},
    {"\xc3\xa4", "?", false},
    {"\xc3\xa4", "??", true},
    // "*" stands for any number of bytes
    {"", "*", true},
    {"abc", "*", true},
    {"a/b/c", "*", true},
    {"a/b.txt", "*.txt", true},
    {".txt", "*.txt", true},
    {"a.txt.gz", "*.txt", false},
    {"abc", "a*", true},
    {"a", "a*", true},
    {"ba", "a*", false},
    {"abc", "a*c", true},
    {"ac", "a*c", true},
    {"a", "a*a", false},
    {"aba", "ab*ba", false},
    {"abba", "ab*ba", true},
    {"abc", "**", true},
    {"abc", "a**c", true},
    {"", "**", true},
    // segments in between
    {"abcd", "*b*", true},
    {"acd", "*b*", false},
    {"a-b-c", "a*b*c", true},
    {"a-c-b", "a*b*c", false},
    {"abab", "*ab*ab", true},
    {"aab", "*ab*ab", false},
    {"xaby", "*a?y", true},
    {"mississippi", "m*iss*pp?", true},
    {"mississippi", "m*iss*iss*iss*", false},
    {"aaab", "*a?b*", true},
    {"abxaxb", "*a?b*", true},
    {"axxb", "*a?b*", false},
    {"ab", "*?*", true},
    {"", "*?*", false},
    {"abc", "*???*", true},
    {"ab", "*???*", false},
    {"ab", "*?*?*", true},
    {"a", "*?*?*", false},
    // nothing else is special
    {"[a]", "[a]", true},
    {"a", "[a]", false},
    {"a\\", "a\\", true},
    {"a*", "a\\*", false},
    {"a\\b", "a\\*", true},
    {"{a,b}", "{a,b}", true},
    {"a.b", "a.b", true},
    {"axb", "a.b", false},
};

TEST(Wildcard, MatchesWhatItsPatternDescribes)
{
    for (const auto& row : rows)
        EXPECT_EQ(slate::wildcard_match(row.text, row.pattern), row.matches)
            << row.text << " against " << row.pattern;
}

TEST(Wildcard, MatchesAnyByte)
{
    EXPECT_TRUE(slate::wildcard_match(std::string_view("a\0b", 3), "a?b"));
    EXPECT_TRUE(slate::wildcard_match(std::string_view("a\0b", 3), "*b"));
    EXPECT_FALSE(slate::wildcard_match(std::string_view("a\0b", 3), "a"));
    EXPECT_TRUE(slate::wildcard_match("a\nb\xff", "a*\xff"));
    EXPECT_TRUE(slate::wildcard_match("x\xff\xfey", "*\xff?y*"));
}

/// Slow, but obviously right.
bool matches_by_definition(std::string_view text, std::string_view pattern)
{
    if (pattern.empty())
        return text.empty();
    if (pattern.front() == '*')
        return matches_by_definition(text, pattern.substr(1)) ||
               (!text.empty() && matches_by_definition(text.substr(1), pattern));
    return !text.empty() && (pattern.front() == '?' || pattern.front() == text.front()) &&
           matches_by_definition(text.substr(1), pattern.substr(1));
}

std::string random_text(std::mt19937& random, std::string_view alphabet, std::size_t max_length)
{
    std::string text(random() % (max_length + 1), ' ');
    for (char& c : text)
        c = alphabet[random() % alphabet.size()];
    return text;
}

TEST(Wildcard, AgreesWithItsDefinition)
{
    std::mt19937 random(7);
    for (int i = 0; i < 100'000; ++i) {
        const auto text = random_text(random, "ab", 12);
        const auto pattern = random_text(random, "aab?*", 8);
        ASSERT_EQ(slate::wildcard_match(text, pattern), matches_by_definition(text, pattern))
            << text << " against " << pattern;
    }
}

TEST(Wildcard, FindsSegmentsOfAnyLength)
{
    for (const std::size_t length : {1u, 2u, 63u, 64u, 65u, 127u, 128u, 129u, 500u}) {
        // A segment with a "?" at both ends and in the middle, between bytes that differ.
        std::string place;
        for (std::size_t i = 0; i < length; ++i)
            place += static_cast<char>('b' + i % 7);
        std::string segment = place;
        segment.front() = segment[length / 2] = segment.back() = '?';

        const std::string text = std::string(100, 'a') + place + std::string(50, 'a');
        EXPECT_TRUE(slate::wildcard_match(text, "*" + segment + "*")) << length;
        EXPECT_TRUE(slate::wildcard_match(text, "a*" + segment + "*a")) << length;
        EXPECT_TRUE(slate::wildcard_match(place, "*" + segment + "*")) << length;
        EXPECT_FALSE(slate::wildcard_match(place.substr(1), "*" + segment + "*")) << length;
        if (length > 3) {
            std::string other = text;
            other[101] = 'a';
            EXPECT_FALSE(slate::wildcard_match(other, "*" + segment + "*")) << length;
        }
    }
}

TEST(Wildcard, FinishesOnHostileInput)
{
    const std::string text(200'000, 'a');
    std::string stars;
    std::string stars_and_questions;
    for (int i = 0; i < 1000; ++i) {
        stars += "*a";
        stars_and_questions += "*a?a";
    }

    EXPECT_FALSE(slate::wildcard_match(text, stars + "*b"));
    EXPECT_FALSE(slate::wildcard_match(text, stars + "b*"));
    EXPECT_TRUE(slate::wildcard_match(text, stars + "*"));
    EXPECT_FALSE(slate::wildcard_match(text, stars_and_questions + "*b"));
    EXPECT_FALSE(slate::wildcard_match(text, stars_and_questions + "b*"));
    EXPECT_TRUE(slate::wildcard_match(text, stars_and_questions + "*"));
    EXPECT_FALSE(slate::wildcard_match(text, "*" + std::string(60, 'a') + "?b*"));
    EXPECT_FALSE(slate::wildcard_match(text, "*" + std::string(2000, 'a') + "?b*"));
    EXPECT_FALSE(slate::wildcard_match(text, "*" + std::string(100'000, 'a') + "b*"));
    EXPECT_TRUE(slate::wildcard_match(text, std::string(200'000, '?')));
    EXPECT_FALSE(slate::wildcard_match(text, std::string(200'001, '?') + "*"));
    EXPECT_TRUE(slate::wildcard_match(text, std::string(400'000, '*')));
}

TEST(Wildcard, AllocatesNothingForSegmentsOfUpTo64Bytes)
{
    const std::string text = std::string(1000, 'a') + std::string(64, 'b') + "c";
    const std::string literal = "a*" + std::string(64, 'b') + "*c";
    const std::string wild = "a*?" + std::string(62, 'b') + "?*" + std::string(3, '?') + "*";

    const auto before = allocations();
    const bool literal_matches = slate::wildcard_match(text, literal);
    const bool wild_matches = slate::wildcard_match(text, wild);
    const bool no_match = slate::wildcard_match(text, "*a?c*");
    const auto after = allocations();

    EXPECT_EQ(after - before, 0u);
    EXPECT_TRUE(literal_matches);
    EXPECT_FALSE(wild_matches); // only "c" is left for the last three bytes
    EXPECT_FALSE(no_match);
    const auto counted = std::make_unique<std::string>(100, 'x');
    EXPECT_GE(allocations() - after, 2u) << "the counter counts";
}
} // namespace
