// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/async_transfer.h"

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "slate/log.h"
#include "tarn/async/async_client_base.h"
#include "tarn/async/call.h"
#include "tarn/async/callbacks.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/internal/transfer_steps.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/status.pb.h"

namespace tarn {
namespace {
using tarn_internal::AsyncClientBase;
using tarn_internal::Call;
using tarn_internal::Callbacks;
using tarn_internal::CallPlace;
using tarn_internal::make_local_reply;
using tarn_internal::PendingAccess;

/// A step of a transfer, as its caller waits for it. Cancelling it ends the transfer.
class Step : public Call {
public:
    Step(std::shared_ptr<Callbacks> callbacks, std::function<void()> on_cancel)
        : Call(std::move(callbacks)),
          on_cancel_(std::move(on_cancel))
    {
    }

    void cancel() override
    {
        if (!is_complete())
            on_cancel_();
    }

private:
    const std::function<void()> on_cancel_;
};

/// A good reply without a body.
std::shared_ptr<Reply> make_go_ahead()
{
    return make_local_reply(Status::NoContent, LocalCause::None, "");
}

std::shared_ptr<Reply> make_refusal()
{
    return make_local_reply(Status::TooManyRequests, LocalCause::TooMany,
                            "the step before has not ended yet");
}

/// The reply, which a reader can't take for a chunk.
std::shared_ptr<Reply> without_body(const std::shared_ptr<Reply>& reply)
{
    if (!reply->has_body())
        return reply;
    auto message = std::make_shared<Message>(*reply->message);
    message->mutable_response()->clear_body();
    return std::make_shared<Reply>(message, reply->local_cause());
}

/// What uploads and downloads do alike: they have one step at a time, and send one request after the other.
class Transfer {
protected:
    using Lock = std::unique_lock<std::mutex>;

    Transfer(const std::shared_ptr<AsyncClient>& client, std::string path)
        : path_(std::move(path)),
          client_(std::dynamic_pointer_cast<AsyncClientBase>(client))
    {
        if (!client_)
            throw Exception(slate::trace_error(SLATE_HERE, "cannot transfer without a client: ", path_));
    }
    ~Transfer() = default;

    /// A step of the caller's, which `begin` begins under the lock, unless there is one already.
    template <class Begin>
    Pending make_step(std::function<void()> on_cancel, Begin begin)
    {
        const auto step = std::make_shared<Step>(client_->callbacks(), std::move(on_cancel));
        Lock lock(mutex_);
        if (step_) {
            lock.unlock();
            step->complete(make_refusal());
            return Pending(step);
        }
        step_ = step;
        begin(lock);
        return Pending(step);
    }

    void complete_step(Lock& lock, const std::shared_ptr<Reply>& reply)
    {
        const auto step = std::exchange(step_, nullptr);
        lock.unlock();
        if (step)
            step->complete(reply);
    }

    /// Sends the message that `make` makes with the client's factory. The client's limit doesn't refuse it:
    /// one request of many, whose others are done, would cost the whole transfer.
    template <class Make>
    Pending send(const CallOptions& options, Make make)
    {
        return client_->start(make(client_->factory()), options, CallPlace::Room::Always);
    }

    void report(const TransferProgress& progress, std::uint64_t bytes)
    {
        if (progress)
            client_->callbacks()->dispatch([progress, bytes] { progress(bytes); });
    }

    const std::string path_;
    mutable std::mutex
        mutex_; // guards all that changes; not held while a request is made or a step completed
    std::shared_ptr<Step> step_; // the present one

private:
    const std::shared_ptr<AsyncClientBase> client_;
};
} // namespace

/// Each step sends one request after the other, and each answer, on the thread of the exchange, the next one.
class AsyncUpload::Impl : public std::enable_shared_from_this<AsyncUpload::Impl>, private Transfer {
public:
    Impl(const std::shared_ptr<AsyncClient>& client, std::string path, const Headers& headers,
         UploadOptions options)
        : Transfer(client, std::move(path)),
          options_(std::move(options)),
          steps_(path_, headers, options_.chunk_bytes)
    {
    }

    Pending write(std::string bytes)
    {
        return begin([&] {
            bytes_ = std::move(bytes);
            rest_ = bytes_;
            is_last_ = false;
        });
    }

    Pending finish()
    {
        return begin([&] { is_last_ = true; });
    }

