// SPDX-License-Identifier: Apache-2.0
#include "resource_route.h"

#include <algorithm>
#include <utility>

namespace example {
namespace {
using tarn::Format;
using tarn::MessageException;
using tarn::Status;
using Behavior = tarn::Resource::Behavior;

std::string accept_of(const tarn::Request& request)
{
    const std::string asked = tarn::to_mime_type(request.format());
    return asked.empty() ? request.header("Accept", "") : asked;
}

std::string content_type_of(const tarn::Request& request)
{
    return request.header("Content-Type", tarn::to_mime_type(request.format()));
}

std::string body_of(const tarn::Request& request)
{
    if (!request.has_body())
        throw MessageException(Status::BadRequest, "no body");
    return request.data();
}

/// Whether the client says that it holds the data with this tag already.
bool is_held(const tarn::Request& request, const std::string& etag)
{
    const auto held =
        slate::split<std::vector<std::string>>(request.header("If-None-Match", ""), ",", true, true);
    return !etag.empty() && std::any_of(held.begin(), held.end(),
                                        [&](const std::string& tag) { return tag == "*" || tag == etag; });
}

void reply_with(tarn::Reply& reply, tarn::Content content)
{
    reply.set_reply_data(tarn::to_format(content.mime_type), std::move(content.data));
}

void reply_not_modified(tarn::Reply& reply)
{
    reply.set_format_status(Format::Empty, Status::NotModified);
    reply.mutable_body()->set_txt(""); // so that Reply::data() doesn't throw at the client
}
} // namespace

ResourceRoute::ResourceRoute(const std::string& path, std::shared_ptr<tarn::Resource> resource)
    : Route(resource->name(), "get,put,delete", tarn::RoutePattern(path), tarn::Access::Public),
      resource_(std::move(resource))
{
}

bool ResourceRoute::supports_chunked_transfer() const
{
    return resource_->supports_chunked_transfer();
}

void ResourceRoute::head(tarn::Context& context) const
{
    Route::head(context);
    if (context.reply.status() == Status::NotModified) // its body is empty, unlike the resource
        context.reply.clr_header("Content-Length");
}

void ResourceRoute::get(tarn::Context& context) const
{
    check_readable();
    const auto answer = [&](tarn::Content content) {
        if (!content.etag.empty())
            context.reply.set_header("ETag", content.etag);
        if (is_held(context.request, content.etag))
            reply_not_modified(context.reply);
        else
            reply_with(context.reply, std::move(content));
    };
    resource_->save_into(answer, accept_of(context.request), context.params);
}

void ResourceRoute::put(tarn::Context& context)
{
    check_writable();
    resource_->load_from([&] { return body_of(context.request); }, content_type_of(context.request),
                         context.params, tarn::WritePolicy::Replace);
}

void ResourceRoute::del(tarn::Context& context)
{
    check_writable();
    resource_->erase(context.params);
}

void ResourceRoute::check_readable() const
{
    if (resource_->has_behavior(Behavior::WriteOnly))
        throw MessageException(Status::MethodNotAllowed, resource_->name() + " can only be written");
}

void ResourceRoute::check_writable() const
{
    if (resource_->has_behavior(Behavior::ReadOnly))
        throw MessageException(Status::MethodNotAllowed, resource_->name() + " can only be read");
}
} // namespace example
