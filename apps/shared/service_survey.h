// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <tarn/proto/routing.pb.h>
#include <tarn/tarn.h>

namespace services {
/// One service of a fabric, as it has shown itself.
struct Service {
    std::string name;        ///< as it stands in paths, such as "clock" or "clock/2"
    tarn::Endpoint endpoint; ///< null if no endpoint can have its name
    bool answers = false;
    std::string problem; ///< why it doesn't answer or, if it does, why its routes aren't known; else empty
    std::optional<int> pid;
    std::string process_name; ///< such as "tarnd"; empty if it isn't known
    double milliseconds = 0;  ///< how long its answer took
    tarn::RoutingDetails routes;
};

/// Asks a server for its index. Needs a ZmqSubsystem, as look_at_all does.
Service look_at(const std::string& name, const tarn::Endpoint& endpoint, const slate::Duration& timeout);

/// The services of these names, asked side by side so that silent ones don't add up. After `time_for_all`
/// those that weren't asked yet are left out, and `problem` says so.
std::vector<Service> look_at_all(const tarn::Fabric& fabric, const std::vector<std::string>& names,
                                 const slate::Duration& time_for_one, const slate::Duration& time_for_all);

/// "GET,PUT".
std::string methods_text(const tarn::RoutingDetail& route);
} // namespace services
