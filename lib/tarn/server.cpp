// SPDX-License-Identifier: Apache-2.0
#include "tarn/server.h"

#include <atomic>

#include "slate/log.h"
#include "tarn/internal/multi_threaded_server.h"
#include "tarn/internal/single_threaded_server.h"

namespace tarn {
std::shared_ptr<Server> make_server(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
                                    const std::shared_ptr<const slate::Uri>& pub,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(1, settings, uris, pub, factory);
}

std::shared_ptr<Server> make_server(unsigned long workers,
                                    const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
                                    const std::shared_ptr<const slate::Uri>& pub,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    static std::atomic<int> instances{0};
    const int id = instances++;

    if (workers == 0) // a warning and not a correction: what follows refuses it
        slate::log_warn(SLATE_HERE, "make_server, invalid worker count specified: ", "0");
    // Without an endpoint there is nothing for workers to do.
    if (workers == 1 || uris.empty())
        return tarn_internal::make_single_threaded_server(id, settings, uris, pub, factory);
    return tarn_internal::make_multi_threaded_server(id, workers, settings, uris, pub, factory);
}

std::shared_ptr<Server> make_subscriber(const std::shared_ptr<const slate::Dictionary>& settings,
                                        const std::shared_ptr<const slate::Uri>& pub,
                                        const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(settings, {}, pub, factory);
}
} // namespace tarn
