// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <memory>

#include <zmq.hpp>

#include "slate/log.h"
#include "slate/provider.h"

namespace tarn_internal {
/// The loop of a server's thread: runs passes until one returns false. An exception is logged and counted,
/// and ends only that pass, so the thread survives it. The end of the ZeroMQ context also ends the loop,
/// because every further pass would fail at once.
template <class Pass>
void run_passes(const std::shared_ptr<slate::Provider>& provider, slate::Counter& err, Pass pass)
{
    const auto report = [&](std::string_view text) {
        slate::log_error(provider, SLATE_HERE, text);
        err.increment();
    };

    bool running = true;
    while (running) {
        try {
            running = pass();
        }
        catch (const zmq::error_t& error) {
            report(error.what());
            running = error.num() != ETERM;
        }
        catch (const std::exception& error) {
            report(error.what());
        }
        catch (...) {
            // A handler may throw any type; that must not end the process.
            report("unknown exception");
        }
    }
}
} // namespace tarn_internal
