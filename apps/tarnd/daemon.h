// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <vector>

#include <tarn/tarn.h>

#include "options.h"
#include "run_time_directory.h"

/// The router, the relay and its statistics in one process. They serve from the construction to the
/// destruction.
class Daemon {
public:
    /// Returns when everything answers. Throws std::runtime_error, whose text says what stands in the way and
    /// what to do; also zmq::error_t for a socket of the relay.
    explicit Daemon(const Options& options);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    /// Whether the router answers a request within that time, or the relay's statistics without a router.
    /// Any thread.
    bool answers(std::chrono::microseconds time) const;

private:
    class SocketFiles;

    /// Asks at an endpoint of this process, and no other may answer.
    static bool answers_at(const tarn::Endpoint& endpoint, const slate::Duration& time);

    const tarn::Fabric fabric_;
    const std::vector<tarn::Endpoint> router_endpoints_; // empty without a router
    const std::vector<tarn::Endpoint> relay_endpoints_;  // empty without a relay
    std::vector<std::unique_ptr<run_time_directory::Lock>> locks_;
    std::unique_ptr<SocketFiles> router_files_; // ends after the router, and before another may serve there
    std::unique_ptr<tarn::ZmqSubsystem> subsystem_;
    std::shared_ptr<tarn::Relay> relay_;
    std::shared_ptr<tarn::Server> relay_stats_;
    std::shared_ptr<tarn::Router> router_;
};
