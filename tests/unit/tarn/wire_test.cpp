// SPDX-License-Identifier: Apache-2.0
// The schema as it stands in the descriptors, and frames as bytes. Whatever fails here breaks the wire.
#include <algorithm>
#include <memory>
#include <ostream>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include "tarn/tarn.h"
#include "unit/tarn/messages.h"
#include "unit/tarn/thrown.h"

namespace {
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using tarn::Message;
using tarn_test::message_of;

std::string type_of(const FieldDescriptor& field)
{
    if (field.message_type())
        return std::string(field.message_type()->full_name());
    if (field.enum_type())
        return std::string(field.enum_type()->full_name());
    return field.type_name();
}

/// Such as "5 params: repeated tarn.KeyValue", or "1 get: tarn.Get in type" for a member of a oneof.
std::string describe(const FieldDescriptor& field)
{
    return std::to_string(field.number()) + " " + std::string(field.name()) + ": " +
           (field.is_repeated() ? "repeated " : "") + type_of(field) +
           (field.containing_oneof() ? " in " + std::string(field.containing_oneof()->name()) : "");
}

struct Schema {
    std::string message;
    std::vector<std::string> fields;

    friend std::ostream& operator<<(std::ostream& stream, const Schema& row) { return stream << row.message; }
};

class WireSchema : public testing::TestWithParam<Schema> {};

TEST_P(WireSchema, HasTheseFieldsAndNoOthers)
{
    const auto* descriptor = DescriptorPool::generated_pool()->FindMessageTypeByName(GetParam().message);
    ASSERT_NE(descriptor, nullptr);

    std::vector<std::string> fields;
    for (int i = 0; i < descriptor->field_count(); ++i)
        fields.push_back(describe(*descriptor->field(i)));
    EXPECT_EQ(fields, GetParam().fields);
}

INSTANTIATE_TEST_SUITE_P(
    Messages, WireSchema,
    testing::Values(
        Schema{"tarn.Message",
               {"1 get: tarn.Get in type", "2 put: tarn.Put in type", "3 response: tarn.Response in type",
                "4 del: tarn.Delete in type", "5 post: tarn.Post in type", "6 head: tarn.Head in type",
                "100 call: tarn.Call in type"}},
        Schema{"tarn.Get", {"1 head: tarn.Head"}},
        Schema{"tarn.Put", {"1 head: tarn.Head", "2 body: tarn.Body"}},
        Schema{"tarn.Post", {"1 head: tarn.Head", "2 body: tarn.Body"}},
        Schema{"tarn.Delete", {"1 head: tarn.Head"}},
        Schema{
            "tarn.Response",
            {"1 head: tarn.Head", "2 body: tarn.Body", "3 status: tarn.Status", "4 status_message: string"}},
        Schema{"tarn.Head",
               {"1 to: repeated tarn.Identity", "2 from: tarn.Identity", "3 path: string",
                "4 format: tarn.Format", "5 params: repeated tarn.KeyValue",
                "6 headers: repeated tarn.KeyValue", "7 meta: repeated tarn.KeyValue"}},
        Schema{"tarn.KeyValue", {"1 key: string", "2 value: string"}},
        Schema{"tarn.Identity", {"1 pid: int32", "2 tag: string"}},
        Schema{"tarn.Body", {"1 bin: bytes in content", "2 txt: string in content"}},
        Schema{"tarn.Call",
               {"1 select: tarn.Call.Select", "2 params: tarn.Call.Params", "3 result: tarn.Call.Result"}},
        Schema{"tarn.Call.Select", {"1 method_number: uint32"}},
        Schema{"tarn.Call.Params", {"1 param: repeated google.protobuf.Any"}},
        Schema{
            "tarn.Call.Result",
            {"1 value: repeated google.protobuf.Any", "2 status: tarn.Status", "3 status_message: string"}},
        Schema{"tarn.RoutingDetail",
               {"1 methods: repeated tarn.RoutingDetail.Method", "2 patterns: repeated string",
                "3 access: tarn.Access"}},
        Schema{"tarn.RoutingDetails", {"1 details: repeated tarn.RoutingDetail"}},
        Schema{"tarn.Stats", {"1 stat: repeated tarn.Stat"}},
        Schema{"tarn.Stat",
               {"1 id: tarn.Identity", "2 total_packets: int32", "3 age: string", "4 ttl: string"}}),
    [](const testing::TestParamInfo<Schema>& row) {
        std::string name = row.param.message;
        std::replace(name.begin(), name.end(), '.', '_');
        return name;
    });

struct Enumeration {
    std::string name;
    std::vector<std::string> values;

