// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "slate/provider.h"

namespace tarn_internal {
/// The counters on a server's provider.
struct ServerCounters {
    /// "rx" and "tx" exist only for a server with endpoints; their pointers are null otherwise.
    ServerCounters(slate::Provider& provider, bool has_endpoints);

    /// Requests and published changes that failed, and replies that could not be sent.
    std::shared_ptr<slate::Counter> err;
    /// Published changes received, and those of them that no route accepted.
    std::shared_ptr<slate::Counter> sub;
    std::shared_ptr<slate::Counter> dropped;
    /// Requests received, and replies sent.
    std::shared_ptr<slate::Counter> rx;
    std::shared_ptr<slate::Counter> tx;
};
} // namespace tarn_internal
