// SPDX-License-Identifier: Apache-2.0
#include "slate/encoding.h"

#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace {
std::string all_bytes()
{
    std::string bytes;
    for (int i = 0; i < 256; ++i)
        bytes += static_cast<char>(i);
    return bytes;
}

TEST(UriComponent, EncodesAllButLettersDigitsAndFourMarks)
{
    const std::string kept = "ABCXYZabcxyz0189-_.~";
    for (const bool query : {true, false}) {
        EXPECT_EQ(slate::encode_uri_component(kept, query), kept);
        EXPECT_EQ(slate::encode_uri_component("", query), "");
        EXPECT_EQ(slate::encode_uri_component("a b&c=d/e?f+g%", query), "a%20b%26c%3Dd%2Fe%3Ff%2Bg%25");
        EXPECT_EQ(slate::encode_uri_component("\xc3\xa4", query), "%C3%A4");
        EXPECT_EQ(slate::encode_uri_component(std::string("\0\x7f\xff", 3), query), "%00%7F%FF");
    }
}

TEST(UriComponent, DecodesWhatWasEncoded)
{
    for (const bool query : {true, false})
        EXPECT_EQ(slate::decode_uri_component(slate::encode_uri_component(all_bytes(), query), query),
                  all_bytes());
}

TEST(UriComponent, DecodesAPlusAsABlankInAQueryOnly)
{
    EXPECT_EQ(slate::decode_uri_component("a+b%2Bc%20d", true), "a b+c d");
    EXPECT_EQ(slate::decode_uri_component("a+b%2Bc%20d", false), "a+b+c d");
}

TEST(UriComponent, DecodesDigitsOfEitherCase)
{
    EXPECT_EQ(slate::decode_uri_component("%2f%2F%c3%A4", false), "//\xc3\xa4");
}

TEST(UriComponent, LeavesMalformedSequencesAlone)
{
    for (const auto* text : {"%", "%%", "%4", "100%", "%zz", "%4g", "%g4", "% 41", "%-1", "%+1", "%0x"})
        EXPECT_EQ(slate::decode_uri_component(text, false), text);
    EXPECT_EQ(slate::decode_uri_component("%%41", false), "%A");
    EXPECT_EQ(slate::decode_uri_component("%4%41", false), "%4A");
    EXPECT_EQ(slate::decode_uri_component("%2541", false), "%41"); // decoded only once
}

TEST(Base64, EncodesWithPadding)
{
    EXPECT_EQ(slate::encode_base64(""), "");
    EXPECT_EQ(slate::encode_base64("f"), "Zg==");
    EXPECT_EQ(slate::encode_base64("fo"), "Zm8=");
    EXPECT_EQ(slate::encode_base64("foo"), "Zm9v");
    EXPECT_EQ(slate::encode_base64("foob"), "Zm9vYg==");
    EXPECT_EQ(slate::encode_base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(slate::encode_base64("foobar"), "Zm9vYmFy");
}

TEST(Base64, EncodesAnyByte)
{
    EXPECT_EQ(slate::encode_base64("\xff\xff\xff"), "////");
    EXPECT_EQ(slate::encode_base64("\xfb\xff\xbe"), "+/++");
    EXPECT_EQ(slate::encode_base64(std::string_view("\0\0\0\0", 4)), "AAAAAA==");
    EXPECT_EQ(slate::encode_base64(all_bytes()).size(), 344u);
}

TEST(JoinHex, WritesThePrefixBeforeEachByte)
{
    const std::vector<unsigned char> bytes{0x00, 0x0f, 0xa5, 0xff};

    EXPECT_EQ(slate::join_hex(bytes, "", ""), "000fa5ff");
    EXPECT_EQ(slate::join_hex(bytes, ", ", "0x"), "0x00, 0x0f, 0xa5, 0xff");
    EXPECT_EQ(slate::join_hex({0x1b}, ":", "\\x"), "\\x1b");
    EXPECT_EQ(slate::join_hex({}, ",", "0x"), "");
}
} // namespace
