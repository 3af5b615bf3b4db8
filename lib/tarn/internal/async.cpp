// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/async.h"

#include <string>

#include "slate/log.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
std::atomic<std::uint64_t> AsyncCallback::id_counter_{10000};

AsyncCallback::AsyncCallback(const std::function<void()>& function)
    : DeferredWork(id_counter_.fetch_add(1, std::memory_order_relaxed)),
      function_(function)
{
}

slate::DeferredWork::Result AsyncCallback::perform()
{
    slate::log_extreme(SLATE_HERE, "performing async callback[", std::to_string(id), "]");
    function_();
    return Success;
}

std::shared_ptr<slate::Lazy<slate::Queue>> resolve_queue()
{
    const tarn::ZmqSubsystem* subsystem = tarn::ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_warn(SLATE_HERE, "cannot resolve queue; tarn not / no longer initialized");
        return nullptr;
    }
    return subsystem->queue();
}
} // namespace tarn_internal

std::shared_ptr<slate::DeferredWork> tarn::make_work(const std::function<void()>& function)
{
    return std::make_shared<tarn_internal::AsyncCallback>(function);
}
