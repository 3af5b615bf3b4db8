// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <thread>

namespace tarn_test {
/// Looks again and again until a condition holds, for what has no event of its own. False if it never did.
template <class Condition>
bool wait_until(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(20))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= end)
            return false;
        // A pause, and not only a yield: on a small machine a spinning test takes the time of what it waits
        // for.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
} // namespace tarn_test
