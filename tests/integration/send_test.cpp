// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/send.h"

#include "support/peers.h"
#include "support/runtime_test.h"
#include "tarn/internal/utils/receive.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using tarn_internal::send_msg;
using tarn_internal::send_str;

/// Two ends of a pipe. The second one takes no more than one message until it is read.
class ASocketPair : public ::testing::Test {
protected:
    ASocketPair() : a(context, zmq::socket_type::pair), b(context, zmq::socket_type::pair)
    {
        for (zmq::socket_t* socket : {&a, &b}) {
            socket->set(zmq::sockopt::sndhwm, 1);
            socket->set(zmq::sockopt::rcvhwm, 1);
            socket->set(zmq::sockopt::linger, 0);
        }
        b.bind("inproc://pair");
        a.connect("inproc://pair");
    }

    void fill()
    {
        a.set(zmq::sockopt::sndtimeo, 0);
        while (a.send(zmq::str_buffer("x"), zmq::send_flags::dontwait)) {
        }
    }

    LogCapture logs;
    zmq::context_t context;
    zmq::socket_t a;
    zmq::socket_t b;
};

TEST_F(ASocketPair, CarriesTextsAsFramesWithoutATerminator)
{
    for (const std::string text : {"TERMINATE", "", "x"}) {
        EXPECT_TRUE(send_str(a, text));
        EXPECT_EQ(receive_frames(b), std::vector{text});
    }
}

TEST_F(ASocketPair, CarriesAMessageAsPlainProtobufInOneFrame)
{
    Message message;
    message.mutable_get()->mutable_head()->set_path("/a");

    EXPECT_TRUE(send_msg(a, message, nullptr));
    // get { head { path: "/a" } }: each level is a field number, a length and what is in it.
    EXPECT_EQ(receive_frames(b), std::vector<std::string>{"\x0A\x06\x0A\x04\x1A\x02/a"});

    EXPECT_TRUE(send_msg(a, std::make_shared<const Message>(message), nullptr));
    EXPECT_EQ(receive_frames(b), std::vector<std::string>{"\x0A\x06\x0A\x04\x1A\x02/a"});
}

TEST_F(ASocketPair, CarriesABodyThatIsNotUtf8AsBytesAndLeavesTheMessageAlone)
{
    for (const auto make_body : {+[](Message& m) { return m.mutable_put()->mutable_body(); },
                                 +[](Message& m) { return m.mutable_post()->mutable_body(); },
                                 +[](Message& m) { return m.mutable_response()->mutable_body(); }}) {
        Message message;
        make_body(message)->set_txt("\xFF");
        const Message before = message;
        Message bytes;
        make_body(bytes)->set_bin("\xFF");

        EXPECT_TRUE(send_msg(a, message, nullptr));

        EXPECT_EQ(receive_frames(b), std::vector{bytes.SerializeAsString()});
        EXPECT_TRUE(make_body(message)->has_txt());
    }
}

TEST_F(ASocketPair, CarriesAMessageOfNoTypeAsAnEmptyFrame)
{
    EXPECT_TRUE(send_msg(a, Message(), nullptr));
    EXPECT_EQ(receive_frames(b), std::vector<std::string>{""});
}

TEST_F(ASocketPair, ThatIsFullTakesNothingAndSaysSoInTheLog)
{
    fill();
    const auto provider = slate::add_provider("sender", "", true);

    EXPECT_FALSE(send_str(a, "text"));
    EXPECT_FALSE(send_msg(a, Message(), provider));

    const auto lines = logs.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "zmq send failed: Resource temporarily unavailable");
    EXPECT_EQ(lines[0].provider, "");
    EXPECT_EQ(lines[1].text, "send failed: Resource temporarily unavailable");
    EXPECT_EQ(lines[1].provider, "sender");
    EXPECT_EQ(lines[1].level, slate::ErrorLevel);
    slate::remove_provider(provider->name());
}

