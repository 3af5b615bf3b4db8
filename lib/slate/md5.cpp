// SPDX-License-Identifier: Apache-2.0
#include "slate/md5.h"

#include <cstring>

#include <md5.h>

namespace {
static_assert(sizeof(MD5_CTX) <= sizeof(md5_state_t), "the context doesn't fit into md5_state_t");

// The context is copied in and out, since md5_state_t is another type and may not be accessed as one.
MD5_CTX load(const md5_state_t* state)
{
    MD5_CTX context;
    std::memcpy(&context, state->opaque, sizeof(context));
    return context;
}

void store(md5_state_t* state, const MD5_CTX& context)
{
    std::memcpy(state->opaque, &context, sizeof(context));
}
} // namespace

void md5_init(md5_state_t* state)
{
    MD5_CTX context;
    MD5Init(&context);
    std::memset(state->opaque, 0, sizeof(state->opaque));
    store(state, context);
}

void md5_append(md5_state_t* state, const unsigned char* bytes, std::size_t length)
{
    if (length == 0)
        return;
    MD5_CTX context = load(state);
    MD5Update(&context, bytes, length);
    store(state, context);
}

void md5_finish(md5_state_t* state, unsigned char digest[16])
{
    MD5_CTX context = load(state);
    MD5Final(digest, &context);
    store(state, context);
}
