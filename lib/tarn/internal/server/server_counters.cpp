// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/server_counters.h"

#include "tarn/internal/utils/counters.h"

namespace tarn_internal {
ServerCounters::ServerCounters(slate::Provider& provider, bool has_endpoints)
{
    err = add_error_counter(provider, "err");
    sub = add_counter(provider, "sub");
    dropped = add_warning_counter(provider, "dropped");
    if (has_endpoints) {
        rx = add_counter(provider, "rx");
        tx = add_counter(provider, "tx");
    }
}
} // namespace tarn_internal
