// SPDX-License-Identifier: Apache-2.0
// What docs/guide.md shows in parts compiles, and its classes do what it says.

#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>

#include "support/runtime_test.h"

/// What each part may use; see the guide's beginning.
#define GUIDE_NAMES                                                                                          \
    [[maybe_unused]] tarn::ZmqSubsystem &subsystem,                                                          \
        [[maybe_unused]] const std::shared_ptr<tarn::Server>&server,                                         \
        [[maybe_unused]] const std::shared_ptr<tarn::Client>&client, [[maybe_unused]] tarn::Context &context

namespace guide {
#include "fragments.inc"
} // namespace guide

namespace {
using namespace tarn;
using namespace tarn_test;

class TheGuide : public RuntimeTest {
protected:
    /// A client of a server with that route.
    std::shared_ptr<Client> serve_route(const std::shared_ptr<Route>& route)
    {
        const auto uri = scratch_endpoint();
        serve(uri)->add(route);
        return make_client(uri, 0);
    }

    std::shared_ptr<slate::Dictionary> header(const std::string& key, const std::string& value)
    {
        auto result = slate::make_dictionary();
        result->set(key, std::string_view(value));
        return result;
    }
};

TEST_F(TheGuide, AnswersEachVerb)
{
    const auto client = serve_route(std::make_shared<guide::UserRoute>());

    EXPECT_EQ(client->put("/user/7", "Ada")->status(), Status::NoContent);
    EXPECT_EQ(client->get("/user/7")->data(), "Ada");
    EXPECT_EQ(client->head("/user/7")->header("Content-Length", ""), "3");
    EXPECT_EQ(client->get("/user/8")->status(), Status::NotFound);
    EXPECT_EQ(client->get("/user/8")->status_message(), "no such user");
    EXPECT_EQ(client->post("/user/7", "")->status(), Status::MethodNotAllowed);
    EXPECT_EQ(client->del("/user/7")->status(), Status::NoContent);
    EXPECT_EQ(client->get("/user/7")->status(), Status::NotFound);
}

TEST_F(TheGuide, AnswersInTheFormatThatIsAskedFor)
{
    const auto client = serve_route(std::make_shared<guide::MemoryRoute>());

    EXPECT_EQ(client->get("/memory")->format(), Format::Text);
    EXPECT_EQ(client->get("/memory?format=json")->format(), Format::Json);
    EXPECT_EQ(client->get("/memory", header("accept", "text/html, application/json"))->format(),
              Format::Json);
    EXPECT_EQ(client->get("/memory", header("accept", "*/*, application/json"))->format(), Format::Json);
    EXPECT_EQ(client->get("/memory", header("accept", "application/json, text/html;q=1"))->format(),
              Format::Text);
}

TEST_F(TheGuide, ReadsAResourceInTheFormatThatSuits)
{
    const guide::Motd motd;
    std::string mime_type;
    const auto sink = [&](const Content& content) { mime_type = content.mime_type; };

    motd.save_into(sink, "image/png, text/html", nullptr);
    EXPECT_EQ(mime_type, "text/html");
    motd.save_into(sink, "image/png", nullptr);
    EXPECT_EQ(mime_type, "text/plain");
}

TEST_F(TheGuide, ShowsAllCounters)
{
    const auto client = serve_route(guide::make_counters_route());

    const std::string text = client->get("/counters")->data();
    EXPECT_NE(text.find("route[counters] accept 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("zmq.server["), std::string::npos) << text;
    EXPECT_NE(text.find("zmq.client["), std::string::npos) << text;
}

TEST_F(TheGuide, ReadsAndWritesADocument)
{
    const auto client =
        serve_route(std::make_shared<guide::DocumentRoute>("/dimmer", std::make_shared<guide::Dimmer>()));

    EXPECT_EQ(client->get("/dimmer")->data(), R"({"percent":100})");
    EXPECT_EQ(client->put("/dimmer", R"({"percent": 30})")->status(), Status::NoContent);
    EXPECT_EQ(
        client->put("/dimmer", R"({"percent": 31})", header("Content-Type", "application/json"))->status(),
        Status::NoContent);
    const auto reply = client->get("/dimmer");
    EXPECT_EQ(reply->data(), R"({"percent":31})");
    EXPECT_EQ(reply->format(), Format::Json);
    EXPECT_NE(reply->header("ETag", ""), "");
    const auto refused = client->put("/dimmer", "{}", header("Content-Type", "application/json"));
    EXPECT_EQ(refused->status(), Status::BadRequest);
    EXPECT_EQ(refused->status_message(), R"(write {"percent": 30})");
    EXPECT_EQ(client->put("/dimmer", "30", header("Content-Type", "text/nonsense"))->status(),
              Status::UnsupportedMediaType);
}
} // namespace
