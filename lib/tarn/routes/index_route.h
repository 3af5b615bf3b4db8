// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "tarn/proto/routing.pb.h"
#include "tarn/route.h"

namespace tarn {
/// Renders a list of routes in the format that a request prefers.
class IndexRouteBase : public Route {
public:
    using Route::Route;

    /// As JSON, protobuf (for `Proto` and `Bin`) or text, whichever the request prefers; as text if it names
    /// none of them. Each line of the text has access, methods and pattern, sorted by pattern.
    static void render(Context& context, RoutingDetails details);
};

/// The route "/index" of every server: lists the server's routes, private ones included.
///
/// With the parameter or header "complete" set to true, whatever its case, it lists paths that need no
/// variables in place of patterns, and leaves out patterns that have no such path.
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
