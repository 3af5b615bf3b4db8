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
/// Something that a server answers for: a name, path patterns, verbs, who may use it, and a handler for each
/// verb. Derive from it and override the handlers; make_int32_route and its like do that for single values.
///
/// A handler fills context.reply, which stands at status 204 with no body. It fails by throwing:
/// MessageException chooses the status, any other std::exception gives 500, and the text becomes the reply's
/// status message.
///
/// Threads: accept() and is_access_allowed() run on several threads at once; on one server, the
/// handlers of one route never do, but those of different routes may. A route that was added to two servers
/// runs on both at once. No lock of the library is held in a handler but the route's own, so
/// it may add and delete routes.
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

    /// The concrete paths of this route, as far as its patterns have a path that needs no variables.
    virtual std::vector<std::string> complete_patterns() const;

    /// Called when the route is added to a server, with its settings: fills the placeholders of the patterns.
    /// Throws Exception if a setting is missing. For a second server with the same settings it changes
    /// nothing, so a route may go to several.
    virtual void prime(const std::shared_ptr<const slate::Dictionary>& server_settings);

    /// Whether put and post want every chunk of a large body as it comes. If not, which is the default, they
    /// are called once, with the whole body.
    virtual bool supports_chunked_transfer() const;

    /// By default, get() without the body and with the header "Content-Length".
    virtual void head(Context& context) const;
    /// The others throw MessageException with status 501 by default.
    virtual void get(Context& context) const;
    virtual void put(Context& context);
    virtual void post(Context& context);
    virtual void del(Context& context);

    /// Whether this route takes the request by access and path; the verb plays no part. If so, context.params
    /// holds the path's variables and, weaker than these, the query parameters, decoded, and, stronger, the
    /// headers. Allocates nothing until a pattern has matched.
    bool accept(Context& context) const;

    /// A private route answers the process that serves it only. While debug logging is on, it answers
    /// everybody.
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
    /// Where the route logs and counts, named after it.
    std::shared_ptr<slate::Provider> provider;
    /// What prime() was given last, or null.
    std::shared_ptr<const slate::Dictionary> settings;
    /// "accept": the requests that this route took.
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
