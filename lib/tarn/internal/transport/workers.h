// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace slate {
class Provider;
}

namespace tarn_internal {
/// The threads behind a proxy, as the proxy's thread sees them. It starts them, waits until each has
/// connected or given up before it forwards anything, as what comes earlier would all be handed to the first
/// one, and joins them.
class Workers {
public:
    ~Workers();

    /// As many as there may be: a system that is short of threads gets fewer, and an error in the log.
    void start(std::size_t count, const std::function<void()>& body,
               const std::shared_ptr<slate::Provider>& provider);

    /// Each worker says once whether it has connected.
    void report(bool connected);

    /// How many have connected, once all have reported.
    std::size_t wait_for_all();

private:
    std::vector<std::thread> threads_;
    std::mutex mutex_; // guards the two numbers
    std::condition_variable changed_;
    std::size_t connected_ = 0;
    std::size_t failed_ = 0;
};
} // namespace tarn_internal
