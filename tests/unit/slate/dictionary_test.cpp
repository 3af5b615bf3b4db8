// SPDX-License-Identifier: Apache-2.0
#include "slate/dictionary.h"

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {
using Keys = std::vector<std::string>;

TEST(Dictionary, IsEmptyAtFirst)
{
    const auto dictionary = slate::make_dictionary();

    EXPECT_TRUE(dictionary->keys().empty());
    EXPECT_FALSE(dictionary->has("a"));
    EXPECT_EQ(dictionary->get("a", "default"), "default");
}

TEST(Dictionary, GivesBackWhatWasSet)
{
    const auto dictionary = slate::make_dictionary();

    dictionary->set("name", std::string_view("value"));
    dictionary->set("", std::string_view("of the empty key"));
    dictionary->set("empty", std::string_view());

    EXPECT_TRUE(dictionary->has("name"));
    EXPECT_EQ(dictionary->get("name", "default"), "value");
    EXPECT_EQ(dictionary->get("", "default"), "of the empty key");
    EXPECT_TRUE(dictionary->has("empty"));
    EXPECT_EQ(dictionary->get("empty", "default"), "");
}

TEST(Dictionary, ReplacesAValueThatIsSetAgain)
{
    const auto dictionary = slate::make_dictionary();

    dictionary->set("a", "1");
    dictionary->set("a", "2");

    EXPECT_EQ(dictionary->get("a", ""), "2");
    EXPECT_EQ(dictionary->keys(), Keys{"a"});
}

TEST(Dictionary, ComparesKeysExactly)
{
    const auto dictionary = slate::make_dictionary();

    dictionary->set("Accept", "x");
    dictionary->set(std::string_view("nu\0ll", 5), "y");

    EXPECT_FALSE(dictionary->has("accept"));
    EXPECT_FALSE(dictionary->has("Accept "));
    EXPECT_FALSE(dictionary->has("nu"));
    EXPECT_TRUE(dictionary->has(std::string_view("nu\0ll", 5)));
}

TEST(Dictionary, ListsItsKeysInByteOrder)
{
    const auto dictionary = slate::make_dictionary();

    for (const auto* key : {"b", "B", "a", "\xc3\xa4", "10", "9", "aa"})
        dictionary->set(key, "x");

    EXPECT_EQ(dictionary->keys(), (Keys{"10", "9", "B", "a", "aa", "b", "\xc3\xa4"}));
}

TEST(Dictionary, StoresTheDecimalTextOfANumber)
{
    const auto dictionary = slate::make_dictionary();

    dictionary->set("long", -42L);
    dictionary->set("int", 7);
    dictionary->set("unsigned", std::numeric_limits<std::uint64_t>::max());
    dictionary->set("short", static_cast<short>(-3));
    dictionary->set("byte", static_cast<unsigned char>(200));
    dictionary->set("long long", std::numeric_limits<long long>::min());
    dictionary->set("double", 0.5);
    dictionary->set("float", 1e6f);

    EXPECT_EQ(dictionary->get("long", ""), "-42");
    EXPECT_EQ(dictionary->get("int", ""), "7");
    EXPECT_EQ(dictionary->get("unsigned", ""), "18446744073709551615");
    EXPECT_EQ(dictionary->get("short", ""), "-3");
    EXPECT_EQ(dictionary->get("byte", ""), "200");
    EXPECT_EQ(dictionary->get("long long", ""), "-9223372036854775808");
    EXPECT_EQ(dictionary->get("double", ""), "0.5");
    EXPECT_EQ(dictionary->get("float", ""), "1e+06");
}

TEST(Dictionary, TreatsALiteralAsTextAndAFlagAsAFlag)
{
    const auto dictionary = slate::make_dictionary();

    dictionary->set("text", "literal");
    dictionary->set("flag", true);

    EXPECT_EQ(dictionary->get("text", "default"), "literal");
    EXPECT_EQ(dictionary->get("flag", "default"), "true");
    EXPECT_EQ(dictionary->get("missing", "default"), "default");
}

TEST(Dictionary, ReadsAFlag)
{
    const auto dictionary = slate::make_dictionary();
    for (const auto* text : {"true", "1", "false", "0", "yes", "TRUE", "", " 1"})
        dictionary->set(text, text);

    for (const bool dflt : {true, false}) {
        EXPECT_TRUE(dictionary->get("true", dflt));
        EXPECT_TRUE(dictionary->get("1", dflt));
        EXPECT_FALSE(dictionary->get("false", dflt));
        EXPECT_FALSE(dictionary->get("0", dflt));
        for (const auto* other : {"yes", "TRUE", "", " 1", "missing"})
            EXPECT_EQ(dictionary->get(other, dflt), dflt) << other;
    }
}

/// What get() returns for a default of type `T`.
template <class T>
using Got = decltype(std::declval<const slate::Dictionary&>().get("key", std::declval<T>()));

static_assert(std::is_same_v<Got<bool>, bool>);
static_assert(std::is_same_v<Got<const bool&>, bool>);
static_assert(std::is_same_v<Got<const char (&)[2]>, std::string>);
static_assert(std::is_same_v<Got<const char*>, std::string>);
static_assert(std::is_same_v<Got<char*>, std::string>);
static_assert(std::is_same_v<Got<std::string>, std::string>);
static_assert(std::is_same_v<Got<const std::string&>, std::string>);
static_assert(std::is_same_v<Got<std::string_view>, std::string>);
static_assert(std::is_same_v<Got<int>, int>);
static_assert(std::is_same_v<Got<const int&>, int>);
static_assert(std::is_same_v<Got<std::uint8_t>, std::uint8_t>);
static_assert(std::is_same_v<Got<long double>, long double>);
static_assert(std::is_same_v<decltype(std::declval<slate::Dictionary&>().get("key", 0)), int>);

TEST(Dictionary, ReadsANumberOfTheDefaultsType)
{
    const auto dictionary =
        slate::make_dictionary({{"port", "5555"}, {"negative", "-7"}, {"ratio", "0.25"}, {"byte", "200"}});

    EXPECT_EQ(dictionary->get("port", 1), 5555);
    EXPECT_EQ(dictionary->get("port", std::uint16_t{1}), 5555);
    EXPECT_EQ(dictionary->get("port", 1L), 5555L);
    EXPECT_EQ(dictionary->get("port", 1ull), 5555ull);
    EXPECT_EQ(dictionary->get("port", 1.5), 5555.0);
    EXPECT_EQ(dictionary->get("negative", 0), -7);
    EXPECT_EQ(dictionary->get("ratio", 1.0), 0.25);
    EXPECT_EQ(dictionary->get("ratio", 1.0f), 0.25f);
    EXPECT_EQ(dictionary->get("byte", std::uint8_t{0}), 200);
}

TEST(Dictionary, GivesTheDefaultIfTheValueIsNoSuchNumber)
{
    const auto dictionary = slate::make_dictionary({{"empty", ""},
                                                    {"text", "five"},
                                                    {"flag", "true"},
                                                    {"blank", " 5"},
                                                    {"fraction", "1.5"},
                                                    {"large", "65536"}});

    for (const auto* key : {"missing", "empty", "text", "flag", "blank", "fraction"}) {
        EXPECT_EQ(dictionary->get(key, 5555), 5555) << key;
        EXPECT_EQ(dictionary->get(key, 5555u), 5555u) << key;
        EXPECT_EQ(dictionary->get(key, 'x'), 'x') << key;
    }
    EXPECT_EQ(dictionary->get("missing", 0.5), 0.5);
    EXPECT_EQ(dictionary->get("text", 0.5), 0.5);
    EXPECT_EQ(dictionary->get("large", std::uint16_t{80}), 80);
    EXPECT_EQ(dictionary->get("large", 80), 65536);
}

template <class T>
class DictionaryNumber : public testing::Test {
};
using Numbers =
    testing::Types<char, signed char, unsigned char, short, unsigned short, int, unsigned int, long,
                   unsigned long, long long, unsigned long long, float, double, long double>;
TYPED_TEST_SUITE(DictionaryNumber, Numbers);

TYPED_TEST(DictionaryNumber, IsReadAsItWasSet)
{
    const auto dictionary = slate::make_dictionary();
    const TypeParam value = 42;
    const TypeParam other = 43;

    dictionary->set("key", value);

    EXPECT_EQ(dictionary->get("key", other), value);
    EXPECT_EQ(dictionary->get("missing", other), other);
}

TEST(Dictionary, IsMadeWithEntries)
{
    const std::string key = "key";
    const std::string_view value = "value";

    const auto dictionary =
        slate::make_dictionary({{"accept", "application/json"}, {"x", "1"}, {key, value}});

    EXPECT_EQ(dictionary->keys(), (Keys{"accept", "key", "x"}));
    EXPECT_EQ(dictionary->get("accept", ""), "application/json");
    EXPECT_EQ(dictionary->get("x", ""), "1");
    EXPECT_EQ(dictionary->get("key", ""), "value");
    EXPECT_EQ(slate::make_dictionary({{"a", "1"}})->get("a", ""), "1");
    EXPECT_TRUE(slate::make_dictionary({})->keys().empty());
}

TEST(Dictionary, KeepsTheLaterOfTwoEqualKeys)
{
    const auto dictionary = slate::make_dictionary({{"a", "1"}, {"b", "2"}, {"a", "3"}});

    EXPECT_EQ(dictionary->keys(), (Keys{"a", "b"}));
    EXPECT_EQ(dictionary->get("a", ""), "3");
}

TEST(Dictionary, RemovesAKeyAndIgnoresAnUnknownOne)
{
    const auto dictionary = slate::make_dictionary();
    dictionary->set("a", "1");
    dictionary->set("b", "2");

    dictionary->remove("a");
    dictionary->remove("unknown");

    EXPECT_EQ(dictionary->keys(), Keys{"b"});
}

TEST(Dictionary, IsEmptyOnceCleared)
{
    const auto dictionary = slate::make_dictionary();
    dictionary->set("a", "1");

    dictionary->clear();

    EXPECT_FALSE(dictionary->has("a"));
    EXPECT_TRUE(dictionary->keys().empty());
}

TEST(Dictionary, IsReadByManyThreadsAtOnce)
{
    const auto dictionary = slate::make_dictionary();
    for (int i = 0; i < 50; ++i)
        dictionary->set("key" + std::to_string(i), i);
    dictionary->set("flag", true);

    std::atomic<int> wrong{0};
    {
        std::vector<std::jthread> threads;
        for (int t = 0; t < 6; ++t) {
            threads.emplace_back([&, reading = std::shared_ptr<const slate::Dictionary>(dictionary)] {
                for (int i = 0; i < 500; ++i) {
                    const std::string number = std::to_string(i % 50);
                    wrong += reading->get("key" + number, "") == number ? 0 : 1;
                    wrong += reading->get("flag", false) ? 0 : 1;
                    wrong += reading->has("key" + number) && !reading->has("missing") ? 0 : 1;
                    wrong += reading->keys().size() == 51 ? 0 : 1;
                }
            });
        }
    }
    EXPECT_EQ(wrong, 0);
}
} // namespace
