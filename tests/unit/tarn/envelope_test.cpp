// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/envelope.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <ostream>
#include <sstream>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "tarn/proto/stats.pb.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Exception;
using tarn::Format;
using tarn::SerdesException;
using tarn_internal::Envelope;
using tarn_test::equal;
using tarn_test::LogCapture;
using tarn_test::logged_and_thrown;
using tarn_test::message_of;
using tarn_test::Pairs;
using tarn_test::pairs_of;
using tarn_test::put_of;
using tarn_test::thrown;

Envelope envelope_of(const std::string& text)
{
    return Envelope(message_of(text));
}

/// An envelope of the kind that a test case names; empty for "nothing".
Envelope envelope_named(const std::string& text)
{
    return text == "nothing" ? Envelope() : envelope_of(text);
}

// ---- the message ----------------------------------------------------------------------------------------

TEST(Envelope, CanBeMadeEmptyAndGetItsMessageLater)
{
    Envelope envelope;
    ASSERT_FALSE(envelope.message);

    envelope.message = message_of(R"(get { head { path: "/a" } })");

    EXPECT_EQ(envelope.path(), "/a");
}

TEST(Envelope, SharesItsMessageWithCopies)
{
    const Envelope envelope = envelope_of("get {}");
    Envelope copy = envelope;

    copy.set_header("x", "1");

    EXPECT_EQ(envelope.message, copy.message);
    EXPECT_EQ(envelope.header("x", ""), "1");
}

TEST(Envelope, SharesTheMessageItWasMadeFrom)
{
    const auto message = message_of("get {}");

    EXPECT_EQ(Envelope(message).message, message);
}

TEST(Envelope, HasAVirtualDestructor)
{
    EXPECT_TRUE(std::has_virtual_destructor_v<Envelope>);
}

// ---- head and body by type of message -------------------------------------------------------------------

class EnvelopeOfAVerb : public testing::TestWithParam<std::string> {
protected:
    Envelope with(const std::string& content) const
    {
        return envelope_of(GetParam() + " { " + content + " }");
    }
};

TEST_P(EnvelopeOfAVerb, GivesItsHead)
{
    const Envelope envelope = with(R"(head { path: "/a" })");

    EXPECT_EQ(envelope.head().path(), "/a");
    EXPECT_EQ(&envelope.head(), &envelope.head());
}

TEST_P(EnvelopeOfAVerb, GivesTheDefaultHeadIfNoneIsSet)
{
    EXPECT_EQ(&with("").head(), &tarn::Head::default_instance());
}

TEST_P(EnvelopeOfAVerb, LeavesAnUnsetHeadUnsetWhenItIsRead)
{
    const Envelope envelope = with("");

    (void)envelope.head();

    EXPECT_TRUE(equal(*envelope.message, *with("").message));
}

TEST_P(EnvelopeOfAVerb, GivesItsHeadForChanges)
{
    Envelope envelope = with(R"(head { path: "/a" })");

    envelope.mutable_head()->set_format(Format::Csv);

    EXPECT_TRUE(equal(*envelope.message, *with(R"(head { path: "/a" format: Csv })").message));
}

TEST_P(EnvelopeOfAVerb, MakesAnUnsetHeadForChanges)
{
    Envelope envelope = with("");

    envelope.mutable_head()->set_path("/a");

    EXPECT_TRUE(equal(*envelope.message, *with(R"(head { path: "/a" })").message));
}

TEST_P(EnvelopeOfAVerb, GivesThePathOfItsHead)
{
    EXPECT_EQ(with(R"(head { path: "/a" })").path(), "/a");
}

TEST_P(EnvelopeOfAVerb, HasAnEmptyPathWithoutHead)
{
    const LogCapture log;

    EXPECT_EQ(with("").path(), "");
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Verbs, EnvelopeOfAVerb, testing::Values("get", "put", "post", "del", "response"),
                         [](const auto& row) { return row.param; });

TEST(Envelope, GivesTheHeadThatStandsInTheMessageItself)
{
    const Envelope envelope = envelope_of(R"(head { path: "/a" })");

    EXPECT_EQ(&envelope.head(), &envelope.message->head());
    EXPECT_EQ(envelope.path(), "/a");
}

TEST(Envelope, GivesTheHeadThatStandsInTheMessageItselfForChanges)
{
    Envelope envelope = envelope_of("head {}");

    envelope.mutable_head()->set_path("/b");

    EXPECT_EQ(envelope.message->head().path(), "/b");
}

class EnvelopeWithoutHead : public testing::TestWithParam<std::string> {};

TEST_P(EnvelopeWithoutHead, RefusesToGiveIt)
{
    const Envelope envelope = envelope_named(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.head(); }), "Envelope::head does not exist");
}

TEST_P(EnvelopeWithoutHead, RefusesToGiveItForChanges)
{
    Envelope envelope = envelope_named(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.mutable_head(); }),
              "Envelope::mutable_head does not exist");
}

INSTANTIATE_TEST_SUITE_P(Contents, EnvelopeWithoutHead, testing::Values("nothing", "call {}", ""));

class EnvelopeWithBody : public testing::TestWithParam<std::string> {
protected:
    Envelope with(const std::string& content) const
    {
        return envelope_of(GetParam() + " { " + content + " }");
    }
};

TEST_P(EnvelopeWithBody, GivesIt)
{
    EXPECT_EQ(with(R"(body { txt: "x" })").body().txt(), "x");
}

TEST_P(EnvelopeWithBody, GivesItForChanges)
{
    Envelope envelope = with(R"(body { txt: "x" })");

    envelope.mutable_body()->set_bin("y");

    EXPECT_TRUE(equal(*envelope.message, *with(R"(body { bin: "y" })").message));
}

TEST_P(EnvelopeWithBody, GivesItsBytesWithoutCopying)
{
    const Envelope envelope = with(R"(body { bin: "x\000y" })");

    EXPECT_EQ(envelope.data(), std::string("x\0y", 3));
    EXPECT_EQ(&envelope.data(), &envelope.body().bin());
}

TEST_P(EnvelopeWithBody, GivesItsTextWithoutCopying)
{
    const Envelope envelope = with(R"(body { txt: "xy" })");

    EXPECT_EQ(envelope.data(), "xy");
    EXPECT_EQ(&envelope.data(), &envelope.body().txt());
}

TEST_P(EnvelopeWithBody, GivesEmptyDataOfAnEmptyField)
{
    EXPECT_EQ(with(R"(body { txt: "" })").data(), "");
    EXPECT_EQ(with(R"(body { bin: "" })").data(), "");
}

TEST_P(EnvelopeWithBody, HasNoDataIfNeitherFieldIsSet)
{
    const Envelope envelope = with("body {}");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.data(); }), "Envelope::data does not exist");
}

