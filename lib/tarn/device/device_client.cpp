// SPDX-License-Identifier: Apache-2.0
#include "tarn/device/device_client.h"

#include <utility>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/device/connection_list.h"
#include "tarn/internal/client_base.h"
#include "tarn/internal/router/service_path.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/proto/message.pb.h"

namespace tarn {
namespace {
using namespace tarn_internal;

class DeviceClient : public ClientBase {
public:
    DeviceClient(const std::shared_ptr<zmq::context_t>& context,
                 const std::filesystem::path& run_time_directory, Endpoint router, unsigned int retries,
                 const std::shared_ptr<MessageFactory>& factory)
        : run_time_directory_(normalise_directory(run_time_directory)),
          router_(std::move(router)),
          url_(router_ ? router_ : slate::make_uri("ipc://" + run_time_directory_.string())),
          factory_(factory ? factory : make_message_factory()),
          connections_([=, factory = factory_](const Endpoint& endpoint) {
              return std::make_shared<RequestCycle>("zmq.client", next_client_instance(), context, endpoint,
                                                    retries, factory);
          })
    {
    }

    Endpoint url() const override { return url_; }

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
        if (!is_routable(*message))
            return fail(Status::NotImplemented, LocalCause::InvalidRequest, "request type not implemented",
                        "");
        const std::string path = Request(message).path();
        try {
            const auto service = find_service(run_time_directory_, path);
            if (!service || (router_ && is_same_socket(*service->endpoint, *router_)))
                return ask_router(message, path, timeout);
            find_or_make_head(*message)->set_path(service->path);
            return ask(service->endpoint, *message, path, timeout);
        }
        catch (const zmq::error_t& error) {
            return fail(Status::RequestTimeout, LocalCause::SocketFailed, error.what(), path);
        }
        catch (const std::exception& error) { // the directory can't be asked
            return fail(Status::InternalServerError, LocalCause::InvalidRequest, error.what(), path);
        }
    }

    std::shared_ptr<Reply> ask_router(const std::shared_ptr<Message>& message, const std::string& path,
                                      const slate::Duration& timeout) const
    {
        if (router_)
            return connections_.find(router_)->read_reply(*message, timeout);
        slate::log_error(SLATE_HERE, "no service in ", run_time_directory_.string(), " for: ", path);
        return std::make_shared<Reply>(factory_->make_response(message, factory_->finder()->my_pid()),
                                       LocalCause::NoSuchEndpoint); // status 404
    }

    /// The reply has the path that the caller asked for, as from a router.
    std::shared_ptr<Reply> ask(const Endpoint& endpoint, const Message& message, const std::string& path,
                               const slate::Duration& timeout) const
    {
        auto reply = connections_.find(endpoint)->read_reply(message, timeout);
        if (!reply->message)
            return fail(Status::BadGateway, LocalCause::None,
                        "corrupt reply from the service at " + endpoint->to_string(), path);
        // Anything but a response becomes an empty one.
        reply->message->mutable_response()->mutable_head()->set_path(path);
        return reply;
    }

    std::shared_ptr<Reply> fail(Status status, LocalCause cause, const std::string& text,
                                const std::string& path) const
    {
        slate::log_error(SLATE_HERE, text, "; request to \"", path, "\"");
        auto reply = std::make_shared<Reply>(factory_->make_response(status), cause);
        reply->set_status(status, text);
        if (!path.empty())
            reply->message->mutable_response()->mutable_head()->set_path(path);
        return reply;
    }

    const MessageFactory& factory() const override { return *factory_; }

    const std::filesystem::path run_time_directory_;
    const Endpoint router_; // may be null
    const Endpoint url_;
    const std::shared_ptr<MessageFactory> factory_;
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
    return std::make_shared<DeviceClient>(runtime->context, run_time_directory, router, retries, factory);
}
} // namespace tarn