    friend std::ostream& operator<<(std::ostream& stream, const Enumeration& row)
    {
        return stream << row.name;
    }
};

class WireEnumeration : public testing::TestWithParam<Enumeration> {};

TEST_P(WireEnumeration, HasTheseValuesInThisOrder)
{
    const auto* descriptor = DescriptorPool::generated_pool()->FindEnumTypeByName(GetParam().name);
    ASSERT_NE(descriptor, nullptr);

    std::vector<std::string> values;
    for (int i = 0; i < descriptor->value_count(); ++i)
        values.push_back(std::string(descriptor->value(i)->name()) + " " +
                         std::to_string(descriptor->value(i)->number()));
    EXPECT_EQ(values, GetParam().values);
}

INSTANTIATE_TEST_SUITE_P(Enumerations, WireEnumeration,
                         testing::Values(Enumeration{"tarn.Access", {"Public 0", "Private 1"}},
                                         Enumeration{"tarn.RoutingDetail.Method",
                                                     {"Get 0", "Put 1", "Del 2", "Post 3", "Head 4",
                                                      "Patch 5", "Options 6"}},
                                         Enumeration{"tarn.Format",
                                                     {"Unknown 0",
                                                      "Empty 1",
                                                      "Any 99",
                                                      "AnyText 1000",
                                                      "Text 4",
                                                      "Xml 5",
                                                      "Html 8",
                                                      "Css 9",
                                                      "Csv 10",
                                                      "JavaScript 1001",
                                                      "UriList 1002",
                                                      "Xsl 1003",
                                                      "AnyImage 2000",
                                                      "Png 400",
                                                      "Jpeg 401",
                                                      "Bmp 402",
                                                      "Svg 403",
                                                      "Tiff 404",
                                                      "Icon 405",
                                                      "Gif 406",
                                                      "AnyApplication 3000",
                                                      "Json 2",
                                                      "Proto 3",
                                                      "Bin 6",
                                                      "Pdf 7",
                                                      "Hex 11",
                                                      "TTable 12",
                                                      "Tar 100",
                                                      "Gzip 102",
                                                      "Zip 101",
                                                      "Sh 200",
                                                      "Batch 201",
                                                      "PanelScript 202",
                                                      "StageScript 3001",
                                                      "MarbleFont 3002",
                                                      "Reel 3003",
                                                      "Reelist 3004",
                                                      "PanelMarkup 3005",
                                                      "Sable 3006",
                                                      "AnyVideo 4000",
                                                      "AnyAudio 5000",
                                                      "AnyFont 6000"}},
                                         Enumeration{"tarn.Status",
                                                     {"UnknownStatus 0",
                                                      "Continue 100",
                                                      "SwitchingProtocols 101",
                                                      "Processing 102",
                                                      "EarlyHints 103",
                                                      "Ok 200",
                                                      "Created 201",
                                                      "Accepted 202",
                                                      "NonAuthoritativeInformation 203",
                                                      "NoContent 204",
                                                      "ResetContent 205",
                                                      "PartialContent 206",
                                                      "MultiStatus 207",
                                                      "AlreadyReported 208",
                                                      "IMUsed 226",
                                                      "MultipleChoices 300",
                                                      "MovedPermanently 301",
                                                      "Found 302",
                                                      "SeeOther 303",
                                                      "NotModified 304",
                                                      "UseProxy 305",
                                                      "TemporaryRedirect 307",
                                                      "PermanentRedirect 308",
                                                      "BadRequest 400",
                                                      "Unauthorized 401",
                                                      "PaymentRequired 402",
                                                      "Forbidden 403",
                                                      "NotFound 404",
                                                      "MethodNotAllowed 405",
                                                      "NotAcceptable 406",
                                                      "ProxyAuthenticationRequired 407",
                                                      "RequestTimeout 408",
                                                      "Conflict 409",
                                                      "Gone 410",
                                                      "LengthRequired 411",
                                                      "PreconditionFailed 412",
                                                      "PayloadTooLarge 413",
                                                      "UriTooLong 414",
                                                      "UnsupportedMediaType 415",
                                                      "RangeNotSatisfiable 416",
                                                      "ExpectationFailed 417",
                                                      "ImATeapot 418",
                                                      "MisdirectedRequest 421",
                                                      "UnprocessableContent 422",
                                                      "Locked 423",
                                                      "FailedDependency 424",
                                                      "TooEarly 425",
                                                      "UpgradeRequired 426",
                                                      "PreconditionRequired 428",
                                                      "TooManyRequests 429",
                                                      "RequestHeaderFieldsTooLarge 431",
                                                      "UnavailableForLegalReasons 451",
                                                      "InternalServerError 500",
                                                      "NotImplemented 501",
                                                      "BadGateway 502",
                                                      "ServiceUnavailable 503",
                                                      "GatewayTimeout 504",
                                                      "HttpVersionNotSupported 505",
                                                      "VariantAlsoNegotiates 506",
                                                      "InsufficientStorage 507",
                                                      "LoopDetected 508",
                                                      "NotExtended 510",
                                                      "NetworkAuthenticationRequired 511"}}),
                         [](const testing::TestParamInfo<Enumeration>& row) {
                             std::string name = row.param.name;
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

using Names = std::set<std::string>;

struct SchemaFile {
    std::string name;
    Names imports;
    Names declared;

    friend std::ostream& operator<<(std::ostream& stream, const SchemaFile& row)
    {
        return stream << row.name;
    }
};

class WireSchemaFile : public testing::TestWithParam<SchemaFile> {};

TEST_P(WireSchemaFile, DeclaresItsPartOfTheSchema)
{
    const auto* file = DescriptorPool::generated_pool()->FindFileByName(GetParam().name);
    ASSERT_NE(file, nullptr);

    Names declared;
    for (int i = 0; i < file->message_type_count(); ++i)
        declared.insert(std::string(file->message_type(i)->full_name()));
    for (int i = 0; i < file->enum_type_count(); ++i)
        declared.insert(std::string(file->enum_type(i)->full_name()));
    EXPECT_EQ(declared, GetParam().declared);
}

TEST_P(WireSchemaFile, ImportsOnlyWhatItNeeds)
{
    const auto* file = DescriptorPool::generated_pool()->FindFileByName(GetParam().name);
    ASSERT_NE(file, nullptr);

    Names imports;
    for (int i = 0; i < file->dependency_count(); ++i)
        imports.insert(std::string(file->dependency(i)->name()));
    EXPECT_EQ(imports, GetParam().imports);
}

TEST_P(WireSchemaFile, IsOfTheThirdSyntaxAndOfPackageTarn)
{
    const auto* file = DescriptorPool::generated_pool()->FindFileByName(GetParam().name);
    ASSERT_NE(file, nullptr);

    EXPECT_TRUE(file->DebugString().starts_with("syntax = \"proto3\";"));
    EXPECT_EQ(file->package(), "tarn");
}

INSTANTIATE_TEST_SUITE_P(
    Files, WireSchemaFile,
    testing::Values(
        SchemaFile{"access.proto", {}, {"tarn.Access"}}, SchemaFile{"format.proto", {}, {"tarn.Format"}},
        SchemaFile{"identity.proto", {}, {"tarn.Identity"}}, SchemaFile{"status.proto", {}, {"tarn.Status"}},
        SchemaFile{"message.proto",
                   {"google/protobuf/any.proto", "format.proto", "identity.proto", "status.proto"},
                   {"tarn.Message", "tarn.Get", "tarn.Put", "tarn.Post", "tarn.Delete", "tarn.Response",
                    "tarn.Call", "tarn.Head", "tarn.KeyValue", "tarn.Body"}},
        SchemaFile{"routing.proto", {"access.proto"}, {"tarn.RoutingDetail", "tarn.RoutingDetails"}},
        SchemaFile{"stats.proto", {"identity.proto"}, {"tarn.Stats", "tarn.Stat"}}),
    [](const testing::TestParamInfo<SchemaFile>& row) {
        return row.param.name.substr(0, row.param.name.find('.'));
    });

TEST(WireMessages, AreFullyReflective)
{
    EXPECT_TRUE((std::is_base_of_v<google::protobuf::Message, tarn::Message>));
    EXPECT_TRUE((std::is_base_of_v<google::protobuf::Message, tarn::RoutingDetails>));
    EXPECT_TRUE((std::is_base_of_v<google::protobuf::Message, tarn::Stats>));
}

TEST(WireMessages, NumberTheirVerbsAsTheirFields)
{
    EXPECT_EQ(message_of("get {}")->type_case(), 1);
    EXPECT_EQ(message_of("put {}")->type_case(), 2);
    EXPECT_EQ(message_of("response {}")->type_case(), 3);
    EXPECT_EQ(message_of("del {}")->type_case(), 4);
    EXPECT_EQ(message_of("post {}")->type_case(), 5);
    EXPECT_EQ(message_of("head {}")->type_case(), 6);
    EXPECT_EQ(message_of("call {}")->type_case(), 100);
    EXPECT_EQ(tarn::Message().type_case(), 0);
}

/// The bytes of pairs of hexadecimal digits, blanks left out; text in single quotes stands for itself.
std::string bytes(const std::string& hex)
{
    const auto digit = [](char c) { return c <= '9' ? c - '0' : c - 'a' + 10; };

    std::string result;
    for (std::size_t i = 0; i < hex.size();) {
        if (hex[i] == ' ') {
            ++i;
        }
        else if (hex[i] == '\'') {
            const auto end = hex.find('\'', i + 1);
            result += hex.substr(i + 1, end - i - 1);
            i = end + 1;
        }
        else {
            result += static_cast<char>(digit(hex[i]) * 16 + digit(hex[i + 1]));
            i += 2;
        }
    }
    return result;
}

struct Frame {
    std::string name;
    std::string hex;
    std::string message;

    friend std::ostream& operator<<(std::ostream& stream, const Frame& row) { return stream << row.name; }
};

class WireFrame : public testing::TestWithParam<Frame> {};

TEST_P(WireFrame, ParsesFromTheseBytes)
{
    const std::string frame = bytes(GetParam().hex);

    const auto message = tarn::make_message_factory()->make_message(frame.data(), frame.size());

    ASSERT_TRUE(message);
    EXPECT_TRUE(tarn_test::equal(*message, *message_of(GetParam().message))) << message->ShortDebugString();
}

TEST_P(WireFrame, SerialisesToTheseBytes)
{
    EXPECT_EQ(message_of(GetParam().message)->SerializeAsString(), bytes(GetParam().hex));
}

INSTANTIATE_TEST_SUITE_P(
    Frames, WireFrame,
    testing::Values(
        Frame{"Get", "0a 06 0a 04 1a 02 '/a'", R"(get { head { path: "/a" } })"},
        // The head stands in the message itself, and not one level down.
        Frame{"Head", "32 04 1a 02 '/a'", R"(head { path: "/a" })"},
        Frame{"Delete", "22 06 0a 04 1a 02 '/a'", R"(del { head { path: "/a" } })"},
        Frame{"PutOfText", "12 0d 0a 06 1a 02 '/a' 20 04 12 03 12 01 'x'",
              R"(put { head { path: "/a" format: Text } body { txt: "x" } })"},
        Frame{"PutOfBytes", "12 0c 0a 04 1a 02 '/a' 12 04 0a 02 00 ff",
              R"(put { head { path: "/a" } body { bin: "\x00\xff" } })"},
        Frame{"Post", "2a 0d 0a 06 1a 02 '/a' 20 02 12 03 12 01 '1'",
              R"(post { head { path: "/a" format: Json } body { txt: "1" } })"},
        Frame{
            "Response", "1a 11 0a 02 20 04 12 03 12 01 'x' 18 94 03 22 03 'why'",
            R"(response { head { format: Text } body { txt: "x" } status: NotFound status_message: "why" })"},
        Frame{"WholeHead",
              "0a 3c 0a 3a"
              " 0a 02 08 01"
              " 0a 03 08 80 01"
              " 12 05 08 07 12 01 't'"
              " 1a 02 '/a'"
              " 20 e8 07"
              " 2a 06 0a 01 'p' 12 01 '1'"
              " 2a 06 0a 01 'p' 12 01 '2'"
              " 32 06 0a 01 'h' 12 01 '3'"
              " 3a 09 0a 03 'ttl' 12 02 '4s'",
              R"(get { head {
                   to { pid: 1 } to { pid: 128 } from { pid: 7 tag: "t" } path: "/a" format: AnyText
                   params { key: "p" value: "1" } params { key: "p" value: "2" }
                   headers { key: "h" value: "3" } meta { key: "ttl" value: "4s" } } })"},
        Frame{"NegativePid", "0a 0f 0a 0d 12 0b 08 ff ff ff ff ff ff ff ff ff 01",
              R"(get { head { from { pid: -1 } } })"},
        Frame{"Call",
              "a2 06 24"
              " 0a 02 08 05"
              " 12 0c 0a 0a 0a 03 't/x' 12 03 08 96 01"
              " 1a 10 0a 05 0a 03 't/y' 10 c8 01 1a 04 'fine'",
              R"(call { select { method_number: 5 }
                   params { param { type_url: "t/x" value: "\x08\x96\x01" } }
                   result { value { type_url: "t/y" } status: Ok status_message: "fine" } })"},
        // Zero is a method like any other, but the default isn't written.
        Frame{"CallOfMethodZero", "a2 06 02 0a 00", "call { select { } }"},
        Frame{"UnknownFormat", "0a 05 0a 03 20 b9 60", "get { head { format: 12345 } }"},
        Frame{"UnknownStatusNumber", "1a 03 18 e7 07", "response { status: 999 }"}),
    [](const testing::TestParamInfo<Frame>& row) { return row.param.name; });

