// SPDX-License-Identifier: Apache-2.0
#include "slate/strings.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <list>
#include <locale>
#include <map>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "comma_locale.h"

namespace {
using Pieces = std::vector<std::string>;
using Pair = std::pair<std::string, std::string>;

Pieces split(std::string_view text, std::string_view delimiters, bool trim, bool skip_empty)
{
    return slate::split<Pieces>(text, delimiters, trim, skip_empty);
}

Pair split_once(std::string_view text, std::string_view delimiters, bool trim, bool skip_empty)
{
    return slate::split<Pair>(text, delimiters, trim, skip_empty);
}

TEST(Strings, CompareBeginningsEndsAndPartsExactly)
{
    EXPECT_TRUE(slate::starts_with("/status/cpu", "/status"));
    EXPECT_TRUE(slate::starts_with("abc", ""));
    EXPECT_TRUE(slate::starts_with("", ""));
    EXPECT_FALSE(slate::starts_with("abc", "ABC"));
    EXPECT_FALSE(slate::starts_with("ab", "abc"));

    EXPECT_TRUE(slate::ends_with("file.txt", ".txt"));
    EXPECT_TRUE(slate::ends_with("abc", ""));
    EXPECT_FALSE(slate::ends_with("file.txt", ".TXT"));
    EXPECT_FALSE(slate::ends_with("c", "bc"));

    EXPECT_TRUE(slate::contains("abc", "b"));
    EXPECT_TRUE(slate::contains("abc", ""));
    EXPECT_FALSE(slate::contains("abc", "B"));
    EXPECT_FALSE(slate::contains("abc", "ac"));
}

TEST(Strings, ChangeTheCaseOfAsciiLettersOnly)
{
    EXPECT_EQ(slate::to_lower("AZaz@[`{09\xc3\x84"), "azaz@[`{09\xc3\x84");
    EXPECT_EQ(slate::to_upper("AZaz@[`{09\xc3\xa4"), "AZAZ@[`{09\xc3\xa4");
    EXPECT_EQ(slate::to_lower(""), "");
    EXPECT_EQ(slate::to_lower(std::string_view("A\0B", 3)), std::string("a\0b", 3));
}

TEST(Strings, AreEqualExceptForTheCaseOfAsciiLetters)
{
    EXPECT_TRUE(slate::equals_ignoring_case("X-Tarn-Key", "x-tARN-kEY"));
    EXPECT_TRUE(slate::equals_ignoring_case("", ""));
    EXPECT_FALSE(slate::equals_ignoring_case("a", "ab"));
    EXPECT_FALSE(slate::equals_ignoring_case("ab", "a"));
    EXPECT_FALSE(slate::equals_ignoring_case("@", "`"));
    EXPECT_FALSE(slate::equals_ignoring_case("\xc3\x84", "\xc3\xa4"));
}

TEST(Strings, AreTrimmedOfLeadingCharacters)
{
    EXPECT_EQ(slate::trim_left("//a/b", "/"), "a/b");
    EXPECT_EQ(slate::trim_left(" \t x ", " \t"), "x ");
    EXPECT_EQ(slate::trim_left("///", "/"), "");
    EXPECT_EQ(slate::trim_left("abc", ""), "abc");
    EXPECT_EQ(slate::trim_left("", "/"), "");
}

TEST(Strings, AreTrimmedOfAPrefixOrSuffixOnce)
{
    EXPECT_EQ(slate::trim_prefix("ababc", "ab"), "abc");
    EXPECT_EQ(slate::trim_prefix("abc", "b"), "abc");
    EXPECT_EQ(slate::trim_prefix("abc", ""), "abc");
    EXPECT_EQ(slate::trim_prefix("abc", "abc"), "");
    EXPECT_EQ(slate::trim_suffix("abcbc", "bc"), "abc");
    EXPECT_EQ(slate::trim_suffix("abc", "b"), "abc");
    EXPECT_EQ(slate::trim_suffix("abc", ""), "abc");
    EXPECT_EQ(slate::trim_suffix("abc", "abc"), "");
}

TEST(Strings, KeepOnlyLettersAndDigits)
{
    EXPECT_EQ(slate::trim_alphanumeric("0a-1b_2C./Z9 \xc3\xa4\n"), "0a1b2CZ9");
    EXPECT_EQ(slate::trim_alphanumeric("@[`{/:"), "");
    EXPECT_EQ(slate::trim_alphanumeric(""), "");
}

struct Utf8Row {
    std::string text;
    std::string repaired; // the same if the text is well-formed

