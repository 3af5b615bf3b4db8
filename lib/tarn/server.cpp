// SPDX-License-Identifier: Apache-2.0
#include "tarn/server.h"

#include <atomic>

#include "tarn/internal/single_threaded_server.h"

namespace tarn {
std::shared_ptr<Server> make_server(const std::shared_ptr<const slate::Dictionary>& settings,
                                    const std::vector<std::shared_ptr<const slate::Uri>>& uris,
                                    const std::shared_ptr<const slate::Uri>& pub,
                                    const std::shared_ptr<MessageFactory>& factory)
{
    static std::atomic<int> instances{0};
    return tarn_internal::make_single_threaded_server(instances++, settings, uris, pub, factory);
}

std::shared_ptr<Server> make_subscriber(const std::shared_ptr<const slate::Dictionary>& settings,
                                        const std::shared_ptr<const slate::Uri>& pub,
                                        const std::shared_ptr<MessageFactory>& factory)
{
    return make_server(settings, {}, pub, factory);
}
} // namespace tarn