TEST_P(EnvelopeWithBody, IsBinaryIfItHoldsBytes)
{
    EXPECT_TRUE(with(R"(body { bin: "" })").is_binary());
    EXPECT_FALSE(with(R"(body { txt: "x" })").is_binary());
    EXPECT_FALSE(with("body {}").is_binary());
    EXPECT_FALSE(with("").is_binary());
}

INSTANTIATE_TEST_SUITE_P(Types, EnvelopeWithBody, testing::Values("put", "post", "response"),
                         [](const auto& row) { return row.param; });

TEST(Envelope, GivesTheDefaultBodyOfAReplyWithoutOne)
{
    const Envelope envelope = envelope_of("response {}");

    EXPECT_EQ(&envelope.body(), &tarn::Body::default_instance());
    EXPECT_FALSE(envelope.message->response().has_body());
}

TEST(Envelope, MakesTheBodyOfAReplyForChanges)
{
    Envelope envelope = envelope_of("response {}");

    envelope.mutable_body()->set_txt("x");

    EXPECT_EQ(envelope.message->response().body().txt(), "x");
}

TEST(Envelope, HasNoDataInAReplyWithoutBody)
{
    const Envelope envelope = envelope_of("response { status: NoContent }");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.data(); }), "Envelope::data does not exist");
}

TEST(Envelope, LogsWhyARefusalHasNoData)
{
    const Envelope envelope = envelope_of(R"(response { status: RequestTimeout status_message: "why" })");

    const tarn_test::LogCapture log;
    EXPECT_EQ(thrown<Exception>([&] { (void)envelope.data(); }), "Envelope::data does not exist");
    EXPECT_EQ(log.texts(slate::ErrorLevel),
              (std::vector<std::string>{"Envelope::data does not exist", "no body: 408, why"}));
}

TEST(Envelope, HasNoDataInARequestWithoutBody)
{
    const Envelope envelope = envelope_of("put { body {} }");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.data(); }), "Envelope::data does not exist");
}

TEST(Envelope, HasNoDataWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<Exception>([] { (void)Envelope().data(); }), "Envelope::data does not exist");
}

class EnvelopeWithoutBody : public testing::TestWithParam<std::string> {};

TEST_P(EnvelopeWithoutBody, RefusesToGiveIt)
{
    const Envelope envelope = envelope_named(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.body(); }), "Envelope::body does not exist");
}

TEST_P(EnvelopeWithoutBody, RefusesToGiveItForChanges)
{
    Envelope envelope = envelope_named(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.mutable_body(); }),
              "Envelope::mutable_body does not exist");
}

TEST_P(EnvelopeWithoutBody, IsNotBinary)
{
    EXPECT_FALSE(envelope_named(GetParam()).is_binary());
}

INSTANTIATE_TEST_SUITE_P(Contents, EnvelopeWithoutBody,
                         testing::Values("nothing", "get {}", "del {}", "put {}", "post {}", "head {}",
                                         "call {}", "", "put { head { format: Empty } }"));

class EnvelopeOfATypeWithoutBody : public testing::TestWithParam<std::string> {};

TEST_P(EnvelopeOfATypeWithoutBody, MissesTheBodyWhenItsDataIsWanted)
{
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.data(); }), "Envelope::body does not exist");
}

TEST_P(EnvelopeOfATypeWithoutBody, MissesTheBodyWhenItsFormatIsSought)
{
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.detect_format(); }),
              "Envelope::body does not exist");
}

INSTANTIATE_TEST_SUITE_P(Contents, EnvelopeOfATypeWithoutBody,
                         testing::Values("get {}", "del {}", "put {}", "post {}", "head {}", "call {}", "",
                                         "put { head { format: Empty } }"));

// ---- format and path ------------------------------------------------------------------------------------

TEST(Envelope, TellsTheFormatOfItsHead)
{
    EXPECT_EQ(envelope_of("get { head { format: Csv } }").format(), Format::Csv);
    EXPECT_EQ(envelope_of("head { format: Csv }").format(), Format::Csv);
    EXPECT_EQ(envelope_of("get {}").format(), Format::Unknown);
}

TEST(Envelope, IsOfUnknownFormatWithoutMessage)
{
    EXPECT_EQ(Envelope().format(), Format::Unknown);
    EXPECT_TRUE(Envelope().is(Format::Unknown));
}

TEST(Envelope, ComparesItsFormat)
{
    const Envelope envelope = envelope_of("get { head { format: Csv } }");

    EXPECT_TRUE(envelope.is(Format::Csv));
    EXPECT_FALSE(envelope.is(Format::Text));
}

TEST(Envelope, HasNoFormatForACall)
{
    const Envelope envelope = envelope_of("call {}");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.format(); }),
              "Envelope::head does not exist");
    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.is(Format::Csv); }),
              "Envelope::head does not exist");
}

TEST(Envelope, HasAnEmptyPathWithoutMessage)
{
    const LogCapture log;

    EXPECT_EQ(Envelope().path(), "");
    EXPECT_TRUE(log.lines().empty());
}

TEST(Envelope, WarnsOfACallWhenAskedForItsPath)
{
    const LogCapture log;
    const Envelope envelope = envelope_of("call { select { method_number: 5 } }");

    EXPECT_EQ(envelope.path(), "");

    EXPECT_TRUE(
        log.has(slate::WarnLevel, "tarn envelope unknown msg type: " + tarn::to_string(*envelope.message)));
    EXPECT_EQ(log.lines().size(), 1U);
}

TEST(Envelope, WarnsOfAMessageWithoutTypeWhenAskedForItsPath)
{
    const LogCapture log;

    EXPECT_EQ(envelope_of("").path(), "");

    EXPECT_TRUE(log.has(slate::WarnLevel, "tarn envelope unknown msg type: "));
    EXPECT_EQ(log.lines().size(), 1U);
}

// ---- headers --------------------------------------------------------------------------------------------

TEST(Envelope, FindsHeadersIgnoringTheCase)
{
    const Envelope envelope = envelope_of(R"(get { head { headers { key: "X-Tag" value: "Va" } } })");

    EXPECT_TRUE(envelope.has_header("x-tAG"));
    EXPECT_EQ(envelope.header("x-tAG", ""), "Va");
}

TEST(Envelope, DoesNotTakeTheBeginningOfAHeaderForIt)
{
    const Envelope envelope = envelope_of(R"(get { head { headers { key: "X-Tag" value: "1" } } })");

    EXPECT_FALSE(envelope.has_header("X-Ta"));
    EXPECT_FALSE(envelope.has_header("X-Tags"));
    EXPECT_FALSE(envelope.has_header(""));
}