TEST_F(ASocketPair, WhoseContextEndsThrows)
{
    context.shutdown();
    EXPECT_THROW(send_str(a, "text"), zmq::error_t);
    EXPECT_THROW(send_msg(a, Message(), nullptr), zmq::error_t);
    EXPECT_TRUE(logs.lines().empty());
}

TEST_F(ASocketPair, GivesTheFirstFrameOfAMessageAndDropsTheRest)
{
    a.set(zmq::sockopt::sndhwm, 10);
    send_frames(a, {"first", "second", "third"});

    zmq::message_t frame;
    ASSERT_TRUE(tarn_internal::receive_frame(b, frame));
    EXPECT_EQ(frame.to_string(), "first");
    EXPECT_FALSE(is_readable(b, std::chrono::milliseconds(0)));
}

// --- A message as a frame -----------------------------------------------------------------------------

struct TextRow {
    std::string name;
    std::string text;
    bool is_text; // and not bytes, on the wire

    friend std::ostream& operator<<(std::ostream& stream, const TextRow& row) { return stream << row.name; }
};

class AFrame : public ::testing::TestWithParam<TextRow> {};

TEST_P(AFrame, CarriesATextAsTextIfItIsUtf8AndElseAsBytes)
{
    Message message;
    message.mutable_put()->mutable_head()->set_format(Format::Html);
    message.mutable_put()->mutable_body()->set_txt(GetParam().text);

    const auto frame = tarn_internal::to_frame(message);

    ASSERT_TRUE(frame);
    Message parsed;
    ASSERT_TRUE(parsed.ParseFromArray(frame->data(), static_cast<int>(frame->size())));
    EXPECT_EQ(parsed.put().body().has_txt(), GetParam().is_text);
    EXPECT_EQ(parsed.put().body().has_bin(), !GetParam().is_text);
    EXPECT_EQ(GetParam().is_text ? parsed.put().body().txt() : parsed.put().body().bin(), GetParam().text);
    EXPECT_EQ(parsed.put().head().format(), Format::Html);
    EXPECT_EQ(message.put().body().txt(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, AFrame,
    ::testing::Values(TextRow{"Empty", "", true}, TextRow{"Ascii", "text", true},
                      TextRow{"Nul", std::string("a\0z", 3), true}, TextRow{"TwoBytes", "a\xC3\xB6z", true},
                      TextRow{"FourBytes", "\xF0\x9F\x90\x9F", true}, TextRow{"Latin1", "a\xF6z", false},
                      TextRow{"CutAtTheEnd", "a\xC3", false}, TextRow{"CutAtTheBeginning", "\xB6z", false},
                      TextRow{"Overlong", "\xC0\xAF", false}, TextRow{"Surrogate", "\xED\xA0\x80", false},
                      TextRow{"BeyondUnicode", "\xF4\x90\x80\x80", false}),
    [](const auto& row) { return row.param.name; });

TEST(AFrameOfBytes, IsWhatTheMessageSerialisesTo)
{
    Message message;
    message.mutable_put()->mutable_body()->set_bin("\xFF");
    EXPECT_EQ(tarn_internal::to_frame(message)->to_string(), message.SerializeAsString());
}

TEST(APollTime, IsNeverNegativeUnlessItIsForEver)
{
    using tarn_internal::poll_milliseconds;
    EXPECT_EQ(poll_milliseconds(slate::Duration::positive_infinity()), -1);
    EXPECT_EQ(poll_milliseconds(slate::Seconds(2)), 2000);
    EXPECT_EQ(poll_milliseconds(slate::Milliseconds(0)), 0);
    EXPECT_EQ(poll_milliseconds(slate::Milliseconds(-1)), 0);
    EXPECT_EQ(poll_milliseconds(slate::Duration()), 0);
    // Both are more than 32 bits hold.
    EXPECT_GE(poll_milliseconds(slate::Milliseconds(std::int64_t{1} << 32)), INT32_MAX);
    EXPECT_GE(poll_milliseconds(slate::Duration(std::chrono::nanoseconds::max())), INT32_MAX);
}
} // namespace
