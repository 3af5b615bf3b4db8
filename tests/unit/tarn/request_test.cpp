// SPDX-License-Identifier: Apache-2.0
#include "tarn/request.h"

#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "tarn/context.h"
#include "tarn/exception.h"
#include "tarn/message_factory.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Format;
using tarn::Request;
using tarn_test::logged_and_thrown;
using tarn_test::message_of;
using tarn_test::Pairs;
using tarn_test::pairs_of;
using Formats = std::vector<Format>;

Request request_of(const std::string& text)
{
    return Request(message_of(text));
}

TEST(Request, IsAnEnvelope)
{
    EXPECT_TRUE((std::is_base_of_v<tarn_internal::Envelope, Request>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Request>);
    EXPECT_EQ(request_of(R"(get { head { path: "/a" } })").path(), "/a");
}

TEST(Request, CanBeMadeEmpty)
{
    EXPECT_FALSE(Request().message);
}

TEST(Context, StartsWithoutMessagesAndParameters)
{
    const tarn::Context context;

    EXPECT_FALSE(context.request.message);
    EXPECT_FALSE(context.reply.message);
    EXPECT_FALSE(context.params);
}

// ---- metadata -------------------------------------------------------------------------------------------

TEST(RequestMetadata, GivesTheFirstValueOfAKey)
{
    const Request request =
        request_of(R"(get { head { meta { key: "ttl" value: "4s" } meta { key: "ttl" value: "5s" } } })");

    EXPECT_EQ(request.meta("ttl"), "4s");
}

TEST(RequestMetadata, ComparesKeysExactly)
{
    const Request request = request_of(R"(get { head { meta { key: "ttl" value: "4s" } } })");

    EXPECT_EQ(request.meta("TTL"), "");
    EXPECT_EQ(request.meta("tt"), "");
}

TEST(RequestMetadata, GivesAValueAsItStands)
{
    EXPECT_EQ(request_of(R"(get { head { meta { key: "x" value: "a+%20" } } })").meta("x"), "a+%20");
}

TEST(RequestMetadata, IsNotLookedForAmongHeadersAndParameters)
{
    const Request request =
        request_of(R"(get { head { headers { key: "x" value: "1" } params { key: "x" value: "2" } } })");

    EXPECT_EQ(request.meta("x"), "");
}

TEST(RequestMetadata, IsFoundInAHeadRequest)
{
    EXPECT_EQ(request_of(R"(head { meta { key: "x" value: "1" } })").meta("x"), "1");
}

TEST(RequestMetadata, ReplacesTheFirstValueOfAKey)
{
    Request request = request_of(R"(get { head {
        meta { key: "X" value: "0" } meta { key: "x" value: "1" } meta { key: "x" value: "2" } } })");

    request.set_meta("x", "3");

    EXPECT_EQ(pairs_of(request.head().meta()), (Pairs{{"X", "0"}, {"x", "3"}, {"x", "2"}}));
}

TEST(RequestMetadata, AppendsANewKey)
{
    Request request = request_of(R"(get { head { meta { key: "x" value: "1" } } })");

    request.set_meta("X", "a b");

    EXPECT_EQ(pairs_of(request.head().meta()), (Pairs{{"x", "1"}, {"X", "a b"}}));
}

TEST(RequestMetadata, MakesAnUnsetHead)
{
    Request request = request_of("del {}");

    request.set_meta("x", "1");

    EXPECT_EQ(pairs_of(request.message->del().head().meta()), (Pairs{{"x", "1"}}));
}

TEST(RequestMetadata, IsRefusedWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { (void)Request().meta("x"); }),
              "Envelope::head does not exist");
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { Request().set_meta("x", "1"); }),
              "Envelope::mutable_head does not exist");
}

// ---- chunk number ---------------------------------------------------------------------------------------

Request chunk(const std::string& number)
{
    Request request = request_of("get {}");
    request.set_header("X-Tarn-Chunk-Number", number);
    return request;
}

TEST(ChunkNumber, IsNoneWithoutItsHeader)
{
    EXPECT_EQ(request_of("get {}").chunk_number(), std::nullopt);
    EXPECT_EQ(Request().chunk_number(), std::nullopt);
}

TEST(ChunkNumber, IsThatOfItsHeader)
{
    EXPECT_EQ(chunk("0").chunk_number(), 0U);
    EXPECT_EQ(chunk("17").chunk_number(), 17U);
    EXPECT_EQ(chunk("4294967295").chunk_number(), 4294967295U);
}