TEST(Envelope, GivesTheDefaultForAMissingHeader)
{
    EXPECT_EQ(envelope_of("get {}").header("x", "default+%20"), "default+%20");
}

TEST(Envelope, GivesTheFirstOfEqualHeaders)
{
    const Envelope envelope =
        envelope_of(R"(get { head { headers { key: "A" value: "1" } headers { key: "a" value: "2" } } })");

    EXPECT_EQ(envelope.header("a", ""), "1");
}

TEST(Envelope, GivesAHeaderAsItStands)
{
    const Envelope envelope = envelope_of(R"(get { head { headers { key: "x" value: "a+b%20" } } })");

    EXPECT_EQ(envelope.header("x", ""), "a+b%20");
}

TEST(Envelope, GivesAnEmptyHeaderRatherThanTheDefault)
{
    const Envelope envelope = envelope_of(R"(get { head { headers { key: "x" } } })");

    EXPECT_TRUE(envelope.has_header("x"));
    EXPECT_EQ(envelope.header("x", "default"), "");
}

TEST(Envelope, DoesNotLookForHeadersAmongParametersAndMetadata)
{
    const Envelope envelope =
        envelope_of(R"(get { head { params { key: "x" value: "1" } meta { key: "x" value: "2" } } })");

    EXPECT_FALSE(envelope.has_header("x"));
}

TEST(Envelope, HasNoHeadersWithoutMessage)
{
    EXPECT_FALSE(Envelope().has_header("x"));
    EXPECT_EQ(Envelope().header("x", "default"), "default");
}

TEST(Envelope, ReplacesTheValueOfAHeaderAndKeepsItsKey)
{
    Envelope envelope = envelope_of(R"(put { head { headers { key: "Content-Type" value: "text/csv" } } })");

    envelope.set_header("content-type", "text/plain");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"Content-Type", "text/plain"}}));
}

TEST(Envelope, ReplacesTheFirstOfEqualHeaders)
{
    Envelope envelope =
        envelope_of(R"(get { head { headers { key: "a" value: "1" } headers { key: "A" value: "2" } } })");

    envelope.set_header("A", "3");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"a", "3"}, {"A", "2"}}));
}

TEST(Envelope, AppendsANewHeader)
{
    Envelope envelope = envelope_of(R"(get { head { headers { key: "a" value: "1" } } })");

    envelope.set_header("X-New", "a b%");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"a", "1"}, {"X-New", "a b%"}}));
}

TEST(Envelope, MakesAnUnsetHeadForANewHeader)
{
    Envelope envelope = envelope_of("response {}");

    envelope.set_header("x", "1");

    EXPECT_EQ(pairs_of(envelope.message->response().head().headers()), (Pairs{{"x", "1"}}));
}

TEST(Envelope, RefusesToSetAHeaderWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<Exception>([] { Envelope().set_header("x", "1"); }),
              "Envelope::set_header, envelope not initialized");
}

TEST(Envelope, ClearsAHeaderOfExactlyThisKey)
{
    Envelope envelope = envelope_of(R"(get { head { headers { key: "X-A" value: "1" } } })");

    envelope.clr_header("X-A");

    EXPECT_FALSE(envelope.has_header("X-A"));
}

TEST(Envelope, DoesNotClearAHeaderOfAnotherCase)
{
    Envelope envelope = envelope_of(R"(get { head { headers { key: "x-a" value: "1" } } })");

    envelope.clr_header("X-A");

    EXPECT_TRUE(envelope.has_header("X-A"));
}

TEST(Envelope, MovesTheLastHeaderIntoThePlaceOfTheClearedOne)
{
    Envelope envelope = envelope_of(R"(get { head {
        headers { key: "a" value: "1" } headers { key: "b" value: "2" }
        headers { key: "c" value: "3" } headers { key: "d" value: "4" } } })");

    envelope.clr_header("b");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"a", "1"}, {"d", "4"}, {"c", "3"}}));
}

TEST(Envelope, ClearsTheFirstOfEqualHeadersOnly)
{
    Envelope envelope =
        envelope_of(R"(get { head { headers { key: "a" value: "1" } headers { key: "a" value: "2" } } })");

    envelope.clr_header("a");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"a", "2"}}));
}

TEST(Envelope, ClearsTheLastHeaderWithoutTouchingOthers)
{
    Envelope envelope =
        envelope_of(R"(get { head { headers { key: "a" value: "1" } headers { key: "b" value: "2" } } })");

    envelope.clr_header("b");

    EXPECT_EQ(pairs_of(envelope.head().headers()), (Pairs{{"a", "1"}}));
}

TEST(Envelope, ClearsNoHeaderWithoutMessage)
{
    const LogCapture log;

    EXPECT_NO_THROW(Envelope().clr_header("x"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(Envelope, ClearsNothingOfAnUnsetHead)
{
    Envelope envelope = envelope_of("get {}");

    envelope.clr_header("x");

    EXPECT_EQ(pairs_of(envelope.head().headers()), Pairs{});
}

// ---- parameters -----------------------------------------------------------------------------------------

TEST(Envelope, FindsParametersIgnoringTheCase)
{
    const Envelope envelope = envelope_of(R"(get { head { params { key: "Max" value: "Va" } } })");

    EXPECT_TRUE(envelope.has_param("mAX"));
    EXPECT_EQ(envelope.param("mAX", ""), "Va");
    EXPECT_FALSE(envelope.has_param("ma"));
}

TEST(Envelope, DecodesParameters)
{
    const Envelope envelope = envelope_of(R"(get { head { params { key: "x" value: "a+b%20c%2B" } } })");

    EXPECT_EQ(envelope.param("x", ""), "a b c+");
}

TEST(Envelope, DecodesTheDefaultOfAParameterToo)
{
    EXPECT_EQ(envelope_of("get {}").param("x", "a+b%41"), "a bA");
}

TEST(Envelope, GivesTheFirstOfEqualParameters)
{
    const Envelope envelope =
        envelope_of(R"(get { head { params { key: "A" value: "1" } params { key: "a" value: "2" } } })");

    EXPECT_EQ(envelope.param("a", ""), "1");
}

TEST(Envelope, DoesNotLookForParametersAmongHeaders)
{
    const Envelope envelope = envelope_of(R"(get { head { headers { key: "x" value: "1" } } })");

    EXPECT_FALSE(envelope.has_param("x"));
    EXPECT_EQ(envelope.param("x", "none"), "none");
}

TEST(Envelope, GivesTheDecodedDefaultOfAParameterWithoutMessage)
{
    EXPECT_FALSE(Envelope().has_param("x"));
    EXPECT_EQ(Envelope().param("x", "a+b"), "a b");
}

TEST(Envelope, StoresANewParameterEncoded)
{
    Envelope envelope = envelope_of("get {}");

    envelope.set_param("x y", "a b&c");

    EXPECT_EQ(pairs_of(envelope.head().params()), (Pairs{{"x y", "a%20b%26c"}}));
    EXPECT_EQ(envelope.param("x y", ""), "a b&c");
}

TEST(Envelope, StoresTheNewValueOfAnOldParameterAsItStands)
{
    Envelope envelope = envelope_of(R"(get { head { params { key: "x" value: "1" } } })");

    envelope.set_param("x", "a b%41");

    EXPECT_EQ(pairs_of(envelope.head().params()), (Pairs{{"x", "a b%41"}}));
    EXPECT_EQ(envelope.param("x", ""), "a bA");
}

TEST(Envelope, FindsTheParameterToReplaceIgnoringTheCaseAndKeepsItsKey)
{
    Envelope envelope =
        envelope_of(R"(get { head { params { key: "Max" value: "1" } params { key: "max" value: "2" } } })");

    envelope.set_param("mAX", "3");

    EXPECT_EQ(pairs_of(envelope.head().params()), (Pairs{{"Max", "3"}, {"max", "2"}}));
}

TEST(Envelope, RefusesToSetAParameterWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<Exception>([] { Envelope().set_param("x", "1"); }),
              "Envelope::set_param, envelope not initialized");
}

// ---- a call has no head ---------------------------------------------------------------------------------

TEST(EnvelopeOfACall, HasNeitherHeadersNorParameters)
{
    Envelope call = envelope_of("call {}");
    const std::string refusal = "Envelope::head does not exist";

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)call.has_header("x"); }), refusal);
    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)call.header("x", ""); }), refusal);
    EXPECT_EQ(logged_and_thrown<Exception>([&] { call.clr_header("x"); }), refusal);
    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)call.has_param("x"); }), refusal);
    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)call.param("x", ""); }), refusal);
}

