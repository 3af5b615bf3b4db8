// SPDX-License-Identifier: Apache-2.0
#include "services_route.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <system_error>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "service_list.h"
#include "service_survey.h"

namespace {
using namespace std::chrono_literals;

constexpr auto time_for_one = 500ms;
/// A client of the router waits for 4 s by default, and the router for half a second less.
constexpr auto time_for_all = 2500ms;
using services::Service;

std::string socket_of(const Service& service)
{
    return service.endpoint ? service.endpoint->address() : "";
}

nlohmann::json to_json(const Service& service)
{
    nlohmann::json object = {{"name", service.name},
                             {"socket", socket_of(service)},
                             {"answers", service.answers},
                             {"routes", nlohmann::json::array()}};
    if (!service.answers)
        object["why"] = service.problem;
    if (service.pid)
        object["pid"] = *service.pid;
    for (const tarn::RoutingDetail& detail : service.routes.details()) {
        nlohmann::json route = {{"access", slate::to_lower(tarn::Access_Name(detail.access()))},
                                {"methods", nlohmann::json::array()},
                                {"patterns", nlohmann::json::array()}};
        for (const int method : detail.methods())
            route["methods"].push_back(slate::to_lower(
                tarn::RoutingDetail::Method_Name(static_cast<tarn::RoutingDetail::Method>(method))));
        for (const std::string& pattern : detail.patterns())
            route["patterns"].push_back(pattern);
        object["routes"].push_back(std::move(route));
    }
    return object;
}

std::string to_text(const std::vector<Service>& found)
{
    std::string text;
    for (const Service& service : found) {
        text += service.name + "  " + socket_of(service) + "  ";
        text += service.answers ? "answers" : "does not answer: " + service.problem;
        if (service.pid)
            text += ", process " + std::to_string(*service.pid);
        text += "\n";
        for (const tarn::RoutingDetail& detail : service.routes.details()) {
            for (const std::string& pattern : detail.patterns())
                text += "    " + services::methods_text(detail) + " \"" + pattern + "\"\n";
        }
    }
    return text;
}

class ServicesRoute : public tarn::Route {
public:
    ServicesRoute(const tarn::Fabric& fabric, const std::vector<tarn::Endpoint>& own)
        : Route("services", "get", "/services", tarn::Access::Public),
          fabric_(fabric)
    {
        for (const auto& endpoint : own) {
            if (endpoint->scheme() == "ipc")
                own_.emplace_back(endpoint->address());
        }
    }

    void get(tarn::Context& context) const override
    {
        std::vector<Service> found;
        std::vector<std::string> others;
        for (const std::string& service_name : services::list_names(fabric_.run_time_directory)) {
            if (is_own(service_name))
                found.push_back(describe_itself(service_name));
            else
                others.push_back(service_name);
        }
        for (Service& service : services::look_at_all(fabric_, others, time_for_one, time_for_all))
            found.push_back(std::move(service));
        std::sort(found.begin(), found.end(),
                  [](const Service& a, const Service& b) { return a.name < b.name; });

        if (!prefers_json(context.request)) {
            context.reply.set_reply_text(to_text(found));
            return;
        }
        nlohmann::json document = {{"services", nlohmann::json::array()}};
        for (const Service& service : found)
            document["services"].push_back(to_json(service));
        // A directory's name may be anything.
        context.reply.set_reply_json(document.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
    }

private:
    static bool prefers_json(const tarn::Request& request)
    {
        for (const tarn::Format format : request.formats()) {
            if (format == tarn::Format::Json || format == tarn::Format::Text)
                return format == tarn::Format::Json;
        }
        return false;
    }

    bool is_own(const std::string& service_name) const
    {
        const auto socket = fabric_.run_time_directory / service_name / "zmq.sock";
        return std::any_of(own_.begin(), own_.end(), [&](const auto& own) {
            std::error_code unknown;
            return socket == own || std::filesystem::equivalent(socket, own, unknown);
        });
    }

    Service describe_itself(const std::string& service_name) const
    {
        Service service{
            service_name, tarn::service_endpoint(fabric_, service_name), true, "", getpid(), "", 0, {}};
        for (const char* path : {"/index", "/services"}) {
            tarn::RoutingDetail* detail = service.routes.add_details();
            detail->set_access(tarn::Access::Public);
            detail->add_methods(tarn::RoutingDetail::Head);
            detail->add_methods(tarn::RoutingDetail::Get);
            detail->add_patterns(path);
        }
        return service;
    }

    const tarn::Fabric fabric_;
    std::vector<std::filesystem::path> own_;
};
} // namespace

std::shared_ptr<tarn::Route> make_services_route(const tarn::Fabric& fabric,
                                                 const std::vector<tarn::Endpoint>& own)
{
    return std::make_shared<ServicesRoute>(fabric, own);
}
