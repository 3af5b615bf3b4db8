// SPDX-License-Identifier: Apache-2.0
// Where a request would go, and where it would end.

#include <algorithm>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/route_pattern.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_map.h"
#include "nearest_name.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
struct Way {
    std::string path;
    std::string service;
    tarn::Endpoint endpoint;
    std::string inner_path; ///< as the service sees it
    std::optional<int> pid;
    std::string process_name;
    std::string pattern;
    std::string methods;
    std::string access;
    std::string end;
    int exit_status = ExitGood;
};

void end_way(Way& way, int exit_status, const std::string& text)
{
    way.exit_status = exit_status;
    way.end = text;
}

/// A pattern of another process need not be one that this version knows.
bool matches(const std::string& pattern, const std::string& path)
{
    try {
        return tarn::RoutePattern(pattern).match(path);
    }
    catch (const std::exception&) {
        return false;
    }
}

/// Whether a path is only short of the last variables of a pattern. An index doesn't tell which ones may be
/// missing.
bool may_match(std::string pattern, const std::string& path)
{
    for (auto slash = pattern.rfind('/'); slash != std::string::npos && slash > 0;
         slash = pattern.rfind('/')) {
        if (pattern.find_first_of(":*?(", slash) == std::string::npos)
            return false;
        pattern.erase(slash);
        if (matches(pattern, path))
            return true;
    }
    return false;
}

void note_route(Way& way, const tarn::RoutingDetail& route, const std::string& pattern)
{
    way.pattern = pattern;
    way.methods = services::methods_text(route);
    way.access = slate::to_lower(tarn::Access_Name(route.access()));
}

void find_route(Way& way, const Service& service)
{
    std::vector<std::string> patterns;
    for (const auto& route : service.routes.details()) {
        for (const std::string& pattern : route.patterns()) {
            patterns.push_back(pattern);
            if (!matches(pattern, way.inner_path))
                continue;
            note_route(way, route, pattern);
            if (route.access() == tarn::Access::Private)
                end_way(way, ExitClientError,
                        "at the service with 404: the route is private, so it answers its own process only");
            else
                end_way(way, ExitGood, "at that route; other verbs get 405");
            return;
        }
    }
    for (const auto& route : service.routes.details()) {
        for (const std::string& pattern : route.patterns()) {
            if (!may_match(pattern, way.inner_path))
                continue;
            note_route(way, route, pattern);
            end_way(way, ExitGood,
                    "at that route if its last variable may be missing, else with 404; `tarn head " +
                        escape(way.path) + "` tells");
            return;
        }
    }
    const std::string near = find_nearest(way.inner_path, patterns);
    end_way(way, ExitClientError,
            "at the service with 404: no route takes '" + brief(way.inner_path) + "'" +
                (near.empty() ? "; `tarn index " + escape(way.service) + "` lists them"
                              : "; the nearest is '" + escape(near) + "'"));
}

/// Asks the service for its routes, and looks for one that takes the path.
void ask_service(Way& way, const slate::Duration& timeout)
{
    const auto service = services::look_at(way.service, way.endpoint, timeout);
    way.pid = service.pid;
    way.process_name = service.process_name;
    if (service.problem.empty())
        find_route(way, service);
    else if (service.pid)
        end_way(way, ExitTimeout,
                "at the service: " + escape(service.problem) + "; look at process " +
                    std::to_string(*service.pid));
    else
        end_way(way, ExitTimeout,
                "before the service with 408: " + escape(service.problem) + "; " +
                    advice(service.problem, way.endpoint));
}