TEST(EnvelopeOfACall, TakesNeitherHeadersNorParameters)
{
    Envelope call = envelope_of("call {}");
    const std::string refusal = "Envelope::mutable_head does not exist";

    EXPECT_EQ(logged_and_thrown<Exception>([&] { call.set_header("x", "1"); }), refusal);
    EXPECT_EQ(logged_and_thrown<Exception>([&] { call.set_param("x", "1"); }), refusal);
}

// ---- detect_format --------------------------------------------------------------------------------------

const std::string mark_utf8 = "\xEF\xBB\xBF";
const std::string mark_big_endian = "\xFE\xFF";
const std::string mark_little_endian = "\xFF\xFE";

struct Content {
    std::string bytes;
    Format format;

    friend std::ostream& operator<<(std::ostream& stream, const Content& row)
    {
        return stream << testing::PrintToString(row.bytes) << " is " << tarn::Format_Name(row.format);
    }
};

class DetectedFormat : public testing::TestWithParam<Content> {};

TEST_P(DetectedFormat, IsReadFromTheContent)
{
    EXPECT_EQ(Envelope(put_of(GetParam().bytes)).detect_format(), GetParam().format);
}

INSTANTIATE_TEST_SUITE_P(
    Markup, DetectedFormat,
    testing::Values(Content{"<?xml version=\"1.0\"?>", Format::Xml}, Content{"<?xml", Format::Xml},
                    Content{"<?XML", Format::Xml}, Content{"\t\n\f\r <?xml", Format::Xml},
                    Content{"<?xm", Format::Text}, Content{"x<?xml", Format::Text},
                    // Not among the five characters that are passed over.
                    Content{"\v<?xml", Format::Bin}, Content{"<", Format::Text},
                    Content{"  <html>", Format::Html}, Content{"\r\n\t\f <P>", Format::Html},
                    Content{"<htmlfoo>", Format::Text}, Content{"<a", Format::Text},
                    Content{"<a>", Format::Html}, Content{"<a\thref>", Format::Text},
                    Content{"<!DOCTYPE HTML>", Format::Html}, Content{"<!doctype  html>", Format::Text},
                    Content{"<span>", Format::Text}));

class HtmlMarker : public testing::TestWithParam<std::string> {};

TEST_P(HtmlMarker, CountsBeforeABlank)
{
    EXPECT_EQ(Envelope(put_of(GetParam() + " x")).detect_format(), Format::Html);
}

TEST_P(HtmlMarker, CountsBeforeAClosingBracket)
{
    EXPECT_EQ(Envelope(put_of(GetParam() + ">")).detect_format(), Format::Html);
}

TEST_P(HtmlMarker, CountsInUpperCase)
{
    std::string upper = GetParam();
    for (char& c : upper)
        c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);

    EXPECT_EQ(Envelope(put_of(upper + ">")).detect_format(), Format::Html);
}

TEST_P(HtmlMarker, DoesNotCountBeforeAnotherCharacter)
{
    EXPECT_EQ(Envelope(put_of(GetParam() + "-")).detect_format(), Format::Text);
}

TEST_P(HtmlMarker, DoesNotCountAtTheEnd)
{
    EXPECT_EQ(Envelope(put_of(GetParam())).detect_format(), Format::Text);
}

INSTANTIATE_TEST_SUITE_P(Markers, HtmlMarker,
                         testing::Values("<!doctype html", "<html", "<head", "<script", "<iframe", "<h1",
                                         "<div", "<font", "<table", "<a", "<style", "<title", "<b", "<body",
                                         "<br", "<p"));

INSTANTIATE_TEST_SUITE_P(PdfAndJson, DetectedFormat,
                         testing::Values(Content{"%PDF-1.7", Format::Pdf}, Content{"%PDF-", Format::Pdf},
                                         Content{" %PDF-1.7", Format::Text}, Content{"%pdf-", Format::Text},
                                         Content{"{}", Format::Json}, Content{"{\"a\":1}", Format::Json},
                                         Content{"[]", Format::Json}, Content{"[1]", Format::Json},
                                         // Only the ends are looked at.
                                         Content{"{\x01}", Format::Json}, Content{"{]", Format::Text},
                                         Content{"[}", Format::Text}, Content{"{", Format::Text},
                                         Content{"[", Format::Text}, Content{"}", Format::Text},
                                         Content{"  {\"a\":1}", Format::Text},
                                         Content{"{\"a\":1}\n", Format::Text}));

