// SPDX-License-Identifier: Apache-2.0
#include "tarn/message_factory.h"

#include <cstdint>
#include <unistd.h>

#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "slate/dictionary.h"
#include "slate/duration.h"
#include "support/log_capture.h"
#include "tarn/exception.h"
#include "tarn/internal/envelope.h"
#include "tarn/internal/pid_finder.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Format;
using tarn::Message;
using tarn_internal::Envelope;
using tarn_test::dictionary_of;
using tarn_test::message_of;
using tarn_test::Pairs;
using tarn_test::pairs_of;

class Process4711 : public tarn_internal::PidFinder {
public:
    int my_pid() const override { return 4711; }
};

std::shared_ptr<tarn::MessageFactory> factory()
{
    return tarn::make_message_factory(std::make_shared<Process4711>());
}

// ---- what all verbs have in common ----------------------------------------------------------------------

enum class Verb { Head, Get, Put, PutMoved, Post, PostMoved, Del };

std::string name_of(Verb verb)
{
    switch (verb) {
    case Verb::Head:
        return "Head";
    case Verb::Get:
        return "Get";
    case Verb::Put:
        return "Put";
    case Verb::PutMoved:
        return "PutMoved";
    case Verb::Post:
        return "Post";
    case Verb::PostMoved:
        return "PostMoved";
    case Verb::Del:
        return "Del";
    }
    return "";
}

void PrintTo(Verb verb, std::ostream* stream)
{
    *stream << name_of(verb);
}

bool has_body(Verb verb)
{
    return verb == Verb::Put || verb == Verb::PutMoved || verb == Verb::Post || verb == Verb::PostMoved;
}

std::shared_ptr<Message> build(Verb verb, const std::string& recipient,
                               const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                               const slate::Duration& ttl = slate::Seconds(1))
{
    const std::string body = "body";
    switch (verb) {
    case Verb::Head:
        return factory()->make_head(recipient, headers, ttl);
    case Verb::Get:
        return factory()->make_get(recipient, headers, ttl);
    case Verb::Put:
        return factory()->make_put(recipient, body, headers, ttl);
    case Verb::PutMoved:
        return factory()->make_put(recipient, std::string(body), headers, ttl);
    case Verb::Post:
        return factory()->make_post(recipient, body, headers, ttl);
    case Verb::PostMoved:
        return factory()->make_post(recipient, std::string(body), headers, ttl);
    case Verb::Del:
        return factory()->make_del(recipient, headers, ttl);
    }
    return nullptr;
}

class BuiltRequest : public testing::TestWithParam<Verb> {
protected:
    static Envelope built(const std::string& recipient,
                          const std::shared_ptr<slate::Dictionary>& headers = nullptr,
                          const slate::Duration& ttl = slate::Seconds(1))
    {
        return Envelope(build(GetParam(), recipient, headers, ttl));
    }
};

TEST_P(BuiltRequest, IsOfItsVerb)
{
    const auto expected = [] {
        switch (GetParam()) {
        case Verb::Head:
            return Message::kHead;
        case Verb::Get:
            return Message::kGet;
        case Verb::Put:
        case Verb::PutMoved:
            return Message::kPut;
        case Verb::Post:
        case Verb::PostMoved:
            return Message::kPost;
        case Verb::Del:
            return Message::kDel;
        }
        return Message::TYPE_NOT_SET;
    };

    EXPECT_EQ(built("/a").message->type_case(), expected());
}

TEST_P(BuiltRequest, ComesFromTheProcessOfItsFinder)
{
    const Envelope request = built("/a");

    EXPECT_EQ(request.head().from().pid(), 4711);
    EXPECT_EQ(request.head().from().tag(), "");
}

TEST_P(BuiltRequest, HasAPathThatBeginsWithASlash)
{
    EXPECT_EQ(built("/a/b").path(), "/a/b");
    EXPECT_EQ(built("a/b").path(), "/a/b");
    EXPECT_EQ(built("").path(), "/");
}

