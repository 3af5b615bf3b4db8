// SPDX-License-Identifier: Apache-2.0
#include "slate/uuid.h"

#include <cstddef>
#include <stdexcept>

#include <uuid.h>

namespace slate {
namespace {
constexpr std::size_t text_length = 36;

static_assert(sizeof(uuid_t) == 16);
} // namespace

Uuid::Uuid(const std::string& text)
{
    // The length is checked first, since the C function below stops at an embedded null byte.
    if (text.size() != text_length || uuid_parse(text.c_str(), bytes_.data()) != 0)
        throw std::invalid_argument("not a UUID: \"" + text + "\"");
}

std::string Uuid::to_string() const
{
    char text[text_length + 1];
    uuid_unparse_lower(bytes_.data(), text);
    return {text, text_length};
}

Uuid make_uuid()
{
    Uuid result;
    uuid_generate_random(result.bytes_.data());
    return result;
}
} // namespace slate
