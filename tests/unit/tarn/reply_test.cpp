// SPDX-License-Identifier: Apache-2.0
#include "tarn/reply.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include "support/log_capture.h"
#include "support/scratch_folder.h"
#include "tarn/exception.h"
#include "tarn/message_factory.h"
#include "tarn/proto/stats.pb.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using tarn::Format;
using tarn::Reply;
using tarn::Status;
using tarn_test::equal;
using tarn_test::message_of;

Reply reply_of(const std::string& text)
{
    return Reply(message_of(text));
}

TEST(Reply, IsAnEnvelope)
{
    EXPECT_TRUE((std::is_base_of_v<tarn_internal::Envelope, Reply>));
    EXPECT_TRUE(std::has_virtual_destructor_v<Reply>);
}

TEST(Reply, CanBeMadeEmpty)
{
    EXPECT_FALSE(Reply().message);
}

// ---- setters --------------------------------------------------------------------------------------------

struct Setter {
    std::string name;
    std::function<void(Reply&)> set;
    std::string response;

    friend std::ostream& operator<<(std::ostream& stream, const Setter& row) { return stream << row.name; }
};

tarn::Stats stats()
{
    return *message_of<tarn::Stats>(R"(stat { id { tag: "t" } total_packets: 7 })");
}

class ReplySetter : public testing::TestWithParam<Setter> {};

TEST_P(ReplySetter, FillsAnEmptyResponse)
{
    Reply reply = reply_of("response {}");

    GetParam().set(reply);

    EXPECT_TRUE(equal(*reply.message, *message_of("response { " + GetParam().response + " }")))
        << reply.message->ShortDebugString();
}

TEST_P(ReplySetter, TurnsWhateverElseIntoAResponse)
{
    for (const std::string before : {"", "call { result { status: Ok } }",
                                     R"(put { head { path: "/a" } body { txt: "x" } })", "head {}"}) {
        Reply reply = reply_of(before);

        GetParam().set(reply);

        EXPECT_TRUE(equal(*reply.message, *message_of("response { " + GetParam().response + " }")))
            << reply.message->ShortDebugString();
    }
}

TEST_P(ReplySetter, RefusesAnEmptyReply)
{
    Reply reply;

    EXPECT_NE(tarn_test::logged_and_thrown<tarn::Exception>([&] { GetParam().set(reply); }).find("Reply"),
              std::string::npos);
    EXPECT_FALSE(reply.message);
}