INSTANTIATE_TEST_SUITE_P(
    Magic, DetectedFormat,
    testing::Values(Content{"\x89PNG\x0D\x0A\x1A\x0A...", Format::Png},
                    Content{"\x89PNG\x0D\x0A\x1A\x0A", Format::Png},
                    Content{"\x89PNG\x0D\x0A\x1A", Format::Bin}, Content{"\xFF\xD8\xFF\xE0", Format::Jpeg},
                    Content{"\xFF\xD8\xFF", Format::Jpeg}, Content{"\xFF\xD8", Format::Text},
                    Content{"BM", Format::Bmp}, Content{"BMx", Format::Bmp}, Content{"B", Format::Text},
                    Content{"bm", Format::Text}, Content{"GIF87a", Format::Gif},
                    Content{"GIF89a\x01", Format::Gif}, Content{"GIF88a", Format::Text},
                    Content{"\x1F\x8B\x08", Format::Gzip}, Content{"\x1F\x8B\x07", Format::Bin},
                    Content{"PK\x03\x04", Format::Zip}, Content{"PK\x03", Format::Bin},
                    Content{"PK", Format::Text}, Content{" GIF89a", Format::Text}));

INSTANTIATE_TEST_SUITE_P(
    ByteOrderMarks, DetectedFormat,
    testing::Values(
        Content{mark_utf8 + "<?xml", Format::Xml}, Content{mark_big_endian + "<?xml", Format::Xml},
        Content{mark_little_endian + "<?xml", Format::Xml}, Content{mark_utf8 + " <html>", Format::Html},
        Content{mark_utf8 + "%PDF-", Format::Pdf}, Content{mark_utf8 + "{}", Format::Json},
        Content{mark_utf8 + "[1]", Format::Json}, Content{mark_utf8, Format::Text},
        Content{mark_big_endian, Format::Text}, Content{mark_utf8 + "plain", Format::Text},
        // Whatever follows: neither control bytes nor magic numbers are looked for.
        Content{mark_utf8 + "\x01\x02", Format::Text}, Content{mark_utf8 + "GIF89a", Format::Text},
        // One mark at most.
        Content{mark_utf8 + mark_utf8 + "{}", Format::Text},
        Content{mark_big_endian + mark_little_endian + "<?xml", Format::Text},
        Content{"\xEF\xBB{}", Format::Text}, Content{" " + mark_utf8 + "{}", Format::Text}));

INSTANTIATE_TEST_SUITE_P(TextOrBytes, DetectedFormat,
                         testing::Values(Content{"", Format::Text}, Content{"plain", Format::Text},
                                         Content{" \t\n", Format::Text}));

class ByteOfAnyValue : public testing::TestWithParam<int> {};

TEST_P(ByteOfAnyValue, MakesABodyBinaryOnlyIfItIsAControlByteThatTextNeverHas)
{
    const int value = GetParam();
    const bool harmless =
        value >= 32 || value == 9 || value == 10 || value == 12 || value == 13 || value == 27;

    const Envelope envelope(put_of(std::string("x") + static_cast<char>(value) + "x"));

    EXPECT_EQ(envelope.detect_format(), harmless ? Format::Text : Format::Bin);
}

INSTANTIATE_TEST_SUITE_P(Bytes, ByteOfAnyValue, testing::Range(0, 256));

TEST(Envelope, SeesABinaryByteAtIndex1446)
{
    EXPECT_EQ(Envelope(put_of(std::string(1446, 'x') + '\x01' + "x")).detect_format(), Format::Bin);
}

TEST(Envelope, DoesNotSeeABinaryByteAtIndex1447)
{
    EXPECT_EQ(Envelope(put_of(std::string(1447, 'x') + '\x01')).detect_format(), Format::Text);
}

TEST(Envelope, FindsMarkupBehindManyBlanks)
{
    EXPECT_EQ(Envelope(put_of(std::string(5000, ' ') + "<html>")).detect_format(), Format::Html);
}

TEST(Envelope, LooksAtTheVeryEndOfALargeJsonBody)
{
    EXPECT_EQ(Envelope(put_of("{" + std::string(5000, ' ') + "}")).detect_format(), Format::Json);
}

TEST(Envelope, DetectsTheFormatWhateverTheHeadSays)
{
    EXPECT_EQ(Envelope(put_of("{}", Format::Csv)).detect_format(), Format::Json);
}

TEST(Envelope, DetectsTheFormatOfTextAndOfRepliesToo)
{
    EXPECT_EQ(envelope_of(R"(post { body { txt: "{}" } })").detect_format(), Format::Json);
    EXPECT_EQ(envelope_of(R"(response { body { txt: "<a>" } })").detect_format(), Format::Html);
}

TEST(Envelope, TakesAMissingMessageForBytes)
{
    EXPECT_EQ(Envelope().detect_format(), Format::Bin);
}

TEST(Envelope, DetectsNoFormatOfAReplyWithoutBody)
{
    const Envelope envelope = envelope_of("response {}");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.detect_format(); }),
              "Envelope::data does not exist");
}

// ---- maybe_json and maybe_xml ---------------------------------------------------------------------------

struct Guess {
    std::string bytes;
    bool maybe;

    friend std::ostream& operator<<(std::ostream& stream, const Guess& row)
    {
        return stream << testing::PrintToString(row.bytes) << (row.maybe ? " may be" : " is not");
    }
};

class MaybeJson : public testing::TestWithParam<Guess> {};

TEST_P(MaybeJson, IsGuessedFromTheEnds)
{
    EXPECT_EQ(Envelope(put_of(GetParam().bytes)).maybe_json(), GetParam().maybe);
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, MaybeJson,
    testing::Values(Guess{"", false}, Guess{"{}", true}, Guess{"{", true},
                    // An opening brace is enough, unless a byte order mark stands before.
                    Guess{"{x", true}, Guess{mark_utf8 + "{x", false}, Guess{mark_utf8 + "{}", true},
                    Guess{mark_utf8 + "{", false}, Guess{mark_big_endian + "{}", true},
                    Guess{mark_little_endian + "[]", true}, Guess{"[]", true}, Guess{"[1]", true},
                    Guess{"[1", false}, Guess{"[", false}, Guess{"[}", false}, Guess{mark_utf8, false},
                    Guess{mark_utf8 + "[1", false}, Guess{mark_utf8 + mark_utf8 + "{}", false},
                    Guess{" {}", false}, Guess{"[]\n", false}, Guess{"1", false}, Guess{"}", false}));

class MaybeXml : public testing::TestWithParam<Guess> {};

TEST_P(MaybeXml, IsGuessedFromTheBeginning)
{
    EXPECT_EQ(Envelope(put_of(GetParam().bytes)).maybe_xml(), GetParam().maybe);
}

INSTANTIATE_TEST_SUITE_P(Bodies, MaybeXml,
                         testing::Values(Guess{"<?xml", true}, Guess{"<?xml version", true},
                                         Guess{mark_utf8 + "<?xml", true},
                                         Guess{mark_big_endian + "<?xml", true},
                                         Guess{mark_little_endian + "<?xml", true}, Guess{"", false},
                                         Guess{mark_utf8, false}, Guess{" <?xml", false},
                                         Guess{"<?XML", false}, Guess{"<xml", false}, Guess{"<?xm", false},
                                         Guess{mark_utf8 + mark_utf8 + "<?xml", false}));

