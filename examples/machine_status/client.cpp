// SPDX-License-Identifier: Apache-2.0
// Walks through what the service answers, and says whether each answer is right:
//
//   machine_status_client /tmp/status.sock

#include <cmath>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <string>

#include <tarn/tarn.h>

namespace {
using ReplyPtr = std::shared_ptr<tarn::Reply>;

bool all_right = true;

std::string text_of(const ReplyPtr& reply)
{
    const bool has_body = reply->message && reply->message->response().has_body();
    return has_body ? reply->data() : std::string();
}

/// Prints one exchange, with each line of the answer's body or else its status message.
void show(const std::string& request, const ReplyPtr& reply, tarn::Status expected, bool right = true)
{
    right = right && reply->status() == expected;
    all_right = all_right && right;

    std::cout << "  " << std::left << std::setw(38) << request << (right ? "ok     " : "WRONG  ")
              << static_cast<int>(reply->status()) << " " << tarn::Status_Name(reply->status()) << "\n";
    const std::string body = text_of(reply);
    std::istringstream lines(body.empty() ? reply->status_message() : body);
    for (std::string line; std::getline(lines, line);)
        std::cout << "      " << line << "\n";
}

std::shared_ptr<slate::Dictionary> headers(const std::string& key, const std::string& value)
{
    auto result = slate::make_dictionary();
    result->set(key, std::string_view(value));
    return result;
}

bool is_number_from(const std::string& text, double least)
{
    double value = 0;
    return slate::try_parse(text, &value) && value >= least;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: machine_status_client SOCKET\n";
        return 2;
    }
    const std::string socket = argv[1];
    // What the library logs is part of the story: here, that an answer didn't come.
    slate::set_log_sinks({slate::make_callback_sink([](const slate::LogRecord& record) {
        std::cout << "      log: " << record.text.substr(0, 80) << (record.text.size() > 80 ? " ..." : "")
                  << "\n";
    })});

    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(socket));

    double uptime_before = 0;
    std::ifstream("/proc/uptime") >> uptime_before;

    std::cout << "\nValues, as text and as JSON\n";
    ReplyPtr reply = client->get("/uptime");
    // Six significant digits are shown, so what was read before may be a little above.
    show("GET /uptime", reply, tarn::Status::Ok, is_number_from(text_of(reply), uptime_before * 0.9999));
    reply = client->get("/memory");
    show("GET /memory", reply, tarn::Status::Ok, slate::ends_with(text_of(reply), "KiB available"));
    reply = client->get("/memory?format=json");
    show("GET /memory?format=json", reply, tarn::Status::Ok,
         reply->is(tarn::Format::Json) && slate::starts_with(text_of(reply), "{\"total\": "));
    reply = client->get("/memory", headers("accept", "image/png, application/json; q=0.5"));
    show("GET /memory  (accept: ... json)", reply, tarn::Status::Ok, reply->is(tarn::Format::Json));

    std::cout << "\nA variable in the path\n";
    reply = client->get("/load/15");
    show("GET /load/15", reply, tarn::Status::Ok, is_number_from(text_of(reply), 0));
    show("GET /load/7", client->get("/load/7"), tarn::Status::NotFound);

    std::cout << "\nA setting is written, read, measured and taken back\n";
    show("PUT /settings/location \"greenhouse\"", client->put("/settings/location", "greenhouse"),
         tarn::Status::NoContent);
    reply = client->get("/settings/location");
    show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "greenhouse");
    reply = client->head("/settings/location");
    show("HEAD /settings/location", reply, tarn::Status::Ok,
         text_of(reply).empty() && reply->header("Content-Length", "") == "10");
    std::cout << "      Content-Length: " << reply->header("Content-Length", "") << "\n";
    show("DELETE /settings/location", client->del("/settings/location"), tarn::Status::NoContent);
    reply = client->get("/settings/location");
    show("GET /settings/location", reply, tarn::Status::Ok, text_of(reply) == "workshop");

    std::cout << "\nWhat there is to ask for\n";
    reply = client->get("/index?format=text");
    show("GET /index?format=text", reply, tarn::Status::Ok,
         slate::contains(text_of(reply), "HEAD,GET,PUT,DEL   \"/settings/location\""));

    std::cout << "\nWhat can't be had\n";
    show("GET /nowhere", client->get("/nowhere"), tarn::Status::NotFound);
    reply = client->put("/uptime", "0");
    show("PUT /uptime \"0\"", reply, tarn::Status::MethodNotAllowed,
         reply->status_message() == "route [uptime] doesn't support PUT");
    const auto dead = tarn::make_client(std::filesystem::path(socket + ".dead"), /*retries=*/1);
    show("GET /uptime  (where nobody serves)", dead->get("/uptime", nullptr, slate::Milliseconds(150)),
         tarn::Status::RequestTimeout);

    std::cout << "\n" << (all_right ? "Every answer was right." : "Some answers were WRONG.") << std::endl;
    return all_right ? 0 : 1;
}
