// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/remote_calls.h"

#include <string>
#include <utility>

#include "slate/log.h"
#include "slate/provider.h"
#include "slate/strings.h"

namespace tarn_internal {
namespace {
[[noreturn]] void throw_failure(const std::shared_ptr<slate::Provider>& provider, slate::SourceLine line,
                                Status status, std::string_view text)
{
    throw MessageException(status, slate::trace_error(provider, line, text));
}

void set_result(Message& message, Status status, const std::string& text)
{
    Call::Result* result = message.mutable_call()->mutable_result();
    result->set_status(status);
    result->set_status_message(slate::to_utf8(text));
}
} // namespace

RemoteCalls::RemoteCalls(Lock policy, std::shared_ptr<slate::Provider> provider)
    : policy_(policy),
      provider_(std::move(provider))
{
}

void RemoteCalls::add(unsigned int number, const std::function<void(Message&)>& function)
{
    const std::lock_guard lock(mutex_);
    slate::log_debug(provider_, SLATE_HERE, "add remote call: ", std::to_string(number));
    remote_calls_.add(number, function);
    if (warn_on_remote_call_.load(std::memory_order_acquire))
        slate::log_warn(provider_, SLATE_HERE, "using remote calls; consider using routes instead");
}

void RemoteCalls::del(unsigned int number)
{
    std::function<void(Message&)> deleted; // outlives the lock, as its destructor may use the server
    const std::lock_guard lock(mutex_);
    slate::log_debug(provider_, SLATE_HERE, "del remote call: ", std::to_string(number));
    deleted = remote_calls_.del(number);
}

void RemoteCalls::clear()
{
    LookupTable<100> deleted; // outlives the lock
    const std::lock_guard lock(mutex_);
    std::swap(deleted, remote_calls_);
}

void RemoteCalls::suppress_warning()
{
    warn_on_remote_call_.store(false, std::memory_order_release);
}

void RemoteCalls::handle_method_call(Context& context)
{
    Message& message = *context.request.message;
    try {
        run(message);
    }
    catch (const MessageException& error) {
        set_result(message, error.status, error.what());
    }
    catch (const std::exception& error) {
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", error.what());
        set_result(message, Status::InternalServerError, error.what());
    }
    catch (...) {
        // A function may throw any type; that must not end the process.
        slate::log_error(provider_, SLATE_HERE, "InternalServerError", "; ", "unknown exception");
        set_result(message, Status::InternalServerError, "unknown exception");
    }
    context.reply.message = context.request.message;
}

void RemoteCalls::run(Message& message)
{
    if (!message.call().has_select())
        throw_failure(provider_, SLATE_HERE, Status::BadRequest, "missing method selection");

    std::unique_lock lock(mutex_);
    const auto function = remote_calls_.find(message.call().select().method_number());
    if (!function)
        throw_failure(provider_, SLATE_HERE, Status::NotFound, "method not found");
    if (policy_ == Lock::ReleasedBeforeCall)
        lock.unlock();

    function(message);
    // Overwrites a status that the function wrote: it reports failure by throwing.
    set_result(message, Status::Ok, "");
}
} // namespace tarn_internal
