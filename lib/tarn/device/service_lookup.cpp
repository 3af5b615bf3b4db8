// SPDX-License-Identifier: Apache-2.0
#include "tarn/device/service_lookup.h"

#include <exception>
#include <utility>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/router/service_path.h"
#include "tarn/internal/utils/message_parts.h"
#include "tarn/internal/utils/request_bounds.h"
#include "tarn/proto/message.pb.h"
#include "tarn/request.h"

namespace tarn_internal {
ServiceLookup::ServiceLookup(const std::filesystem::path& run_time_directory, Endpoint router,
                             std::shared_ptr<MessageFactory> factory)
    : run_time_directory_(normalise_directory(run_time_directory)),
      router_(std::move(router)),
      url_(router_ ? router_ : slate::make_uri("ipc://" + run_time_directory_.string())),
      factory_(factory ? std::move(factory) : make_message_factory())
{
}

ServiceLookup::Destination ServiceLookup::find(const std::shared_ptr<Message>& message) const
{
    if (const auto excess = find_excess(*message))
        return {nullptr, fail(excess->status, LocalCause::InvalidRequest, excess->text, ""), ""};
    if (!is_routable(*message))
        return {nullptr,
                fail(Status::NotImplemented, LocalCause::InvalidRequest, "request type not implemented", ""),
                ""};
    const std::string path = Request(message).path();
    try {
        return find_service_or_router(message, path);
    }
    catch (const std::exception& error) { // the directory can't be asked
        return {nullptr, fail(Status::InternalServerError, LocalCause::InvalidRequest, error.what(), path),
                path};
    }
}

ServiceLookup::Destination ServiceLookup::find_service_or_router(const std::shared_ptr<Message>& message,
                                                                 const std::string& path) const
{
    const auto service = find_service(run_time_directory_, path);
    if (service && !(router_ && is_same_socket(*service->endpoint, *router_))) {
        find_or_make_head(*message)->set_path(service->path);
        return {service->endpoint, nullptr, path, true};
    }
    if (router_)
        return {router_, nullptr, path};
    slate::log_error(SLATE_HERE, "no service in ", run_time_directory_.string(), " for: ", path);
    // For a path without any name a router has no route at all, and gives a reply without a path.
    const bool has_name = path.find_first_not_of('/') != std::string::npos;
    auto answer = has_name ? factory_->make_response(message, factory_->finder()->my_pid())
                           : factory_->make_response(Status::NotFound);
    auto reply = std::make_shared<Reply>(std::move(answer), LocalCause::NoSuchEndpoint); // status 404
    return {nullptr, std::move(reply), path};
}

std::shared_ptr<Reply> ServiceLookup::finish(std::shared_ptr<Reply> reply,
                                             const Destination& destination) const
{
    if (!destination.is_service)
        return reply;
    if (!reply->message)
        return fail(Status::BadGateway, LocalCause::None,
                    "corrupt reply from the service at " + destination.endpoint->to_string(),
                    destination.path);
    // Anything but a response becomes an empty one.
    reply->message->mutable_response()->mutable_head()->set_path(destination.path);
    return reply;
}

std::shared_ptr<Reply> ServiceLookup::fail(Status status, LocalCause cause, const std::string& text,
                                           const std::string& path) const
{
    slate::log_error(SLATE_HERE, text, "; request to \"" + path, "\"");
    auto reply = std::make_shared<Reply>(factory_->make_response(status), cause);
    reply->set_status(status, text);
    if (!path.empty())
        reply->message->mutable_response()->mutable_head()->set_path(path);
    return reply;
}
} // namespace tarn_internal
