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

#include "tarn/types.h"

namespace slate {
class Provider;
class Uri;
} // namespace slate
namespace zmq {
class context_t;
}

namespace tarn_internal {
class WorkerSocket;

/// The threads behind a dispatcher. The dispatcher's thread owns them: it starts them, waits until each has
/// connected or failed, and joins them.
class Workers {
public:
    using Serve = std::function<void(WorkerSocket& socket)>;

    ~Workers();

    /// Starts `count` threads, named `name` and their number, or fewer, with an error in the log, if the
    /// system refuses more. Each connects a socket to `dispatcher` and then runs `serve`, which returns when
    /// the socket says so. `context` must outlive them.
    void start(std::size_t count, const std::string& name, zmq::context_t& context, Endpoint dispatcher,
               const Serve& serve, const std::shared_ptr<slate::Provider>& provider);

    /// How many have connected, once all have connected or failed.
    std::size_t wait_for_all();

private:
    void run(zmq::context_t& context, const slate::Uri& dispatcher, const Serve& serve,
             const std::shared_ptr<slate::Provider>& provider);
    void report(bool connected);

    std::vector<std::thread> threads_;
    std::mutex mutex_; // guards the two numbers
    std::condition_variable changed_;
    std::size_t connected_ = 0;
    std::size_t failed_ = 0;
};
} // namespace tarn_internal
