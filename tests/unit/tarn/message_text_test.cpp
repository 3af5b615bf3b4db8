// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/message_text.h"

#include <string>

#include <gtest/gtest.h>

#include "tarn/proto/message.pb.h"

namespace {
using namespace tarn_internal;
using tarn::Message;

TEST(TheLogTextOfAMessage, IsTheSameWhenOnlyThatIsKept)
{
    for (const std::size_t size : {0u, 1u, 100u, 101u, 1023u, 1024u, 1025u, 4096u, 1000000u}) {
        Message messages[4];
        messages[0].mutable_put()->mutable_body()->set_txt(std::string(size, 't'));
        messages[1].mutable_put()->mutable_body()->set_bin(std::string(size, 'b'));
        messages[2].mutable_post()->mutable_body()->set_txt(std::string(size, 't'));
        messages[3].mutable_get()->mutable_head()->set_path(std::string(size, 'p'));
        for (Message& message : messages) {
            for (const bool secret : {false, true}) {
                const std::string text = describe(message, secret);
                keep_what_is_logged(message);
                EXPECT_EQ(describe(message, secret), text) << size;
            }
        }
        EXPECT_LE(messages[0].put().body().txt().capacity(), 2048u);
        EXPECT_LE(messages[1].put().body().bin().capacity(), 2048u);
    }
}
} // namespace
