// SPDX-License-Identifier: Apache-2.0
#include "tarn/raw/raw_client.h"

#include <atomic>

#include "slate/log.h"
#include "slate/uri.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/endpoint_log.h"

namespace tarn {
namespace {
class RawClientImpl : public RawClient {
public:
    RawClientImpl(const std::shared_ptr<zmq::context_t>& context, const Endpoint& endpoint,
                  unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
        : cycle_("zmq.raw_client", instance++, context, endpoint, retries, factory)
    {
    }

    Endpoint url() const override { return cycle_.uri(); }

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

std::shared_ptr<RawClient> make_raw_client(const Endpoint& endpoint, unsigned int retries,
                                           const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = tarn_internal::find_runtime("make_raw_client");
    if (!runtime)
        return nullptr;
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "cannot make_raw_client, no endpoint given");
        return nullptr;
    }
    tarn_internal::log_endpoint_fault("make_raw_client", endpoint);
    return std::make_shared<RawClientImpl>(runtime->context, endpoint, retries, factory);
}

std::shared_ptr<RawClient> make_raw_client(const std::filesystem::path& path, unsigned int retries,
                                           const std::shared_ptr<MessageFactory>& factory)
{
    const auto endpoint = slate::make_uri("ipc://" + path.string());
    if (!endpoint) {
        tarn_internal::log_endpoint_fault("make_raw_client", "ipc://" + path.string());
        slate::log_error(SLATE_HERE, "failed to create raw ipc client ( ", path.string(), " ): invalid uri");
        return nullptr;
    }
    return make_raw_client(endpoint, retries, factory);
}
} // namespace tarn
