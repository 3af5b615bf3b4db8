// SPDX-License-Identifier: Apache-2.0
#include "tarn/route.h"

#include <algorithm>

#include "slate/encoding.h"
#include "slate/log.h"
#include "slate/provider.h"
#include "slate/strings.h"
#include "tarn/server.h"
#include "tarn/zmq_subsystem.h"

namespace tarn {
namespace {
/// Path variables win over query parameters, of which the first of a name counts; headers overwrite both.
void merge_params_and_headers(slate::Dictionary& variables, const Message& message)
{
    const Head* head = find_head(message);
    if (!head) {
        slate::log_error(SLATE_HERE, "tarn merge_hdrs_params unknown msg type: ", to_string(message));
        return;
    }
    for (const KeyValue& param : head->params()) {
        if (!variables.has(param.key()))
            variables.set(param.key(), std::string_view(slate::decode_uri_component(param.value(), true)));
    }
    for (const KeyValue& header : head->headers())
        variables.set(header.key(), std::string_view(header.value()));
}

[[noreturn]] void throw_not_implemented(const std::shared_ptr<slate::Provider>& provider,
                                        slate::SourceLine line, std::string_view method)
{
    throw MessageException(Status::NotImplemented,
                           slate::trace_error(provider, line, method, " method not implemented"));
}
} // namespace

// The public constructors delegate here: if they throw then, the destructor runs and removes the provider.
Route::Route(const std::string& route_name, Access route_access)
    : name(route_name),
      access(route_access),
      provider(slate::add_provider("route", route_name, true)),
      accept_count(
          provider->add_counter("accept", slate::Rational<int>(0, 1), "", slate::CounterPolicy::Cumulative))
{
}

Route::Route(const std::string& route_name, const std::string& methods, Access route_access)
    : Route(route_name, route_access)
{
    add_methods(methods);
}

Route::Route(const std::string& route_name, const std::string& methods, const RoutePattern& route_pattern,
             Access route_access)
    : Route(route_name, methods, route_access)
{
    patterns.push_back(route_pattern);
}

Route::Route(const std::string& route_name, const std::string& methods,
             const std::vector<RoutePattern>& route_patterns, Access route_access)
    : Route(route_name, methods, route_access)
{
    patterns = route_patterns;
}

Route::~Route()
{
    slate::remove_provider(provider->name());
}

void Route::add_methods(const std::string& methods)
{
    for (const std::string& word : slate::split<std::vector<std::string>>(methods, ",", true, true)) {
        if (word == "get")
            accepts_get = accepts_head = true;
        else if (word == "head")
            accepts_head = true;
        else if (word == "put")
            accepts_put = true;
        else if (word == "post")
            accepts_post = true;
        else if (word == "del" || word == "delete")
            accepts_del = true;
        else
            throw Exception(
                slate::trace_error(provider, SLATE_HERE, "route[", name, "] unknown method: ", word));
    }
}

std::vector<std::string> Route::complete_patterns() const
{
    std::vector<std::string> paths;
    for (const RoutePattern& candidate : patterns) {
        if (auto path = candidate.default_pattern())
            paths.push_back(std::move(*path));
        else
            slate::log_debug(SLATE_HERE, "no completion for pattern: ", candidate.pattern);
    }
    return paths;
}

void Route::prime(const std::shared_ptr<const slate::Dictionary>& server_settings)
{
    // Written only if it changes: a route that is added to a second server is in use on the first.
    if (settings != server_settings)
        settings = server_settings;
    for (RoutePattern& candidate : patterns)
        candidate.prime(server_settings);
}

bool Route::supports_chunked_transfer() const
{
    return false;
}

void Route::head(Context& context) const
{
    if (context.request.message) {
        auto get_request = std::make_shared<Message>();
        *get_request->mutable_get()->mutable_head() = context.request.head();
        context.request.message = std::move(get_request);
    }
    get(context);

    // Taken before the body is removed. data() throws for a reply without any body, which has no length.
    const auto length = context.reply.data().size();
    context.reply.set_header("Content-Length", std::to_string(length));
    context.reply.message->mutable_response()->clear_body();
}

void Route::get(Context&) const
{
    throw_not_implemented(provider, SLATE_HERE, "get/head");
}

void Route::put(Context&)
{
    throw_not_implemented(provider, SLATE_HERE, "put");
}

void Route::post(Context&)
{
    throw_not_implemented(provider, SLATE_HERE, "post");
}

void Route::del(Context&)
{
    throw_not_implemented(provider, SLATE_HERE, "del");
}

bool Route::accept(Context& context) const
{
    if (!context.request.message || !is_access_allowed(context))
        return false;

    // The path is compared in place, without a copy: most routes of a server don't match.
    const Message& message = *context.request.message;
    const Head* head = find_head(message);
    const std::string unknown = head ? std::string() : context.request.path();
    const std::string& path = head ? head->path() : unknown;
    const auto matching =
        std::find_if(patterns.begin(), patterns.end(), [&](const RoutePattern& p) { return p.match(path); });
    if (matching == patterns.end())
        return false;

    context.variables = matching->variables_of(path);
    auto params = matching->parse(path, context.variables);
    merge_params_and_headers(*params, message);
    context.params = std::move(params);
    accept_count->increment();
    return true;
}

bool Route::is_access_allowed(const Context& context) const
{
    if (access == Access::Public)
        return true;
    // Deliberate: while debug lines are logged, private routes are open to developers (docs/security.md).
    if (slate::is_logging_allowed(slate::DebugLevel))
        return true;
    try {
        const Head& head = context.request.head();
        return head.has_from() && head.from().pid() == context.pid;
    }
    catch (const Exception&) {
        slate::log_warn(SLATE_HERE, "is_access_allowed: bad request");
        return false;
    }
}

std::string add_route(const std::shared_ptr<Route>& route)
{
    std::string name = route ? route->name : std::string();
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem)
        throw Exception(slate::trace_error(SLATE_HERE, "cannot add route: ", name, "; tarn not initialized"));
    for (const auto& server : subsystem->servers()) {
        if (server)
            server->add(route);
    }
    return name;
}

void del_route(const std::string& name)
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_warn(SLATE_HERE, "cannot del route: ", name, "; tarn not / no longer initialized");
        return;
    }
    for (const auto& server : subsystem->servers()) {
        if (server)
            server->del(name);
    }
}

void clear_routes()
{
    const ZmqSubsystem* subsystem = ZmqSubsystem::self();
    if (!subsystem) {
        slate::log_warn(SLATE_HERE, "cannot clear_routes; tarn not / no longer initialized");
        return;
    }
    for (const auto& server : subsystem->servers()) {
        if (server)
            server->clear();
    }
}
} // namespace tarn
