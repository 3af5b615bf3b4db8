// SPDX-License-Identifier: Apache-2.0
// Reaches all services of a device through its router, and says whether each answer is right:
//
//   device_client ROUTER PUB walk     asks everybody, changes a setting, follows the change, uploads a file
//   device_client ROUTER PUB gone     finds the settings service gone
//   device_client ROUTER PUB back     finds it back, and the settings as they were left

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>

#include <tarn/tarn.h>

#include "../report.h"

namespace {
constexpr const char* new_location = "greenhouse";

/// Hears every change of a setting.
class SettingsRoute : public tarn::Route {
public:
    SettingsRoute() : Route("settings", "", "/settings/:name", tarn::Access::Public) {}

    void put(tarn::Context& change) override
    {
        const std::lock_guard lock(mutex_);
        heard_.insert(change.params->get("name", "") + " is now " + change.request.data());
        changed_.notify_all();
    }

    bool heard(const std::string& change, std::chrono::milliseconds limit)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return heard_.contains(change); });
    }

private:
    std::mutex mutex_; // guards heard_: the handlers run on the library's thread
    std::condition_variable changed_;
    std::set<std::string> heard_;
};

std::shared_ptr<slate::Dictionary> accept(const std::string& formats)
{
    auto headers = slate::make_dictionary();
    headers->set("accept", std::string_view(formats));
    return headers;
}

void ask_everybody(tarn::Client& client, Report& report)
{
    std::cout << "\nThe first segment of a path names the service\n";
    auto reply = client.get("/status/uptime");
    report.show("GET /status/uptime", reply, tarn::Status::Ok, is_number_from(text_of(reply), 1));
    reply = client.get("/status/memory", accept("application/json"));
    report.show("GET /status/memory  (accept: json)", reply, tarn::Status::Ok,
                reply->is(tarn::Format::Json) && slate::starts_with(text_of(reply), "{\"total\": "));
    reply = client.get("/status/load/15");
    report.show("GET /status/load/15", reply, tarn::Status::Ok, is_number_from(text_of(reply), 0));
    reply = client.get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "workshop");
    reply = client.get("/relay/stats?format=json");
    report.show("GET /relay/stats?format=json", reply, tarn::Status::Ok,
                slate::contains(text_of(reply), "totalPackets"));

    std::cout << "\nWhat names none is for the router itself\n";
    report.show("GET /nobody/home", client.get("/nobody/home"), tarn::Status::NotFound);
    report.show("GET /", client.get("/"), tarn::Status::NotFound);
}

/// A subscriber hears a change from when it is there, so the setting is written until it is heard.
bool is_heard(tarn::Client& client, SettingsRoute& route, const std::string& interval)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        if (client.put("/settings/interval", interval)->bad())
            return false;
        if (route.heard("interval is now " + interval, std::chrono::milliseconds(100)))
            return true;
    }
    return false;
}

void change_a_setting(tarn::ZmqSubsystem& subsystem, const std::shared_ptr<const slate::Uri>& pub,
                      tarn::Client& client, Report& report)
{
    std::cout << "\nA setting is changed, and whoever subscribed hears of it\n";
    const auto route = std::make_shared<SettingsRoute>();
    subsystem.add_subscriber(pub)->add(route);
    report.check("PUT /settings/interval \"30\"", "heard by a subscriber", is_heard(client, *route, "30"));

    report.show("PUT /settings/location \"greenhouse\"", client.put("/settings/location", new_location),
                tarn::Status::NoContent);
    report.check("", "heard by a subscriber",
                 route->heard("location is now " + std::string(new_location), std::chrono::seconds(10)));
    report.show("PUT /settings/interval \"soon\"", client.put("/settings/interval", "soon"),
                tarn::Status::BadRequest);
    const auto reply = client.get("/settings/interval");
    report.show("GET /settings/interval", reply, tarn::Status::Ok, text_of(reply) == "30");
}

void upload(tarn::Client& client, Report& report)
{
    std::cout << "\nA body of any size travels in chunks of 1 MiB\n";
    std::string data(std::size_t{16} << 20, '\0');
    unsigned int state = 1; // any bytes will do, as long as they differ
    for (char& byte : data)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    // A body that ends exactly at a chunk's end is answered with status 409, though it arrives.
    data.push_back('.');

    std::istringstream stream(data);
    const auto reply = client.put("/files/drop/firmware.bin", stream);
    report.show("PUT /files/drop/firmware.bin", reply, tarn::Status::Ok,
                text_of(reply) ==
                    std::to_string(data.size()) + " bytes, MD5 " + slate::md5_hash_string(data));
}

void find_it_gone(tarn::Client& client, Report& report)
{
    report.show("GET /settings/location", client.get("/settings/location", nullptr, slate::Seconds(1)),
                tarn::Status::RequestTimeout);
    const auto reply = client.get("/status/uptime");
    report.show("GET /status/uptime", reply, tarn::Status::Ok, is_number_from(text_of(reply), 1));
}

void find_it_back(tarn::Client& client, Report& report)
{
    auto reply = client.get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == new_location);
    report.show("DELETE /settings/location", client.del("/settings/location"), tarn::Status::NoContent);
    reply = client.get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "workshop");
}
} // namespace

int main(int argc, char** argv)
{
    const auto router = slate::make_uri(argc == 4 ? argv[1] : "");
    const auto pub = slate::make_uri(argc == 4 ? argv[2] : "");
    const std::string part = argc == 4 ? argv[3] : "";
    if (!router || !pub || (part != "walk" && part != "gone" && part != "back")) {
        std::cerr << "usage: device_client ROUTER PUB walk|gone|back\n";
        return 2;
    }
    slate::set_log_sinks({}); // what goes wrong is shown by the report
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(router, /*retries=*/0);
    Report report;
    if (part == "walk") {
        ask_everybody(*client, report);
        change_a_setting(subsystem, pub, *client, report);
        upload(*client, report);
    }
    if (part == "gone")
        find_it_gone(*client, report);
    if (part == "back")
        find_it_back(*client, report);
    return report.all_right() ? 0 : 1;
}
