// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "tarn/context.h"
#include "tarn/internal/lookup_table.h"

namespace slate {
class Provider;
}

namespace tarn_internal {
/// The remote calls of one server: functions by number, which are older than routes. Any thread.
class RemoteCalls {
public:
    enum class Lock {
        /// One call at a time; adding and deleting wait for it, so the function itself must not do either.
        HeldDuringCall,
        /// Calls run side by side, the same function included.
        ReleasedBeforeCall,
    };

    RemoteCalls(Lock policy, std::shared_ptr<slate::Provider> provider);

    void add(unsigned int number, const std::function<void(Message&)>& function);
    void del(unsigned int number);
    void clear();
    void suppress_warning();

    /// Answers the `call` in context.request: the reply is the same message, with its result filled in.
    /// An exception of the function becomes the result.
    void handle_method_call(Context& context);

private:
    void run(Message& message);

    const Lock policy_;
    const std::shared_ptr<slate::Provider> provider_;
    std::atomic<bool> warn_on_remote_call_{true};
    std::mutex mutex_; // guards remote_calls_
    LookupTable<100> remote_calls_;
};
} // namespace tarn_internal
