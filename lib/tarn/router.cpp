// SPDX-License-Identifier: Apache-2.0
#include "tarn/router.h"

#include "slate/log.h"
#include "tarn/internal/router/router_impl.h"
#include "tarn/internal/runtime.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    return make_router(settings, endpoints, relay_out, factory, run_time_directory(settings));
}

std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory,
                                    const std::filesystem::path& run_time_directory)
{
    return make_router(settings, endpoints, relay_out, factory, run_time_directory, {});
}

std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory,
                                    const std::filesystem::path& run_time_directory,
                                    const std::vector<std::shared_ptr<Route>>& routes)
{
    return make_router(settings, endpoints, relay_out, factory, run_time_directory, routes, {});
}

std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<Endpoint>& endpoints, const Endpoint& relay_out,
                                    const std::shared_ptr<MessageFactory>& factory,
                                    const std::filesystem::path& run_time_directory,
                                    const std::vector<std::shared_ptr<Route>>& routes,
                                    const UnknownPathText& unknown_path_text)
{
    const auto runtime = tarn_internal::find_runtime("make_router");
    if (!runtime || !tarn_internal::are_endpoints(endpoints, nullptr, "make_router"))
        return nullptr;
    if (run_time_directory.empty()) {
        slate::log_error(SLATE_HERE, "cannot make_router, no run-time directory given");
        return nullptr;
    }
    return std::make_shared<tarn_internal::RouterImpl>(runtime->context, settings, endpoints, relay_out,
                                                       factory ? factory : make_message_factory(),
                                                       run_time_directory, routes, unknown_path_text);
}
} // namespace tarn