TEST(Envelope, GuessesNothingOnceTheFormatIsKnown)
{
    EXPECT_FALSE(Envelope(put_of("{}", Format::Json)).maybe_json());
    EXPECT_FALSE(Envelope(put_of("{}", Format::Bin)).maybe_json());
    EXPECT_FALSE(Envelope(put_of("<?xml", Format::Xml)).maybe_xml());
}

TEST(Envelope, DoesNotLookForABodyToGuessOnceTheFormatIsKnown)
{
    const Envelope envelope = envelope_of("get { head { format: Text } }");

    EXPECT_FALSE(envelope.maybe_json());
    EXPECT_FALSE(envelope.maybe_xml());
}

TEST(Envelope, CannotGuessWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<Exception>([] { (void)Envelope().maybe_json(); }),
              "Envelope::data does not exist");
    EXPECT_EQ(logged_and_thrown<Exception>([] { (void)Envelope().maybe_xml(); }),
              "Envelope::data does not exist");
}

// ---- save -----------------------------------------------------------------------------------------------

std::string content_of(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

class SavedEnvelope : public testing::TestWithParam<std::string> {};

TEST_P(SavedEnvelope, LeavesItsBodyInTheFile)
{
    const tarn_test::ScratchFolder folder;

    envelope_of(GetParam()).save(folder.path() / "body");

    EXPECT_EQ(content_of(folder.path() / "body"), std::string("a\r\n\0\xFFz", 6));
}

INSTANTIATE_TEST_SUITE_P(Types, SavedEnvelope,
                         testing::Values(R"(put { body { bin: "a\r\n\000\377z" } })",
                                         R"(post { body { bin: "a\r\n\000\377z" } })",
                                         R"(response { body { bin: "a\r\n\000\377z" } })"));

TEST(Envelope, SavesTextToo)
{
    const tarn_test::ScratchFolder folder;

    envelope_of(R"(put { body { txt: "text" } })").save(folder.path() / "body");

    EXPECT_EQ(content_of(folder.path() / "body"), "text");
}

TEST(Envelope, ReplacesAFileAsAWhole)
{
    const tarn_test::ScratchFolder folder;
    Envelope(put_of("a long content")).save(folder.path() / "body");

    Envelope(put_of("short")).save(folder.path() / "body");

    EXPECT_EQ(content_of(folder.path() / "body"), "short");
}

TEST(Envelope, CannotBeSavedWithoutMessage)
{
    const tarn_test::ScratchFolder folder;

    EXPECT_EQ(logged_and_thrown<Exception>([&] { Envelope().save(folder.path() / "body"); }),
              "Envelope::save, not initialized");
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

class EnvelopeThatHasNoBodyToSave : public testing::TestWithParam<std::string> {};

TEST_P(EnvelopeThatHasNoBodyToSave, CannotBeSaved)
{
    const tarn_test::ScratchFolder folder;
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(logged_and_thrown<Exception>([&] { envelope.save(folder.path() / "body"); }),
              "Envelope::save, message has no body");
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

INSTANTIATE_TEST_SUITE_P(Types, EnvelopeThatHasNoBodyToSave,
                         testing::Values("get {}", "del {}", "head {}", "call {}", ""));

TEST(Envelope, LeavesAnOldFileAloneIfThereIsNothingToSave)
{
    const LogCapture log;
    const tarn_test::ScratchFolder folder;
    Envelope(put_of("old")).save(folder.path() / "body");

    EXPECT_THROW(envelope_of("put {}").save(folder.path() / "body"), Exception);

    EXPECT_EQ(content_of(folder.path() / "body"), "old");
}

// ---- log text -------------------------------------------------------------------------------------------

/// "0x78, 0x78, ..." for so many bytes "x".
std::string hex_of_x(int count)
{
    std::string result = "0x78";
    for (int i = 1; i < count; ++i)
        result += ", 0x78";
    return result;
}

const std::string head_text = R"(path: "/a")";

std::shared_ptr<tarn::Message> put_of_bytes(std::size_t size)
{
    auto message = message_of(R"(put { head { path: "/a" } })");
    message->mutable_put()->mutable_body()->set_bin(std::string(size, 'x'));
    return message;
}

std::shared_ptr<tarn::Message> put_of_text(std::size_t size)
{
    auto message = message_of(R"(put { head { path: "/a" } })");
    message->mutable_put()->mutable_body()->set_txt(std::string(size, 'x'));
    return message;
}

TEST(EnvelopeText, IsEmptyWithoutMessage)
{
    EXPECT_EQ(Envelope().to_string(), "");
}

TEST(EnvelopeText, IsTheCallItself)
{
    const Envelope envelope = envelope_of("call { select { method_number: 5 } }");

    EXPECT_EQ(envelope.to_string(), "select { method_number: 5 }");
}

TEST(EnvelopeText, IsTheWholeMessageIfItIsShort)
{
    const Envelope envelope = envelope_of(R"(put { head { path: "/a" } body { txt: "x" } })");

    EXPECT_EQ(envelope.to_string(), envelope.message->ShortDebugString());
}

TEST(EnvelopeText, IsEmptyForAMessageWithoutType)
{
    const LogCapture log; // the path's warning

    EXPECT_EQ(envelope_of("").to_string(), "");
}

TEST(EnvelopeText, HoldsBytesUpToAnEncodedSizeOf100)
{
    const Envelope envelope(put_of_bytes(98));

    EXPECT_EQ(envelope.body().ByteSizeLong(), 100U);
    EXPECT_EQ(envelope.to_string(), envelope.message->ShortDebugString());
}

TEST(EnvelopeText, ShowsBytesInHexadecimalAboveAnEncodedSizeOf100)
{
    EXPECT_EQ(Envelope(put_of_bytes(99)).to_string(), head_text + "; " + hex_of_x(99) + "...");
}

TEST(EnvelopeText, EndsAfter100Bytes)
{
    EXPECT_EQ(Envelope(put_of_bytes(5000)).to_string(), head_text + "; " + hex_of_x(100) + "...");
}

TEST(EnvelopeText, ShowsBytesInTwoLowerCaseDigits)
{
    auto message = put_of_bytes(200);
    message->mutable_put()->mutable_body()->set_bin(std::string("\x00\xAB", 2) + std::string(200, 'x'));

    EXPECT_TRUE(Envelope(message).to_string().starts_with(head_text + "; 0x00, 0xab, 0x78"));
}

TEST(EnvelopeText, HoldsTextUpTo1024Bytes)
{
    const Envelope envelope(put_of_text(1024));

    EXPECT_EQ(envelope.to_string(), envelope.message->ShortDebugString());
}

TEST(EnvelopeText, EndsAfter1024BytesOfText)
{
    EXPECT_EQ(Envelope(put_of_text(1025)).to_string(), head_text + "; " + std::string(1024, 'x') + "...");
}

TEST(EnvelopeText, CutsBodiesOfPostsAndRepliesToo)
{
    auto post = message_of(R"(post { head { path: "/a" } })");
    post->mutable_post()->mutable_body()->set_txt(std::string(1025, 'x'));
    auto response = message_of(R"(response { head { path: "/a" } })");
    response->mutable_response()->mutable_body()->set_bin(std::string(101, 'x'));

    EXPECT_EQ(Envelope(post).to_string(), head_text + "; " + std::string(1024, 'x') + "...");
    EXPECT_EQ(Envelope(response).to_string(), head_text + "; " + hex_of_x(100) + "...");
}

class EnvelopeTextOfASensitivePath : public testing::TestWithParam<std::string> {};

TEST_P(EnvelopeTextOfASensitivePath, IsItsHeadAlone)
{
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(envelope.to_string(), R"(path: "/password")");
}

INSTANTIATE_TEST_SUITE_P(
    Types, EnvelopeTextOfASensitivePath,
    testing::Values(R"(put { head { path: "/password" } body { txt: "secret" } })",
                    R"(post { head { path: "/password" } body { bin: "secret" } })",
                    R"(get { head { path: "/password" } })", R"(del { head { path: "/password" } })",
                    R"(head { path: "/password" })",
                    R"(response { head { path: "/password" } body { txt: "secret" } status: Ok })"));

TEST(EnvelopeText, IsWhatGoesToAStream)
{
    std::ostringstream stream;

    stream << Envelope(put_of_bytes(99));

    EXPECT_EQ(stream.str(), head_text + "; " + hex_of_x(99) + "...");
}

TEST(MessageText, IsTheCallItself)
{
    EXPECT_EQ(tarn::to_string(*message_of("call { select { method_number: 5 } }")),
              "select { method_number: 5 }");
}

TEST(MessageText, IsTheWholeMessageIfItIsShort)
{
    const auto message = message_of(R"(put { head { path: "/a" } body { txt: "x" } })");

    EXPECT_EQ(tarn::to_string(*message), message->ShortDebugString());
}

TEST(MessageText, IsEmptyForAMessageWithoutTypeAndWarnsOfNothing)
{
    const LogCapture log;

    EXPECT_EQ(tarn::to_string(tarn::Message()), "");
    EXPECT_TRUE(log.lines().empty());
}

TEST(MessageText, HoldsUpTo100Bytes)
{
    const auto message = put_of_bytes(100);

    EXPECT_EQ(tarn::to_string(*message), message->ShortDebugString());
}

TEST(MessageText, EndsAfter100Bytes)
{
    EXPECT_EQ(tarn::to_string(*put_of_bytes(101)), head_text + "; " + hex_of_x(100) + "...");
}

TEST(MessageText, HoldsTextUpTo1024Bytes)
{
    const auto message = put_of_text(1024);

    EXPECT_EQ(tarn::to_string(*message), message->ShortDebugString());
}

TEST(MessageText, EndsAfter1024BytesOfText)
{
    EXPECT_EQ(tarn::to_string(*put_of_text(1025)), head_text + "; " + std::string(1024, 'x') + "...");
}

TEST(MessageText, CutsBodiesOfPostsAndRepliesToo)
{
    auto post = message_of(R"(post { head { path: "/a" } })");
    post->mutable_post()->mutable_body()->set_txt(std::string(1025, 'x'));
    auto response = message_of(R"(response { head { path: "/a" } })");
    response->mutable_response()->mutable_body()->set_bin(std::string(101, 'x'));

    EXPECT_EQ(tarn::to_string(*post), head_text + "; " + std::string(1024, 'x') + "...");
    EXPECT_EQ(tarn::to_string(*response), head_text + "; " + hex_of_x(100) + "...");
}

class MessageTextOfASensitivePath : public testing::TestWithParam<std::string> {};

TEST_P(MessageTextOfASensitivePath, IsTheHeadOfTheRequestAlone)
{
    EXPECT_EQ(tarn::to_string(*message_of(GetParam())), R"(path: "/credentials")");
}

INSTANTIATE_TEST_SUITE_P(Types, MessageTextOfASensitivePath,
                         testing::Values(R"(put { head { path: "/credentials" } body { txt: "secret" } })",
                                         R"(post { head { path: "/credentials" } body { bin: "secret" } })",
                                         R"(get { head { path: "/credentials" } })",
                                         R"(del { head { path: "/credentials" } })"));

TEST(MessageText, DoesNotMaskRepliesAndHeads)
{
    const auto response = message_of(R"(response { head { path: "/password" } body { txt: "x" } })");
    const auto head = message_of(R"(head { path: "/password" })");

    EXPECT_EQ(tarn::to_string(*response), response->ShortDebugString());
    EXPECT_EQ(tarn::to_string(*head), head->ShortDebugString());
}

TEST(MessageText, IsWhatGoesToAStream)
{
    std::ostringstream stream;

    stream << *put_of_bytes(101);

    EXPECT_EQ(stream.str(), head_text + "; " + hex_of_x(100) + "...");
}

TEST(HiddenPayload, IsTheOneOfPathsThatNameSecrets)
{
    EXPECT_TRUE(tarn_internal::hidden_payload("/credential"));
    EXPECT_TRUE(tarn_internal::hidden_payload("/user/mycredentials/7"));
    EXPECT_TRUE(tarn_internal::hidden_payload("/password"));
    EXPECT_TRUE(tarn_internal::hidden_payload("xpasswords"));
}

TEST(HiddenPayload, IsNotTheOneOfOtherPaths)
{
    EXPECT_FALSE(tarn_internal::hidden_payload(""));
    EXPECT_FALSE(tarn_internal::hidden_payload("/pass/word"));
    EXPECT_FALSE(tarn_internal::hidden_payload("/Password"));
    EXPECT_FALSE(tarn_internal::hidden_payload("/CREDENTIAL"));
}

// ---- into and as ----------------------------------------------------------------------------------------

const std::string stats_text = R"(stat { id { tag: "t" } total_packets: 7 })";
const std::string stats_json = R"({"stat":[{"id":{"tag":"t"},"totalPackets":7}]})";

std::string stats_bytes()
{
    return message_of<tarn::Stats>(stats_text)->SerializeAsString();
}

bool is_the_stats(const tarn::Stats& stats)
{
    return equal(stats, *message_of<tarn::Stats>(stats_text));
}

Envelope with_type_header(const std::string& bytes, Format format, const std::string& type)
{
    Envelope envelope(put_of(bytes, format));
    envelope.set_header("CONTENT-type", type);
    return envelope;
}

TEST(ConvertedEnvelope, IsReadFromBytesOfTheFormatsThatTravelSo)
{
    EXPECT_TRUE(is_the_stats(Envelope(put_of(stats_bytes(), Format::Proto)).into<tarn::Stats>()));
    EXPECT_TRUE(is_the_stats(Envelope(put_of(stats_bytes(), Format::Bin)).into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadFromJson)
{
    EXPECT_TRUE(is_the_stats(Envelope(put_of(stats_json, Format::Json)).into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadFromJsonInATextBody)
{
    Envelope envelope = envelope_of("response { head { format: Json } }");
    envelope.mutable_body()->set_txt(stats_json);

    EXPECT_TRUE(is_the_stats(envelope.into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsEmptyIfABinaryFormatComesAsText)
{
    const Envelope envelope = envelope_of(R"(put { head { format: Proto } body { txt: "whatever" } })");

    EXPECT_TRUE(equal(envelope.into<tarn::Stats>(), tarn::Stats()));
}

class ContentType : public testing::TestWithParam<std::string> {};

TEST_P(ContentType, TellsHowToReadBytesOfUnknownFormat)
{
    const Envelope envelope = with_type_header(stats_bytes(), Format::Unknown, GetParam());

    EXPECT_TRUE(is_the_stats(envelope.into<tarn::Stats>()));
}

INSTANTIATE_TEST_SUITE_P(OfBytes, ContentType,
                         testing::Values("application/x-protobuf", "application/octet-stream", "proto",
                                         "application/protobuf; charset=none"));

TEST(ConvertedEnvelope, IsReadFromJsonIfTheHeaderSaysSo)
{
    const Envelope envelope =
        with_type_header(" " + stats_json, Format::Unknown, "application/json; charset=utf-8");

    EXPECT_TRUE(is_the_stats(envelope.into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadFromWhatLooksLikeJson)
{
    EXPECT_TRUE(is_the_stats(Envelope(put_of(stats_json)).into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadFromWhatLooksLikeJsonUnderAnotherHeader)
{
    EXPECT_TRUE(
        is_the_stats(with_type_header(stats_json, Format::Unknown, "text/plain").into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadByTheHeaderIfTheFormatIsAnother)
{
    EXPECT_TRUE(is_the_stats(
        with_type_header(stats_bytes(), Format::Csv, "application/x-protobuf").into<tarn::Stats>()));
    EXPECT_TRUE(
        is_the_stats(with_type_header(stats_json, Format::Csv, "application/json").into<tarn::Stats>()));
}

TEST(ConvertedEnvelope, IsReadByTheHeaderIfTheFormatTurnsOutWrong)
{
    EXPECT_TRUE(
        is_the_stats(with_type_header(stats_json, Format::Proto, "application/json").into<tarn::Stats>()));
    EXPECT_TRUE(is_the_stats(
        with_type_header(stats_bytes(), Format::Json, "application/x-protobuf").into<tarn::Stats>()));
}

/// The text of the refusal to read a message as Stats.
std::string refusal_of(const Envelope& envelope)
{
    return std::string("envelope.into<") + typeid(tarn::Stats).name() +
           "> parse failed: " + tarn::to_string(*envelope.message);
}

class UnconvertibleEnvelope : public testing::TestWithParam<std::string> {};

TEST_P(UnconvertibleEnvelope, IsRefusedWithTypeAndMessageAndWithoutALogLine)
{
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(tarn_test::silently_thrown<SerdesException>([&] { (void)envelope.into<tarn::Stats>(); }),
              refusal_of(envelope));
}

TEST_P(UnconvertibleEnvelope, GivesNullAndAnErrorInTheLogInstead)
{
    const LogCapture log;
    const Envelope envelope = envelope_of(GetParam());

    EXPECT_EQ(envelope.as<tarn::Stats>(), nullptr);

    EXPECT_TRUE(log.has(slate::ErrorLevel, "envelope.as<T> not possible: " + refusal_of(envelope)));
    EXPECT_EQ(log.lines().size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(
    Bodies, UnconvertibleEnvelope,
    testing::Values(R"(put { head { format: Text } body { txt: "{}" } })",
                    R"(put { head { format: Proto } body { bin: "\377" } })",
                    R"(put { head { format: Bin } body { bin: "{}" } })",
                    R"(put { head { format: Json } body { txt: "{" } })",
                    R"(put { head { format: Json } body { txt: "{\"nope\":1}" } })",
                    R"(put { body { txt: "plain" } })", R"(put { body { txt: "{plain" } })",
                    R"(put { head { headers { key: "content-type" value: "proto" } } body { bin: "\377" } })",
                    R"(put { head { headers { key: "content-type" value: "json" } } body { txt: "x" } })",
                    // What the header says comes before what the body looks like.
                    R"(put { head { headers { key: "content-type" value: "proto" } } body { bin: "{}" } })"));

TEST(ConvertedEnvelope, IsRefusedWithoutDetails)
{
    try {
        (void)envelope_of(R"(put { head { format: Text } body { txt: "x" } })").into<tarn::Stats>();
        FAIL() << "not refused";
    }
    catch (const SerdesException& error) {
        EXPECT_EQ(error.details, "");
    }
}

TEST(ConvertedEnvelope, MissesItsDataWithoutMessage)
{
    EXPECT_EQ(logged_and_thrown<Exception>([] { (void)Envelope().into<tarn::Stats>(); }),
              "Envelope::data does not exist");
}

TEST(ConvertedEnvelope, MissesItsBodyInARequestWithoutOne)
{
    const Envelope envelope = envelope_of("put { head { format: Proto } }");

    EXPECT_EQ(logged_and_thrown<Exception>([&] { (void)envelope.into<tarn::Stats>(); }),
              "Envelope::body does not exist");
}

TEST(SharedConvertedEnvelope, IsReadLikeAnyOther)
{
    const auto stats = Envelope(put_of(stats_bytes(), Format::Proto)).as<tarn::Stats>();

    ASSERT_TRUE(stats);
    EXPECT_TRUE(is_the_stats(*stats));
}

TEST(SharedConvertedEnvelope, IsNullWithoutMessageAndTheLogSaysWhy)
{
    const LogCapture log;

    EXPECT_EQ(Envelope().as<tarn::Stats>(), nullptr);

    EXPECT_TRUE(log.has(slate::ErrorLevel, "envelope.as<T> not possible: Envelope::data does not exist"));
}
} // namespace
