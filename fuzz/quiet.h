// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "slate/log.h"

namespace tarn_fuzz {
/// Drops all log lines, from the first call on: most inputs are refused, and each refusal is a line. The
/// lines are still composed.
inline void quiet_log()
{
    [[maybe_unused]] static const bool quiet = [] {
        slate::set_log_sinks({});
        return true;
    }();
}
} // namespace tarn_fuzz
