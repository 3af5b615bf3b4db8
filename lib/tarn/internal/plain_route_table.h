// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tarn/internal/route_table.h"
#include "tarn/routes/index_route.h"

namespace tarn_internal {
/// The routes of a server whose handlers all run on one thread, so that they need no lock of their own.
/// Any thread; no lock is held while a handler runs.
class PlainRouteTable : public RouteTable {
public:
    /// `on_change` is called at the end of each add and del, with the lock held; it must not call back.
    PlainRouteTable(std::shared_ptr<const slate::Dictionary> settings,
                    std::shared_ptr<slate::Provider> provider, std::function<void()> on_change);

    void invoke(Context& context, const Handler& handler) override;
    bool invoke(Context& context) override;
    std::set<std::string> topics() const override;

    bool add(const std::shared_ptr<Route>& route);
    void del(const std::string& name);
    /// Doesn't call `on_change`: subscriptions stay as they were until the next add or del.
    void clear();

private:
    void update_index();

    const std::shared_ptr<const slate::Dictionary> settings_;
    const std::shared_ptr<slate::Provider> provider_;
    const std::function<void()> on_change_;
    const std::shared_ptr<IndexRoute> index_route_;
    mutable std::mutex mutex_; // guards routes_, and keeps on_change_ to one thread at a time
    std::vector<std::shared_ptr<Route>> routes_;
};
} // namespace tarn_internal
