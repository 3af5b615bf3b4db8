// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/workers.h"

#include <exception>
#include <optional>

#include "slate/log.h"
#include "tarn/internal/transport/dispatcher.h"
#include "tarn/internal/utils/thread_name.h"

namespace tarn_internal {
Workers::~Workers()
{
    for (std::thread& thread : threads_)
        thread.join();
}

void Workers::start(std::size_t count, const std::string& name, zmq::context_t& context, Endpoint dispatcher,
                    const Serve& serve, const std::shared_ptr<slate::Provider>& provider)
{
    try {
        while (threads_.size() < count)
            threads_.emplace_back([=, &context, this, label = name + "-" + std::to_string(threads_.size())] {
                name_thread(label);
                run(context, *dispatcher, serve, provider);
            });
    }
    catch (const std::exception& error) { // for example no more threads
        slate::log_error(provider, SLATE_HERE, "cannot start all workers: ", error.what());
    }
}

void Workers::run(zmq::context_t& context, const slate::Uri& dispatcher, const Serve& serve,
                  const std::shared_ptr<slate::Provider>& provider)
{
    std::optional<WorkerSocket> socket;
    try {
        socket.emplace(context, dispatcher);
    }
    catch (const std::exception& error) {
        slate::log_error(provider, SLATE_HERE, "Failed to connect dealer socket: ", error.what());
    }
    report(socket.has_value());
    if (!socket)
        return;
    try {
        serve(*socket);
    }
    catch (const std::exception& error) {
        slate::log_error(provider, SLATE_HERE, "a worker has ended: ", error.what());
    }
}

void Workers::report(bool connected)
{
    const std::lock_guard lock(mutex_);
    ++(connected ? connected_ : failed_);
    changed_.notify_all();
}

std::size_t Workers::wait_for_all()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return connected_ + failed_ == threads_.size(); });
    return connected_;
}
} // namespace tarn_internal
