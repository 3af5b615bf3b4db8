// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace tarn_fuzz {
/// Ends the process with a message unless `condition` holds, which the fuzzer takes for a crash.
inline void require(bool condition, std::string_view what, std::string_view detail = {})
{
    if (condition)
        return;
    const std::string text = "fuzz: violated: " + std::string(what) + "; " + std::string(detail) + "\n";
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::abort();
}
} // namespace tarn_fuzz
