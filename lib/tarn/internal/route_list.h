// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

#include "tarn/route.h"
#include "tarn/routes/index_route.h"
#include "tarn/types.h"

namespace tarn_internal {
/// The routes of one server, in order of adding and with the index first, unique by name. Lookups run side by
/// side, and so do the handlers of different routes, while the handlers of one route run one at a time.
///
/// Locks: `lock_` for the list, then a route's mutex. While a handler runs, only its route's mutex is held,
/// so it may add, delete and clear routes, its own included. A change of the list also locks the index
/// route's entry, if it is still there, because the index reads the list.
class RouteList {
public:
    using Handler = std::function<void(const std::shared_ptr<Route>&)>;

    /// `on_add` and `on_del` are called at the end of add and del, with the locks held; they must not call
    /// back.
    RouteList(const std::vector<Endpoint>& uris, std::shared_ptr<const slate::Dictionary> settings,
              std::shared_ptr<slate::Provider> provider, const std::function<void()>& on_add,
              const std::function<void()>& on_del);

    /// Calls `handler` with the first route that accepts the request, if one does. An empty `handler` then
    /// throws std::bad_function_call.
    void invoke(Context& context, const Handler& handler);

    /// Hands a published change to put() or del() of every route that accepts it, in order. False if none
    /// does. All handlers see the parameters of the last route that accepted.
    bool invoke(Context& context);

    /// The topics of all patterns: what a server has to subscribe to.
    std::set<std::string> topics() const;

    /// False, with an error in the log, for a name that is in use and for null.
    bool add(const std::shared_ptr<Route>& route);
    void del(const std::string& name);
    /// Calls neither `on_add` nor `on_del`: subscriptions stay as they were until the next add or del.
    void clear();

    /// Takes no lock: must not run beside add, del or clear.
    std::vector<std::shared_ptr<const Route>> routes() const;

private:
    struct LockableRoute {
        explicit LockableRoute(std::shared_ptr<Route> shared) : route(std::move(shared)) {}

        const std::shared_ptr<Route> route;
        std::mutex mutex; // held while a handler of this route runs
    };
    // Shared, so that an entry outlives its removal while its handler runs.
    using Entry = std::shared_ptr<LockableRoute>;

    /// Held while the list changes: waits for lookups under way, and keeps new ones from starting.
    struct ChangeLock {
        explicit ChangeLock(const RouteList& list) : gate(list.gate_), lock(list.lock_) {}

        const std::lock_guard<std::mutex> gate;
        const std::lock_guard<std::shared_mutex> lock;
    };
    /// For a lookup.
    std::shared_lock<std::shared_mutex> lock_for_lookup() const;
    void update_index(const std::function<void()>& then);

    // Changes hold the gate while they wait for the lock, and lookups pass it: the lock alone prefers
    // lookups, and a change would wait for as long as any of them overlap.
    mutable std::mutex gate_;
    mutable std::shared_mutex lock_; // guards routes_
    const std::vector<Endpoint> uris_;
    const std::shared_ptr<const slate::Dictionary> settings_;
    const std::shared_ptr<slate::Provider> provider_;
    const std::function<void()> on_add_;
    const std::function<void()> on_del_;
    const std::shared_ptr<IndexRoute> index_route_;
    std::vector<Entry> routes_;
};
} // namespace tarn_internal
