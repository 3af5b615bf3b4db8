// SPDX-License-Identifier: Apache-2.0
#include "tarn/routes/index_route.h"

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>

#include "slate/strings.h"

namespace tarn {
namespace {
constexpr std::size_t access_width = 8;
constexpr std::size_t methods_gap = 3;

using Row = std::tuple<std::string, std::string, std::string>; // methods, pattern, access

std::vector<Row> rows_of(const RoutingDetails& details)
{
    std::vector<Row> rows;
    for (const RoutingDetail& detail : details.details()) {
        std::vector<std::string> methods;
        for (const int method : detail.methods())
            methods.push_back(RoutingDetail::Method_Name(static_cast<RoutingDetail::Method>(method)));
        for (const std::string& pattern : detail.patterns())
            rows.emplace_back(slate::to_upper(slate::join(methods, ",")), pattern,
                              slate::to_lower(Access_Name(detail.access())));
    }
    return rows;
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string to_text(const RoutingDetails& details)
{
    auto rows = rows_of(details);
    std::size_t width = 0;
    for (const auto& [methods, pattern, access] : rows)
        width = std::max(width, methods.size());
    width += methods_gap;

    std::sort(rows.begin(), rows.end(),
              [](const Row& a, const Row& b) { return std::get<1>(a) < std::get<1>(b); });
    return slate::join(rows, "\n", [&](const Row& row) {
        const auto& [methods, pattern, access] = row;
        return padded(access, access_width) + padded(methods, width) + "\"" + pattern + "\"";
    });
}

/// The flag "complete", whatever the case of its name: that of a header, or else that of a parameter.
bool wants_complete(const Context& context)
{
    static constexpr std::string_view key = "complete";

    const Head* head = context.request.message ? find_head(*context.request.message) : nullptr;
    if (head) {
        // Of several headers the last one counts, as in the dictionary.
        const auto header =
            std::find_if(head->headers().rbegin(), head->headers().rend(),
                         [](const KeyValue& entry) { return slate::equals_ignoring_case(entry.key(), key); });
        bool flag = false;
        if (header != head->headers().rend())
            return slate::try_parse(header->value(), &flag) && flag;
    }
    if (!context.params)
        return false;
    if (context.params->has(key))
        return context.params->get(key, false);
    for (const std::string& candidate : context.params->keys()) {
        if (slate::equals_ignoring_case(candidate, key))
            return context.params->get(candidate, false);
    }
    return false;
}

RoutingDetail detail_of(const Route& route, bool complete)
{
    RoutingDetail detail;
    detail.set_access(route.access);

    if (route.accepts_head)
        detail.add_methods(RoutingDetail::Head);
    if (route.accepts_get)
        detail.add_methods(RoutingDetail::Get);
    if (route.accepts_put)
        detail.add_methods(RoutingDetail::Put);
    if (route.accepts_post)
        detail.add_methods(RoutingDetail::Post);
    if (route.accepts_del)
        detail.add_methods(RoutingDetail::Del);

    if (complete) {
        for (std::string& path : route.complete_patterns())
            detail.add_patterns(std::move(path));
    }
    else {
        for (const RoutePattern& pattern : route.patterns)
            detail.add_patterns(pattern.pattern);
    }
    return detail;
}
} // namespace

void IndexRouteBase::render(Context& context, RoutingDetails details)
{
    for (const Format format : context.request.formats()) {
        switch (format) {
        case Format::Json:
            context.reply.set_reply_json(details);
            return;
        case Format::Proto:
        case Format::Bin:
            context.reply.set_reply_proto(details, Format::Proto);
            return;
        case Format::Text:
            context.reply.set_reply_text(to_text(details));
            return;
        default:
            break;
        }
    }
    context.reply.set_reply_text(to_text(details));
}

IndexRoute::IndexRoute() : IndexRouteBase("index", "get", RoutePattern("/index"), Access::Public) {}

void IndexRoute::init(std::vector<std::shared_ptr<const Route>> server_routes)
{
    const std::lock_guard lock(mutex_);
    routes.assign(server_routes.begin(), server_routes.end());
}

std::vector<std::weak_ptr<const Route>> IndexRoute::listed_routes() const
{
    const std::lock_guard lock(mutex_);
    return routes;
}

void IndexRoute::get(Context& context) const
{
    const bool complete = wants_complete(context);
    RoutingDetails details;
    for (const auto& entry : listed_routes()) {
        if (const auto route = entry.lock())
            *details.add_details() = detail_of(*route, complete);
    }
    render(context, std::move(details));
}
} // namespace tarn