TEST(ChunkNumber, IsFoundWhateverTheCaseOfItsHeader)
{
    const Request request =
        request_of(R"(get { head { headers { key: "x-tarn-CHUNK-number" value: "3" } } })");

    EXPECT_EQ(request.chunk_number(), 3U);
}

class BadChunkNumber : public testing::TestWithParam<std::string> {};

TEST_P(BadChunkNumber, IsRefusedWithoutALogLine)
{
    EXPECT_EQ(
        tarn_test::silently_thrown<tarn::MessageException>([] { (void)chunk(GetParam()).chunk_number(); }),
        "invalid chunk number");
}

TEST_P(BadChunkNumber, IsABadRequest)
{
    try {
        (void)chunk(GetParam()).chunk_number();
        FAIL() << "not refused";
    }
    catch (const tarn::MessageException& error) {
        EXPECT_EQ(error.status, tarn::Status::BadRequest);
        EXPECT_EQ(error.level, 5);
    }
}

INSTANTIATE_TEST_SUITE_P(Numbers, BadChunkNumber,
                         testing::Values("-1", "abc", "", "1x", "4294967296", "1.0", " 1"));

// ---- formats --------------------------------------------------------------------------------------------

TEST(RequestFormats, AreNoneOfARequestThatSaysNothing)
{
    EXPECT_EQ(request_of("get {}").formats(), Formats{});
    EXPECT_EQ(request_of("head {}").formats(), Formats{});
    EXPECT_EQ(request_of("del {}").formats(), Formats{});
    EXPECT_EQ(Request().formats(), Formats{});
}

TEST(RequestFormats, ComeFromTheHead)
{
    EXPECT_EQ(request_of("get { head { format: Csv } }").formats(), Formats{Format::Csv});
}

TEST(RequestFormats, ComeFromTheHeaderAccept)
{
    const Request request =
        request_of(R"(get { head { headers { key: "ACCEPT" value: "text/csv;q=0.1,json;q=0.2" } } })");

    EXPECT_EQ(request.formats(), (Formats{Format::Json, Format::Csv}));
}

TEST(RequestFormats, ComeFromTheHeaderContentType)
{
    const Request request =
        request_of(R"(get { head { headers { key: "Content-Type" value: "text/csv; x=y" } } })");

    EXPECT_EQ(request.formats(), Formats{Format::Csv});
}

TEST(RequestFormats, ComeFromHeadThenAcceptThenContentType)
{
    const Request request = request_of(R"(put { head { format: Xml
        headers { key: "content-type" value: "text/csv" }
        headers { key: "accept" value: "text/html,text/plain" } } body { txt: "{}" } })");

    EXPECT_EQ(request.formats(), (Formats{Format::Xml, Format::Html, Format::Text, Format::Csv}));
}

TEST(RequestFormats, KeepDuplicates)
{
    const auto headers = tarn_test::dictionary_of({{"accept", "application/json"}});
    const Request request(tarn::make_message_factory()->make_get("/a?format=json", headers));

    EXPECT_EQ(request.formats(), (Formats{Format::Json, Format::Json}));
}

TEST(RequestFormats, AreDetectedInABodyWithoutAnyHint)
{
    EXPECT_EQ(request_of(R"(put { body { txt: "{}" } })").formats(), Formats{Format::Json});
    EXPECT_EQ(request_of(R"(post { body { txt: "<a>" } })").formats(), Formats{Format::Html});
}

TEST(RequestFormats, AreDetectedUnderHeadersThatMeanNothing)
{
    const Request request =
        request_of(R"(put { head { headers { key: "accept" value: "what" } } body { txt: "{}" } })");

    EXPECT_EQ(request.formats(), Formats{Format::Json});
}

TEST(RequestFormats, AreNotDetectedOnceThereIsAHint)
{
    const Request request =
        request_of(R"(put { head { headers { key: "accept" value: "text/csv" } } body { txt: "{}" } })");

    EXPECT_EQ(request.formats(), Formats{Format::Csv});
}

TEST(RequestFormats, AreNotDetectedInAReply)
{
    EXPECT_EQ(request_of(R"(response { body { txt: "{}" } })").formats(), Formats{});
}

TEST(RequestFormats, CannotBeDetectedWithoutABody)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { (void)request_of("put {}").formats(); }),
              "Envelope::body does not exist");
}

TEST(RequestFormats, AreRefusedForACall)
{
    EXPECT_EQ(logged_and_thrown<tarn::Exception>([] { (void)request_of("call {}").formats(); }),
              "Envelope::head does not exist");
}
} // namespace
