// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>
#include <vector>

namespace tarn_fuzz {
/// What slate::wildcard_match has to give, found by asking for every beginning of the text and of the pattern
/// whether the one describes the other.
inline bool wildcard_reference(std::string_view text, std::string_view pattern)
{
    // matches[t]: the pattern so far describes the first t bytes.
    std::vector<bool> matches(text.size() + 1);
    matches[0] = true;
    for (const char c : pattern) {
        std::vector<bool> longer(text.size() + 1);
        for (std::size_t t = 0; t <= text.size(); ++t) {
            if (c == '*')
                longer[t] = matches[t] || (t > 0 && longer[t - 1]);
            else
                longer[t] = t > 0 && matches[t - 1] && (c == '?' || c == text[t - 1]);
        }
        matches = longer;
    }
    return matches[text.size()];
}
} // namespace tarn_fuzz
