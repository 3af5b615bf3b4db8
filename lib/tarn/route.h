// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tarn/context.h"
#include "tarn/exception.h"
#include "tarn/proto/access.pb.h"
#include "tarn/proto/message.pb.h"
#include "tarn/route_pattern.h"

namespace slate {
class Counter;
class Dictionary;
class Provider;
} // namespace slate

namespace tarn {
/// A resource that a server answers for: a name, path patterns, verbs, an access level, and a handler for
/// each verb. Derive from it and override the handlers; make_int32_route and its like do so for single
/// values.
///
/// A handler fills context.reply, which starts with status 204 and no body. It reports failure by throwing:
/// MessageException chooses the status, any other std::exception gives 500, and the text becomes the reply's
/// status message.
///
/// Threads: accept() and is_access_allowed() run on several threads at once. On one server the handlers of
/// one route run one at a time, while those of different routes may run side by side; a route that was added
/// to two servers runs on both at once. A handler holds no lock of the library but its route's own, so it may
/// add and delete routes.
class Route {
public:
    /// `methods` are the verbs that the route takes, separated by ",": "get" (which brings "head" with it),
    /// "head", "put", "post", "del" or "delete". Any other word throws Exception. A route without patterns
    /// accepts nothing.
    Route(const std::string& route_name, const std::string& methods, Access route_access);
    Route(const std::string& route_name, const std::string& methods, const RoutePattern& route_pattern,
          Access route_access);
    Route(const std::string& route_name, const std::string& methods,
          const std::vector<RoutePattern>& route_patterns, Access route_access);
    virtual ~Route();
    Route(const Route&) = delete;
    Route& operator=(const Route&) = delete;

    // Programs are linked against the order of these functions: add new ones at the end.

    /// The concrete paths of this route: one for each pattern that needs no variables.
    virtual std::vector<std::string> complete_patterns() const;

    /// Fills the placeholders of the patterns. A server calls it with its settings when the route is added.
    /// Throws Exception if a setting is missing. A second call with the same settings changes nothing, so a
    /// route may be added to several servers. It runs while the server's list of routes is locked, so it must
    /// not call that server.
    virtual void prime(const std::shared_ptr<const slate::Dictionary>& server_settings);

    /// Whether put and post take each chunk of a large body as it arrives. By default they don't, and are
    /// called once, with the whole body.
    virtual bool supports_chunked_transfer() const;

    /// By default, get() without the body and with the header "Content-Length".
    virtual void head(Context& context) const;
    /// By default the other handlers throw MessageException with status 501.
    virtual void get(Context& context) const;
    virtual void put(Context& context);
    virtual void post(Context& context);
    virtual void del(Context& context);

    /// Whether this route takes the request, by access and path; the verb doesn't matter. If so, fills
    /// context.variables, and context.params with the variables, the decoded query parameters and the
    /// headers; of one name a header wins over a variable, and a variable over a parameter. Allocates nothing
    /// until a pattern has matched.
    bool accept(Context& context) const;

    /// A private route answers only the process that serves it. While debug logging is on, it answers every
    /// process.
    bool is_access_allowed(const Context& context) const;

    /// Unique within a server.
    std::string name;
    /// Tried in this order.
    std::vector<RoutePattern> patterns;
    bool accepts_head = false;
    bool accepts_get = false;
    bool accepts_put = false;
    bool accepts_post = false;
    bool accepts_del = false;
    Access access;
    /// The provider for this route's logs and counters, named after it.
    std::shared_ptr<slate::Provider> provider;
    /// The settings of the last prime(), or null.
    std::shared_ptr<const slate::Dictionary> settings;
    /// "accept": the requests that this route has taken.
    std::shared_ptr<slate::Counter> accept_count;

private:
    Route(const std::string& route_name, Access route_access);
    void add_methods(const std::string& methods);
};

/// Adds a route to every server that was made through ZmqSubsystem, and returns its name. Throws Exception
/// without a ZmqSubsystem.
std::string add_route(const std::shared_ptr<Route>& route);

/// Deletes a route from all these servers, or all routes. Without a ZmqSubsystem they only log a warning.
void del_route(const std::string& name);
void clear_routes();
} // namespace tarn
