// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

namespace slate {
class Duration;
}

namespace tarn_internal {
/// The milliseconds that a publisher waits before each of its eleven attempts to be heard: 0, then ms/1024 to
/// ms/2, each twice the one before. A negative time counts as 0, and infinity as the longest one of 32 bits.
std::vector<std::uint32_t> handshake_delays(const slate::Duration& timeout);
} // namespace tarn_internal