    void abort()
    {
        Lock lock(mutex_);
        if (steps_.ended())
            return;
        steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the upload was aborted");
        // The server must forget what is on its way, too; see take_answer.
        if (!is_sending_)
            forget(lock);
        complete_step(lock);
    }

    std::uint64_t acknowledged() const
    {
        const std::lock_guard lock(mutex_);
        return steps_.acknowledged();
    }

private:
    /// A step of the caller's, which `prepare` sets up under the lock.
    template <class Prepare>
    Pending begin(Prepare prepare)
    {
        const auto on_cancel = [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->abort();
        };
        return make_step(on_cancel, [&](Lock& lock) {
            prepare();
            try {
                go_on(lock);
            }
            catch (...) { // a recipient that can't be taken apart
                give_up(lock);
                throw;
            }
        });
    }

    /// Sends the next request of the present step, or completes it.
    void go_on(Lock& lock)
    {
        if (!steps_.ended() && options_.stop.stop_requested()) {
            steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the upload was aborted");
            forget(lock);
        }
        while (!steps_.ended() && !rest_.empty() && !steps_.has_whole_chunk())
            rest_.remove_prefix(steps_.collect(rest_));
        if (steps_.ended() || (!steps_.has_whole_chunk() && !is_last_)) {
            complete_step(lock);
            return;
        }
        if (steps_.has_rest()) {
            std::string chunk = steps_.take_chunk();
            const std::size_t size = chunk.size();
            send(lock, std::move(chunk), options_.chunk_timeout,
                 [self = shared_from_this(), size](const std::shared_ptr<Reply>& reply) {
                     self->take_answer(reply, size);
                 });
            return;
        }
        send(lock, steps_.take_last_chunk(), options_.last_timeout,
             [self = shared_from_this()](const std::shared_ptr<Reply>& reply) { self->take_end(reply); });
    }

    template <class Function>
    void send(Lock& lock, std::string bytes, const slate::Duration& timeout, Function on_answer)
    {
        is_sending_ = true;
        const CallOptions options{steps_.headers(), timeout, {}};
        lock.unlock(); // a refusal comes at once, on this thread
        const auto pending = Transfer::send(options, [&](const MessageFactory& factory) {
            return options_.verb == UploadOptions::Verb::Put
                       ? factory.make_put(path_, std::move(bytes), options.headers, timeout)
                       : factory.make_post(path_, std::move(bytes), options.headers, timeout);
        });
        PendingAccess::call(pending).continue_inside(std::move(on_answer));
    }

    void take_answer(const std::shared_ptr<Reply>& reply, std::size_t size)
    {
        Lock lock(mutex_);
        is_sending_ = false;
        try {
            if (steps_.ended()) { // aborted meanwhile
                forget(lock);
                return;
            }
            if (steps_.take_answer(reply, size))
                report(options_.progress, steps_.acknowledged());
            go_on(lock);
        }
        catch (const std::exception& error) { // an application's factory, or out of memory
            slate::log_error(SLATE_HERE, "upload to ", path_, " ended: ", error.what());
            give_up(lock);
        }
        catch (...) {
            slate::log_error(SLATE_HERE, "upload to ", path_, " ended: unknown exception");
            give_up(lock);
        }
    }

    void take_end(const std::shared_ptr<Reply>& reply)
    {
        Lock lock(mutex_);
        is_sending_ = false;
        steps_.end(tarn_internal::only_response(reply)); // unless it was aborted, when it came too late
        complete_step(lock);
    }

    /// Ends the upload after a chunk that could not be made or sent.
    void give_up(Lock& lock)
    {
        if (!lock)
            lock.lock();
        is_sending_ = false;
        steps_.end(Status::BadRequest, LocalCause::InvalidRequest, "a chunk could not be sent");
        complete_step(lock);
    }

    /// Has the server forget what it has. Nobody waits for its answer.
    void forget(Lock& lock)
    {
        if (!steps_.has_begun())
            return;
        send(lock, steps_.take_forgetting_chunk(), options_.chunk_timeout,
             [self = shared_from_this()](const std::shared_ptr<Reply>&) {});
        lock.lock();
    }

    void complete_step(Lock& lock)
    {
        Transfer::complete_step(lock, steps_.ended() ? steps_.ended() : make_go_ahead());
    }

