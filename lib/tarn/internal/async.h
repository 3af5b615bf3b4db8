// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>

#include "slate/lazy.h"
#include "slate/queue.h"
#include "tarn/work.h"

namespace tarn_internal {
/// A function as a task for the work queue; see tarn::make_work. Its result is Success, and what the function
/// throws ends up in `future`.
///
/// Threads: any may construct one.
class AsyncCallback : public slate::DeferredWork {
public:
    explicit AsyncCallback(const std::function<void()>& function);

    Result perform() override;

private:
    std::function<void()> function_;

    /// The next id. Ids appear in logs, where a number of at least five digits is easy to find.
    static std::atomic<std::uint64_t> id_counter_;
};

/// The work queue of this process, which is created at first use. Null, with a warning in the log, without a
/// ZmqSubsystem.
std::shared_ptr<slate::Lazy<slate::Queue>> resolve_queue();
} // namespace tarn_internal
