// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace slate {
/// Percent-encodes every byte but ASCII letters, digits and "-_.~". A blank becomes "%20" whatever `query`
/// says, since every decoder reads that.
std::string encode_uri_component(const std::string& text, bool query);

/// Decodes percent sequences. Malformed ones stay as they are. A "+" becomes a blank if `query` is true, as
/// it does in a query string, and otherwise stays.
std::string decode_uri_component(const std::string& text, bool query);

/// The bytes in standard base 64, with padding.
std::string encode_base64(std::string_view bytes);

/// Each byte as `prefix` and two lower-case hexadecimal digits, with `separator` between the bytes.
std::string join_hex(const std::vector<unsigned char>& bytes, std::string_view separator,
                     std::string_view prefix);
} // namespace slate