TEST_P(BuiltRequest, IsOfUnknownFormatIfNobodySays)
{
    EXPECT_EQ(built("/a").format(), Format::Unknown);
}

TEST_P(BuiltRequest, HasItsTimeInTheMetadataAndNothingElse)
{
    EXPECT_EQ(pairs_of(built("/a", nullptr, slate::Milliseconds(250)).head().meta()),
              (Pairs{{"ttl", "250ms"}}));
}

TEST_P(BuiltRequest, IsAddressedToNobodyWithoutAList)
{
    EXPECT_EQ(built("/a").head().to_size(), 0);
}

TEST_P(BuiltRequest, IsAddressedToTheProcessesOfTheList)
{
    const Envelope request = built("/a@12,-3,7");

    ASSERT_EQ(request.head().to_size(), 3);
    EXPECT_EQ(request.head().to(0).ShortDebugString(), "pid: 12");
    EXPECT_EQ(request.head().to(1).ShortDebugString(), "pid: -3");
    EXPECT_EQ(request.head().to(2).ShortDebugString(), "pid: 7");
    EXPECT_EQ(request.head().params_size(), 0);
}

TEST_P(BuiltRequest, HasParametersInTheOrderOfTheirKeysStillEncoded)
{
    EXPECT_EQ(pairs_of(built("/a?y=1&x=a%20b+c&Z").head().params()),
              (Pairs{{"Z", ""}, {"x", "a%20b+c"}, {"y", "1"}}));
}

TEST_P(BuiltRequest, HasListAndParametersOfOneRecipient)
{
    const Envelope request = built("/a@1,2?x=y");

    EXPECT_EQ(request.path(), "/a");
    EXPECT_EQ(request.head().to_size(), 2);
    EXPECT_EQ(pairs_of(request.head().params()), (Pairs{{"x", "y"}}));
}

TEST_P(BuiltRequest, TakesItsFormatFromTheParameterAndKeepsTheParameter)
{
    const Envelope request = built("relay?format=text");

    EXPECT_EQ(request.format(), Format::Text);
    EXPECT_EQ(request.path(), "/relay");
    EXPECT_EQ(request.head().to_size(), 0);
    EXPECT_EQ(pairs_of(request.head().params()), (Pairs{{"format", "text"}}));
}

TEST_P(BuiltRequest, TakesItsFormatFromAnEncodedMimeType)
{
    EXPECT_EQ(built("/a?format=image%2Fsvg%2Bxml").format(), Format::Svg);
}

TEST_P(BuiltRequest, TakesNoFormatFromAParameterThatMeansNothing)
{
    const Envelope request = built("/a?format=what");

    EXPECT_EQ(request.format(), Format::Unknown);
    EXPECT_EQ(pairs_of(request.head().params()), (Pairs{{"format", "what"}}));
}

TEST_P(BuiltRequest, TakesNoFormatFromAParameterOfAnotherCase)
{
    EXPECT_EQ(built("/a?Format=json").format(), Format::Unknown);
}

TEST_P(BuiltRequest, HasTheHeadersOfItsSender)
{
    const auto headers = dictionary_of({{"X-B", "1 %2+"}, {"X-A", "2"}});

    EXPECT_EQ(pairs_of(built("/a", headers).head().headers()), (Pairs{{"X-A", "2"}, {"X-B", "1 %2+"}}));
}

TEST_P(BuiltRequest, HasNoHeadersWithoutADictionary)
{
    EXPECT_EQ(built("/a").head().headers_size(), 0);
}

TEST_P(BuiltRequest, TakesItsFormatFromAHeaderOnlyIfItHasABody)
{
    const auto headers = dictionary_of({{"CONTENT-TYPE", "text/plain; charset=utf-8"}});

    const Envelope request = built("/a", headers);

    EXPECT_EQ(request.format(), has_body(GetParam()) ? Format::Text : Format::Unknown);
    EXPECT_EQ(pairs_of(request.head().headers()), (Pairs{{"CONTENT-TYPE", "text/plain; charset=utf-8"}}));
}

