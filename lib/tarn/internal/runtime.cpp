// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/runtime.h"

#include <algorithm>

#include "slate/log.h"
#include "slate/queue.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
void RuntimeParts::end()
{
    std::unique_lock lock(mutex_);
    ended_ = true;
    const auto parts = std::exchange(parts_, {});
    lock.unlock();
    std::for_each(parts.rbegin(), parts.rend(), [](const auto& part) { part.second->end(); });
}

std::shared_ptr<RuntimePart> RuntimeParts::find_or_make(
    std::type_index type, const std::function<std::shared_ptr<RuntimePart>()>& make)
{
    const std::lock_guard lock(mutex_);
    if (ended_)
        return nullptr;
    const auto found =
        std::find_if(parts_.begin(), parts_.end(), [&](const auto& part) { return part.first == type; });
    if (found != parts_.end())
        return found->second;
    return parts_.emplace_back(type, make()).second;
}

std::optional<Runtime> find_runtime(std::string_view function)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot ", function, ", tarn not / no longer initialized");
        return std::nullopt;
    }
    return Runtime{subsystem->ctx(), subsystem->settings(), subsystem->queue(), subsystem->parts()};
}
} // namespace tarn_internal
