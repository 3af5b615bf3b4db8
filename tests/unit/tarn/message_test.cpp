// SPDX-License-Identifier: Apache-2.0
#include "tarn/message.h"

#include <deque>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tarn/formats.h"
#include "tarn/request.h"
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

/// A call with a parameter that holds such a call, and so on.
tarn::Message nested_calls(int depth)
{
    tarn::Message message;
    message.mutable_call()->mutable_select()->set_method_number(1);
    for (int i = 0; i < depth; ++i) {
        tarn::Message outer;
        outer.mutable_call()->mutable_params()->add_param()->PackFrom(message);
        message = std::move(outer);
    }
    return message;
}

constexpr std::size_t few_kilobytes = 8192;

TEST(ALogText, ExpandsAnAnyOneLevelDeep)
{
    EXPECT_EQ(tarn::to_string(nested_calls(0)), "select { method_number: 1 }");
    EXPECT_EQ(
        tarn::to_string(nested_calls(1)),
        "params { param { [type.googleapis.com/tarn.Message] { call { select { method_number: 1 } } } } }");
    const std::string text = tarn::to_string(nested_calls(2));
    EXPECT_TRUE(
        text.starts_with("params { param { [type.googleapis.com/tarn.Message] { call { params { param { "
                         "type_url: \"type.googleapis.com/tarn.Message\" value: \""))
        << text;
}

TEST(ALogText, ShowsAnAnyOfAnotherTypeOrOfOtherBytesAsItIs)
{
    tarn::Message message;
    auto* any = message.mutable_call()->mutable_params()->add_param();
    any->set_type_url("type.googleapis.com/no.such.Type");
    any->set_value("x");
    EXPECT_EQ(tarn::to_string(message),
              R"(params { param { type_url: "type.googleapis.com/no.such.Type" value: "x" } })");
    any->set_type_url("type.googleapis.com/tarn.Message");
    any->set_value("\xFF");
    EXPECT_EQ(tarn::to_string(message),
              R"(params { param { type_url: "type.googleapis.com/tarn.Message" value: "\377" } })");
    any->set_type_url("tarn.Message");
    EXPECT_EQ(tarn::to_string(message), R"(params { param { type_url: "tarn.Message" value: "\377" } })");
    any->set_type_url("type.googleapis.com/tarn.Message");
    any->clear_value();
    EXPECT_EQ(tarn::to_string(message), "params { param { [type.googleapis.com/tarn.Message] { } } }");
}

// Some 200 KB of them overflow the stack of a printer that follows them.
TEST(ALogText, BearsAnyInAnyWithoutEnd)
{
    tarn::Message message = nested_calls(0);
    while (message.ByteSizeLong() < 250000)
        message = [&] {
            tarn::Message outer;
            outer.mutable_call()->mutable_params()->add_param()->PackFrom(message);
            return outer;
        }();
    const std::string text = tarn::to_string(message);
    EXPECT_LT(text.size(), few_kilobytes);
    EXPECT_TRUE(text.ends_with("… (" + std::to_string(message.call().ByteSizeLong()) + " bytes)")) << text;
}

TEST(ALogText, IsCutWhateverIsLarge)
{
    const std::string large(1 << 20, 'x');
    std::deque<tarn::Message> messages;
    const auto add = [&]() -> tarn::Message& { return messages.emplace_back(); };
    add().mutable_get()->mutable_head()->set_path("/" + large);
    auto* get = add().mutable_get();
    get->mutable_head()->add_headers()->set_key(large);
    for (int i = 0; i < 100000; ++i)
        get->mutable_head()->add_headers();
    auto* put = add().mutable_put();
    put->mutable_head()->set_path("/password/" + large);
    put->mutable_body()->set_txt("secret");
    put = add().mutable_put();
    put->mutable_head()->set_path(large);
    put->mutable_body()->set_txt(large);
    put = add().mutable_put();
    put->mutable_head()->mutable_from()->set_tag(large);
    put->mutable_body()->set_bin(large);
    add().mutable_response()->set_status_message(large);
    add().mutable_call()->mutable_result()->set_status_message(large);
    auto* call = add().mutable_call();
    for (int i = 0; i < 100000; ++i)
        call->mutable_params()->add_param();
    auto* head = add().mutable_get()->mutable_head();
    head->GetReflection()->MutableUnknownFields(head)->AddLengthDelimited(1000, large);

    for (const tarn::Message& message : messages) {
        for (const std::string& text :
             {tarn::to_string(message),
              tarn::Request(std::make_shared<tarn::Message>(message)).to_string()}) {
            EXPECT_LT(text.size(), few_kilobytes) << text.substr(0, 200);
            EXPECT_EQ(text.find("secret"), std::string::npos);
            EXPECT_TRUE(text.ends_with(" bytes)") || text.ends_with("...")) << text;
        }
    }
}

TEST(ALogText, IsWholeBelowFourKilobytes)
{
    const auto message = message_of(R"(get { head { path: "/a" from { pid: 5 } headers { key: "k" value: ")" +
                                    std::string(4000, 'v') + R"(" } params {} } })");
    ASSERT_LT(message->ByteSizeLong(), 4096u);
    EXPECT_EQ(tarn::to_string(*message), message->ShortDebugString());
}
} // namespace