TEST_P(BuiltRequest, TakesTheHeaderForStrongerThanTheParameterOnlyIfItHasABody)
{
    const auto headers = dictionary_of({{"Content-Type", "text/plain"}});

    EXPECT_EQ(built("/a?format=json", headers).format(), has_body(GetParam()) ? Format::Text : Format::Json);
}

TEST_P(BuiltRequest, KeepsTheFormatOfTheParameterUnderAHeaderThatMeansNothing)
{
    const auto headers = dictionary_of({{"Content-Type", "what/ever"}});

    EXPECT_EQ(built("/a?format=json", headers).format(), Format::Json);
}

TEST_P(BuiltRequest, TakesNoFormatFromOtherHeaders)
{
    const auto headers = dictionary_of({{"Accept", "application/json"}, {"X-Content-Type", "text/csv"}});

    EXPECT_EQ(built("/a", headers).format(), Format::Unknown);
}

TEST_P(BuiltRequest, RefusesAListThatIsNotOfNumbers)
{
    const auto refusal = [](const std::string& recipient) {
        return tarn_test::silently_thrown<tarn::Exception>([&] { (void)built(recipient); });
    };

    EXPECT_EQ(refusal("/a@1,x,2"), "Invalid 'to': x");
    EXPECT_EQ(refusal("/a?x=1@5"), "Invalid 'to': x=1");
    EXPECT_EQ(refusal("/a@1, 2"), "Invalid 'to':  2");
    EXPECT_EQ(refusal("/a@1.5"), "Invalid 'to': 1.5");
    EXPECT_EQ(refusal("/a@2147483648"), "Invalid 'to': 2147483648");
    EXPECT_EQ(refusal("/a@1,x,y"), "Invalid 'to': x");
}

TEST_P(BuiltRequest, TakesEmptyPlacesInTheListForNothing)
{
    EXPECT_EQ(built("/a@,1,,2147483647,").head().to_size(), 2);
}

TEST_P(BuiltRequest, IsStillBuiltWithAnEmptyPathFromTooManySeparators)
{
    const tarn_test::LogCapture log;

    const Envelope request = built("/a@1@2@3");

    EXPECT_EQ(request.path(), "");
    EXPECT_EQ(request.head().to_size(), 0);
    EXPECT_EQ(request.head().from().pid(), 4711);
    EXPECT_TRUE(log.has(slate::ErrorLevel, "invalid path string: /a@1@2@3"));
}

TEST_P(BuiltRequest, RefusesARecipientWithMissingParts)
{
    EXPECT_THROW((void)built("@12"), std::out_of_range);
}

INSTANTIATE_TEST_SUITE_P(Verbs, BuiltRequest,
                         testing::Values(Verb::Head, Verb::Get, Verb::Put, Verb::PutMoved, Verb::Post,
                                         Verb::PostMoved, Verb::Del),
                         [](const auto& row) { return name_of(row.param); });

class TimeAllowed : public testing::TestWithParam<slate::Duration> {};

TEST_P(TimeAllowed, IsToldAsTextThatReadsBackToTheSame)
{
    const auto message = factory()->make_get("/a", nullptr, GetParam());

    ASSERT_EQ(message->get().head().meta_size(), 1);
    const tarn::KeyValue& entry = message->get().head().meta(0);
    EXPECT_EQ(entry.key(), "ttl");
    EXPECT_EQ(entry.value(), GetParam().to_string(0));
    EXPECT_EQ(slate::Duration::from(entry.value(), slate::Minutes(99)), GetParam());
}

