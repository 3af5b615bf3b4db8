// SPDX-License-Identifier: Apache-2.0
#include "tarn/server.h"

#include <atomic>

#include "slate/log.h"
#include "tarn/internal/multi_threaded_server.h"
#include "tarn/internal/single_threaded_server.h"

namespace tarn {
std::shared_ptr<Server> make_server(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(1, settings, endpoints, relay_out, factory);
}

std::shared_ptr<Server> make_server(unsigned long workers,
                                    const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(workers, settings, endpoints, relay_out, factory, {});
}

std::shared_ptr<Server> make_server(unsigned long workers,
                                    const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory,
                                    const std::vector<std::shared_ptr<Route>>& routes)
{
    static std::atomic<int> instances{0};
    const int id = instances++;
    const auto messages = factory ? factory : make_message_factory();

    if (workers == 0) // only a warning: make_multi_threaded_server refuses it
        slate::log_warn(SLATE_HERE, "make_server, invalid worker count specified: ", "0");
    // Without an endpoint there is nothing for workers to do.
    if (workers == 1 || endpoints.empty())
        return tarn_internal::make_single_threaded_server(id, settings, endpoints, relay_out, messages,
                                                          routes);
    return tarn_internal::make_multi_threaded_server(id, workers, settings, endpoints, relay_out, messages,
                                                     routes);
}

std::shared_ptr<Server> make_subscriber(const std::shared_ptr<const slate::Dictionary>& settings,
                                        const Endpoint& relay_out,
                                        const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(settings, {}, relay_out, factory);
}
} // namespace tarn
