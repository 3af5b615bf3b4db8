// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "tarn/async/async_client.h"
#include "tarn/message_factory.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
/// What all asynchronous clients do alike: they build the message of a verb. Where it goes is the derived
/// class's.
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

protected:
    /// Sends a message that nobody else has; null stands for a request that can't be sent.
    virtual Pending start(std::shared_ptr<Message> message, const CallOptions& options) = 0;
    virtual const MessageFactory& factory() const = 0;
};
} // namespace tarn_internal