INSTANTIATE_TEST_SUITE_P(Durations, TimeAllowed,
                         testing::Values(slate::Seconds(0), slate::Duration::positive_infinity(),
                                         slate::Milliseconds(1500), slate::Seconds(-1), slate::Duration()),
                         [](const auto& row) { return "Row" + std::to_string(row.index); });

TEST(MessageFactory, NeedsNeitherHeadersNorTime)
{
    const auto made = factory();
    const std::string body;

    for (const auto& message :
         {made->make_head("/a"), made->make_get("/a"), made->make_put("/a", body), made->make_put("/a", ""),
          made->make_post("/a", body), made->make_post("/a", ""), made->make_del("/a")}) {
        const Envelope request(message);
        EXPECT_EQ(request.head().headers_size(), 0);
        EXPECT_EQ(pairs_of(request.head().meta()), (Pairs{{"ttl", "4s"}}));
    }
}

// ---- bodies ---------------------------------------------------------------------------------------------

TEST(BuiltBody, IsTextForAFormatOfText)
{
    EXPECT_EQ(factory()->make_put("/a?format=json", "{}")->put().body().ShortDebugString(), R"(txt: "{}")");
    EXPECT_EQ(factory()->make_post("/a?format=json", "{}")->post().body().ShortDebugString(), R"(txt: "{}")");
}

TEST(BuiltBody, IsBytesForABinaryFormat)
{
    EXPECT_EQ(factory()->make_put("/a?format=proto", "x")->put().body().ShortDebugString(), R"(bin: "x")");
    EXPECT_EQ(factory()->make_post("/a?format=proto", "x")->post().body().ShortDebugString(), R"(bin: "x")");
}

TEST(BuiltBody, IsBytesForAnUnknownFormat)
{
    EXPECT_EQ(factory()->make_put("/a", "x")->put().body().ShortDebugString(), R"(bin: "x")");
    EXPECT_EQ(factory()->make_post("/a?format=what", "x")->post().body().ShortDebugString(), R"(bin: "x")");
}

TEST(BuiltBody, FollowsTheFormatOfTheHeader)
{
    const auto headers = dictionary_of({{"content-type", "text/plain"}});

    EXPECT_EQ(factory()->make_put("/a?format=proto", "x", headers)->put().body().ShortDebugString(),
              R"(txt: "x")");
}

TEST(BuiltBody, IsThereEvenIfItIsEmpty)
{
    EXPECT_TRUE(factory()->make_put("/a", "")->put().body().has_bin());
    EXPECT_TRUE(factory()->make_post("/a?format=text", "")->post().body().has_txt());
}

TEST(BuiltBody, IsMissingForTheEmptyFormat)
{
    for (const std::string format : {"empty", "none"}) {
        EXPECT_FALSE(factory()->make_put("/a?format=" + format, "x")->put().has_body());
        EXPECT_FALSE(factory()->make_post("/a?format=" + format, "x")->post().has_body());
        EXPECT_EQ(factory()->make_put("/a?format=" + format, "x")->put().head().format(), Format::Empty);
    }
}

TEST(BuiltBody, IsCopiedFromALastingString)
{
    const std::string body = "a long body that is no small string, as it is copied as a whole";

    EXPECT_EQ(factory()->make_put("/a", body)->put().body().bin(), body);
    EXPECT_EQ(factory()->make_post("/a", body)->post().body().bin(), body);
    EXPECT_EQ(body, "a long body that is no small string, as it is copied as a whole");
}

TEST(BuiltBody, TakesTheBytesOfAnExpiringStringWithoutCopying)
{
    std::string put_body(1000, 'x');
    std::string post_body(1000, 'y');
    const char* const put_bytes = put_body.data();
    const char* const post_bytes = post_body.data();

    const auto put = factory()->make_put("/a", std::move(put_body));
    const auto post = factory()->make_post("/a?format=text", std::move(post_body));

    EXPECT_EQ(put->put().body().bin().data(), put_bytes);
    EXPECT_EQ(post->post().body().txt().data(), post_bytes);
    EXPECT_EQ(put_body, "");  // NOLINT(bugprone-use-after-move): swapped with the empty field
    EXPECT_EQ(post_body, ""); // NOLINT(bugprone-use-after-move)
}

