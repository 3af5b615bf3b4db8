// SPDX-License-Identifier: Apache-2.0
#include "tarn/async/async_device_client.h"

#include <atomic>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "slate/log.h"
#include "slate/provider.h"
#include "tarn/async/async_client_base.h"
#include "tarn/async/callbacks.h"
#include "tarn/async/channel.h"
#include "tarn/async/io_thread.h"
#include "tarn/device/connection_list.h"
#include "tarn/device/service_lookup.h"
#include "tarn/internal/utils/owned_provider.h"
#include "tarn/proto/status.pb.h"

namespace tarn_internal {
namespace {
int next_instance()
{
    static std::atomic<int> instance{0};
    return instance++;
}

/// Has a channel closed when neither the list of connections nor a call holds it any more.
class Connection {
public:
    Connection(std::shared_ptr<IoThread> io, std::shared_ptr<Channel> channel)
        : io_(std::move(io)),
          channel_(std::move(channel))
    {
    }
    ~Connection()
    {
        try {
            // Not run() but post(): this may be the I/O thread, in the middle of the channel's own work. Once
            // the thread has ended, the channel is closed.
            (void)io_->post([channel = channel_] { channel->close(); });
        }
        catch (const std::exception& error) {
            slate::log_error(SLATE_HERE, "cannot close a connection: ", error.what());
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    Channel& channel() const { return *channel_; }

private:
    const std::shared_ptr<IoThread> io_;
    const std::shared_ptr<Channel> channel_;
};

/// All channels that a client has made and that live still.
///
/// Threads: any.
class ChannelRegister {
public:
    void add(const std::shared_ptr<Channel>& channel)
    {
        const std::lock_guard lock(mutex_);
        std::erase_if(channels_, [](const auto& known) { return known.expired(); });
        channels_.push_back(channel);
    }

    std::vector<std::shared_ptr<Channel>> all() const
    {
        std::vector<std::shared_ptr<Channel>> result;
        const std::lock_guard lock(mutex_);
        for (const auto& known : channels_) {
            if (auto channel = known.lock())
                result.push_back(std::move(channel));
        }
        return result;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::weak_ptr<Channel>> channels_;
};

class AsyncDeviceClient : public AsyncClientBase {
public:
    AsyncDeviceClient(std::shared_ptr<IoThread> io, const Endpoint& router, const AsyncClientOptions& options)
        : io_(std::move(io)),
          options_(options),
          factory_(options.factory ? options.factory : make_message_factory()),
          services_(options.run_time_directory, router, factory_),
          provider_("zmq.async_device_client", next_instance()),
          parts_(make_client_parts(io_, *provider_, options)),
          connections_([this](const Endpoint& endpoint) { return connect(endpoint); })
    {
    }

    ~AsyncDeviceClient() override
    {
        try {
            const auto close_all = [this] {
                for (const auto& channel : channels_.all())
                    channel->close();
            };
            if (!io_->run(close_all))
                io_->await_end(); // which closes them
            parts_.callbacks->finish();
        }
        catch (const std::exception& error) {
            slate::log_error(SLATE_HERE, "cannot end an asynchronous client: ", error.what());
        }
    }
    AsyncDeviceClient(const AsyncDeviceClient&) = delete;
    AsyncDeviceClient& operator=(const AsyncDeviceClient&) = delete;

    Endpoint url() const override { return services_.url(); }

    const MessageFactory& factory() const override { return *factory_; }

private:
    Pending pass_on(std::shared_ptr<Message> message, const CallOptions& options, CallPlace place) override
    {
        if (io_->is_ending())
            return completed(
                make_local_reply(Status::RequestTimeout, LocalCause::Ended, "the ZmqSubsystem has ended"));
        auto destination = services_.find(message);
        if (destination.reply) {
            place.leave(); // before the caller sees the reply
            return completed(std::move(destination.reply));
        }
        const auto connection = connections_.find(destination.endpoint);
        // The call holds its connection, so that it ends well if the service is replaced meanwhile.
        const auto finish = [services = services_, destination, connection](std::shared_ptr<Reply> reply) {
            return services.finish(std::move(reply), destination);
        };
        return connection->channel().start(std::move(message), options, std::move(place), finish);
    }

    const ClientParts& parts() const override { return parts_; }

    /// The channel opens itself with its first call, on the I/O thread: nobody waits for that here.
    std::shared_ptr<Connection> connect(const Endpoint& endpoint)
    {
        AsyncClientOptions options = options_;
        options.factory = factory_;
        auto channel = std::make_shared<Channel>(io_, endpoint, options, parts_);
        channels_.add(channel);
        return std::make_shared<Connection>(io_, std::move(channel));
    }

    const std::shared_ptr<IoThread> io_;
    const AsyncClientOptions options_;
    const std::shared_ptr<MessageFactory> factory_;
    const ServiceLookup services_;
    const OwnedProvider provider_;
    const ClientParts parts_;
    ChannelRegister channels_;
    ConnectionList<Connection> connections_; // locks itself
};
} // namespace

std::shared_ptr<AsyncClient> make_async_device_client(const std::shared_ptr<IoThread>& io,
                                                      const Endpoint& router,
                                                      const AsyncClientOptions& options)
{
    return std::make_shared<AsyncDeviceClient>(io, router, options);
}
} // namespace tarn_internal
