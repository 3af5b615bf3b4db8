// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/transport/workers.h"

#include <system_error>

#include "slate/log.h"
#include "tarn/internal/utils/thread_name.h"

namespace tarn_internal {
Workers::~Workers()
{
    for (std::thread& thread : threads_)
        thread.join();
}

void Workers::start(std::size_t count, const std::string& name, const std::function<void()>& body,
                    const std::shared_ptr<slate::Provider>& provider)
{
    try {
        while (threads_.size() < count)
            threads_.emplace_back([body, label = name + "-" + std::to_string(threads_.size())] {
                name_thread(label);
                body();
            });
    }
    catch (const std::system_error& error) {
        slate::log_error(provider, SLATE_HERE, "cannot start all workers: ", error.what());
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
