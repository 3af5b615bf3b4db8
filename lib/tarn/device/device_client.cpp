// SPDX-License-Identifier: Apache-2.0
#include "tarn/device/device_client.h"

#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "tarn/device/connection_list.h"
#include "tarn/device/service_lookup.h"
#include "tarn/internal/client_base.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/proto/message.pb.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
using namespace tarn_internal;

class DeviceClient : public ClientBase {
public:
    DeviceClient(const std::shared_ptr<zmq::context_t>& context,
                 const std::filesystem::path& run_time_directory, const Endpoint& router,
                 unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
        : factory_(factory ? factory : make_message_factory()),
          services_(run_time_directory, router, factory_),
          connections_([=, factory = factory_](const Endpoint& endpoint) {
              return std::make_shared<RequestCycle>("zmq.client", next_client_instance(), context, endpoint,
                                                    retries, factory);
          })
    {
    }

    Endpoint url() const override { return services_.url(); }

    std::shared_ptr<Reply> send(const Request& request, const slate::Duration& timeout) override
    {
        if (!request.message)
            return invalid_request();
        return exchange(std::make_shared<Message>(*request.message), timeout); // whose path is changed
    }

private:
    std::shared_ptr<Reply> exchange(const std::shared_ptr<Message>& message,
                                    const slate::Duration& timeout) const override
    {
        const auto destination = services_.find(message);
        if (destination.reply)
            return destination.reply;
        try {
            const auto connection = connections_.find(destination.endpoint);
            return services_.finish(connection->read_reply(*message, timeout), destination);
        }
        catch (const zmq::error_t& error) { // no socket can be made
            return services_.fail(Status::InternalServerError, LocalCause::SocketFailed, error.what(),
                                  destination.path);
        }
    }

    const MessageFactory& factory() const override { return *factory_; }

    const std::shared_ptr<MessageFactory> factory_;
    const ServiceLookup services_;
    mutable ConnectionList<RequestCycle> connections_; // locks itself
};
} // namespace

std::shared_ptr<Client> make_device_client(const std::filesystem::path& run_time_directory,
                                           const Endpoint& router, unsigned int retries,
                                           const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = find_runtime("make_device_client");
    if (!runtime)
        return nullptr;
    if (run_time_directory.empty()) {
        slate::log_error(SLATE_HERE, "cannot make_device_client, no directory given");
        return nullptr;
    }
    log_endpoint_fault("make_device_client", router);
    return std::make_shared<DeviceClient>(runtime->context, run_time_directory, router, retries, factory);
}

std::shared_ptr<Client> make_device_client()
{
    const auto runtime = find_runtime("make_device_client");
    if (!runtime)
        return nullptr;
    const bool has_router = runtime->settings->has(relay_url());
    return make_device_client(run_time_directory(runtime->settings),
                              has_router ? relay_zmq_sock(runtime->settings) : nullptr);
}
} // namespace tarn