TEST(WireFrames, OfAMessageWithoutTypeAreEmpty)
{
    EXPECT_EQ(Message().SerializeAsString(), "");
}

TEST(WireFrames, WithoutAStatusReadAsUnknownStatusAndAsNoSuccess)
{
    const std::string frame = bytes("1a 02 0a 00");

    const tarn::Reply reply(tarn::make_message_factory()->make_message(frame.data(), frame.size()));

    EXPECT_EQ(reply.status(), tarn::Status::UnknownStatus);
    EXPECT_FALSE(reply.good());
}

TEST(WireFrames, MustHoldTextThatIsUtf8)
{
    const tarn_test::LogCapture log; // protobuf says what it misses
    const auto factory = tarn::make_message_factory();
    const std::string text = bytes("12 05 12 03 12 01 ff");
    const std::string binary = bytes("12 05 12 03 0a 01 ff");

    EXPECT_FALSE(factory->make_message(text.data(), text.size()));
    EXPECT_TRUE(factory->make_message(binary.data(), binary.size()));
}

TEST(WireFrames, MayHoldTextAsBytes)
{
    const std::string frame = bytes("12 0a 0a 02 20 04 12 04 0a 02 'hi'");

    const tarn::Request request(tarn::make_message_factory()->make_message(frame.data(), frame.size()));

    EXPECT_EQ(request.format(), tarn::Format::Text);
    EXPECT_EQ(request.data(), "hi");
}

