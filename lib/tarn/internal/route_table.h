// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>

#include "tarn/route.h"

namespace tarn_internal {
/// The routes of one server, in order of adding and with the index first, unique by name.
class RouteTable {
public:
    using Handler = std::function<void(const std::shared_ptr<Route>&)>;

    virtual ~RouteTable() = default;

    /// Calls `handler` with the first route that accepts the request, if one does.
    virtual void invoke(Context& context, const Handler& handler) = 0;

    /// Hands a published change to put() or del() of every route that accepts it, in order. False if none
    /// does.
    virtual bool invoke(Context& context) = 0;

    /// The topics of all patterns: what a server has to subscribe to.
    virtual std::set<std::string> topics() const = 0;
};

/// Calls put() or del() for a published change; nothing for any other message.
void apply_change(Route& route, Context& context);

/// Adds the topics of a route's patterns.
void add_topics(const Route& route, std::set<std::string>& topics);
} // namespace tarn_internal