    friend std::ostream& operator<<(std::ostream& stream, const Utf8Row& row)
    {
        for (const char c : row.text)
            stream << "0123456789ABCDEF"[static_cast<unsigned char>(c) >> 4]
                   << "0123456789ABCDEF"[static_cast<unsigned char>(c) & 0xF] << " ";
        return stream;
    }
};

/// A row of `bad` bytes, each of which is replaced, and of a text that stays.
Utf8Row ill_formed(const std::string& bad, const std::string& rest = "")
{
    std::string repaired;
    for (std::size_t i = 0; i < bad.size(); ++i)
        repaired += "\xEF\xBF\xBD";
    return {bad + rest, repaired + rest};
}

Utf8Row well_formed(const std::string& text)
{
    return {text, text};
}

class Utf8 : public testing::TestWithParam<Utf8Row> {};

TEST_P(Utf8, IsDistinguishedFromOtherBytes)
{
    EXPECT_EQ(slate::is_utf8(GetParam().text), GetParam().text == GetParam().repaired);
}

TEST_P(Utf8, IsRestoredByReplacingEveryOtherByte)
{
    const std::string repaired = slate::to_utf8(GetParam().text);

    EXPECT_EQ(repaired, GetParam().repaired);
    EXPECT_TRUE(slate::is_utf8(repaired));
}

TEST_P(Utf8, IsFoundBetweenOtherText)
{
    EXPECT_EQ(slate::to_utf8("a" + GetParam().text + "z"), "a" + GetParam().repaired + "z");
    EXPECT_EQ(slate::to_utf8("\xC3\xA4" + GetParam().text), "\xC3\xA4" + GetParam().repaired);
}

// The first and the last sequence in each line of the standard's table of well-formed ones.
INSTANTIATE_TEST_SUITE_P(WellFormed, Utf8,
                         testing::Values(well_formed(""), well_formed(std::string(1, '\0')),
                                         well_formed("\x7F"), well_formed("\xC2\x80"),
                                         well_formed("\xDF\xBF"), well_formed("\xE0\xA0\x80"),
                                         well_formed("\xE0\xBF\xBF"), well_formed("\xE1\x80\x80"),
                                         well_formed("\xEC\xBF\xBF"), well_formed("\xED\x80\x80"),
                                         well_formed("\xED\x9F\xBF"), well_formed("\xEE\x80\x80"),
                                         well_formed("\xEF\xBF\xBD"), well_formed("\xEF\xBF\xBF"),
                                         well_formed("\xF0\x90\x80\x80"), well_formed("\xF0\xBF\xBF\xBF"),
                                         well_formed("\xF1\x80\x80\x80"), well_formed("\xF3\xBF\xBF\xBF"),
                                         well_formed("\xF4\x80\x80\x80"), well_formed("\xF4\x8F\xBF\xBF"),
                                         well_formed("\x4D\xD0\xB0\xE4\xBA\x8C\xF0\x90\x8C\x82")));

INSTANTIATE_TEST_SUITE_P(Overlong, Utf8,
                         testing::Values(ill_formed("\xC0\x80"), ill_formed("\xC0\xAF"),
                                         ill_formed("\xC1\xBF"), ill_formed("\xE0\x80\x80"),
                                         ill_formed("\xE0\x9F\xBF"), ill_formed("\xF0\x80\x80\x80"),
                                         ill_formed("\xF0\x8F\xBF\xBF")));

INSTANTIATE_TEST_SUITE_P(Surrogates, Utf8,
                         testing::Values(ill_formed("\xED\xA0\x80"), ill_formed("\xED\xAF\xBF"),
                                         ill_formed("\xED\xB0\x80"), ill_formed("\xED\xBF\xBF"),
                                         ill_formed("\xED\xA0\xBD\xED\xB8\x80")));

INSTANTIATE_TEST_SUITE_P(BeyondTheLastCharacter, Utf8,
                         testing::Values(ill_formed("\xF4\x90\x80\x80"), ill_formed("\xF5\x80\x80\x80"),
                                         ill_formed("\xF7\xBF\xBF\xBF"), ill_formed("\xF8\x88\x80\x80\x80"),
                                         ill_formed("\xFC\x84\x80\x80\x80\x80"), ill_formed("\xFE"),
                                         ill_formed("\xFF")));

INSTANTIATE_TEST_SUITE_P(Cut, Utf8,
                         testing::Values(ill_formed("\x80"), ill_formed("\xBF"), ill_formed("\xC2"),
                                         ill_formed("\xDF"), ill_formed("\xE0\xA0"), ill_formed("\xE1\x80"),
                                         ill_formed("\xEF\xBF"), ill_formed("\xF0\x90\x80"),
                                         ill_formed("\xF1\x80"), ill_formed("\xF4\x8F\xBF"),
                                         ill_formed("\xC2", "A"), ill_formed("\xE1\x80", "\xC3\xA4"),
                                         ill_formed("\xF1\x80\x80", "\xE2\x82\xAC"), ill_formed("\xC2\xC2"),
                                         ill_formed("\xF1\x80\xE1\x80"),
                                         // The standard's own example of cut sequences.
                                         ill_formed("\xE1\x80\xE2\xF0\x91\x92\xF1\xBF", "\x41")));

TEST(Split, CutsAtEachDelimiter)
{
    EXPECT_EQ(split("a,b;c", ",;", false, false), (Pieces{"a", "b", "c"}));
    EXPECT_EQ(split("status@1203?x=y@z", "@?", false, false), (Pieces{"status", "1203", "x=y", "z"}));
    EXPECT_EQ(split("/a/b", "/", false, true), (Pieces{"a", "b"}));
    EXPECT_EQ(split("/a//b/", "/", false, false), (Pieces{"", "a", "", "b", ""}));
    EXPECT_EQ(split("abc", ",", false, false), (Pieces{"abc"}));
    EXPECT_EQ(split("a,b", "", false, false), (Pieces{"a,b"}));
}

TEST(Split, RemovesBlanksAroundPiecesIfAsked)
{
    EXPECT_EQ(split(" GET ,\tPUT\t", ",", true, false), (Pieces{"GET", "PUT"}));
    EXPECT_EQ(split(" a b , c", ",", true, false), (Pieces{"a b", "c"}));
    EXPECT_EQ(split("\na\n", ",", true, false), (Pieces{"\na\n"}));
    EXPECT_EQ(split(" a , b ", ",", false, false), (Pieces{" a ", " b "}));
}

TEST(Split, SkipsEmptyPiecesIfAsked)
{
    EXPECT_EQ(split(",a,,b,", ",", false, true), (Pieces{"a", "b"}));
    EXPECT_EQ(split("a, ,b", ",", true, true), (Pieces{"a", "b"})); // empty once trimmed
    EXPECT_EQ(split("a, ,b", ",", false, true), (Pieces{"a", " ", "b"}));
    EXPECT_EQ(split("a, ,b", ",", true, false), (Pieces{"a", "", "b"}));
    EXPECT_EQ(split(",,", ",", false, true), Pieces{});
}

TEST(Split, OfEmptyTextGivesOneEmptyPieceOrNone)
{
    EXPECT_EQ(split("", ",", false, false), Pieces{""});
    EXPECT_EQ(split("", ",", false, true), Pieces{});
    EXPECT_EQ(split("  ", ",", true, true), Pieces{});
}

TEST(Split, IntoAPairCutsAtTheFirstDelimiter)
{
    for (const bool skip_empty : {true, false}) {
        EXPECT_EQ(split_once("a=b=c", "=", false, skip_empty), Pair("a", "b=c"));
        EXPECT_EQ(split_once("a", "=", false, skip_empty), Pair("a", ""));
        EXPECT_EQ(split_once("a=", "=", false, skip_empty), Pair("a", ""));
        EXPECT_EQ(split_once("=a", "=", false, skip_empty), Pair("", "a"));
        EXPECT_EQ(split_once("", "=", false, skip_empty), Pair("", ""));
        EXPECT_EQ(split_once("a;b=c", "=;", false, skip_empty), Pair("a", "b=c"));
        EXPECT_EQ(split_once(" a = b ", "=", false, skip_empty), Pair(" a ", " b "));
        EXPECT_EQ(split_once(" a =\tb ", "=", true, skip_empty), Pair("a", "b"));
    }
}

TEST(Join, PutsTheSeparatorBetween)
{
    EXPECT_EQ(slate::join(Pieces{"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(slate::join(Pieces{"a"}, ", "), "a");
    EXPECT_EQ(slate::join(Pieces{}, ", "), "");
    EXPECT_EQ(slate::join(Pieces{"", ""}, "/"), "/");
    EXPECT_EQ(slate::join(std::list<std::string_view>{"a", "b"}, ""), "ab");
}

TEST(Join, TakesTextFromTheAccessor)
{
    const std::map<std::string, int> items{{"a", 1}, {"b", 2}};

    const auto text = slate::join(
        items, "&", [](const auto& item) { return item.first + "=" + slate::to_string(item.second); });

    EXPECT_EQ(text, "a=1&b=2");
}

/// What a stream prints by default.
template <class T>
std::string streamed(T value)
{
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream << value;
    return stream.str();
}

TEST(ToString, WritesWholeNumbersInDecimal)
{
    EXPECT_EQ(slate::to_string(0), "0");
    EXPECT_EQ(slate::to_string(-1234567), "-1234567");
    EXPECT_EQ(slate::to_string(std::numeric_limits<int>::min()), "-2147483648");
    EXPECT_EQ(slate::to_string(4294967295u), "4294967295");
    EXPECT_EQ(slate::to_string(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
    EXPECT_EQ(slate::to_string(std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    // Where one of these is std::int64_t, the other isn't.
    EXPECT_EQ(slate::to_string(-1L), "-1");
    EXPECT_EQ(slate::to_string(1UL), "1");
    EXPECT_EQ(slate::to_string(-1LL), "-1");
    EXPECT_EQ(slate::to_string(1ULL), "1");
}

TEST(ToString, WritesFlagsAndStrings)
{
    EXPECT_EQ(slate::to_string(true), "true");
    EXPECT_EQ(slate::to_string(false), "false");
    EXPECT_EQ(slate::to_string(std::string(" a\0b", 4)), std::string(" a\0b", 4));
}

TEST(ToString, WritesSixSignificantDigitsAsAStreamDoes)
{
    EXPECT_EQ(slate::to_string(3.14159265358979), "3.14159");
    EXPECT_EQ(slate::to_string(1e6), "1e+06");
    EXPECT_EQ(slate::to_string(0.1f), "0.1");
    EXPECT_EQ(slate::to_string(1234567.0), "1.23457e+06");
    EXPECT_EQ(slate::to_string(-0.0), "-0");
    EXPECT_EQ(slate::to_string(std::numeric_limits<double>::infinity()), "inf");
    EXPECT_EQ(slate::to_string(-std::numeric_limits<float>::infinity()), "-inf");
    EXPECT_EQ(slate::to_string(std::numeric_limits<double>::quiet_NaN()), "nan");

    for (const double value : {0.0, 1.0, 2.5, 100000.0, 999999.0, 999999.5, 1e-4, 1e-5, 0.00012345678, 1e100,
                               -1e-300, 123456.5, 5e-324, std::numeric_limits<double>::max()}) {
        EXPECT_EQ(slate::to_string(value), streamed(value));
        EXPECT_EQ(slate::to_string(static_cast<float>(value)), streamed(static_cast<float>(value)));
    }
}

template <class T>
void expect_parsed(std::string_view text, T expected)
{
    T value{};
    EXPECT_TRUE(slate::try_parse(text, &value)) << text;
    EXPECT_EQ(value, expected) << text;
}

template <class T>
void expect_refused(std::string_view text)
{
    T value(42);
    EXPECT_FALSE(slate::try_parse(text, &value)) << text;
    EXPECT_EQ(value, T(42)) << text;
}

template <class T>
class WholeNumber : public testing::Test {
};
using WholeNumbers = testing::Types<signed char, short, int, long, long long, unsigned char, unsigned short,
                                    unsigned int, unsigned long, unsigned long long>;
TYPED_TEST_SUITE(WholeNumber, WholeNumbers);

TYPED_TEST(WholeNumber, IsReadFromItsText)
{
    using Limits = std::numeric_limits<TypeParam>;

    for (const TypeParam value : {TypeParam(0), TypeParam(7), Limits::min(), Limits::max()})
        expect_parsed(slate::to_string(value), value);
    expect_parsed("007", TypeParam(7));
}

TYPED_TEST(WholeNumber, IsRefusedUnlessTheWholeTextIsOne)
{
    for (const auto* text : {"",    " ",   "-",    "+",     "abc", "1 ",  " 1",  "\t1", "1x",       "x1",
                             "1.0", "1e3", "0x10", "1,000", "--1", "+-1", "-+1", "++1", "\xd9\xa1", "true"})
        expect_refused<TypeParam>(text);
    expect_refused<TypeParam>(std::string_view("1\0", 2));
}

TYPED_TEST(WholeNumber, IsRefusedOutOfRange)
{
    const auto greatest = slate::to_string(std::numeric_limits<TypeParam>::max());
    auto beyond = greatest; // its last digit is 5 or 7
    ++beyond.back();

    expect_refused<TypeParam>(beyond);
    expect_refused<TypeParam>(greatest + "0");
    expect_refused<TypeParam>(std::string(1000, '9'));
}

TEST(TryParse, ReadsASignForSignedTypesOnly)
{
    expect_parsed<int>("-5", -5);
    expect_parsed<int>("+5", 5);
    expect_parsed<long>("-0", 0);
    expect_parsed<double>("+0.5", 0.5);
    expect_refused<unsigned int>("-5");
    expect_refused<unsigned int>("+5");
    expect_refused<unsigned long>("-0");
    expect_refused<int>("-2147483649");
}

TEST(TryParse, ReadsFlags)
{
    expect_parsed("true", true);
    expect_parsed("1", true);
    expect_parsed("false", false);
    expect_parsed("0", false);
    for (const auto* text : {"", "TRUE", "True", "yes", "no", "on", "2", "01", " true", "true ", "t"})
        expect_refused<bool>(text);
}

TEST(TryParse, ReadsFloatingPoint)
{
    expect_parsed("3.14159", 3.14159);
    expect_parsed("1e+06", 1e6);
    expect_parsed("-.5", -0.5);
    expect_parsed("5.", 5.0);
    expect_parsed("0.1", 0.1f);
    expect_parsed("0.1", 0.1L);
    expect_parsed("inf", std::numeric_limits<double>::infinity());
    expect_parsed("-inf", -std::numeric_limits<float>::infinity());
    double value = 0;
    EXPECT_TRUE(slate::try_parse("nan", &value));
    EXPECT_TRUE(std::isnan(value));

    for (const auto* text :
         {"", " ", ".", "e5", "1e", "1e+", " 1", "1 ", "1,5", "1.5.5", "0x1p3", "1f", "abc", "+-1"}) {
        expect_refused<double>(text);
        expect_refused<float>(text);
        expect_refused<long double>(text);
    }
    expect_refused<double>("1e999");
    expect_refused<float>("1e39");
}

TEST(TryParse, ReadsOneByteAsACharacter)
{
    expect_parsed("x", 'x');
    expect_parsed("7", '7');
    expect_parsed(" ", ' ');
    expect_parsed(std::string_view("\0", 1), '\0');
    for (const auto* text : {"", "xy", "77", "\xc3\xa4"})
        expect_refused<char>(text);
    EXPECT_EQ(slate::to_string('x'), "x");
}

TEST(TryParse, ReadsAnyTextAsAString)
{
    expect_parsed("", std::string());
    expect_parsed(" a b ", std::string(" a b "));
    expect_parsed(std::string_view("a\0b", 3), std::string("a\0b", 3));
}

struct Grouping : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(Strings, DontDependOnTheLocaleOfCpp)
{
    const auto before = std::locale::global(std::locale(std::locale::classic(), new Grouping));

    const auto whole = slate::to_string(1234567);
    const auto real = slate::to_string(1234.5);
    double value = 0;
    const bool parsed = slate::try_parse("0.5", &value);

    std::locale::global(before);
    EXPECT_EQ(whole, "1234567");
    EXPECT_EQ(real, "1234.5");
    EXPECT_TRUE(parsed);
    EXPECT_EQ(value, 0.5);
}

TEST(Strings, DontDependOnTheLocaleOfC)
{
    const CommaLocale locale;
    if (!locale.is_set())
        GTEST_SKIP() << "localedef makes no locale here";
    char printed[8];
    std::snprintf(printed, sizeof(printed), "%g", 0.5);
    ASSERT_STREQ(printed, "0,5"); // so the locale is in force

    expect_parsed("1234.5", 1234.5);
    expect_parsed("-1e-3", -0.001);
    expect_parsed("0.5", 0.5f);
    expect_parsed("0.5", 0.5L);
    expect_parsed("1234567", 1234567);
    expect_refused<double>("0,5");
    expect_refused<float>("0,5");
    expect_refused<long double>("0,5");
    expect_refused<double>("1.234,5");
    expect_refused<int>("1.234");

    EXPECT_EQ(slate::to_string(1234.5), "1234.5");
    EXPECT_EQ(slate::to_string(0.5f), "0.5");
    EXPECT_EQ(slate::to_string(0.5L), "0.5");
    EXPECT_EQ(slate::to_string(1234567), "1234567");
}
} // namespace
