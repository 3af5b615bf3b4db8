// SPDX-License-Identifier: Apache-2.0
#include "tarn/client.h"

#include <utility>

#include "slate/log.h"
#include "slate/strings.h"
#include "slate/uri.h"
#include "tarn/internal/client_base.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/request_cycle.h"
#include "tarn/internal/utils/endpoint_log.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
/// A client of one endpoint.
class ClientImpl : public tarn_internal::ClientBase {
public:
    ClientImpl(const std::shared_ptr<zmq::context_t>& context, const Endpoint& endpoint, unsigned int retries,
               const std::shared_ptr<MessageFactory>& factory)
        : cycle_("zmq.client", tarn_internal::next_client_instance(), context, endpoint, retries, factory)
    {
    }

    Endpoint url() const override { return cycle_.uri(); }

    std::shared_ptr<Reply> send(const Request& request, const slate::Duration& timeout) override
    {
        return request.message ? cycle_.read_reply(*request.message, timeout) : invalid_request();
    }

private:
    std::shared_ptr<Reply> exchange(const std::shared_ptr<Message>& message,
                                    const slate::Duration& timeout) const override
    {
        return cycle_.read_reply(*message, timeout);
    }

    const MessageFactory& factory() const override { return cycle_.factory(); }

    mutable tarn_internal::RequestCycle cycle_; // locks itself
};
} // namespace

std::shared_ptr<Client> make_client(const Endpoint& endpoint, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = tarn_internal::find_runtime("make_client");
    if (!runtime)
        return nullptr;
    if (!endpoint) {
        slate::log_error(SLATE_HERE, "cannot make_client, no endpoint given");
        return nullptr;
    }
    tarn_internal::log_endpoint_fault("make_client", endpoint);
    return std::make_shared<ClientImpl>(runtime->context, endpoint, retries, factory);
}

std::shared_ptr<Client> make_client(unsigned int retries, const std::shared_ptr<MessageFactory>& factory)
{
    const auto runtime = tarn_internal::find_runtime("make_client");
    return runtime ? make_client(relay_zmq_sock(runtime->settings), retries, factory) : nullptr;
}

std::shared_ptr<Client> make_client(const std::filesystem::path& path, unsigned int retries,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    const auto endpoint = slate::make_uri("ipc://" + path.string());
    if (!endpoint) {
        tarn_internal::log_endpoint_fault("make_client", "ipc://" + path.string());
        slate::log_error(SLATE_HERE, "failed to create ipc client ( ", path.string(), " ): invalid uri");
        return nullptr;
    }
    return make_client(endpoint, retries, factory);
}

std::shared_ptr<Client> make_client_at(std::string_view endpoint_or_path, unsigned int retries,
                                       const std::shared_ptr<MessageFactory>& factory)
{
    if (!slate::contains(endpoint_or_path, "://"))
        return make_client(std::filesystem::path(endpoint_or_path), retries, factory);
    const auto endpoint = slate::make_uri(std::string(endpoint_or_path));
    if (!endpoint) {
        tarn_internal::log_endpoint_fault("make_client", endpoint_or_path);
        slate::log_error(SLATE_HERE, "failed to create client ( ", endpoint_or_path, " ): invalid uri");
        return nullptr;
    }
    return make_client(endpoint, retries, factory);
}
} // namespace tarn
