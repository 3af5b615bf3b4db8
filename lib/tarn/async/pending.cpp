// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/pending.h"

#include "slate/log.h"
#include "tarn/async/call.h"
#include "tarn/exception.h"

namespace tarn {
Pending::Pending(std::shared_ptr<tarn_internal::Call> call) : call_(std::move(call)) {}
Pending::~Pending() = default;
Pending::Pending(Pending&&) noexcept = default;
Pending& Pending::operator=(Pending&&) noexcept = default;

bool Pending::ready() const
{
    return call().is_complete();
}

std::shared_ptr<Reply> Pending::get() const
{
    return call().get();
}

bool Pending::wait_for(const slate::Duration& time) const
{
    return call().wait_for(time);
}

void Pending::cancel()
{
    // A copy, for a function of then() may let go of this.
    const auto kept = call().shared_from_this();
    kept->cancel();
}

void Pending::continue_with(std::unique_ptr<tarn_internal::Continuation> continuation, Executor executor)
{
    const auto kept = call().shared_from_this();
    kept->continue_with(std::move(continuation), std::move(executor));
}

tarn_internal::Call& Pending::call() const
{
    if (!call_)
        throw Exception(slate::trace_error(SLATE_HERE, "an empty tarn::Pending holds no call"));
    return *call_;
}
} // namespace tarn
