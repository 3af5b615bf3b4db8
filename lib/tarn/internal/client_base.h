// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "tarn/client.h"
#include "tarn/message_factory.h"

namespace tarn_internal {
/// What all clients do alike: they build the message of a verb, and cut a stream into chunks. Where a message
/// goes is the derived class's.
class ClientBase : public Client {
public:
    std::shared_ptr<Reply> head(std::string_view path, const Headers& headers,
                                const slate::Duration& timeout) const override;
    std::shared_ptr<Reply> get(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) const override;
    std::shared_ptr<Reply> get(std::string_view path, std::ostream& out, const Headers& headers,
                               const slate::Duration& timeout) const override;
    std::shared_ptr<Reply> put(std::string_view path, const std::string& body, const Headers& headers,
                               const slate::Duration& timeout) override;
    std::shared_ptr<Reply> put(std::string_view path, std::string&& body, const Headers& headers,
                               const slate::Duration& timeout) override;
    std::shared_ptr<Reply> put(std::string_view path, std::istream& body, const Headers& headers,
                               const slate::Duration& timeout) override;
    std::shared_ptr<Reply> post(std::string_view path, const std::string& body, const Headers& headers,
                                const slate::Duration& timeout) override;
    std::shared_ptr<Reply> post(std::string_view path, std::string&& body, const Headers& headers,
                                const slate::Duration& timeout) override;
    std::shared_ptr<Reply> post(std::string_view path, std::istream& body, const Headers& headers,
                                const slate::Duration& timeout) override;
    std::shared_ptr<Reply> del(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) override;

protected:
    /// Exchanges a message, which nobody else has, for a reply. Never null.
    virtual std::shared_ptr<Reply> exchange(const std::shared_ptr<Message>& message,
                                            const slate::Duration& timeout) const = 0;
    virtual const MessageFactory& factory() const = 0;

    /// The reply to a request that can't be sent: status 400.
    std::shared_ptr<Reply> invalid_request() const;

private:
    std::shared_ptr<Reply> ask(const std::shared_ptr<Message>& message, const slate::Duration& timeout) const;
    std::shared_ptr<Reply> or_bad_request(std::shared_ptr<Reply> reply) const;
};
} // namespace tarn_internal
