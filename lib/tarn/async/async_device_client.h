// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>

#include "tarn/async/async_client.h"

namespace tarn_internal {
class IoThread;

/// Makes an asynchronous client of all services in the run-time directory of `options`; `router` may be null.
/// Null if the runtime has ended.
std::shared_ptr<AsyncClient> make_async_device_client(const std::shared_ptr<IoThread>& io,
                                                      const Endpoint& router,
                                                      const AsyncClientOptions& options);
} // namespace tarn_internal
