// SPDX-License-Identifier: Apache-2.0
#include "tarn/client.h"

#include <atomic>
#include <utility>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/request_cycle.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
using Headers = std::shared_ptr<slate::Dictionary>;

class ClientImpl : public Client {
public:
    ClientImpl(const std::shared_ptr<zmq::context_t>& context, const std::shared_ptr<const slate::Uri>& uri,
               unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
        : factory_(factory),
          cycle_("zmq.client", instance++, context, uri, retries, factory)
    {
    }

    std::shared_ptr<const slate::Uri> url() const override { return cycle_.uri(); }

    std::shared_ptr<Reply> head(std::string_view path, const Headers& headers,
                                const slate::Duration& timeout) const override
    {
        return read_reply(factory_->make_head(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> get(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) const override
    {
        return read_reply(factory_->make_get(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> put(std::string_view path, const std::string& body, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(factory_->make_put(path, body, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> put(std::string_view path, std::string&& body, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(factory_->make_put(path, std::move(body), headers, timeout), timeout);
    }

    std::shared_ptr<Reply> post(std::string_view path, const std::string& body, const Headers& headers,
                                const slate::Duration& timeout) override
    {
        return read_reply(factory_->make_post(path, body, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> post(std::string_view path, std::string&& body, const Headers& headers,
                                const slate::Duration& timeout) override
    {
        return read_reply(factory_->make_post(path, std::move(body), headers, timeout), timeout);
    }

    std::shared_ptr<Reply> del(std::string_view path, const Headers& headers,
                               const slate::Duration& timeout) override
    {
        return read_reply(factory_->make_del(path, headers, timeout), timeout);
    }

    std::shared_ptr<Reply> send(const Request& request, const slate::Duration& timeout) override
    {
        return read_reply(request.message, timeout);
    }

private:
    std::shared_ptr<Reply> read_reply(const std::shared_ptr<const Message>& message,
                                      const slate::Duration& timeout) const
    {
        if (!message)
            return cycle_.make_reply(Status::BadRequest);
        return cycle_.read_reply(*message, timeout);
    }

    static std::atomic<int> instance;

    const std::shared_ptr<MessageFactory> factory_;
    mutable tarn_internal::RequestCycle cycle_; // locks itself
};

std::atomic<int> ClientImpl::instance{0};

/// The runtime object, or null with an error in the log.
const ZmqSubsystem* find_subsystem()
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem)
        slate::log_error(SLATE_HERE, "cannot make_client, tarn not / no longer initialized");
    return subsystem;
}
} // namespace

std::shared_ptr<Client> make_client(const std::shared_ptr<const slate::Uri>& uri, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const ZmqSubsystem* subsystem = find_subsystem();
    if (!subsystem)
        return nullptr;
    if (!uri) {
        slate::log_error(SLATE_HERE, "cannot make_client, no endpoint given");
        return nullptr;
    }
    return std::make_shared<ClientImpl>(subsystem->ctx(), uri, retries, factory);
}

std::shared_ptr<Client> make_client(const std::filesystem::path& path, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const auto uri = slate::make_uri("ipc://" + path.string());
    if (!uri) {
        slate::log_error(SLATE_HERE, "failed to create ipc client ( ", path.string(), " ): invalid uri");
        return nullptr;
    }
    return make_client(uri, retries, factory);
}

std::shared_ptr<Client> make_client(unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
{
    const ZmqSubsystem* subsystem = find_subsystem();
    return subsystem ? make_client(relay_zmq_sock(subsystem->settings()), retries, factory) : nullptr;
}
} // namespace tarn
