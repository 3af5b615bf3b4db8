// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "tarn/proto/routing.pb.h"
#include "tarn/route.h"

namespace tarn {
/// Renders a list of routes in the format that a request wants.
class IndexRouteBase : public Route {
public:
    using Route::Route;

    /// JSON, protobuf (for `Proto` and `Bin`) or text for people, whichever the request wants most; text if
    /// it wants none of them. Each line of the text has access, methods and pattern, ordered by pattern.
    static void render(Context& context, RoutingDetails details);
};

/// What every server answers at "/index": its own routes, private ones included.
///
/// With the parameter or header "complete" set to true, whatever its case, patterns are replaced by paths
/// that need no variables, and those that have none are left out.
///
/// Threads: init() may run beside get().
class IndexRoute : public IndexRouteBase {
public:
    IndexRoute();

    void init(std::vector<std::shared_ptr<const Route>> server_routes);
    void get(Context& context) const override;

    /// Weak, so that the index keeps no route alive.
    std::vector<std::weak_ptr<const Route>> routes;

private:
    std::vector<std::weak_ptr<const Route>> listed_routes() const;

    mutable std::mutex mutex_; // guards routes: a server adds routes while another thread may answer "/index"
};
} // namespace tarn
