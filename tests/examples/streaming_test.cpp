// SPDX-License-Identifier: Apache-2.0
// The routes of examples/streaming, over a socket.
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "streaming/routes.h"
#include "support/runtime_test.h"

namespace {
using namespace tarn_test;
using tarn::Client;
using tarn::Route;
using tarn::Status;

constexpr std::size_t mebibyte = 1048576;

class TheStreamingExample : public RuntimeTest {
protected:
    std::shared_ptr<Client> serve_route(const std::shared_ptr<Route>& route)
    {
        const auto uri = scratch_endpoint();
        serve(uri)->add(route);
        return tarn::make_client(uri, 0);
    }

    std::shared_ptr<slate::Dictionary> header(const std::string& key, const std::string& value)
    {
        auto result = slate::make_dictionary();
        result->set(key, std::string_view(value));
        return result;
    }

    std::string content(const std::filesystem::path& file)
    {
        return slate::slurp_file<std::string>(file.string(), std::ios::binary);
    }

    std::filesystem::path write(const std::string& text)
    {
        const auto file = folder.path() / "content";
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }
};

TEST_F(TheStreamingExample, TakesTheChunksOfABodyItself)
{
    const auto file = folder.path() / "image";
    const auto client = serve_route(std::make_shared<example::UploadRoute>(file));

    for (const std::size_t size : {mebibyte / 2, 2 * mebibyte, 2 * mebibyte + 1}) {
        const std::string image(size, 'i');
        std::istringstream stream(image);
        EXPECT_EQ(client->put("/image", stream)->status(), Status::NoContent);
        EXPECT_EQ(content(file), image);
    }
    EXPECT_EQ(client->put("/image", "small")->status(), Status::NoContent);
    EXPECT_EQ(content(file), "small");
}

TEST_F(TheStreamingExample, EndsATransferThatAnotherOneHasReplaced)
{
    const auto file = folder.path() / "image";
    const auto client = serve_route(std::make_shared<example::UploadRoute>(file));
    const auto send = [&](const std::string& id, const std::string& number, const std::string& chunk) {
        const auto headers = header("X-Tarn-Chunked-Transfer", id);
        headers->set("X-Tarn-Chunk-Number", std::string_view(number));
        return client->put("/image", chunk, headers)->status();
    };

    EXPECT_EQ(send("one", "0", "a"), Status::NoContent);
    EXPECT_EQ(send("other", "0", "b"), Status::NoContent);
    EXPECT_EQ(send("one", "1", "a"), Status::Conflict);
    EXPECT_EQ(send("other", "2", "b"), Status::Conflict);
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(TheStreamingExample, GivesAFileInChunks)
{
    for (const std::size_t size : {std::size_t(0), std::size_t(5), mebibyte, 3 * mebibyte + 1}) {
        const std::string text(size, '\xe4'); // no UTF-8
        const auto client = serve_route(std::make_shared<example::DownloadRoute>(write(text)));
        std::ostringstream out;
        EXPECT_EQ(client->get("/download", out)->status(), Status::Ok);
        EXPECT_TRUE(out.str() == text);
        EXPECT_TRUE(client->get("/download")->data() == text);
    }
}

TEST_F(TheStreamingExample, ForgetsTheDownloadsThatNobodyEnds)
{
    const auto client =
        serve_route(std::make_shared<example::DownloadRoute>(write(std::string(2 * mebibyte, 'l'))));
    std::vector<std::string> ids;
    for (int i = 0; i < 5; ++i) {
        const auto reply = client->get("/download", header("X-Tarn-Supports-Chunked-Transfer", "true"));
        ids.push_back(reply->header("X-Tarn-Chunked-Transfer", ""));
    }

    int conflicts = 0;
    for (const std::string& id : ids) {
        const auto headers = header("X-Tarn-Supports-Chunked-Transfer", "true");
        headers->set("X-Tarn-Chunked-Transfer", std::string_view(id));
        conflicts += client->get("/download", headers)->status() == Status::Conflict ? 1 : 0;
    }
    EXPECT_EQ(conflicts, 1);
}

TEST_F(TheStreamingExample, HasNothingToDownloadAtFirst)
{
    const auto client = serve_route(std::make_shared<example::DownloadRoute>(folder.path() / "none"));

    std::ostringstream out;
    EXPECT_EQ(client->get("/download", out)->status(), Status::NotFound);
    EXPECT_EQ(client->get("/download")->status(), Status::NotFound);
}
} // namespace
