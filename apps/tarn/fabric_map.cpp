// SPDX-License-Identifier: Apache-2.0
#include "fabric_map.h"

#include <algorithm>
#include <fstream>
#include <future>

#include <nlohmann/json.hpp>
#include <slate/dictionary.h>
#include <slate/strings.h>
#include <slate/uri.h>
#include <tarn/client.h>
#include <tarn/probe.h>
#include <tarn/proto/message.pb.h>

#include "command.h"
#include "failure.h"
#include "options.h"
#include "output/terminal.h"

namespace tarn_command {
namespace {
bool is_number(const std::string& text)
{
    unsigned int number = 0;
    return slate::try_parse(text, &number);
}

std::vector<std::filesystem::path> directories_in(const std::filesystem::path& directory,
                                                  std::error_code& error)
{
    std::vector<std::filesystem::path> found;
    for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
        std::error_code ignored;
        if (entry->is_directory(ignored))
            found.push_back(entry->path());
    }
    std::sort(found.begin(), found.end());
    return found;
}
} // namespace

tarn::Fabric find_fabric(const Place& place)
{
    if (!place.run_time_directory.empty())
        return fabric_in(place.run_time_directory);
    const auto device = fabric_in(tarn::default_run_time_directory);
    const auto own = fabric_in(tarn::personal_run_time_directory().string());
    for (const auto& fabric : {device, own}) {
        if (tarn::probe(fabric.router).served)
            return fabric;
    }
    for (const auto& fabric : {device, own}) {
        std::error_code ignored;
        if (std::filesystem::is_directory(fabric.run_time_directory, ignored))
            return fabric;
    }
    throw Failure(ExitUnreachable, "there is no fabric: neither " + device.run_time_directory.string() +
                                       " nor " + escape(own.run_time_directory.string()) +
                                       " is there; start `tarnd` or `tarn demo`, or name one with --run-dir");
}

std::vector<std::string> service_names(const std::filesystem::path& directory)
{
    std::error_code error;
    std::vector<std::string> names;
    for (const auto& found : directories_in(directory, error)) {
        const std::string name = found.filename().string();
        std::error_code ignored;
        bool has_socket = std::filesystem::exists(found / "zmq.sock", ignored);
        if (has_socket)
            names.push_back(name);
        for (const auto& inner : directories_in(found, ignored)) {
            if (!is_number(inner.filename().string()) ||
                !std::filesystem::exists(inner / "zmq.sock", ignored))
                continue;
            names.push_back(name + "/" + inner.filename().string());
            has_socket = true;
        }
        if (!has_socket) // a router takes it for a service all the same
            names.push_back(name);
    }
    if (error)
        throw Failure(ExitUnreachable, "cannot look into " + escape(directory.string()) + ": " +
                                           error.message() +
                                           "; look at it with `tarn doctor`, or name "
                                           "another directory with --run-dir");
    return names;
}

Service look_at(const std::string& name, const tarn::Endpoint& endpoint, const slate::Duration& timeout)
{
    Service service{name, endpoint, "", std::nullopt, 0, {}};
    if (!endpoint) {
        service.problem = "no endpoint can have this name";
        return service;
    }
    const auto found = tarn::probe(endpoint);
    service.pid = found.pid;
    if (!found.served) {
        service.problem = found.error == "no such file" ? "no socket" : found.error;
        return service;
    }
    const slate::StopWatch watch(true);
    const auto client = tarn::make_client(endpoint, 0);
    const auto reply =
        client->get("/index", slate::make_dictionary({{"accept", "application/x-protobuf"}}), timeout);
    service.milliseconds = static_cast<double>(watch.elapsed()) / 1000;
    if (reply->is_local())
        service.problem = "connected, but no answer";
    else if (!reply->message || reply->bad())
        service.problem = reply->message ? "no index: " + status_text(*reply) : "no message of tarn's";
    else if (!reply->has_body() || !service.routes.ParseFromString(reply->data()))
        service.problem = "an index of another kind";
    return service;
}

std::vector<Service> look_at_services(const tarn::Fabric& fabric, const slate::Duration& timeout)
{
    std::vector<std::future<Service>> asked;
    for (const std::string& name : service_names(fabric.run_time_directory))
        asked.push_back(std::async(std::launch::async, [&fabric, &timeout, name] {
            return look_at(name, tarn::service_endpoint(fabric, name), timeout);
        }));
    std::vector<Service> services;
    for (auto& service : asked)
        services.push_back(service.get());
    return services;
}

std::string methods_text(const tarn::RoutingDetail& route)
{
    std::string text;
    for (const int method : route.methods())
        text += (text.empty() ? "" : ",") + slate::to_upper(tarn::RoutingDetail::Method_Name(
                                                static_cast<tarn::RoutingDetail::Method>(method)));
    return text;
}

std::string process_name(int pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return escape(name);
}

nlohmann::ordered_json routes_json(const tarn::RoutingDetails& routes, const std::string& prefix)
{
    auto array = nlohmann::ordered_json::array();
    for (const auto& route : routes.details()) {
        for (const std::string& pattern : route.patterns())
            array.push_back(
                {{"pattern", prefix + pattern},
                 {"methods", slate::split<std::vector<std::string>>(methods_text(route), ",", false, true)},
                 {"access", slate::to_lower(tarn::Access_Name(route.access()))}});
    }
    return array;
}
} // namespace tarn_command
