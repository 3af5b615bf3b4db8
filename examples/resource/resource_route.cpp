// SPDX-License-Identifier: Apache-2.0
#include "resource_route.h"

#include <utility>

namespace example {
namespace {
using tarn::Format;
using tarn::Status;

std::string accept_of(const tarn::Request& request)
{
    const std::string asked = tarn::to_mime_type(request.format());
    return asked.empty() ? request.header("Accept", "") : asked;
}

std::string content_type_of(const tarn::Request& request)
{
    return request.header("Content-Type", tarn::to_mime_type(request.format()));
}

void reply_with(tarn::Reply& reply, tarn::Content content)
{
    const Format format = tarn_internal::to_format(content.mime_type);
    reply.set_format_status(format, Status::Ok);
    tarn::Body* body = reply.mutable_body();
    (tarn_internal::is_binary_format(format) ? body->mutable_bin() : body->mutable_txt())->swap(content.data);
}

void reply_not_modified(tarn::Reply& reply)
{
    reply.set_format_status(Format::Empty, Status::NotModified);
    reply.mutable_body()->set_txt(""); // HEAD wants something to measure
}
} // namespace

ResourceRoute::ResourceRoute(const std::string& path, std::shared_ptr<tarn::Resource> resource)
    : Route(resource->name(), "get,put,delete", tarn::RoutePattern(path), tarn::Access::Public),
      resource_(std::move(resource))
{
}

void ResourceRoute::get(tarn::Context& context) const
{
    const auto answer = [&](tarn::Content content) {
        context.reply.set_header("ETag", content.etag);
        if (context.request.header("If-None-Match", "") == content.etag)
            reply_not_modified(context.reply);
        else
            reply_with(context.reply, std::move(content));
    };
    resource_->save_into(answer, accept_of(context.request), context.params);
}

void ResourceRoute::put(tarn::Context& context)
{
    check_writable();
    resource_->load_from([&] { return context.request.data(); }, content_type_of(context.request),
                         context.params, tarn::WritePolicy::Replace);
}

void ResourceRoute::del(tarn::Context& context)
{
    check_writable();
    resource_->erase(context.params);
}

void ResourceRoute::check_writable() const
{
    if (resource_->has_behavior(tarn::Resource::Behavior::ReadOnly))
        throw tarn::MessageException(Status::MethodNotAllowed, resource_->name() + " can only be read");
}
} // namespace example
