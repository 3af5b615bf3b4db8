// SPDX-License-Identifier: Apache-2.0
#include "tarn/message.h"

#include <string>

#include <gtest/gtest.h>

#include "tarn/formats.h"
#include "unit/tarn/messages.h"

namespace {
using tarn::Format;
using tarn_test::message_of;

TEST(AMessage, ShowsTheHeadOfEachVerbAndOfAResponse)
{
    const auto path_of = [](const std::string& text) {
        const auto message = message_of(text);
        const tarn::Head* head = tarn::find_head(*message);
        return head ? head->path() : "no head";
    };
    for (const std::string verb : {"get", "put", "post", "del", "response"})
        EXPECT_EQ(path_of(verb + R"( { head { path: "/a" } })"), "/a") << verb;
    EXPECT_EQ(path_of(R"(head { path: "/a" })"), "/a");
}

TEST(AMessage, HasNoHeadToShowWhereNoneIsSet)
{
    for (const std::string text : {"", "get {}", "put { body {} }", "response { status: Ok }", "call {}"})
        EXPECT_EQ(tarn::find_head(*message_of(text)), nullptr) << text;
}

TEST(AMessage, ShowsTheBodyOfAPutAPostAndAResponse)
{
    for (const std::string verb : {"put", "post", "response"}) {
        const auto message = message_of(verb + R"( { body { txt: "text" } })");
        const tarn::Body* body = tarn::find_body(*message);
        ASSERT_NE(body, nullptr) << verb;
        EXPECT_EQ(body->txt(), "text") << verb;
    }
}

TEST(AMessage, HasNoBodyToShowWhereNoneIsSet)
{
    for (const std::string text : {"", "get { head {} }", "head {}", "del {}", "put {}", "post { head {} }",
                                   "response { status: Ok }", "call { result { status: Ok } }"})
        EXPECT_EQ(tarn::find_body(*message_of(text)), nullptr) << text;
}

TEST(AMessage, IsNotChangedByALookAtIt)
{
    const auto message = message_of("put {}");
    (void)tarn::find_head(*message);
    (void)tarn::find_body(*message);
    EXPECT_TRUE(tarn_test::equal(*message, *message_of("put {}")));
}

// The formats of bodies, by the names that applications use.
TEST(AFormat, IsFoundByTextAndByPath)
{
    EXPECT_EQ(tarn::to_format("application/json; charset=utf-8"), Format::Json);
    EXPECT_EQ(tarn::to_format("png"), Format::Png);
    EXPECT_EQ(tarn::to_format("no such thing"), Format::Unknown);
    EXPECT_EQ(tarn::to_format_from_path("/some/page.html"), Format::Html);
    EXPECT_EQ(tarn::to_format_from_path("/some/page"), Format::Bin);
    EXPECT_TRUE(tarn::is_binary_format(Format::Png));
    EXPECT_TRUE(tarn::is_binary_format(Format::Unknown));
    EXPECT_FALSE(tarn::is_binary_format(Format::Json));
}
} // namespace
