// SPDX-License-Identifier: Apache-2.0
#include "tarn/serdes.h"

#include <string>

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "tarn/exception.h"
#include "tarn/proto/routing.pb.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::SerdesException;
using tarn_test::LogCapture;
using tarn_test::message_of;

/// A message of the older syntax, whose fields are required, with none of them set.
google::protobuf::UninterpretedOption::NamePart incomplete()
{
    return {};
}

/// A message that has no JSON form, as nobody knows the type in it.
tarn::Call of_unknown_type()
{
    return *message_of<tarn::Call>(R"(params { param { type_url: "t/no.such.Type" value: "x" } })");
}

TEST(Binary, IsTheEncodedMessage)
{
    const auto detail = message_of<tarn::RoutingDetail>(R"(patterns: "/a" access: Private)");

    EXPECT_EQ(tarn::to_binary(*detail, slate::ErrorLevel), "\x12\x02/a\x18\x01");
}

TEST(Binary, IsMadeOfAnyMessageThroughItsBase)
{
    const auto detail = message_of<tarn::RoutingDetail>(R"(patterns: "/a")");
    const google::protobuf::Message& message = *detail;

    EXPECT_EQ(tarn::to_binary(message, slate::ErrorLevel), "\x12\x02/a");
}

TEST(Binary, IsEmptyForAnEmptyMessage)
{
    EXPECT_EQ(tarn::to_binary(tarn::RoutingDetails(), slate::ErrorLevel), "");
}

TEST(Binary, IsRefusedForAMessageWithoutItsRequiredFields)
{
    EXPECT_EQ(tarn_test::logged_and_thrown<SerdesException>(
                  [] { (void)tarn::to_binary(incomplete(), slate::ErrorLevel); }),
              "failed to serialize to proto; missing required fields");
}

TEST(Binary, IsRefusedAtTheLevelOfItsCaller)
{
    const LogCapture log;

    EXPECT_THROW((void)tarn::to_binary(incomplete(), slate::WarnLevel), SerdesException);

    EXPECT_TRUE(log.has(slate::WarnLevel, "failed to serialize to proto; missing required fields"));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Binary, IsRefusedWithoutDetails)
{
    const LogCapture log;
    try {
        (void)tarn::to_binary(incomplete(), slate::ErrorLevel);
        FAIL() << "not refused";
    }
    catch (const SerdesException& error) {
        EXPECT_EQ(error.details, "");
    }
}

TEST(Json, IsIndentedWithNamesOfEnumeratorsAndOfFieldsInLowerCamelCase)
{
    const auto response = message_of<tarn::Response>(R"(status: NotFound status_message: "why")");
    std::string json;

    tarn::to_json(*response, &json, slate::ErrorLevel);

    EXPECT_EQ(json, "{\n"
                    " \"status\": \"NotFound\",\n"
                    " \"statusMessage\": \"why\"\n"
                    "}\n");
}

TEST(Json, ShowsFieldsAtTheirDefaults)
{
    std::string json;

    tarn::to_json(tarn::RoutingDetail(), &json, slate::ErrorLevel);

    EXPECT_EQ(json, "{\n"
                    " \"methods\": [],\n"
                    " \"patterns\": [],\n"
                    " \"access\": \"Public\"\n"
                    "}\n");
}

TEST(Json, IsMadeOfAnyMessageThroughItsBase)
{
    const tarn::RoutingDetails details;
    const google::protobuf::Message& message = details;
    std::string json;

    tarn::to_json(message, &json, slate::ErrorLevel);

    EXPECT_EQ(json, "{\n \"details\": []\n}\n");
}

TEST(Json, IsRefusedForAMessageOfAnUnknownType)
{
    std::string json;
    const auto text = tarn_test::logged_and_thrown<SerdesException>(
        [&] { tarn::to_json(of_unknown_type(), &json, slate::ErrorLevel); });

    const std::string beginning = "failed to serialize to json: ";
    EXPECT_TRUE(text.starts_with(beginning)) << text;
    EXPECT_GT(text.size(), beginning.size());
}

TEST(Json, IsRefusedAtTheLevelOfItsCaller)
{
    const LogCapture log;
    std::string json;

    EXPECT_THROW(tarn::to_json(of_unknown_type(), &json, slate::WarnLevel), SerdesException);

    EXPECT_EQ(log.count(slate::WarnLevel, "failed to serialize to json: "), 1U);
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Json, IsRefusedWithoutDetails)
{
    const LogCapture log;
    std::string json;
    try {
        tarn::to_json(of_unknown_type(), &json, slate::ErrorLevel);
        FAIL() << "not refused";
    }
    catch (const SerdesException& error) {
        EXPECT_EQ(error.details, "");
    }
}
} // namespace
