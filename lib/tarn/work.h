// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

namespace slate {
class DeferredWork;
}

namespace tarn {
/// A function as a task for the work queue, such as for ResourceBase::submit_work:
///
///     submit_work(tarn::make_work([settings] { apply(settings); }));
///
/// The function runs on a thread of the queue, perhaps after its submitter has gone: let it hold what it
/// uses. What it throws ends up in the task's future; an empty one gives std::bad_function_call there. Any
/// thread.
[[nodiscard]] std::shared_ptr<slate::DeferredWork> make_work(const std::function<void()>& function);
} // namespace tarn
