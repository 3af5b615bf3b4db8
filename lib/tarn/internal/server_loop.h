// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <memory>

#include "slate/log.h"
#include "slate/provider.h"

namespace tarn_internal {
/// The life of a server's thread: runs passes until one says false. A failure is logged and counted, and ends
/// that pass only, so that the thread never dies of one.
template <class Pass>
void run_passes(const std::shared_ptr<slate::Provider>& provider, slate::Counter& err, Pass pass)
{
    bool running = true;
    while (running) {
        try {
            running = pass();
        }
        catch (const std::exception& error) {
            slate::log_error(provider, SLATE_HERE, error.what());
            err.increment();
        }
    }
}
} // namespace tarn_internal
