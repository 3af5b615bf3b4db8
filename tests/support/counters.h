// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "slate/provider.h"

namespace tarn_test {
/// A counter's value as applications see it; none if there is no such provider or counter.
inline std::optional<std::uint64_t> counter(const std::string& provider, const std::string& instance,
                                            const std::string& name)
{
    for (const slate::ProviderSnapshot& shown : slate::snapshot()) {
        if (shown.name != provider || shown.instance != instance)
            continue;
        for (const slate::CounterSnapshot& found : shown.counters) {
            if (found.name == name)
                return found.value;
        }
    }
    return std::nullopt;
}

/// How many providers of a name there are.
inline std::size_t providers(const std::string& name)
{
    std::size_t count = 0;
    for (const slate::ProviderSnapshot& shown : slate::snapshot())
        count += shown.name == name ? 1u : 0u;
    return count;
}
} // namespace tarn_test
