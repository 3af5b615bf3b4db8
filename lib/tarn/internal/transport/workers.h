// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace slate {
class Provider;
}

namespace tarn_internal {
/// The threads behind a proxy. The proxy's thread owns them: it starts them, waits until each has connected
/// or failed, and joins them. It must not forward before that, or the first worker would get all early
/// requests.
class Workers {
public:
    ~Workers();

    /// Starts `count` threads, named `name` and their number, or fewer, with an error in the log, if the
    /// system refuses more.
    void start(std::size_t count, const std::string& name, const std::function<void()>& body,
               const std::shared_ptr<slate::Provider>& provider);

    /// Each worker reports once whether it has connected.
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
