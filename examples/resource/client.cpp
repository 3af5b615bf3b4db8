// SPDX-License-Identifier: Apache-2.0
// Writes network settings, reads them in each format, asks again for what it holds, and takes them back:
//
//   resource_client /tmp/network.sock

#include <iomanip>
#include <iostream>

#include <tarn/tarn.h>

namespace {
bool all_right = true;

/// Prints one exchange, with the answer's text or else its status message, and gives the entity tag.
std::string show(const std::string& request, const std::shared_ptr<tarn::Reply>& reply, tarn::Status expected)
{
    const bool right = reply->status() == expected;
    all_right = all_right && right;
    std::cout << std::left << std::setw(62) << request << (right ? "ok     " : "WRONG  ")
              << static_cast<int>(reply->status()) << " " << tarn::Status_Name(reply->status()) << "\n";
    const bool has_text = reply->message && reply->message->response().body().has_txt();
    const std::string text = has_text ? reply->data() : reply->status_message();
    std::cout << text << (text.empty() || text.ends_with("\n") ? "" : "\n");
    return reply->header("ETag", "");
}

std::shared_ptr<slate::Dictionary> header(const std::string& key, const std::string& value)
{
    auto result = slate::make_dictionary();
    result->set(key, std::string_view(value));
    return result;
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: resource_client SOCKET\n";
        return 2;
    }
    tarn::ZmqSubsystem subsystem;
    const auto client = tarn::make_client(std::filesystem::path(argv[1]));
    const std::string settings = R"({"hostname": "pump-7", "address": "192.168.0.10/24"})";

    show("PUT /network  (Content-Type: application/json)",
         client->put("/network", settings, header("Content-Type", "application/json")),
         tarn::Status::NoContent);
    const std::string tag = show("GET /network", client->get("/network"), tarn::Status::Ok);
    show("GET /network  (Accept: text/plain)", client->get("/network", header("Accept", "text/plain")),
         tarn::Status::Ok);
    show("GET /network?format=proto", client->get("/network?format=proto"), tarn::Status::Ok);
    show("GET /network  (If-None-Match: " + tag + ")", client->get("/network", header("If-None-Match", tag)),
         tarn::Status::NotModified);
    show("PUT /network  (Content-Type: image/png)",
         client->put("/network", settings, header("Content-Type", "image/png")),
         tarn::Status::UnsupportedMediaType);
    show("PUT /network?format=json  \"nonsense\"", client->put("/network?format=json", "nonsense"),
         tarn::Status::BadRequest);
    show("DELETE /network", client->del("/network"), tarn::Status::NoContent);
    show("GET /network", client->get("/network"), tarn::Status::NotFound);

    std::cout << (all_right ? "Every answer was right." : "Some answers were WRONG.") << std::endl;
    return all_right ? 0 : 1;
}
