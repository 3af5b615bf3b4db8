// SPDX-License-Identifier: Apache-2.0
#include "tarn/internal/route_list.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "slate/log.h"
#include "slate/provider.h"
#include "tarn/internal/server/route_warnings.h"
#include "tarn/internal/utils/parse.h"
#include "tarn/proto/message.pb.h"

namespace tarn_internal {
namespace {
/// Calls put() or del() for a published change; nothing for any other message. The route's verbs play no
/// part.
void apply_change(Route& route, Context& context)
{
    if (context.request.message->has_put())
        route.put(context);
    else if (context.request.message->has_del())
        route.del(context);
}
} // namespace

RouteList::RouteList(const std::vector<Endpoint>& uris, std::shared_ptr<const slate::Dictionary> settings,
                     std::shared_ptr<slate::Provider> provider, const std::function<void()>& on_add,
                     const std::function<void()>& on_del)
    : uris_(uris),
      settings_(std::move(settings)),
      provider_(std::move(provider)),
      on_add_(on_add),
      on_del_(on_del),
      index_route_(std::make_shared<IndexRoute>()),
      routes_{std::make_shared<LockableRoute>(index_route_)}
{
}

void RouteList::invoke(Context& context, const Handler& handler)
{
    Entry accepting;
    {
        const auto lock = lock_for_lookup();
        const auto found = std::find_if(routes_.begin(), routes_.end(),
                                        [&](const Entry& entry) { return entry->route->accept(context); });
        if (found == routes_.end())
            return;
        accepting = *found;
    }
    const std::lock_guard lock(accepting->mutex);
    handler(accepting->route);
}

bool RouteList::invoke(Context& context)
{
    std::vector<Entry> accepting;
    {
        const auto lock = lock_for_lookup();
        std::copy_if(routes_.begin(), routes_.end(), std::back_inserter(accepting),
                     [&](const Entry& entry) { return entry->route->accept(context); });
    }
    for (const Entry& entry : accepting) {
        const std::lock_guard lock(entry->mutex);
        apply_change(*entry->route, context);
    }
    return !accepting.empty();
}

std::set<std::string> RouteList::topics() const
{
    std::set<std::string> topics;
    const auto lock = lock_for_lookup();
    for (const Entry& entry : routes_) {
        for (const RoutePattern& pattern : entry->route->patterns)
            topics.insert(to_topic(pattern.pattern));
    }
    return topics;
}

bool RouteList::add(const std::shared_ptr<Route>& route)
{
    if (!route) {
        slate::log_error(provider_, SLATE_HERE, "cannot add route; it is null");
        return false;
    }

    const ChangeLock lock(*this);
    const std::vector<std::string> without_slash = patterns_without_slash(*route);
    route->prime(settings_);
    if (std::any_of(routes_.begin(), routes_.end(),
                    [&](const Entry& entry) { return entry->route->name == route->name; })) {
        slate::log_error(provider_, SLATE_HERE, "cannot add route; duplicate name: ", route->name);
        return false;
    }
    slate::log_debug(provider_, SLATE_HERE, "add route: ", route->name);
    for (const std::string& sentence : find_oversights(*route, without_slash))
        slate::log_warn(provider_, SLATE_HERE, "route [", route->name, "]: ", sentence);
    routes_.push_back(std::make_shared<LockableRoute>(route));
    update_index(on_add_);
    return true;
}

void RouteList::del(const std::string& name)
{
    Entry deleted; // outlives the lock, as it may be the last owner of the route

    const ChangeLock lock(*this);
    const auto found = std::find_if(routes_.begin(), routes_.end(),
                                    [&](const Entry& entry) { return entry->route->name == name; });
    if (found != routes_.end()) {
        slate::log_debug(provider_, SLATE_HERE, "del route: ", name);
        deleted = *found;
        routes_.erase(found);
    }
    update_index(on_del_);
}

void RouteList::clear()
{
    std::vector<Entry> deleted{std::make_shared<LockableRoute>(index_route_)};

    const ChangeLock lock(*this);
    routes_.swap(deleted);
    update_index([] {});
}

std::vector<std::shared_ptr<const Route>> RouteList::routes() const
{
    std::vector<std::shared_ptr<const Route>> result;
    for (const Entry& entry : routes_)
        result.push_back(entry->route);
    return result;
}

std::shared_lock<std::shared_mutex> RouteList::lock_for_lookup() const
{
    const std::lock_guard pass(gate_);
    return std::shared_lock(lock_);
}

/// Gives the index the current list and calls `then`, while no handler of the index can run.
void RouteList::update_index(const std::function<void()>& then)
{
    const auto index = std::find_if(routes_.begin(), routes_.end(),
                                    [&](const Entry& entry) { return entry->route == index_route_; });
    std::unique_lock<std::mutex> lock;
    if (index != routes_.end())
        lock = std::unique_lock((*index)->mutex);
    index_route_->init(routes());
    then();
}
} // namespace tarn_internal
