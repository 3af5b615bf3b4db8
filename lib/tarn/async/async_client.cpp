// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/async_client.h"

#include <exception>
#include <filesystem>
#include <utility>

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/channel.h"
#include "tarn/async/io_thread.h"
#include "tarn/internal/runtime.h"
#include "tarn/message_factory.h"
#include "tarn/proto/message.pb.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
using tarn_internal::Channel;
using tarn_internal::IoThread;

class AsyncClientImpl : public AsyncClient {
public:
    AsyncClientImpl(std::shared_ptr<IoThread> io, std::shared_ptr<Channel> channel)
        : io_(std::move(io)),
          channel_(std::move(channel))
    {
    }

    ~AsyncClientImpl() override
    {
        try {
            if (!io_->run([this] { channel_->close(); }))
                io_->await_end(); // which closes it
            channel_->finish_callbacks();
        }
        catch (const std::exception& error) {
            slate::log_error(SLATE_HERE, "cannot end an asynchronous client: ", error.what());
        }
    }
    AsyncClientImpl(const AsyncClientImpl&) = delete;
    AsyncClientImpl& operator=(const AsyncClientImpl&) = delete;

    Endpoint url() const override { return channel_->endpoint(); }

    Pending head(std::string_view path, const CallOptions& options) override
    {
        return channel_->start(factory().make_head(path, options.headers, options.timeout), options);
    }

    Pending get(std::string_view path, const CallOptions& options) override
    {
        return channel_->start(factory().make_get(path, options.headers, options.timeout), options);
    }

    Pending put(std::string_view path, std::string body, const CallOptions& options) override
    {
        return channel_->start(factory().make_put(path, std::move(body), options.headers, options.timeout),
                               options);
    }

    Pending post(std::string_view path, std::string body, const CallOptions& options) override
    {
        return channel_->start(factory().make_post(path, std::move(body), options.headers, options.timeout),
                               options);
    }

    Pending del(std::string_view path, const CallOptions& options) override
    {
        return channel_->start(factory().make_del(path, options.headers, options.timeout), options);
    }

    Pending send(const Request& request, const CallOptions& options) override
    {
        // A copy, since the caller may change the message while it waits here.
        return channel_->start(request.message ? std::make_shared<Message>(*request.message) : nullptr,
                               options);
    }

    std::size_t in_flight() const override { return channel_->in_flight(); }

    std::shared_ptr<tarn_internal::Callbacks> callbacks() const override { return channel_->callbacks(); }

private:
    const MessageFactory& factory() const { return channel_->factory(); }

    const std::shared_ptr<IoThread> io_;
    const std::shared_ptr<Channel> channel_;
};
} // namespace

std::shared_ptr<AsyncClient> make_async_client(const Endpoint& endpoint, const AsyncClientOptions& options)
{
    const auto runtime = tarn_internal::find_runtime("make_async_client");
    if (!runtime)
        return nullptr;
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "cannot make_async_client, no endpoint given");
        return nullptr;
    }
    const auto io =
        runtime->parts->get<IoThread>([&] { return IoThread::start(runtime->context, runtime->queue); });
    const auto channel = io ? std::make_shared<Channel>(io, endpoint, options) : nullptr;
    if (!channel || !io->run([&] { channel->open(); })) {
        slate::log_error(SLATE_HERE, "cannot make_async_client, tarn not / no longer initialized");
        return nullptr;
    }
    return std::make_shared<AsyncClientImpl>(io, channel);
}

std::shared_ptr<AsyncClient> make_async_client(const AsyncClientOptions& options)
{
    const auto runtime = tarn_internal::find_runtime("make_async_client");
    return runtime ? make_async_client(relay_zmq_sock(runtime->settings), options) : nullptr;
}

std::shared_ptr<AsyncClient> make_async_client_at(std::string_view endpoint_or_path,
                                                  const AsyncClientOptions& options)
{
    const bool is_endpoint = slate::contains(endpoint_or_path, "://");
    const auto endpoint = slate::make_uri((is_endpoint ? "" : "ipc://") + std::string(endpoint_or_path));
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "failed to create asynchronous client ( ", endpoint_or_path,
                         " ): invalid uri");
        return nullptr;
    }
    return make_async_client(endpoint, options);
}
} // namespace tarn