    const UploadOptions options_;
    // All below is guarded by the mutex.
    tarn_internal::UploadSteps steps_;
    bool is_last_ = false; // whether the present step is finish()
    bool is_sending_ = false;
    std::string bytes_;     // of the present write
    std::string_view rest_; // of bytes_, not yet collected
};

AsyncUpload::AsyncUpload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers,
                         UploadOptions options)
    : impl_(std::make_shared<Impl>(client, std::move(path), headers, std::move(options)))
{
}

AsyncUpload::~AsyncUpload()
{
    try {
        impl_->abort();
    }
    catch (const std::exception& error) {
        slate::log_error(SLATE_HERE, "cannot abort upload: ", error.what());
    }
}

Pending AsyncUpload::write(std::string bytes)
{
    return impl_->write(std::move(bytes));
}

Pending AsyncUpload::finish()
{
    return impl_->finish();
}

void AsyncUpload::abort()
{
    impl_->abort();
}

std::uint64_t AsyncUpload::acknowledged_bytes() const
{
    return impl_->acknowledged();
}

class AsyncDownload::Impl : public std::enable_shared_from_this<AsyncDownload::Impl>, private Transfer {
public:
    Impl(const std::shared_ptr<AsyncClient>& client, std::string path, const Headers& headers,
         DownloadOptions options)
        : Transfer(client, std::move(path)),
          options_(std::move(options)),
          steps_(headers)
    {
    }

    Pending read()
    {
        const auto on_cancel = [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->cancel();
        };
        return make_step(on_cancel, [this](Lock& lock) {
            if (!steps_.has_ended() && options_.stop.stop_requested())
                steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the download was cancelled");
            if (steps_.has_ended())
                complete_step(lock, steps_.reply()->good() ? make_go_ahead() : without_body(steps_.reply()));
            else
                ask(lock);
        });
    }

    void cancel()
    {
        Lock lock(mutex_);
        if (!step_)
            return;
        steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the download was cancelled");
        const auto request = std::exchange(request_, nullptr);
        complete_step(lock, steps_.reply());
        if (request)
            request->cancel();
    }

    TransferResult result() const
    {
        const std::lock_guard lock(mutex_);
        return {steps_.reply(), steps_.received()};
    }

private:
    void ask(Lock& lock)
    {
        const CallOptions options{steps_.headers(), options_.chunk_timeout, options_.stop};
        lock.unlock(); // a refusal comes at once, on this thread
        std::shared_ptr<tarn_internal::Call> request;
        try {
            const auto pending = send(options, [&](const MessageFactory& factory) {
                return factory.make_get(path_, options.headers, options.timeout);
            });
            request = PendingAccess::call(pending).shared_from_this();
            lock.lock();
            const bool cancelled = steps_.has_ended();
            if (!cancelled)
                request_ = request;
            lock.unlock();
            if (cancelled)
                request->cancel();
            request->continue_inside([self = shared_from_this()](const std::shared_ptr<Reply>& reply) {
                self->take_answer(reply);
            });
        }
        catch (...) { // a recipient that can't be taken apart
            if (!lock)
                lock.lock();
            request_.reset();
            steps_.end(Status::BadRequest, LocalCause::InvalidRequest, "the request could not be sent");
            complete_step(lock, steps_.reply());
            throw;
        }
    }

    void take_answer(const std::shared_ptr<Reply>& reply)
    {
        Lock lock(mutex_);
        request_.reset();
        if (!step_ || steps_.has_ended()) // cancelled meanwhile
            return;
        if (!steps_.take_answer(reply)) {
            complete_step(lock, without_body(steps_.reply()));
            return;
        }
        report(options_.progress, steps_.received());
        complete_step(lock, steps_.reply());
    }

    const DownloadOptions options_;
    // All below is guarded by the mutex.
    tarn_internal::DownloadSteps steps_;
    std::shared_ptr<tarn_internal::Call> request_; // that is under way
};

AsyncDownload::AsyncDownload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers,
                             DownloadOptions options)
    : impl_(std::make_shared<Impl>(client, std::move(path), headers, std::move(options)))
{
}

AsyncDownload::~AsyncDownload()
{
    impl_->cancel();
}

Pending AsyncDownload::read()
{
    return impl_->read();
}

TransferResult AsyncDownload::result() const
{
    return impl_->result();
}
} // namespace tarn
