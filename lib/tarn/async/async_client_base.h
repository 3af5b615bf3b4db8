// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "tarn/async/async_client.h"
#include "tarn/async/call.h"
#include "tarn/async/call_limit.h"
#include "tarn/async/channel.h"
#include "tarn/internal/transfer_helpers.h"
#include "tarn/message_factory.h"
#include "tarn/proto/message.pb.h"
#include "tarn/proto/status.pb.h"

namespace tarn_internal {
/// What all asynchronous clients do alike: they build the message of a verb, and refuse what isn't to be
/// sent. Where it goes is the derived class's.
class AsyncClientBase : public AsyncClient {
public:
    Pending head(std::string_view path, const CallOptions& options) override
    {
        return start(factory().make_head(path, options.headers, options.timeout), options);
    }
    Pending get(std::string_view path, const CallOptions& options) override
    {
        return start(factory().make_get(path, options.headers, options.timeout), options);
    }
    Pending put(std::string_view path, std::string body, const CallOptions& options) override
    {
        return start(factory().make_put(path, std::move(body), options.headers, options.timeout), options);
    }
    Pending post(std::string_view path, std::string body, const CallOptions& options) override
    {
        return start(factory().make_post(path, std::move(body), options.headers, options.timeout), options);
    }
    Pending del(std::string_view path, const CallOptions& options) override
    {
        return start(factory().make_del(path, options.headers, options.timeout), options);
    }
    Pending send(const Request& request, const CallOptions& options) override
    {
        // A copy, since the caller may change the message while it waits here.
        return start(request.message ? std::make_shared<Message>(*request.message) : nullptr, options);
    }

    std::size_t in_flight() const override { return parts().limit->in_flight(); }
    std::shared_ptr<Callbacks> callbacks() const override { return parts().callbacks; }

    /// Sends a message that nobody else has; null stands for a request that can't be sent.
    Pending start(std::shared_ptr<Message> message, const CallOptions& options,
                  CallPlace::Room room = CallPlace::Room::Limited)
    {
        if (!message)
            return completed(
                make_local_reply(Status::BadRequest, LocalCause::InvalidRequest, "there is nothing to send"));
        if (options.stop.stop_requested())
            return completed(
                make_local_reply(Status::RequestTimeout, LocalCause::Cancelled, "the request was cancelled"));
        CallPlace place(parts().limit, room);
        if (!place)
            return completed(make_local_reply(Status::TooManyRequests, LocalCause::TooMany,
                                              "too many requests in flight"));
        return pass_on(std::move(message), options, std::move(place));
    }
    virtual const MessageFactory& factory() const = 0;

protected:
    /// Sends the message, which isn't null.
    virtual Pending pass_on(std::shared_ptr<Message> message, const CallOptions& options,
                            CallPlace place) = 0;
    virtual const ClientParts& parts() const = 0;

    Pending completed(std::shared_ptr<Reply> reply) const
    {
        const auto call = std::make_shared<Call>(parts().callbacks);
        (void)call->complete(std::move(reply));
        return Pending(call);
    }
};
} // namespace tarn_internal
