// SPDX-License-Identifier: Apache-2.0
// Asks the service for everything it serves, and prints whether each reply is right:
//
//   machine_status_client /tmp/status.sock

#include <fstream>
#include <iostream>
#include <string>

#include <tarn/tarn.h>

#include "../report.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: machine_status_client SOCKET\n";
        return 2;
    }
    const std::string socket = argv[1];
    // Prints the library's log among the replies: here it reports that a reply didn't come.
    slate::set_log_sinks({slate::make_callback_sink([](const slate::LogRecord& record) {
        std::cout << "      log: " << record.text.substr(0, 80) << (record.text.size() > 80 ? " ..." : "")
                  << "\n";
    })});

    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(socket));

    Report report;
    double uptime_before = 0;
    std::ifstream("/proc/uptime") >> uptime_before;

    std::cout << "\nValues, as text and as JSON\n";
    std::shared_ptr<tarn::Reply> reply = client->get("/uptime");
    // The service sends six significant digits, so its value may be slightly below the one read before.
    report.show("GET /uptime", reply, tarn::Status::Ok,
                is_number_from(text_of(reply), uptime_before * 0.9999));
    reply = client->get("/memory");
    report.show("GET /memory", reply, tarn::Status::Ok, slate::ends_with(text_of(reply), "KiB available"));
    reply = client->get("/memory?format=json");
    report.show("GET /memory?format=json", reply, tarn::Status::Ok,
                reply->is(tarn::Format::Json) && slate::starts_with(text_of(reply), "{\"total\": "));
    reply =
        client->get("/memory", slate::make_dictionary({{"accept", "image/png, application/json; q=0.5"}}));
    report.show("GET /memory  (accept: ... json)", reply, tarn::Status::Ok, reply->is(tarn::Format::Json));

    std::cout << "\nA variable in the path\n";
    reply = client->get("/load/15");
    report.show("GET /load/15", reply, tarn::Status::Ok, is_number_from(text_of(reply), 0));
    report.show("GET /load/7", client->get("/load/7"), tarn::Status::NotFound);

    std::cout << "\nA setting is written, read, measured and reset\n";
    report.show("PUT /settings/location \"greenhouse\"", client->put("/settings/location", "greenhouse"),
                tarn::Status::NoContent);
    reply = client->get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "greenhouse");
    reply = client->head("/settings/location");
    report.show("HEAD /settings/location", reply, tarn::Status::Ok,
                text_of(reply).empty() && reply->header("Content-Length", "") == "10");
    report.note("Content-Length: " + reply->header("Content-Length", ""));
    report.show("DELETE /settings/location", client->del("/settings/location"), tarn::Status::NoContent);
    reply = client->get("/settings/location");
    report.show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "workshop");

    std::cout << "\nThe list of all routes\n";
    reply = client->get("/index?format=text");
    report.show("GET /index?format=text", reply, tarn::Status::Ok,
                slate::contains(text_of(reply), "HEAD,GET,PUT,DEL   \"/settings/location\""));

    std::cout << "\nRequests that fail\n";
    report.show("GET /nowhere", client->get("/nowhere"), tarn::Status::NotFound);
    reply = client->put("/uptime", "0");
    report.show("PUT /uptime \"0\"", reply, tarn::Status::MethodNotAllowed,
                reply->status_message() == "route [uptime] doesn't support PUT");
    const auto dead = tarn::make_client(std::filesystem::path(socket + ".dead"), /*retries=*/1);
    report.show("GET /uptime  (where nobody serves)", dead->get("/uptime", nullptr, slate::Milliseconds(150)),
                tarn::Status::RequestTimeout);

    std::cout << "\n"
              << (report.all_right() ? "Every answer was right." : "Some answers were WRONG.") << std::endl;
    return report.all_right() ? 0 : 1;
}