// ---- frames ---------------------------------------------------------------------------------------------

TEST(MessageFactory, ReadsAFrame)
{
    const std::string frame = message_of(R"(get { head { path: "/a" } })")->SerializeAsString();

    const auto message = factory()->make_message(frame.data(), frame.size());

    ASSERT_TRUE(message);
    EXPECT_EQ(message->get().head().path(), "/a");
}

TEST(MessageFactory, ReadsNoBytesAsAMessageWithoutType)
{
    const auto message = factory()->make_message("", 0);

    ASSERT_TRUE(message);
    EXPECT_EQ(message->type_case(), Message::TYPE_NOT_SET);
}

TEST(MessageFactory, GivesNullForACorruptFrameAndLogsNothing)
{
    const tarn_test::LogCapture log;

    for (const std::string& frame : {std::string("\xFF"), std::string("\x0A\x05\x00", 3), std::string("\x0A"),
                                     std::string("plain text"), std::string("\x0A\x02\x0A\x03", 4)})
        EXPECT_FALSE(factory()->make_message(frame.data(), frame.size())) << testing::PrintToString(frame);
    EXPECT_TRUE(log.lines().empty());
}

TEST(MessageFactory, GivesNullForEveryFrameThatIsCutOff)
{
    const std::string frame = message_of(R"(get { head { path: "/a" } })")->SerializeAsString();

    for (std::size_t size = 1; size < frame.size(); ++size)
        EXPECT_FALSE(factory()->make_message(frame.data(), size)) << size;
}

