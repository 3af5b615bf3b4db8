// SPDX-License-Identifier: Apache-2.0
#include "tarn/router.h"

#include "slate/log.h"
#include "tarn/internal/router/router_impl.h"
#include "tarn/internal/transport/bind_endpoints.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
std::shared_ptr<Router> make_router(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
                                    const std::shared_ptr<const slate::Uri>& sub_uri,
                                    const std::shared_ptr<MessageFactory>& factory,
                                    const std::filesystem::path& run_time_directory)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot make_router, tarn not / no longer initialized");
        return nullptr;
    }
    if (!tarn_internal::are_endpoints(uris, "make_router"))
        return nullptr;
    if (run_time_directory.empty()) {
        slate::log_error(SLATE_HERE, "cannot make_router, no run-time directory given");
        return nullptr;
    }
    return std::make_shared<tarn_internal::RouterImpl>(subsystem->ctx(), settings, uris, sub_uri,
                                                       factory ? factory : make_message_factory(),
                                                       run_time_directory);
}
} // namespace tarn
