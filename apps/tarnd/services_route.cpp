// SPDX-License-Identifier: Apache-2.0
#include "services_route.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include <unistd.h>

#include <nlohmann/json.hpp>

#include <tarn/proto/routing.pb.h>

#include "service_list.h"

namespace {
using namespace std::chrono_literals;

constexpr auto time_for_one = 500ms;
/// A client of the router waits for 4 s by default, and the router for half a second less.
constexpr auto time_for_all = 2500ms;
constexpr std::size_t max_threads = 32;

struct Finding {
    Service service;
    bool answers = false;
    std::string why_not;
    std::optional<int> pid;
    tarn::RoutingDetails routes;
};

std::string words(const tarn::RoutingDetail& route)
{
    std::string text;
    for (const int method : route.methods())
        text += (text.empty() ? "" : ",") + slate::to_upper(tarn::RoutingDetail::Method_Name(
                                                static_cast<tarn::RoutingDetail::Method>(method)));
    return text;
}

Finding ask(const Service& service)
{
    Finding finding{service, false, "", std::nullopt, {}};
    const auto endpoint = slate::make_uri("ipc://" + service.socket.string());
    const tarn::Probe found = tarn::probe(endpoint, slate::Seconds(0)); // the request below asks more
    finding.pid = found.pid;
    finding.why_not = found.error;
    if (!found.served)
        return finding;
    const auto reply = tarn::make_client(endpoint, 0)->get("/index?format=proto", nullptr, time_for_one);
    if (reply->is_local() || !reply->message) {
        finding.why_not = "no answer within 500 ms";
        return finding;
    }
    finding.answers = true;
    if (reply->good())
        (void)finding.routes.ParseFromString(
            reply->text_or("")); // a service in another language may have none
    return finding;
}

/// Asks all, in their order, by as many threads as are needed.
std::vector<Finding> ask_all(const std::vector<Service>& services)
{
    std::vector<Finding> findings(services.size());
    std::atomic<std::size_t> next{0};
    const auto end = std::chrono::steady_clock::now() + time_for_all - time_for_one;
    const auto work = [&] {
        for (std::size_t i = next++; i < services.size(); i = next++) {
            try {
                findings[i] = std::chrono::steady_clock::now() < end
                                  ? ask(services[i])
                                  : Finding{services[i], false, "not asked, as others took too long", {}, {}};
            }
            catch (const std::exception& error) { // for example no more file descriptors
                findings[i] = {services[i], false, error.what(), std::nullopt, {}};
            }
        }
    };
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < std::min(services.size(), max_threads); ++i)
        threads.emplace_back(work);
    threads.clear();
    return findings;
}

nlohmann::json to_json(const Finding& finding)
{
    nlohmann::json service = {{"name", finding.service.name},
                              {"socket", finding.service.socket.string()},
                              {"answers", finding.answers},
                              {"routes", nlohmann::json::array()}};
    if (!finding.answers)
        service["why"] = finding.why_not;
    if (finding.pid)
        service["pid"] = *finding.pid;
    for (const tarn::RoutingDetail& detail : finding.routes.details()) {
        nlohmann::json route = {{"access", slate::to_lower(tarn::Access_Name(detail.access()))},
                                {"methods", nlohmann::json::array()},
                                {"patterns", nlohmann::json::array()}};
        for (const int method : detail.methods())
            route["methods"].push_back(slate::to_lower(
                tarn::RoutingDetail::Method_Name(static_cast<tarn::RoutingDetail::Method>(method))));
        for (const std::string& pattern : detail.patterns())
            route["patterns"].push_back(pattern);
        service["routes"].push_back(std::move(route));
    }
    return service;
}

std::string to_text(const std::vector<Finding>& findings)
{
    std::string text;
    for (const Finding& finding : findings) {
        text += finding.service.name + "  " + finding.service.socket.string() + "  ";
        text += finding.answers ? "answers" : "does not answer: " + finding.why_not;
        if (finding.pid)
            text += ", process " + std::to_string(*finding.pid);
        text += "\n";
        for (const tarn::RoutingDetail& detail : finding.routes.details()) {
            for (const std::string& pattern : detail.patterns())
                text += "    " + words(detail) + " \"" + pattern + "\"\n";
        }
    }
    return text;
}

class ServicesRoute : public tarn::Route {
public:
    ServicesRoute(const tarn::Fabric& fabric, const std::vector<tarn::Endpoint>& own)
        : Route("services", "get", "/services", tarn::Access::Public),
          directory_(fabric.run_time_directory)
    {
        for (const auto& endpoint : own) {
            if (endpoint->scheme() == "ipc")
                own_.emplace_back(endpoint->address());
        }
    }

    void get(tarn::Context& context) const override
    {
        std::vector<Finding> findings;
        std::vector<Service> others;
        for (const Service& service : list_services(directory_)) {
            if (is_own(service.socket))
                findings.push_back(describe_itself(service));
            else
                others.push_back(service);
        }
        for (Finding& finding : ask_all(others))
            findings.push_back(std::move(finding));
        std::sort(findings.begin(), findings.end(),
                  [](const Finding& a, const Finding& b) { return a.service.name < b.service.name; });

        if (!prefers_json(context.request)) {
            context.reply.set_reply_text(to_text(findings));
            return;
        }
        nlohmann::json document = {{"services", nlohmann::json::array()}};
        for (const Finding& finding : findings)
            document["services"].push_back(to_json(finding));
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

    bool is_own(const std::filesystem::path& socket) const
    {
        return std::any_of(own_.begin(), own_.end(), [&](const auto& own) {
            std::error_code unknown;
            return socket == own || std::filesystem::equivalent(socket, own, unknown);
        });
    }

    static Finding describe_itself(const Service& service)
    {
        Finding finding{service, true, "", getpid(), {}};
        for (const char* path : {"/index", "/services"}) {
            tarn::RoutingDetail* detail = finding.routes.add_details();
            detail->set_access(tarn::Access::Public);
            detail->add_methods(tarn::RoutingDetail::Head);
            detail->add_methods(tarn::RoutingDetail::Get);
            detail->add_patterns(path);
        }
        return finding;
    }

    const std::filesystem::path directory_;
    std::vector<std::filesystem::path> own_;
};
} // namespace

std::shared_ptr<tarn::Route> make_services_route(const tarn::Fabric& fabric,
                                                 const std::vector<tarn::Endpoint>& own)
{
    return std::make_shared<ServicesRoute>(fabric, own);
}