INSTANTIATE_TEST_SUITE_P(
    Setters, ReplySetter,
    testing::Values(
        Setter{"Text", [](Reply& reply) { reply.set_reply_text(std::string("a text")); },
               R"(head { format: Text } status: Ok body { txt: "a text" })"},
        Setter{"EmptyText", [](Reply& reply) { reply.set_reply_text(std::string()); },
               R"(head { format: Text } status: Ok body { txt: "" })"},
        Setter{"Json", [](Reply& reply) { reply.set_reply_json(std::string("{\"a\":1}")); },
               R"(head { format: Json } status: Ok body { txt: "{\"a\":1}" })"},
        Setter{"UncheckedJson", [](Reply& reply) { reply.set_reply_json(std::string("{")); },
               R"(head { format: Json } status: Ok body { txt: "{" })"},
        Setter{"Xml", [](Reply& reply) { reply.set_reply_xml("<a/>"); },
               R"(head { format: Xml } status: Ok body { txt: "<a/>" })"},
        Setter{"UncheckedXml", [](Reply& reply) { reply.set_reply_xml("<"); },
               R"(head { format: Xml } status: Ok body { txt: "<" })"},
        Setter{"MessageAsText", [](Reply& reply) { reply.set_reply_text(stats()); },
               R"(head { format: Text } status: Ok
                  body { txt: "stat {\n  id {\n    tag: \"t\"\n  }\n  total_packets: 7\n}\n" })"},
        Setter{"MessageAsProto", [](Reply& reply) { reply.set_reply_proto(stats(), Format::Proto); },
               R"(head { format: Proto } status: Ok body { bin: "\n\x07\n\x03\x12\x01t\x10\x07" })"},
        Setter{"MessageAsProtoOfAnotherFormat",
               [](Reply& reply) { reply.set_reply_proto(stats(), Format::Reel); },
               R"(head { format: Reel } status: Ok body { bin: "\n\x07\n\x03\x12\x01t\x10\x07" })"},
        Setter{"FormatAndStatus", [](Reply& reply) { reply.set_format_status(Format::Csv, Status::Created); },
               "head { format: Csv } status: Created"},
        Setter{"Status", [](Reply& reply) { reply.set_status(Status::Gone); }, "status: Gone"}),
    [](const auto& row) { return row.param.name; });

TEST(Reply, WritesAMessageAsIndentedJsonWithDefaults)
{
    Reply reply = reply_of("response {}");

    reply.set_reply_json(stats());

    EXPECT_EQ(reply.status(), Status::Ok);
    EXPECT_EQ(reply.format(), Format::Json);
    EXPECT_EQ(reply.message->response().body().txt(), "{\n"
                                                      " \"stat\": [\n"
                                                      "  {\n"
                                                      "   \"id\": {\n"
                                                      "    \"pid\": 0,\n"
                                                      "    \"tag\": \"t\"\n"
                                                      "   },\n"
                                                      "   \"totalPackets\": 7,\n"
                                                      "   \"age\": \"\",\n"
                                                      "   \"ttl\": \"\"\n"
                                                      "  }\n"
                                                      " ]\n"
                                                      "}\n");
}

TEST(Reply, RefusesToWriteAMessageAsJsonIntoAnEmptyReply)
{
    Reply reply;

    EXPECT_NE(
        tarn_test::logged_and_thrown<tarn::Exception>([&] { reply.set_reply_json(stats()); }).find("Reply"),
        std::string::npos);
}

TEST(Reply, KeepsTheRestOfAResponse)
{
    Reply reply = reply_of(R"(response { head { path: "/a" from { pid: 7 } headers { key: "h" value: "1" } }
        status: NotFound status_message: "why" body { bin: "old" } })");

    reply.set_reply_text(std::string("new"));

    EXPECT_TRUE(equal(*reply.message, *message_of(R"(response {
        head { path: "/a" from { pid: 7 } headers { key: "h" value: "1" } format: Text }
        status: Ok status_message: "why" body { txt: "new" } })")))
        << reply.message->ShortDebugString();
}

TEST(Reply, LeavesTheBodyAloneWhenFormatAndStatusAreSet)
{
    Reply reply = reply_of(R"(response { body { txt: "x" } })");

    reply.set_format_status(Format::Csv, Status::Ok);

    EXPECT_EQ(reply.data(), "x");
}

TEST(Reply, LeavesHeadAndBodyAloneWhenTheStatusIsSet)
{
    Reply reply = reply_of(R"(response { head { format: Csv } body { txt: "x" } status: Ok })");

    reply.set_status(Status::Gone);

    EXPECT_TRUE(equal(*reply.message,
                      *message_of(R"(response { head { format: Csv } body { txt: "x" } status: Gone })")));
}

TEST(Reply, DestroysAGetWhenTheStatusIsSet)
{
    Reply reply = reply_of(R"(get { head { path: "/a" } })");

    reply.set_status(Status::Ok);

    EXPECT_FALSE(reply.message->has_get());
    EXPECT_TRUE(equal(*reply.message, *message_of("response { status: Ok }")));
}

TEST(Reply, HasFormatAndStatusEvenIfTheJsonFails)
{
    const tarn_test::LogCapture log;
    const auto unknown =
        message_of<tarn::Call>(R"(params { param { type_url: "t/no.such.Type" value: "x" } })");
    Reply reply = reply_of("response { status: NotFound }");

    EXPECT_THROW(reply.set_reply_json(*unknown), tarn::SerdesException);

    EXPECT_EQ(log.count(slate::ErrorLevel, "failed to serialize to json: "), 1U);
    EXPECT_TRUE(equal(*reply.message, *message_of("response { head { format: Json } status: Ok }")))
        << reply.message->ShortDebugString();
}

TEST(Reply, HasFormatAndStatusEvenIfTheBytesFail)
{
    // Of the older syntax, with required fields that aren't set.
    const google::protobuf::UninterpretedOption::NamePart incomplete;
    Reply reply = reply_of("response { status: NotFound }");

    EXPECT_EQ(tarn_test::logged_and_thrown<tarn::SerdesException>(
                  [&] { reply.set_reply_proto(incomplete, Format::Reel); }),
              "failed to serialize to proto; missing required fields");

    EXPECT_TRUE(equal(*reply.message, *message_of("response { head { format: Reel } status: Ok }")))
        << reply.message->ShortDebugString();
}

// ---- files ----------------------------------------------------------------------------------------------

/// A file of this name and content in a folder that goes with the test.
class AFile : public testing::Test {
protected:
    std::filesystem::path file(const std::string& name, const std::string& content)
    {
        std::ofstream(folder_.path() / name, std::ios::binary) << content;
        return folder_.path() / name;
    }

    const tarn_test::ScratchFolder folder_;
    Reply reply_ = reply_of("response { status: NotFound }");
};

TEST_F(AFile, IsRepliedAsTextIfItsNameSaysSo)
{
    reply_.set_reply_file(file("a.txt", "line\r\n"));

    EXPECT_TRUE(equal(*reply_.message, *message_of(R"(response {
        head { format: Text } status: Ok body { txt: "line\r\n" } })")));
}

TEST_F(AFile, IsRepliedAsBytesIfItsNameSaysSo)
{
    reply_.set_reply_file(file("a.pb.bin", std::string("\x00\xFF\r\n", 4)));

    EXPECT_TRUE(equal(*reply_.message, *message_of(R"(response {
        head { format: Proto } status: Ok body { bin: "\000\377\r\n" } })")));
}

TEST_F(AFile, IsRepliedAsBytesIfItsNameSaysNothing)
{
    reply_.set_reply_file(file("noextension", "x"));

    EXPECT_TRUE(equal(*reply_.message,
                      *message_of(R"(response { head { format: Bin } status: Ok body { bin: "x" } })")));
}

TEST_F(AFile, MayBeEmpty)
{
    reply_.set_reply_file(file("a.json", ""));

    EXPECT_TRUE(equal(*reply_.message,
                      *message_of(R"(response { head { format: Json } status: Ok body { txt: "" } })")));
}

TEST_F(AFile, MayBeLarge)
{
    std::string content;
    for (int i = 0; i < 1'000'000; ++i)
        content += static_cast<char>(i % 251);

    reply_.set_reply_file(file("a.bin", content));

    EXPECT_EQ(reply_.data(), content);
}

TEST_F(AFile, TurnsWhateverElseIntoAResponse)
{
    Reply reply = reply_of(R"(get { head { path: "/a" } })");

    reply.set_reply_file(file("a.txt", "x"));

    EXPECT_TRUE(equal(*reply.message,
                      *message_of(R"(response { head { format: Text } status: Ok body { txt: "x" } })")));
}

TEST_F(AFile, IsRefusedByAnEmptyReply)
{
    const tarn_test::LogCapture log;
    const auto path = file("a.txt", "x");

    EXPECT_THROW(Reply().set_reply_file(path), tarn::Exception);
}

TEST_F(AFile, IsNotFoundIfItDoesNotExist)
{
    const auto path = folder_.path() / "none.txt";

    try {
        reply_.set_reply_file(path);
        FAIL() << "not refused";
    }
    catch (const tarn::MessageException& error) {
        EXPECT_EQ(error.status, Status::NotFound);
        EXPECT_EQ(error.level, 5);
    }
}

TEST_F(AFile, IsMissedByItsPathAndWithoutALogLine)
{
    const auto path = folder_.path() / "none.txt";

    EXPECT_EQ(tarn_test::silently_thrown<tarn::MessageException>([&] { reply_.set_reply_file(path); }),
              path.string() + " does not exist");
}

TEST_F(AFile, IsMissedBehindALinkToNothing)
{
    const auto link = folder_.path() / "link";
    std::filesystem::create_symlink(folder_.path() / "none", link);

    EXPECT_EQ(tarn_test::silently_thrown<tarn::MessageException>([&] { reply_.set_reply_file(link); }),
              link.string() + " does not exist");
}

TEST_F(AFile, LeavesTheReplyAloneIfItDoesNotExist)
{
    EXPECT_THROW(reply_.set_reply_file(folder_.path() / "none"), tarn::MessageException);

    EXPECT_TRUE(equal(*reply_.message, *message_of("response { status: NotFound }")));
}

TEST_F(AFile, CannotBeAFolder)
{
    EXPECT_THROW(reply_.set_reply_file(folder_.path()), std::filesystem::filesystem_error);
}

// ---- readers --------------------------------------------------------------------------------------------

struct Reading {
    std::string message;
    Status status;
    std::string status_message;
    bool good;
    bool succeeded;

    friend std::ostream& operator<<(std::ostream& stream, const Reading& row)
    {
        return stream << '"' << row.message << '"';
    }
};

class ReadReply : public testing::TestWithParam<Reading> {
protected:
    const Reply reply_ = GetParam().message == "nothing" ? Reply() : reply_of(GetParam().message);
};

TEST_P(ReadReply, TellsItsStatus)
{
    EXPECT_EQ(reply_.status(), GetParam().status);
}

TEST_P(ReadReply, TellsItsStatusMessage)
{
    EXPECT_EQ(reply_.status_message(), GetParam().status_message);
}

TEST_P(ReadReply, IsGoodOrBad)
{
    EXPECT_EQ(reply_.good(), GetParam().good);
    EXPECT_EQ(reply_.bad(), !GetParam().good);
}

TEST_P(ReadReply, SucceededOrDidNot)
{
    EXPECT_EQ(tarn::Succeeded(reply_.message), GetParam().succeeded);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ReadReply,
    testing::Values(
        Reading{"nothing", Status::UnknownStatus, "", false, false},
        Reading{R"(response { status: Created status_message: "made" })", Status::Created, "made", true,
                true},
        Reading{R"(response { status: Gone status_message: "why" })", Status::Gone, "why", false, false},
        Reading{"response {}", Status::UnknownStatus, "", false, false},
        Reading{R"(call { result { status: Ok status_message: "fine" } })", Status::Ok, "fine", true, true},
        Reading{R"(call { result { status: NotFound status_message: "no" } })", Status::NotFound, "no", false,
                false},
        Reading{"call { result {} }", Status::UnknownStatus, "", false, false},
        // Good is whatever isn't known to be bad; success has to be told.
        Reading{"call {}", Status::UnknownStatus, "", true, false},
        Reading{"get {}", Status::UnknownStatus, "", true, false},
        Reading{"put {}", Status::UnknownStatus, "", true, false},
        Reading{"post {}", Status::UnknownStatus, "", true, false},
        Reading{"del {}", Status::UnknownStatus, "", true, false},
        Reading{"head {}", Status::UnknownStatus, "", true, false},
        Reading{"", Status::UnknownStatus, "", true, false}));

TEST(Reply, IsNotFoundAndBadUntilASetterHasRun)
{
    Reply reply(tarn::make_message_factory()->make_response(message_of("get {}"), 1));
    ASSERT_EQ(reply.status(), Status::NotFound);
    ASSERT_FALSE(reply.good());

    reply.set_reply_text(std::string("x"));

    EXPECT_EQ(reply.status(), Status::Ok);
    EXPECT_TRUE(reply.good());
}

// ---- bodies ---------------------------------------------------------------------------------------------

struct BodyRow {
    std::string message;
    bool has_body;
    std::string text; // what is read where "dflt" stands for a body

    friend std::ostream& operator<<(std::ostream& stream, const BodyRow& row)
    {
        return stream << '"' << row.message << '"';
    }
};

class ReplyBody : public testing::TestWithParam<BodyRow> {
protected:
    const Reply reply_ = GetParam().message == "nothing" ? Reply() : reply_of(GetParam().message);
};

TEST_P(ReplyBody, IsThereOrNot)
{
    EXPECT_EQ(reply_.has_body(), GetParam().has_body);
}

TEST_P(ReplyBody, IsReadOrReplacedByTheDefault)
{
    const tarn_test::LogCapture log;
    EXPECT_EQ(reply_.text_or("dflt"), GetParam().text);
    EXPECT_TRUE(log.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Messages, ReplyBody,
    testing::Values(BodyRow{"nothing", false, "dflt"}, BodyRow{"", false, "dflt"},
                    BodyRow{"response {}", false, "dflt"}, BodyRow{"response { status: Ok }", false, "dflt"},
                    BodyRow{"response { status: NoContent }", false, "dflt"},
                    BodyRow{"response { status: Ok body {} }", false, "dflt"},
                    BodyRow{R"(response { status: Ok body { txt: "" } })", true, ""},
                    BodyRow{R"(response { status: Ok body { bin: "" } })", true, ""},
                    BodyRow{R"(response { status: Ok body { txt: "text" } })", true, "text"},
                    BodyRow{R"(response { status: Created body { bin: "\001bytes" } })", true, "\001bytes"},
                    BodyRow{R"(response { status: NotFound body { txt: "why" } })", true, "dflt"},
                    BodyRow{R"(response { body { txt: "of no status" } })", true, "dflt"},
                    BodyRow{"call { result { status: Ok } }", false, "dflt"},
                    BodyRow{R"(put { body { txt: "text" } })", true, "text"},
                    BodyRow{"put {}", false, "dflt"}, BodyRow{"get {}", false, "dflt"}));

TEST(Reply, TakesDataAsBytesOrTextByItsFormat)
{
    struct Row {
        Format format;
        bool is_text;
    };
    for (const auto& [format, is_text] : {Row{Format::Json, true}, Row{Format::Html, true},
                                          Row{Format::Png, false}, Row{Format::Unknown, false}}) {
        for (const bool moves : {false, true}) {
            Reply reply = reply_of("response {}");
            std::string data = "data";
            if (moves)
                reply.set_reply_data(format, std::move(data));
            else
                reply.set_reply_data(format, data);

            const tarn::Response& response = reply.message->response();
            EXPECT_EQ(response.head().format(), format);
            EXPECT_EQ(response.status(), Status::Ok);
            EXPECT_EQ(response.body().has_txt(), is_text) << format;
            EXPECT_EQ(response.body().has_bin(), !is_text) << format;
            EXPECT_EQ(reply.data(), "data");
        }
    }
}

TEST(Reply, MovesATextThatItMayKeep)
{
    const std::vector<std::function<void(Reply&, std::string &&)>> setters = {
        [](Reply& reply, std::string&& text) { reply.set_reply_text(std::move(text)); },
        [](Reply& reply, std::string&& text) { reply.set_reply_json(std::move(text)); },
        [](Reply& reply, std::string&& text) { reply.set_reply_xml(std::move(text)); },
        [](Reply& reply, std::string&& text) { reply.set_reply_data(Format::Html, std::move(text)); },
        [](Reply& reply, std::string&& text) { reply.set_reply_data(Format::Png, std::move(text)); },
    };
    for (const auto& set : setters) {
        Reply reply = reply_of("response {}");
        std::string text(1000, 'x');
        const char* const memory = text.data();

        set(reply, std::move(text));

        EXPECT_EQ(reply.data().data(), memory);
        EXPECT_EQ(reply.data(), std::string(1000, 'x'));
    }
}

TEST(Reply, CopiesATextThatItMayNotKeep)
{
    const std::string text(1000, 'x');
    Reply reply = reply_of("response {}");

    reply.set_reply_data(Format::Html, text);

    EXPECT_EQ(text, std::string(1000, 'x'));
    EXPECT_NE(reply.data().data(), text.data());
}

TEST(Reply, ReplacesWhatIsNotUtf8InItsStatusMessage)
{
    Reply reply = reply_of("response {}");

    reply.set_status(Status::Gone, "a\xFFz");

    EXPECT_EQ(reply.status(), Status::Gone);
    EXPECT_EQ(reply.status_message(), "a\xEF\xBF\xBDz"); // U+FFFD
    tarn::Message parsed;
    EXPECT_TRUE(parsed.ParseFromString(reply.message->SerializeAsString()));
}

TEST(Reply, LeavesItsStatusMessageAloneIfItIsUtf8)
{
    Reply reply = reply_of("response {}");
    reply.set_status(Status::Gone, "gr\xC3\xB6\xC3\x9F"
                                   "e");
    EXPECT_EQ(reply.status_message(), "gr\xC3\xB6\xC3\x9F"
                                      "e");
}

// ---- whose reply it is ----------------------------------------------------------------------------------

TEST(Reply, IsAServersUnlessToldOtherwise)
{
    for (const Reply& reply : {Reply(), reply_of("response { status: RequestTimeout }"),
                               reply_of("response { status: BadRequest }"), reply_of("get {}")}) {
        EXPECT_FALSE(reply.is_local());
        EXPECT_EQ(reply.local_cause(), tarn::LocalCause::None);
    }
}

TEST(Reply, ThatAClientMadeKeepsItsCauseInCopies)
{
    const Reply reply(message_of("response { status: RequestTimeout }"), tarn::LocalCause::NoAnswerInTime);
    const Reply copy = reply;
    Reply assigned;
    assigned = copy;

    for (const Reply& each : {reply, copy, assigned}) {
        EXPECT_TRUE(each.is_local());
        EXPECT_EQ(each.local_cause(), tarn::LocalCause::NoAnswerInTime);
    }
}

TEST(Reply, ThatAClientMadeIsSentWithoutItsCause)
{
    const Reply local(message_of("response { status: RequestTimeout }"), tarn::LocalCause::NoAnswerInTime);
    EXPECT_TRUE(equal(*local.message, *message_of("response { status: RequestTimeout }")));
}

struct Explanation {
    std::string message;
    std::string why;
};

class AReplyThatIs : public testing::TestWithParam<Explanation> {};

TEST_P(AReplyThatIs, OfNoUseSaysWhy)
{
    EXPECT_EQ(Reply(message_of(GetParam().message)).why(), GetParam().why);
}

INSTANTIATE_TEST_SUITE_P(
    Contents, AReplyThatIs,
    testing::Values(Explanation{R"(response { status: RequestTimeout status_message: "no answer" })",
                                "no body: 408, no answer"},
                    Explanation{"response { status: NotFound }", "no body: 404"},
                    Explanation{"response { status: NoContent }", "no body: 204"},
                    Explanation{"response { status: Ok body {} }", "no body: 200"},
                    Explanation{R"(response { status: BadRequest status_message: "x" body { txt: "y" } })",
                                "400, x"},
                    Explanation{R"(response { status: Ok status_message: "x" body { txt: "" } })", ""},
                    Explanation{R"(response { status: Ok body { bin: "y" } })", ""},
                    Explanation{R"(call { result { status: NotFound status_message: "x" } })", "404, x"},
                    Explanation{"call { result { status: Ok } }", ""}, //
                    Explanation{"call {}", ""},                        //
                    Explanation{"get {}", ""}));

TEST(Reply, WithoutMessageSaysSo)
{
    EXPECT_EQ(Reply().why(), "no message");
}

TEST(Succeeded, HoldsFrom200To299)
{
    EXPECT_TRUE(tarn::Succeeded(static_cast<Status>(200)));
    EXPECT_TRUE(tarn::Succeeded(Status::NoContent));
    EXPECT_TRUE(tarn::Succeeded(static_cast<Status>(250)));
    EXPECT_TRUE(tarn::Succeeded(static_cast<Status>(299)));
}

TEST(Succeeded, DoesNotHoldOutside)
{
    EXPECT_FALSE(tarn::Succeeded(static_cast<Status>(0)));
    EXPECT_FALSE(tarn::Succeeded(static_cast<Status>(-200)));
    EXPECT_FALSE(tarn::Succeeded(static_cast<Status>(100)));
    EXPECT_FALSE(tarn::Succeeded(static_cast<Status>(199)));
    EXPECT_FALSE(tarn::Succeeded(static_cast<Status>(300)));
    EXPECT_FALSE(tarn::Succeeded(Status::InternalServerError));
}
} // namespace
