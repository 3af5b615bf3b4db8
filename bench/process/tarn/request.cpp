// SPDX-License-Identifier: Apache-2.0
// Requests and replies as an application makes them:
//
//   bench_tarn_request server endpoint=E size=BYTES [workers=N] [routes=N]
//   bench_tarn_request client endpoint=E size=BYTES [operation=get|put|upload|download] [path=P] [clients=N]
//                      [services=DIRECTORY]
//
// The server has `routes` routes, 8 unless told otherwise, at "/data/0" and so on: GET answers with `size`
// bytes, and PUT takes as many. "/slow" answers GET after two seconds. "/chunks" gets the chunks of an upload
// as they come, and answers a download in chunks. Of `clients` clients the first does the work. With
// `services` it finds the service of the path itself, in that run-time directory.

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <tarn/tarn.h>

#include "../support/bench.h"

namespace {
class DataRoute : public tarn::Route {
public:
    DataRoute(long number, const std::string& body)
        : Route("data" + std::to_string(number), "get,put", "/data/" + std::to_string(number),
                tarn::Access::Public),
          body_(body)
    {
    }

    void get(tarn::Context& context) const override
    {
        context.reply.set_reply_data(tarn::Format::Bin, body_);
    }

    void put(tarn::Context& context) override
    {
        bench::require(context.request.data().size() == body_.size(), "the body has the wrong size");
    }

private:
    const std::string& body_;
};

class SlowRoute : public tarn::Route {
public:
    explicit SlowRoute(const std::string& body)
        : Route("slow", "get", "/slow", tarn::Access::Public),
          body_(body)
    {
    }

    void get(tarn::Context& context) const override
    {
        std::this_thread::sleep_for(std::chrono::seconds(2));
        context.reply.set_reply_data(tarn::Format::Bin, body_);
    }

private:
    const std::string& body_;
};

class ChunksRoute : public tarn::Route {
public:
    explicit ChunksRoute(const std::string& body)
        : Route("chunks", "get,put", "/chunks", tarn::Access::Public),
          body_(body)
    {
    }

    bool supports_chunked_transfer() const override { return true; }

    void get(tarn::Context& context) const override
    {
        auto chunk = body_.substr(downloaded_, bench::chunk_bytes);
        if (chunk.empty())
            downloaded_ = 0;
        else
            context.reply.set_header(tarn::chunk_header::transfer, "the only one");
        downloaded_ += chunk.size();
        context.reply.set_reply_data(tarn::Format::Bin, std::move(chunk));
    }

    void put(tarn::Context& context) override
    {
        const std::string& chunk = context.request.data();
        uploaded_ += chunk;
        if (!chunk.empty())
            return;
        bench::require(uploaded_.size() == body_.size(), "the upload has the wrong size");
        std::string().swap(uploaded_);
    }

private:
    const std::string& body_;
    std::string uploaded_;
    mutable std::size_t downloaded_ = 0;
};

tarn::Endpoint endpoint_of(const bench::Arguments& arguments)
{
    return slate::make_uri(arguments.text("endpoint"));
}

void server(const bench::Arguments& arguments)
{
    const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x'); // of all routes
    std::vector<std::shared_ptr<tarn::Route>> routes;
    for (long i = 0; i < arguments.number("routes", 8); ++i)
        routes.push_back(std::make_shared<DataRoute>(i, body));
    routes.push_back(std::make_shared<SlowRoute>(body));
    routes.push_back(std::make_shared<ChunksRoute>(body));

    tarn::ZmqSubsystem subsystem;
    const auto server = subsystem.serve(endpoint_of(arguments), routes,
                                        static_cast<unsigned long>(arguments.number("workers", 1)));
    bench::serve();
}

class Client {
public:
    explicit Client(const bench::Arguments& arguments)
        : path_(arguments.text("path", "/data/0")),
          body_(static_cast<std::size_t>(arguments.number("size")), 'x'),
          client_(arguments.has("services") ? tarn::make_device_client(arguments.text("services"))
                                            : tarn::make_client(endpoint_of(arguments), 0))
    {
    }

    void get()
    {
        const auto reply = client_->get(path_);
        bench::require(reply->good() && reply->data().size() == body_.size(), "GET failed");
    }

    void put() { bench::require(client_->put(path_, body_)->good(), "PUT failed"); }

    void upload()
    {
        tarn::Upload upload(client_, path_);
        bench::require(upload.write(body_) && upload.finish().good(), "the upload failed");
    }

    void download()
    {
        tarn::Download download(client_, path_);
        std::string downloaded;
        while (const auto chunk = download.read())
            downloaded += *chunk;
        bench::require(download.result().good() && downloaded.size() == body_.size(), "the download failed");
    }

private:
    const std::string path_;
    const std::string body_;
    const std::shared_ptr<tarn::Client> client_;
};

void client(const bench::Arguments& arguments)
{
    const std::map<std::string, void (Client::*)()> operations = {{"get", &Client::get},
                                                                  {"put", &Client::put},
                                                                  {"upload", &Client::upload},
                                                                  {"download", &Client::download}};

    tarn::ZmqSubsystem subsystem;
    std::vector<std::unique_ptr<Client>> clients;
    for (long i = 0; i < arguments.number("clients", 1); ++i) {
        clients.push_back(std::make_unique<Client>(arguments));
        if (i > 0)
            clients.back()->get(); // so that its connection stands
    }
    bench::measure(std::bind(operations.at(arguments.text("operation", "get")), clients.front().get()));
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"server", server}, {"client", client}});
}
