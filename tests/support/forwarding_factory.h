// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "tarn/message_factory.h"

namespace tarn_test {
/// A factory that leaves all to the library's own, for tests that need another one in one point.
class ForwardingFactory : public tarn::MessageFactory {
public:
    using Headers = std::shared_ptr<slate::Dictionary>;
    using MessagePtr = std::shared_ptr<tarn::Message>;

    MessagePtr make_head(std::string_view path, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        return own_->make_head(path, headers, ttl);
    }
    MessagePtr make_get(std::string_view path, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        return own_->make_get(path, headers, ttl);
    }
    MessagePtr make_put(std::string_view path, const std::string& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        return own_->make_put(path, body, headers, ttl);
    }
    MessagePtr make_put(std::string_view path, std::string&& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        return own_->make_put(path, std::move(body), headers, ttl);
    }
    MessagePtr make_post(std::string_view path, const std::string& body, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        return own_->make_post(path, body, headers, ttl);
    }
    MessagePtr make_post(std::string_view path, std::string&& body, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        return own_->make_post(path, std::move(body), headers, ttl);
    }
    MessagePtr make_del(std::string_view path, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        return own_->make_del(path, headers, ttl);
    }
    MessagePtr make_message(const void* data, unsigned long size) const override
    {
        return own_->make_message(data, size);
    }
    MessagePtr make_response(const MessagePtr& request, int pid) const override
    {
        return own_->make_response(request, pid);
    }
    MessagePtr make_response(const tarn::Status& status) const override
    {
        return own_->make_response(status);
    }
    std::shared_ptr<tarn_internal::PidFinder> finder() const override { return own_->finder(); }

private:
    const std::shared_ptr<tarn::MessageFactory> own_ = tarn::make_message_factory();
};
} // namespace tarn_test
