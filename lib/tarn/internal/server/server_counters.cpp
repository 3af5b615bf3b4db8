// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/server/server_counters.h"

namespace tarn_internal {
ServerCounters::ServerCounters(slate::Provider& provider, bool has_endpoints)
{
    const slate::Rational<int> zero(0, 1);
    const auto policy = slate::CounterPolicy::Cumulative;

    err = provider.add_error_counter("err", zero, "", policy);
    sub = provider.add_counter("sub", zero, "", policy);
    dropped = provider.add_warning_counter("dropped", zero, "", policy);
    if (has_endpoints) {
        rx = provider.add_counter("rx", zero, "", policy);
        tx = provider.add_counter("tx", zero, "", policy);
    }
}
} // namespace tarn_internal
