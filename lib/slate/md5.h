// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "slate/encoding.h"
#include "slate/file.h"

/// MD5 under its traditional names: md5_init begins, md5_append takes bytes, as often as needed, and
/// md5_finish gives the digest. Use it for entity tags and checksums only, since it doesn't withstand an
/// attacker. Threads may use different states at once.
extern "C" {
struct alignas(8) md5_state_t {
    // Room for the context of the library that computes the digest.
    unsigned char opaque[128];
};

void md5_init(md5_state_t* state);
void md5_append(md5_state_t* state, const unsigned char* bytes, std::size_t length);
void md5_finish(md5_state_t* state, unsigned char digest[16]);
}

namespace slate {
/// The MD5 digest of a string in base 64 (24 characters).
template <class String>
std::string md5_hash_string(const String& text)
{
    const std::string_view bytes(text);
    md5_state_t state;
    md5_init(&state);
    md5_append(&state, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::vector<unsigned char> digest(16);
    md5_finish(&state, digest.data());
    return encode_base64(slurp(digest));
}
} // namespace slate
