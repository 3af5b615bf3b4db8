// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/request_bounds.h"

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tarn/proto/message.pb.h"

namespace {
using namespace tarn_internal;
using tarn::Head;
using tarn::Message;
using tarn::Status;

std::optional<Excess> excess_of(const std::string& frame)
{
    return find_excess(frame.data(), frame.size());
}

/// The status and text for each message that has a head, filled by a function; they must agree.
std::string refusal(const std::function<void(Head&)>& fill)
{
    Message messages[6];
    fill(*messages[0].mutable_get()->mutable_head());
    fill(*messages[1].mutable_put()->mutable_head());
    fill(*messages[2].mutable_post()->mutable_head());
    fill(*messages[3].mutable_del()->mutable_head());
    fill(*messages[4].mutable_response()->mutable_head());
    fill(*messages[5].mutable_head());
    std::string common;
    for (const Message& message : messages) {
        const auto excess = excess_of(message.SerializeAsString());
        Message parsed = message;
        const auto again = find_excess(parsed);
        EXPECT_EQ(again ? again->text : "none", excess ? excess->text : "none");
        const std::string text = excess ? std::to_string(excess->status) + " " + excess->text : "none";
        EXPECT_TRUE(common.empty() || common == text) << common << " and " << text;
        common = text;
    }
    return common;
}

TEST(ARequestBound, HoldsForThePath)
{
    EXPECT_EQ(refusal([](Head& head) { head.set_path(std::string(65536, 'x')); }), "none");
    EXPECT_EQ(refusal([](Head& head) { head.set_path(std::string(65537, 'x')); }),
              "414 path of more than 65536 bytes");
}

TEST(ARequestBound, HoldsForTheNumberOfEntries)
{
    const auto with = [](auto add, int count) {
        return refusal([&](Head& head) {
            for (int i = 0; i < count; ++i)
                add(head);
        });
    };
    const auto header = [](Head& head) { head.add_headers(); };
    const auto param = [](Head& head) { head.add_params(); };
    const auto meta = [](Head& head) { head.add_meta(); };
    const auto to = [](Head& head) { head.add_to(); };
    EXPECT_EQ(with(header, 1024), "none");
    EXPECT_EQ(with(param, 1024), "none");
    EXPECT_EQ(with(meta, 1024), "none");
    EXPECT_EQ(with(to, 1024), "none");
    EXPECT_EQ(with(header, 1025), "431 more than 1024 headers");
    EXPECT_EQ(with(param, 1025), "431 more than 1024 parameters");
    EXPECT_EQ(with(meta, 1025), "431 more than 1024 meta entries");
    EXPECT_EQ(with(to, 1025), "431 more than 1024 addressed processes");
}

TEST(ARequestBound, HoldsForTheBytesOfEntries)
{
    // A key of one byte and a value of some 100,000 have 7 bytes of tags and lengths.
    const auto with = [](std::size_t last) {
        return refusal([&](Head& head) {
            for (const std::size_t size : {std::size_t{100000}, std::size_t{100000}, last}) {
                head.add_headers()->set_key("k");
                head.mutable_headers()->rbegin()->set_value(std::string(size, 'v'));
            }
        });
    };
    EXPECT_EQ(with(262144 - 200000 - 3 * 7), "none");
    EXPECT_EQ(with(262144 - 200000 - 3 * 7 + 1), "431 more than 262144 bytes of headers");
    EXPECT_EQ(refusal([](Head& head) { head.add_params()->set_value(std::string(300000, 'v')); }),
              "431 more than 262144 bytes of parameters");
}

TEST(ARequestBound, CountsAcrossHeadsThatAParserMerges)
{
    Message part;
    for (int i = 0; i < 600; ++i)
        part.mutable_get()->mutable_head()->add_headers();
    const std::string bytes = part.SerializeAsString();
    EXPECT_FALSE(excess_of(bytes).has_value());
    const auto excess = excess_of(bytes + bytes);
    ASSERT_TRUE(excess.has_value());
    EXPECT_EQ(excess->text, "more than 1024 headers");
}

TEST(ARequestBound, HoldsForFieldsThatNobodyKnows)
{
    std::string fields;
    for (int i = 0; i < 20000; ++i)
        fields += "\xB8\x3E\x01"; // field 999, a number
    std::string nested("\x0a", 1);
    for (std::size_t size = fields.size(); size > 0; size >>= 7)
        nested += static_cast<char>((size & 0x7f) | (size > 0x7f ? 0x80 : 0));
    for (const std::string& frame : {fields, nested + fields}) {
        const auto excess = excess_of(frame);
        ASSERT_TRUE(excess.has_value());
        EXPECT_EQ(excess->status, Status::BadRequest);
        EXPECT_EQ(excess->text, "more than 16384 fields");
    }
    const auto group = excess_of(std::string(3000, '\x0b'));
    ASSERT_TRUE(group.has_value());
    EXPECT_EQ(group->status, Status::BadRequest);
    EXPECT_EQ(group->text, "a group, which no message has");
}

TEST(ARequestBound, HoldsForTheParametersOfACall)
{
    Message message;
    for (int i = 0; i < 20000; ++i)
        message.mutable_call()->mutable_params()->add_param();
    const auto excess = excess_of(message.SerializeAsString());
    ASSERT_TRUE(excess.has_value());
    EXPECT_EQ(excess->status, Status::BadRequest);
}

TEST(ARequestBound, IsNoneForBodiesAndForWhatIsNoMessage)
{
    Message message;
    message.mutable_put()->mutable_head()->set_path("/a");
    message.mutable_put()->mutable_body()->set_bin(std::string(1 << 20, '\0'));
    EXPECT_FALSE(excess_of(message.SerializeAsString()).has_value());
    EXPECT_FALSE(excess_of(message.SerializeAsString().substr(0, 5000)).has_value());
    EXPECT_FALSE(excess_of("").has_value());
    EXPECT_FALSE(excess_of(std::string(5000, '\xFF')).has_value());
    EXPECT_FALSE(excess_of(std::string(5000, '\0')).has_value());
}

TEST(ARequestBound, LeavesAMessageAsItWas)
{
    Message message;
    message.mutable_put()->mutable_head()->set_path(std::string(65537, 'x'));
    message.mutable_put()->mutable_body()->set_txt(std::string(100000, 'y'));
    const std::string before = message.SerializeAsString();
    const char* const bytes = message.put().body().txt().data();
    EXPECT_EQ(find_excess(message).value().status, Status::UriTooLong);
    EXPECT_EQ(message.SerializeAsString(), before);
    EXPECT_EQ(message.put().body().txt().data(), bytes); // and isn't copied
}
} // namespace
