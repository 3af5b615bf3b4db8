// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/async_transfer.h"

#include <atomic>
#include <mutex>
#include <string_view>
#include <utility>

#include "slate/log.h"
#include "tarn/async/async_client.h"
#include "tarn/async/call.h"
#include "tarn/async/callbacks.h"
#include "tarn/exception.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/internal/transfer_steps.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/status.pb.h"

namespace tarn {
namespace {
using tarn_internal::Call;
using tarn_internal::Callbacks;
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

std::shared_ptr<AsyncClient> required(std::shared_ptr<AsyncClient> client, const std::string& path)
{
    if (!client)
        throw Exception(slate::trace_error(SLATE_HERE, "cannot transfer without a client: ", path));
    return client;
}
} // namespace

/// Each step sends one request after the other, and each answer, on the thread of the exchange, the next one.
class AsyncUpload::Impl : public std::enable_shared_from_this<AsyncUpload::Impl> {
public:
    Impl(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers, UploadOptions options)
        : client_(required(std::move(client), path)),
          callbacks_(client_->callbacks()),
          path_(std::move(path)),
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
        std::unique_lock lock(mutex_);
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
    using Lock = std::unique_lock<std::mutex>;

    /// A step of the caller's, which `prepare` sets up under the lock.
    template <class Prepare>
    Pending begin(Prepare prepare)
    {
        const auto step = std::make_shared<Step>(callbacks_, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->abort();
        });
        Lock lock(mutex_);
        if (step_) {
            lock.unlock();
            step->complete(make_refusal());
            return Pending(step);
        }
        step_ = step;
        prepare();
        try {
            go_on(lock);
        }
        catch (...) { // a recipient that can't be taken apart
            if (!lock)
                lock.lock();
            is_sending_ = false;
            steps_.end(Status::BadRequest, LocalCause::InvalidRequest, "a chunk could not be sent");
            complete_step(lock);
            throw;
        }
        return Pending(step);
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
        const auto pending = options_.verb == UploadOptions::Verb::Put
                                 ? client_->put(path_, std::move(bytes), options)
                                 : client_->post(path_, std::move(bytes), options);
        PendingAccess::call(pending).continue_inside(std::move(on_answer));
    }

    void take_answer(const std::shared_ptr<Reply>& reply, std::size_t size)
    {
        Lock lock(mutex_);
        is_sending_ = false;
        if (steps_.ended()) { // aborted meanwhile
            forget(lock);
            return;
        }
        if (steps_.take_answer(reply, size) && options_.progress)
            callbacks_->dispatch(
                [progress = options_.progress, bytes = steps_.acknowledged()] { progress(bytes); });
        go_on(lock);
    }

    void take_end(const std::shared_ptr<Reply>& reply)
    {
        Lock lock(mutex_);
        is_sending_ = false;
        steps_.end(tarn_internal::only_response(reply)); // unless it was aborted, when it came too late
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
        const auto step = std::exchange(step_, nullptr);
        const auto reply = steps_.ended() ? steps_.ended() : make_go_ahead();
        lock.unlock();
        if (step)
            step->complete(reply);
    }

    const std::shared_ptr<AsyncClient> client_;
    const std::shared_ptr<Callbacks> callbacks_;
    const std::string path_;
    const UploadOptions options_;
    mutable std::mutex mutex_; // guards all below; never held while a request is made or a step completed
    tarn_internal::UploadSteps steps_;
    std::shared_ptr<Step> step_; // the present one
    bool is_last_ = false;       // whether that is finish()
    bool is_sending_ = false;
    std::string bytes_;     // of the present write
    std::string_view rest_; // of bytes_, not yet collected
};

AsyncUpload::AsyncUpload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers,
                         UploadOptions options)
    : impl_(std::make_shared<Impl>(std::move(client), std::move(path), headers, std::move(options)))
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

class AsyncDownload::Impl : public std::enable_shared_from_this<AsyncDownload::Impl> {
public:
    Impl(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers,
         DownloadOptions options)
        : client_(required(std::move(client), path)),
          callbacks_(client_->callbacks()),
          path_(std::move(path)),
          options_(std::move(options)),
          steps_(headers)
    {
    }

    Pending read()
    {
        const auto step = std::make_shared<Step>(callbacks_, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->cancel();
        });
        Lock lock(mutex_);
        if (step_) {
            lock.unlock();
            step->complete(make_refusal());
            return Pending(step);
        }
        step_ = step;
        if (!steps_.has_ended() && options_.stop.stop_requested())
            steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the download was cancelled");
        if (steps_.has_ended()) {
            complete_step(lock, steps_.reply()->good() ? make_go_ahead() : without_body(steps_.reply()));
            return Pending(step);
        }
        ask(lock);
        return Pending(step);
    }

    void cancel()
    {
        Lock lock(mutex_);
        if (!step_)
            return;
        steps_.end(Status::RequestTimeout, LocalCause::Cancelled, "the download was cancelled");
        complete_step(lock, steps_.reply());
    }

    TransferResult result() const
    {
        const std::lock_guard lock(mutex_);
        return {steps_.reply(), steps_.received()};
    }

private:
    using Lock = std::unique_lock<std::mutex>;

    void ask(Lock& lock)
    {
        const CallOptions options{steps_.headers(), options_.chunk_timeout, options_.stop};
        lock.unlock(); // a refusal comes at once, on this thread
        try {
            const auto pending = client_->get(path_, options);
            PendingAccess::call(pending).continue_inside(
                [self = shared_from_this()](const std::shared_ptr<Reply>& reply) {
                    self->take_answer(reply);
                });
        }
        catch (...) { // a recipient that can't be taken apart
            lock.lock();
            steps_.end(Status::BadRequest, LocalCause::InvalidRequest, "the request could not be sent");
            complete_step(lock, steps_.reply());
            throw;
        }
    }

    void take_answer(const std::shared_ptr<Reply>& reply)
    {
        Lock lock(mutex_);
        if (!step_ || steps_.has_ended()) // cancelled meanwhile
            return;
        if (!steps_.take_answer(reply)) {
            complete_step(lock, without_body(steps_.reply()));
            return;
        }
        if (options_.progress)
            callbacks_->dispatch(
                [progress = options_.progress, bytes = steps_.received()] { progress(bytes); });
        complete_step(lock, steps_.reply());
    }

    void complete_step(Lock& lock, const std::shared_ptr<Reply>& reply)
    {
        const auto step = std::exchange(step_, nullptr);
        lock.unlock();
        if (step)
            step->complete(reply);
    }

    const std::shared_ptr<AsyncClient> client_;
    const std::shared_ptr<Callbacks> callbacks_;
    const std::string path_;
    const DownloadOptions options_;
    mutable std::mutex mutex_; // guards all below; never held while a request is made or a step completed
    tarn_internal::DownloadSteps steps_;
    std::shared_ptr<Step> step_; // the present one
};

AsyncDownload::AsyncDownload(std::shared_ptr<AsyncClient> client, std::string path, const Headers& headers,
                             DownloadOptions options)
    : impl_(std::make_shared<Impl>(std::move(client), std::move(path), headers, std::move(options)))
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
