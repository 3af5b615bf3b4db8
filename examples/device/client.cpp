// SPDX-License-Identifier: Apache-2.0
// Asks all services of a device through its router, and prints whether each reply is right:
//
//   device_client ROUTER RELAY_OUT walk   asks every service, changes a setting and uploads a file
//   device_client ROUTER RELAY_OUT gone   expects the settings service to be down
//   device_client ROUTER RELAY_OUT back   expects it to be up again, with its settings as they were

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

/// Receives every change of a setting.
class SettingsRoute : public tarn::Route {
public:
    SettingsRoute() : Route("settings", "", "/settings/:name", tarn::Access::Public) {}

    void put(tarn::Context& change) override
    {
        const std::lock_guard lock(mutex_);
        heard_.insert(change.variable("name") + " is now " + change.request.data());
        changed_.notify_all();
    }

    bool heard(const std::string& change, std::chrono::milliseconds limit)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return heard_.contains(change); });
    }

private:
    std::mutex mutex_; // guards heard_: handlers run on a thread of the library
    std::condition_variable changed_;
    std::set<std::string> heard_;
};

void ask_every_service(tarn::Client& client, Report& report)
{
    std::cout << "\nThe first segment of a path names the service\n";
    auto reply = client.get("/status/uptime");
    report.show("GET /status/uptime", reply, tarn::Status::Ok, is_number_from(text_of(reply), 1));
    reply = client.get("/status/memory", slate::make_dictionary({{"accept", "application/json"}}));
    report.show("GET /status/memory  (accept: json)", reply, tarn::Status::Ok,
                reply->is(tarn::Format::Json) && slate::starts_with(text_of(reply), "{\"total\": "));
    reply = client.get("/status/load/15");
    report.show("GET /status/load/15", reply, tarn::Status::Ok, is_number_from(text_of(reply), 0));
    reply = client.get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "workshop");
    reply = client.get("/relay/stats?format=json");
    report.show("GET /relay/stats?format=json", reply, tarn::Status::Ok,
                slate::contains(text_of(reply), "totalPackets"));

    std::cout << "\nThe router itself answers any other path\n";
    report.show("GET /nobody/home", client.get("/nobody/home"), tarn::Status::NotFound);
    report.show("GET /", client.get("/"), tarn::Status::NotFound);
}

/// A subscriber receives nothing until its subscription has reached the relay, so this writes the setting
/// until the change arrives.
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

void change_a_setting(tarn::ZmqSubsystem& subsystem, const std::shared_ptr<const slate::Uri>& relay_out,
                      tarn::Client& client, Report& report)
{
    std::cout << "\nA setting changes, and every subscriber hears of it\n";
    const auto route = std::make_shared<SettingsRoute>();
    subsystem.add_subscriber(relay_out)->add(route);
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

void upload(const std::shared_ptr<tarn::Client>& client, Report& report)
{
    std::cout << "\nA body of any size travels in chunks of 1 MiB\n";
    std::string data(std::size_t{16} << 20, '\0');
    unsigned int state = 1; // any pattern of differing bytes will do
    for (char& byte : data)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);

    std::istringstream stream(data);
    const auto reply = tarn::upload(client, "/files/drop/firmware.bin", stream).reply;
    report.show("PUT /files/drop/firmware.bin", reply, tarn::Status::Ok,
                text_of(reply) ==
                    std::to_string(data.size()) + " bytes, MD5 " + slate::md5_hash_string(data));
}

void expect_it_gone(tarn::Client& client, Report& report)
{
    report.show("GET /settings/location", client.get("/settings/location", nullptr, slate::Seconds(1)),
                tarn::Status::RequestTimeout);
    const auto reply = client.get("/status/uptime");
    report.show("GET /status/uptime", reply, tarn::Status::Ok, is_number_from(text_of(reply), 1));
}

void expect_it_back(tarn::Client& client, Report& report)
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
    const auto relay_out = slate::make_uri(argc == 4 ? argv[2] : "");
    const std::string part = argc == 4 ? argv[3] : "";
    if (!router || !relay_out || (part != "walk" && part != "gone" && part != "back")) {
        std::cerr << "usage: device_client ROUTER RELAY_OUT walk|gone|back\n";
        return 2;
    }
    slate::set_log_sinks({}); // the report shows what goes wrong
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(router, /*retries=*/0);
    Report report;
    if (part == "walk") {
        ask_every_service(*client, report);
        change_a_setting(subsystem, relay_out, *client, report);
        upload(client, report);
    }
    if (part == "gone")
        expect_it_gone(*client, report);
    if (part == "back")
        expect_it_back(*client, report);
    return report.all_right() ? 0 : 1;
}
