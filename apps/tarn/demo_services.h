// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tarn {
class Publisher;
class Route;
} // namespace tarn

namespace tarn_command {
/// A clock: "/time" now, and "/zone" to read and set. Publishes the time as "/clock/time", and a new zone as
/// "/clock/zone". Any thread.
class DemoClock {
public:
    /// Nothing is published before.
    void set_publisher(const std::shared_ptr<tarn::Publisher>& publisher);
    void publish_time();

    /// Its routes use it to their end.
    std::vector<std::shared_ptr<tarn::Route>> make_routes();

private:
    std::string time() const;
    void set_zone(const std::string& zone);

    mutable std::mutex mutex_; // guards both below
    std::string zone_ = "local";
    std::shared_ptr<tarn::Publisher> publisher_;
};

/// The state of this machine: "/load/(:minutes=1)", "/uptime" and "/memory".
std::vector<std::shared_ptr<tarn::Route>> make_machine_routes();
} // namespace tarn_command
