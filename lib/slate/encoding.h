// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace slate {
/// Percent-encodes every byte but ASCII letters, digits and "-_.~". A blank is "%20" for either value of
/// `query`, since every decoder reads that.
std::string encode_uri_component(const std::string& text, bool query);

/// Decodes percent sequences; malformed ones stay as they are. With `query` true "+" becomes a blank too, as
/// in a query; with false it stays.
std::string decode_uri_component(const std::string& text, bool query);

/// Standard base 64, with padding.
std::string encode_base64(std::string_view bytes);

/// Each byte as two lower-case hexadecimal digits behind `prefix`, with `separator` in between.
std::string join_hex(const std::vector<unsigned char>& bytes, std::string_view separator,
                     std::string_view prefix);
} // namespace slate
