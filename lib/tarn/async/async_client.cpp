// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/async_client.h"

#include <exception>
#include <filesystem>
#include <utility>

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/async/async_client_base.h"
#include "tarn/async/async_device_client.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/channel.h"
#include "tarn/async/io_thread.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
using tarn_internal::Channel;
using tarn_internal::IoThread;

class AsyncClientImpl : public tarn_internal::AsyncClientBase {
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
            channel_->parts().callbacks->finish();
        }
        catch (const std::exception& error) {
            slate::log_error(SLATE_HERE, "cannot end an asynchronous client: ", error.what());
        }
    }
    AsyncClientImpl(const AsyncClientImpl&) = delete;
    AsyncClientImpl& operator=(const AsyncClientImpl&) = delete;

    Endpoint url() const override { return channel_->endpoint(); }

    const MessageFactory& factory() const override { return channel_->factory(); }

private:
    Pending pass_on(std::shared_ptr<Message> message, const CallOptions& options,
                    tarn_internal::CallPlace place) override
    {
        return channel_->start(std::move(message), options, std::move(place));
    }

    const tarn_internal::ClientParts& parts() const override { return channel_->parts(); }

    const std::shared_ptr<IoThread> io_;
    const std::shared_ptr<Channel> channel_;
};
} // namespace

std::shared_ptr<AsyncClient> make_async_client(const Endpoint& endpoint, const AsyncClientOptions& options)
{
    const auto runtime = tarn_internal::find_runtime("make_async_client");
    if (!runtime)
        return nullptr;
    const bool is_of_device = !options.run_time_directory.empty();
    if (!endpoint && !is_of_device) {
        slate::log_error(SLATE_HERE, "cannot make_async_client, no endpoint given");
        return nullptr;
    }
    tarn_internal::log_endpoint_fault("make_async_client", endpoint);
    const auto io = runtime->parts->get<IoThread>(
        [&] { return IoThread::start(runtime->context, runtime->settings, runtime->queue); });
    if (io && is_of_device)
        return tarn_internal::make_async_device_client(io, endpoint, options);
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
    if (!runtime)
        return nullptr;
    const bool is_of_device = !options.run_time_directory.empty();
    return make_async_client(is_of_device ? nullptr : relay_zmq_sock(runtime->settings), options);
}

std::shared_ptr<AsyncClient> make_async_client_at(std::string_view endpoint_or_path,
                                                  const AsyncClientOptions& options)
{
    const bool is_endpoint = slate::contains(endpoint_or_path, "://");
    const std::string text = (is_endpoint ? "" : "ipc://") + std::string(endpoint_or_path);
    const auto endpoint = slate::make_uri(text);
    if (!endpoint) {
        tarn_internal::log_endpoint_fault("make_async_client", text);
        slate::log_error(SLATE_HERE, "failed to create asynchronous client ( ", endpoint_or_path,
                         " ): invalid uri");
        return nullptr;
    }
    return make_async_client(endpoint, options);
}
} // namespace tarn
