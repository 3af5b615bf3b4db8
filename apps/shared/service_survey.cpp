// SPDX-License-Identifier: Apache-2.0
#include "service_survey.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include <tarn/proto/status.pb.h>

namespace services {
namespace {
constexpr std::size_t max_threads = 32;

std::string why_no_routes(const tarn::Reply& reply, tarn::RoutingDetails& routes)
{
    if (reply.bad())
        return "no index: status " + std::to_string(static_cast<int>(reply.status()));
    if (!reply.has_body() || !routes.ParseFromString(reply.data()))
        return "an index of another kind"; // a service in another language may have one
    return "";
}
} // namespace

Service look_at(const std::string& name, const tarn::Endpoint& endpoint, const slate::Duration& timeout)
{
    Service service{name, endpoint, false, "", std::nullopt, "", 0, {}};
    if (!endpoint) {
        service.problem = "no endpoint can have this name";
        return service;
    }
    // The request below asks more; only over a network does a connection take time.
    const tarn::Probe found =
        tarn::probe(endpoint, endpoint->scheme() == "tcp" ? timeout : slate::Seconds(0));
    service.pid = found.pid;
    service.process_name = found.process_name;
    if (!found.served) {
        service.problem = found.error;
        return service;
    }
    const slate::StopWatch watch(true);
    // Not a Client, which takes a reply of any size.
    const auto reply =
        tarn::make_async_client(endpoint)->get("/index?format=proto", {.timeout = timeout}).get();
    service.milliseconds = static_cast<double>(watch.elapsed()) / 1000;
    if (reply->is_local())
        service.problem = "no answer within " + timeout.to_string();
    else if (!reply->message)
        service.problem = "its answer is no message of tarn's";
    else {
        service.answers = true;
        service.problem = why_no_routes(*reply, service.routes);
    }
    return service;
}

std::vector<Service> look_at_all(const tarn::Fabric& fabric, const std::vector<std::string>& names,
                                 const slate::Duration& time_for_one, const slate::Duration& time_for_all)
{
    std::vector<Service> found(names.size());
    std::atomic<std::size_t> next{0};
    const auto begin = std::chrono::steady_clock::now();
    const slate::Duration last_start = time_for_all - time_for_one;
    const auto work = [&] {
        for (std::size_t i = next++; i < names.size(); i = next++) {
            const auto endpoint = tarn::service_endpoint(fabric, names[i]);
            const auto give_up = [&](const std::string& why) {
                found[i] = {names[i], endpoint, false, why, std::nullopt, "", 0, {}};
            };
            try {
                if (slate::Duration(std::chrono::steady_clock::now() - begin) < last_start)
                    found[i] = look_at(names[i], endpoint, time_for_one);
                else
                    give_up("not asked, as others took too long");
            }
            catch (const std::exception& error) { // for example no more file descriptors
                give_up(error.what());
            }
        }
    };
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < std::min(names.size(), max_threads); ++i)
        threads.emplace_back(work);
    threads.clear();
    return found;
}

std::string methods_text(const tarn::RoutingDetail& route)
{
    std::string text;
    for (const int method : route.methods())
        text += (text.empty() ? "" : ",") + slate::to_upper(tarn::RoutingDetail::Method_Name(
                                                static_cast<tarn::RoutingDetail::Method>(method)));
    return text;
}
} // namespace services