TEST(MessageFactory, GivesNullWithoutReadingAFrameLargerThanCanBeCounted)
{
    // The lower bits of each size alone would be the size of this frame.
    const std::string frame = message_of(R"(get { head { path: "/a" } })")->SerializeAsString();

    EXPECT_FALSE(factory()->make_message(frame.data(), 1UL << 31));
    EXPECT_FALSE(factory()->make_message(frame.data(), (1UL << 31) + frame.size()));
    EXPECT_FALSE(factory()->make_message(nullptr, std::numeric_limits<unsigned long>::max()));
    if constexpr (std::numeric_limits<unsigned long>::digits >= 64) {
        constexpr auto beyond_32_bits = static_cast<unsigned long>(std::uint64_t{1} << 32);
        EXPECT_FALSE(factory()->make_message(frame.data(), beyond_32_bits));
        EXPECT_FALSE(factory()->make_message(frame.data(), beyond_32_bits + frame.size()));
        EXPECT_FALSE(factory()->make_message(frame.data(), (1UL << 31) * beyond_32_bits + frame.size()));
        EXPECT_FALSE(factory()->make_message(nullptr, static_cast<unsigned long>(5'000'000'000ULL)));
    }
}

// ---- responses ------------------------------------------------------------------------------------------

class ResponseSkeleton : public testing::TestWithParam<std::string> {
protected:
    static std::shared_ptr<Message> request(const std::string& head)
    {
        return message_of(GetParam() == "head" ? "head { " + head + " }"
                                               : GetParam() + " { head { " + head + " } }");
    }
};

TEST_P(ResponseSkeleton, IsNotFoundFromHereToTheRequesterWithPathAndFormatOnly)
{
    const auto made = factory()->make_response(
        request(R"(from { pid: 7 tag: "t" } to { pid: 9 } to { pid: 10 } path: "/a" format: Csv
                   params { key: "p" value: "1" } headers { key: "h" value: "2" } meta { key: "m" value: "3" })"),
        9);

    ASSERT_TRUE(made);
    EXPECT_TRUE(tarn_test::equal(*made, *message_of(R"(response {
        head { from { pid: 9 } to { pid: 7 } path: "/a" format: Csv } status: NotFound })")))
        << made->ShortDebugString();
}

TEST_P(ResponseSkeleton, IsAddressedToProcessZeroIfNobodyIsNamed)
{
    const auto made = factory()->make_response(request(""), 9);

    ASSERT_TRUE(made);
    EXPECT_TRUE(tarn_test::equal(
        *made, *message_of("response { head { from { pid: 9 } to { pid: 0 } } status: NotFound }")))
        << made->ShortDebugString();
}

TEST_P(ResponseSkeleton, LeavesTheRequestAlone)
{
    const auto original = request(R"(from { pid: 7 } path: "/a")");

    (void)factory()->make_response(original, 9);

    EXPECT_TRUE(tarn_test::equal(*original, *request(R"(from { pid: 7 } path: "/a")")));
}

INSTANTIATE_TEST_SUITE_P(Verbs, ResponseSkeleton, testing::Values("get", "put", "post", "del", "head"),
                         [](const auto& row) { return row.param; });

TEST(MessageFactory, RespondsToARequestWithoutHead)
{
    for (const std::string request : {"get {}", "put {}", "post {}", "del {}"}) {
        const auto made = factory()->make_response(message_of(request), 9);

        ASSERT_TRUE(made) << request;
        EXPECT_TRUE(tarn_test::equal(
            *made, *message_of("response { head { from { pid: 9 } to { pid: 0 } } status: NotFound }")));
    }
}

TEST(MessageFactory, LeavesTheBodyOfTheRequestOutOfTheResponse)
{
    const auto made = factory()->make_response(message_of(R"(put { body { txt: "x" } })"), 9);

    ASSERT_TRUE(made);
    EXPECT_FALSE(made->response().has_body());
}

TEST(MessageFactory, RespondsToNothingButRequests)
{
    const tarn_test::LogCapture log;

    EXPECT_FALSE(factory()->make_response(message_of("response {}"), 9));
    EXPECT_FALSE(factory()->make_response(message_of("call {}"), 9));
    EXPECT_FALSE(factory()->make_response(message_of(""), 9));
    EXPECT_TRUE(log.lines().empty());
}

TEST(MessageFactory, MakesAReplyOfNothingButAStatus)
{
    const auto made = factory()->make_response(tarn::Status::Gone);

    ASSERT_TRUE(made);
    EXPECT_TRUE(tarn_test::equal(*made, *message_of("response { status: Gone }")));
}

TEST(MessageFactory, MakesAReplyOfUnknownStatus)
{
    const auto made = factory()->make_response(tarn::Status::UnknownStatus);

    ASSERT_TRUE(made);
    EXPECT_EQ(made->type_case(), Message::kResponse);
}

// ---- processes ------------------------------------------------------------------------------------------

TEST(MessageFactory, GivesTheFinderThatItWasMadeWith)
{
    const auto finder = std::make_shared<Process4711>();

    EXPECT_EQ(tarn::make_message_factory(finder)->finder(), finder);
}

TEST(MessageFactory, SpeaksForThisProcessWithoutAFinder)
{
    const auto made = tarn::make_message_factory();

    ASSERT_TRUE(made->finder());
    EXPECT_EQ(made->finder()->my_pid(), getpid());
    EXPECT_EQ(made->make_get("/a")->get().head().from().pid(), getpid());
}

TEST(MessageFactory, SpeaksForThisProcessWithAnEmptyFinder)
{
    EXPECT_EQ(tarn::make_message_factory(nullptr)->make_get("/a")->get().head().from().pid(), getpid());
}

TEST(PidFinder, FindsThisProcess)
{
    EXPECT_EQ(tarn_internal::make_pid_finder()->my_pid(), getpid());
}

TEST(PidFinder, IsANewOneEachTime)
{
    EXPECT_NE(tarn_internal::make_pid_finder(), tarn_internal::make_pid_finder());
}
} // namespace
