// SPDX-License-Identifier: Apache-2.0
#include "slate/md5.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "slate/encoding.h"

namespace {
const unsigned char* bytes_of(std::string_view text)
{
    return reinterpret_cast<const unsigned char*>(text.data());
}

std::string finish(md5_state_t& state)
{
    std::vector<unsigned char> digest(16);
    md5_finish(&state, digest.data());
    return slate::join_hex(digest, "", "");
}

std::string digest_of(std::string_view text)
{
    md5_state_t state;
    md5_init(&state);
    md5_append(&state, bytes_of(text), text.size());
    return finish(state);
}

TEST(Md5, GivesThePublishedDigests)
{
    const std::vector<std::pair<const char*, const char*>> rows{
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };

    for (const auto& [text, digest] : rows)
        EXPECT_EQ(digest_of(text), digest) << text;
}

TEST(Md5, DoesntDependOnHowTheBytesAreCut)
{
    const std::string text(1000, 'x');
    const auto whole = digest_of(text);

    for (const std::size_t part : {1u, 7u, 63u, 64u, 65u, 999u}) {
        md5_state_t state;
        md5_init(&state);
        for (std::size_t i = 0; i < text.size(); i += part)
            md5_append(&state, bytes_of(text) + i, std::min(part, text.size() - i));
        md5_append(&state, nullptr, 0);
        EXPECT_EQ(finish(state), whole) << part;
    }
}

TEST(Md5, ContinuesFromACopyOfItsState)
{
    md5_state_t state;
    md5_init(&state);
    md5_append(&state, bytes_of("ab"), 2);

    md5_state_t copy = state;
    md5_append(&copy, bytes_of("c"), 1);

    EXPECT_EQ(finish(copy), digest_of("abc"));
    EXPECT_EQ(finish(state), digest_of("ab"));
}

TEST(Md5, HashesAStringIntoBase64)
{
    EXPECT_EQ(slate::md5_hash_string(std::string()), "1B2M2Y8AsgTpgAmY7PhCfg==");
    EXPECT_EQ(slate::md5_hash_string(std::string("abc")), "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_EQ(slate::md5_hash_string(std::string_view("abc")), "kAFQmDzST7DWlj99KOF/cg==");
    EXPECT_NE(slate::md5_hash_string(std::string("a\0b", 3)), slate::md5_hash_string(std::string("a")));
}
} // namespace