/// By the rule of the router: the first segment is a directory's name, and a number behind it another one.
/// What has no directory is the router's own.
Way find_way(const tarn::Fabric& fabric, const std::string& path, const slate::Duration& timeout)
{
    Way way;
    way.path = path;
    if (const auto found = look_at_endpoint(fabric.router); is_unreachable(found)) {
        way.endpoint = fabric.router;
        way.service = "router";
        end_way(way, ExitUnreachable,
                "before the router: " + found.error + "; " + advice(found.error, fabric.router) +
                    ", or ask a service itself, as in `tarn get -e`");
        return way;
    }
    const auto bare = path.substr(0, path.find_first_of("@?"));
    auto segments = slate::split<std::vector<std::string>>(bare, "/", false, true);
    const auto directory = fabric.run_time_directory;
    std::error_code ignored;
    if (segments.empty() || segments.front() == "." || segments.front() == ".." ||
        !std::filesystem::exists(directory / segments.front(), ignored)) {
        way.service = "router";
        way.endpoint = fabric.router;
        way.inner_path = bare;
        ask_service(way, timeout);
        if (!way.pattern.empty() || way.exit_status != ExitClientError)
            return way;
        const std::string name = segments.empty() ? "" : segments.front();
        const std::string near = find_nearest(name, service_names(directory));
        end_way(
            way, ExitClientError,
            "at the router with 404: " +
                (name.empty()
                     ? "the path names no service"
                     : "there is no service '" + brief(name) + "' in " + escape(directory.string())) +
                (near.empty() ? "; `tarn services` lists them" : "; the nearest is '" + escape(near) + "'"));
        return way;
    }
    way.service = segments.front();
    unsigned int number = 0;
    const bool is_numbered = segments.size() > 1 && slate::try_parse(segments[1], &number);
    if (is_numbered)
        way.service += "/" + std::to_string(number);
    segments.erase(segments.begin(), segments.begin() + (is_numbered ? 2 : 1));
    way.inner_path = "/" + slate::join(segments, "/");
    way.endpoint = tarn::service_endpoint(fabric, way.service);

    ask_service(way, timeout);
    return way;
}

int show_way(const Way& way, bool as_json)
{
    if (as_json) {
        nlohmann::ordered_json object = {{"path", way.path}};
        if (way.endpoint) {
            object["service"] = way.service;
            object["endpoint"] = way.endpoint->to_string();
            object["asked_as"] = way.inner_path;
        }
        if (way.pid)
            object["pid"] = *way.pid;
        if (!way.pattern.empty()) {
            object["pattern"] = way.pattern;
            object["methods"] = slate::split<std::vector<std::string>>(way.methods, ",", false, true);
            object["access"] = way.access;
        }
        object["ends"] = way.end;
        write_out(to_line(object) + "\n");
        return way.exit_status;
    }
    const auto line = [](const char* name, const std::string& text, Colour colour = Colour::Plain) {
        const std::string label = name;
        write_out(paint(label, Colour::Bold) + std::string(10 - label.size(), ' ') + paint(text, colour) +
                  "\n");
    };
    line("path", escape(way.path));
    if (way.endpoint) {
        line("service", escape(way.service), Colour::Cyan);
        line("socket", escape(way.endpoint->to_string()));
    }
    if (way.pid)
        line("process", std::to_string(*way.pid) + " " + escape(way.process_name));
    if (!way.inner_path.empty())
        line("asked as", escape(way.inner_path));
    if (!way.pattern.empty())
        line("route", "\"" + escape(way.pattern) + "\"  " + way.methods + "  " + way.access, Colour::Cyan);
    line("ends", way.end, way.exit_status == ExitGood ? Colour::Green : Colour::Red);
    return way.exit_status;
}
} // namespace

Command who_command()
{
    return {"who",
            "which service, process and route would get a request",
            "Follows a path as the router would: to the service in the run-time directory, its socket, the "
            "process behind it, and the first of its routes that takes the path; and tells where a request "
            "ends and why. It only asks for the index. The exit status is the one that a request would have.",
            {{"tarn who /clock/time", "who answers for it"}, {"tarn who /clok/time", "why nobody does"}},
            [](CLI::App& app) {
                auto path = std::make_shared<std::string>();
                app.add_option("PATH", *path, "such as /clock/time")->required();
                const auto place = add_place(app, nullptr);
                const auto timeout = add_timeout(app, "1s");
                auto as_json = std::make_shared<bool>(false);
                app.add_flag("--json", *as_json, "as one JSON object");
                return [=] {
                    const auto wanted = parse_path(*path);
                    const auto limit = parse_duration(*timeout, "-t");
                    const auto fabric = find_fabric(*place);
                    const tarn::ZmqSubsystem subsystem;
                    return show_way(find_way(fabric, wanted, limit), *as_json);
                };
            }};
}
} // namespace tarn_command
