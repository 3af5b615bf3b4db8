// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/plain_route_table.h"

#include <algorithm>
#include <utility>

#include "slate/log.h"
#include "slate/provider.h"

namespace tarn_internal {
PlainRouteTable::PlainRouteTable(std::shared_ptr<const slate::Dictionary> settings,
                                 std::shared_ptr<slate::Provider> provider, std::function<void()> on_change)
    : settings_(std::move(settings)),
      provider_(std::move(provider)),
      on_change_(std::move(on_change)),
      index_route_(std::make_shared<IndexRoute>()),
      routes_{index_route_}
{
}

void PlainRouteTable::invoke(Context& context, const Handler& handler)
{
    std::shared_ptr<Route> accepting;
    {
        const std::lock_guard lock(mutex_);
        const auto found = std::find_if(routes_.begin(), routes_.end(),
                                        [&](const auto& route) { return route->accept(context); });
        if (found == routes_.end())
            return;
        accepting = *found;
    }
    handler(accepting);
}

bool PlainRouteTable::invoke(Context& context)
{
    std::vector<std::shared_ptr<Route>> accepting;
    {
        const std::lock_guard lock(mutex_);
        std::copy_if(routes_.begin(), routes_.end(), std::back_inserter(accepting),
                     [&](const auto& route) { return route->accept(context); });
    }
    for (const auto& route : accepting)
        apply_change(*route, context);
    return !accepting.empty();
}

std::set<std::string> PlainRouteTable::topics() const
{
    std::set<std::string> topics;
    const std::lock_guard lock(mutex_);
    for (const auto& route : routes_)
        add_topics(*route, topics);
    return topics;
}

bool PlainRouteTable::add(const std::shared_ptr<Route>& route)
{
    if (!route) {
        slate::log_error(provider_, SLATE_HERE, "cannot add route; it is null");
        return false;
    }

    const std::lock_guard lock(mutex_);
    route->prime(settings_);
    if (std::any_of(routes_.begin(), routes_.end(),
                    [&](const auto& present) { return present->name == route->name; })) {
        slate::log_error(provider_, SLATE_HERE, "cannot add route; duplicate name: ", route->name);
        return false;
    }
    slate::log_debug(provider_, SLATE_HERE, "add route: ", route->name);
    routes_.push_back(route);
    update_index();
    on_change_();
    return true;
}

void PlainRouteTable::del(const std::string& name)
{
    // Outlives the lock, as it may be the last one to hold the route.
    std::shared_ptr<Route> deleted;

    const std::lock_guard lock(mutex_);
    const auto found =
        std::find_if(routes_.begin(), routes_.end(), [&](const auto& route) { return route->name == name; });
    if (found != routes_.end()) {
        slate::log_debug(provider_, SLATE_HERE, "del route: ", name);
        deleted = *found;
        routes_.erase(found);
    }
    update_index();
    on_change_();
}

void PlainRouteTable::clear()
{
    std::vector<std::shared_ptr<Route>> deleted{index_route_};

    const std::lock_guard lock(mutex_);
    routes_.swap(deleted);
    update_index();
}

void PlainRouteTable::update_index()
{
    index_route_->init({routes_.begin(), routes_.end()});
}
} // namespace tarn_internal
