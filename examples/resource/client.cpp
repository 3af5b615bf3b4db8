// SPDX-License-Identifier: Apache-2.0
// Writes network settings, reads them in each format, asks again for data that it already holds, and erases
// them:
//
//   resource_client /tmp/network.sock

#include <iostream>

#include <tarn/tarn.h>

#include "../report.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: resource_client SOCKET\n";
        return 2;
    }
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(argv[1]));
    Report report;
    const std::string settings = R"({"hostname": "pump-7", "address": "192.168.0.10/24"})";

    report.show(
        "PUT /network  (Content-Type: application/json)",
        client->put("/network", settings, slate::make_dictionary({{"Content-Type", "application/json"}})),
        tarn::Status::NoContent);
    auto reply = client->get("/network");
    const std::string tag = reply->header("ETag", "");
    report.show("GET /network", reply, tarn::Status::Ok, !tag.empty());
    report.show("GET /network  (Accept: text/plain)",
                client->get("/network", slate::make_dictionary({{"Accept", "text/plain"}})),
                tarn::Status::Ok);
    reply = client->get("/network?format=proto");
    report.check("GET /network?format=proto", std::to_string(text_of(reply).size()) + " bytes",
                 reply->good() && reply->is(tarn::Format::Proto));
    report.show("GET /network  (If-None-Match: " + tag + ")",
                client->get("/network", slate::make_dictionary({{"If-None-Match", tag}})),
                tarn::Status::NotModified);
    report.show("PUT /network  (Content-Type: image/png)",
                client->put("/network", settings, slate::make_dictionary({{"Content-Type", "image/png"}})),
                tarn::Status::UnsupportedMediaType);
    report.show("PUT /network?format=json  \"nonsense\"", client->put("/network?format=json", "nonsense"),
                tarn::Status::BadRequest);
    report.show("DELETE /network", client->del("/network"), tarn::Status::NoContent);
    report.show("GET /network", client->get("/network"), tarn::Status::NotFound);

    std::cout << (report.all_right() ? "Every answer was right." : "Some answers were WRONG.") << std::endl;
    return report.all_right() ? 0 : 1;
}
