// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/runtime.h"

#include "slate/log.h"
#include "tarn/zmq_subsystem.h"

namespace tarn_internal {
std::optional<Runtime> find_runtime(std::string_view function)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_error(SLATE_HERE, "cannot ", function, ", tarn not / no longer initialized");
        return std::nullopt;
    }
    return Runtime{subsystem->ctx(), subsystem->settings()};
}
} // namespace tarn_internal
