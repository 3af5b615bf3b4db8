// SPDX-License-Identifier: Apache-2.0
#include "tarn/raw/raw_client.h"

#include <atomic>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
class RawClientImpl : public RawClient {
public:
    RawClientImpl(const std::shared_ptr<zmq::context_t>& context,
                  const std::shared_ptr<const slate::Uri>& uri, unsigned int retries,
                  const std::shared_ptr<MessageFactory>& factory)
        : cycle_("zmq.raw_client", instance++, context, uri, retries, factory)
    {
    }

    std::shared_ptr<const slate::Uri> url() const override { return cycle_.uri(); }

    Status visit(Message& message, const slate::Duration& timeout) override
    {
        const auto reply = cycle_.read_reply(message, timeout);
        if (reply->good())
            message.CopyFrom(*reply->message);
        return reply->status();
    }

private:
    static std::atomic<int> instance;

    tarn_internal::RequestCycle cycle_; // locks itself
};

std::atomic<int> RawClientImpl::instance{0};
} // namespace

std::shared_ptr<RawClient> make_raw_client(const std::shared_ptr<const slate::Uri>& uri, unsigned int retries,
                                           const std::shared_ptr<MessageFactory>& factory)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot make_raw_client, tarn not / no longer initialized");
        return nullptr;
    }
    if (!uri) {
        slate::log_error(SLATE_HERE, "cannot make_raw_client, no endpoint given");
        return nullptr;
    }
    return std::make_shared<RawClientImpl>(subsystem->ctx(), uri, retries, factory);
}

std::shared_ptr<RawClient> make_raw_client(const std::filesystem::path& path, unsigned int retries,
                                           const std::shared_ptr<MessageFactory>& factory)
{
    const auto uri = slate::make_uri("ipc://" + path.string());
    if (!uri) {
        slate::log_error(SLATE_HERE, "failed to create raw ipc client ( ", path.string(), " ): invalid uri");
        return nullptr;
    }
    return make_raw_client(uri, retries, factory);
}
} // namespace tarn
