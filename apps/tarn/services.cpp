// SPDX-License-Identifier: Apache-2.0
// What there is: the services of a fabric, and their routes.

#include <algorithm>
#include <cstdio>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/zmq_subsystem.h>

#include "command.h"
#include "fabric_map.h"
#include "options.h"
#include "output/body.h"
#include "output/json.h"
#include "output/table.h"

namespace tarn_command {
namespace {
std::string milliseconds_text(double milliseconds)
{
    char text[32];
    (void)std::snprintf(text, sizeof text, "%.1f ms", milliseconds);
    return text;
}

std::size_t count_patterns(const tarn::RoutingDetails& routes)
{
    std::size_t count = 0;
    for (const auto& route : routes.details())
        count += static_cast<std::size_t>(route.patterns_size());
    return count;
}

std::string state_text(const Service& service)
{
    if (!service.answers)
        return escape(service.problem);
    return service.problem.empty() ? "answers" : "answers, " + escape(service.problem);
}

int show_services(const Place& place, const slate::Duration& timeout, bool as_json)
{
    const auto fabric = find_fabric(place);
    const tarn::ZmqSubsystem subsystem;
    const auto services = look_at_services(fabric, timeout);
    auto array = nlohmann::ordered_json::array();
    std::vector<std::vector<Cell>> rows;
    for (const Service& service : services) {
        const bool answers = service.answers;
        nlohmann::ordered_json object = {{"name", service.name},
                                         {"endpoint", service.endpoint ? service.endpoint->to_string() : ""},
                                         {"answers", answers}};
        if (service.pid)
            object["pid"] = *service.pid;
        if (answers) {
            object["milliseconds"] = service.milliseconds;
            object["routes"] = routes_json(service.routes, "/" + service.name);
        }
        if (!service.problem.empty())
            object["problem"] = service.problem;
        array.push_back(std::move(object));
        rows.push_back({{escape(service.name), Colour::Cyan},
                        {answers ? milliseconds_text(service.milliseconds) : "-"},
                        {service.pid ? std::to_string(*service.pid) : "-"},
                        {answers ? std::to_string(count_patterns(service.routes)) : "-"},
                        {state_text(service), answers ? Colour::Green : Colour::Red}});
    }
    if (as_json) {
        write_out(to_line(array) + "\n");
        return ExitGood;
    }
    if (rows.empty()) {
        (void)std::fprintf(stderr, "tarn services: no service has a directory in %s\n",
                           escape(fabric.run_time_directory.string()).c_str());
        return ExitGood;
    }
    write_table({"SERVICE", "TIME", "PID", "ROUTES", "STATE"}, rows);
    return ExitGood;
}

struct IndexOptions {
    std::shared_ptr<Place> place;
    std::shared_ptr<std::string> timeout;
    std::string service;
    bool as_json = false;
};

/// Throws Failure for a service that doesn't answer.
Service look_at_one(const IndexOptions& options, const slate::Duration& timeout)
{
    const std::string name = slate::trim_left(options.service, "/");
    if (!options.place->endpoint.empty()) {
        auto service = services::look_at("", parse_endpoint(options.place->endpoint), timeout);
        service.name = "";
        return service;
    }
    const auto fabric = find_fabric(*options.place);
    const auto names = service_names(fabric.run_time_directory);
    if (std::find(names.begin(), names.end(), name) == names.end()) {
        const std::string near = suggestion(name, names);
        throw Failure(ExitUnreachable, "there is no service '" + brief(name) + "' in " +
                                           escape(fabric.run_time_directory.string()) +
                                           (near.empty() ? "; `tarn services` lists them" : near));
    }
    return services::look_at(name, tarn::service_endpoint(fabric, name), timeout);
}

int show_index(const IndexOptions& options)
{
    const auto timeout = parse_duration(*options.timeout, "-t");
    const tarn::ZmqSubsystem subsystem;
    std::vector<Service> services;
    if (options.service.empty() && options.place->endpoint.empty())
        services = look_at_services(find_fabric(*options.place), timeout);
    else {
        services.push_back(look_at_one(options, timeout));
        const Service& service = services.back();
        if (!service.problem.empty()) {
            const bool is_silent = service.pid.has_value();
            throw Failure(is_silent ? ExitTimeout : ExitUnreachable,
                          "no index from " +
                              escape(service.endpoint ? service.endpoint->to_string() : service.name) + ": " +
                              escape(service.problem) + "; `tarn doctor` tells more");
        }
    }
    auto array = nlohmann::ordered_json::array();
    std::vector<std::vector<Cell>> rows;
    for (const Service& service : services) {
        if (!service.problem.empty())
            (void)std::fprintf(stderr, "tarn index: without %s: %s\n", escape(service.name).c_str(),
                               escape(service.problem).c_str());
        const std::string prefix = service.name.empty() ? "" : "/" + service.name;
        for (auto& route : routes_json(service.routes, prefix)) {
            rows.push_back({{slate::join(route["methods"].get<std::vector<std::string>>(), ",")},
                            {route["access"].get<std::string>()},
                            {escape(route["pattern"].get<std::string>()), Colour::Cyan}});
            array.push_back(std::move(route));
        }
    }
    if (options.as_json)
        write_out(to_line(array) + "\n");
    else {
        std::sort(rows.begin(), rows.end(),
                  [](const auto& a, const auto& b) { return a.back().text < b.back().text; });
        write_table({"VERBS", "ACCESS", "PATTERN"}, rows);
    }
    return ExitGood;
}
} // namespace

Command services_command()
{
    return {
        "services",
        "which services there are, and which of them answer",
        "Looks into the run-time directory and asks each service that has a directory there, all at once. "
        "It needs no router. A service that doesn't answer is listed with the reason.",
        {{"tarn services", "all of them"}, {"tarn services --json | jq '.[].name'", "for a script"}},
        [](CLI::App& app) {
            const auto place = add_place(app, nullptr);
            const auto timeout = add_timeout(app, "1s");
            auto as_json = std::make_shared<bool>(false);
            app.add_flag("--json", *as_json, "as one JSON array");
            return [=] { return show_services(*place, parse_duration(*timeout, "-t"), *as_json); };
        }};
}

Command index_command()
{
    return {"index",
            "the routes of one service, or of all",
            "Lists the paths that services answer for, with their verbs. Patterns have variables such as "
            "':id', and '*' for the rest of a path.",
            {{"tarn index", "of all services"},
             {"tarn index clock", "of one"},
             {"tarn index -e ./x.sock", "of the server at a socket"}},
            [](CLI::App& app) {
                auto options = std::make_shared<IndexOptions>();
                app.add_option("SERVICE", options->service, "its name; all services if it is missing");
                options->place = add_place(app, "the server at a URI or a socket's path");
                options->timeout = add_timeout(app, "1s");
                app.add_flag("--json", options->as_json, "as one JSON array");
                return [=] { return show_index(*options); };
            }};
}
} // namespace tarn_command
