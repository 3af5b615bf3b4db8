// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/utils/handshake_delays.h"

#include <algorithm>
#include <limits>

#include "slate/duration.h"

namespace tarn_internal {
std::vector<std::uint32_t> handshake_delays(const slate::Duration& timeout)
{
    constexpr std::int64_t longest = std::numeric_limits<std::uint32_t>::max();
    auto milliseconds =
        static_cast<std::uint32_t>(std::clamp(timeout.to_milliseconds(), std::int64_t{0}, longest));
    std::vector<std::uint32_t> delays;
    for (int i = 0; i < 10; ++i)
        delays.insert(delays.begin(), milliseconds /= 2);
    delays.insert(delays.begin(), 0);
    return delays;
}
} // namespace tarn_internal
