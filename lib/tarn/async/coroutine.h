// SPDX-License-Identifier: Apache-2.0
#pragma once

/// Lets coroutines wait for a call: `auto reply = co_await client->get("/status/cpu");`. Not part of
/// "tarn/tarn.h", since some compilers that the library supports have no coroutines; there it is empty.

#ifdef __cpp_impl_coroutine

#include <coroutine>
#include <memory>
#include <utility>

#include "tarn/async/pending.h"

namespace tarn_internal {
class PendingAwaiter {
public:
    explicit PendingAwaiter(Pending pending) : pending_(std::move(pending)) {}

    bool await_ready() const { return pending_.ready(); }

    void await_suspend(std::coroutine_handle<> coroutine)
    {
        // The coroutine may go on, and destroy this, before then() returns.
        Pending pending = std::move(pending_);
        pending.then([this, coroutine](const std::shared_ptr<Reply>& reply) {
            reply_ = reply;
            coroutine.resume();
        });
    }

    std::shared_ptr<Reply> await_resume() { return reply_ ? std::move(reply_) : pending_.get(); }

private:
    Pending pending_;
    std::shared_ptr<Reply> reply_;
};
} // namespace tarn_internal

namespace tarn {
/// Suspends the coroutine until the reply is here, and gives it; never null. The coroutine goes on where a
/// function of Pending::then() would run: on the work queue, unless the client's options say otherwise, or at
/// once if the reply is here already. An empty Pending throws Exception.
///
/// A coroutine that is suspended here must not be destroyed before the call ends: cancel it by a
/// std::stop_token in CallOptions, or destroy the client, and it goes on with a reply of status 408.
inline tarn_internal::PendingAwaiter operator co_await(Pending&& pending)
{
    return tarn_internal::PendingAwaiter(std::move(pending));
}
} // namespace tarn

#endif