class Process4711 : public tarn_internal::PidFinder {
public:
    int my_pid() const override { return 4711; }
};

TEST(WireFrames, OfAPutAreWhatTheFactoryBuilt)
{
    const auto factory = tarn::make_message_factory(std::make_shared<Process4711>());
    const auto headers = tarn_test::dictionary_of({{"Content-Type", "text/csv"}});

    const auto message = factory->make_put("a@12,300?x=%20", "1,2", headers, slate::Seconds(4));

    EXPECT_EQ(message->SerializeAsString(), bytes("12 4c 0a 43"
                                                  " 0a 02 08 0c"
                                                  " 0a 03 08 ac 02"
                                                  " 12 03 08 e7 24"
                                                  " 1a 02 '/a'"
                                                  " 20 0a"
                                                  " 2a 08 0a 01 'x' 12 03 '%20'"
                                                  " 32 18 0a 0c 'Content-Type' 12 08 'text/csv'"
                                                  " 3a 09 0a 03 'ttl' 12 02 '4s'"
                                                  " 12 05 12 03 '1,2'"));
}

TEST(WireFrames, OfAReplyAreWhatItsSettersMade)
{
    const auto factory = tarn::make_message_factory();
    const auto request = message_of(R"(get { head { from { pid: 7 } path: "/a" } })");
    tarn::Reply reply(factory->make_response(request, 9));

    reply.set_reply_text("hi");

    EXPECT_EQ(reply.message->SerializeAsString(), bytes("1a 19 0a 0e"
                                                        " 0a 02 08 07"
                                                        " 12 02 08 09"
                                                        " 1a 02 '/a'"
                                                        " 20 04"
                                                        " 12 04 12 02 'hi'"
                                                        " 18 c8 01"));
}
} // namespace
