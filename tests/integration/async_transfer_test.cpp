// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <deque>
#include <future>
#include <mutex>

#include <gtest/gtest.h>

#include "slate/uri.h"
#include "support/async_peer.h"
#include "support/forwarding_factory.h"
#include "support/runtime_test.h"
#include "support/server_kinds.h"
#include "support/telling_peer.h"

namespace {
using namespace tarn;
using namespace tarn_test;

using ReplyPointer = std::shared_ptr<Reply>;

const slate::Duration long_time = slate::Minutes(10);

std::string make_body(std::size_t size)
{
    std::string body(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        body[i] = static_cast<char>((i * 7 + i / 251) & 0xFF);
    return body;
}

/// Takes a body with PUT or POST, and gives it in chunks with GET.
class BodyRoute : public Route {
public:
    BodyRoute() : Route("body", "get,put,post", "/body", Access::Public) {}

    void get(Context& context) const override
    {
        const std::lock_guard lock(mutex_);
        const std::string id = context.request.header(chunk_header::transfer, "");
        std::size_t& position = positions_[id.empty() ? "transfer" : id];
        if (id.empty())
            position = 0;
        const std::string chunk = body_.substr(std::min(position, body_.size()), 1000);
        position += chunk.size();
        context.reply.set_reply_data(Format::Bin, chunk);
        context.reply.set_header(chunk_header::transfer, "transfer");
    }
    void put(Context& context) override { take(context, "put"); }
    void post(Context& context) override { take(context, "post"); }

    std::string body() const
    {
        const std::lock_guard lock(mutex_);
        return body_;
    }
    void set_body(const std::string& body)
    {
        const std::lock_guard lock(mutex_);
        body_ = body;
    }
    int calls() const { return calls_; }

private:
    void take(Context& context, const std::string& verb)
    {
        ++calls_;
        set_body(context.request.has_body() ? context.request.data() : "");
        context.reply.set_reply_text(verb + context.request.header("X-H", ""));
    }

    mutable std::mutex mutex_; // guards the two below
    std::string body_;
    mutable std::map<std::string, std::size_t> positions_;
    std::atomic<int> calls_{0};
};

class AnAsyncTransfer : public ServerTest {
protected:
    AnAsyncTransfer() : route(std::make_shared<BodyRoute>()) {}
    void SetUp() override
    {
        server = make({uri});
        server->add(route);
        client = make_async_client(uri);
    }

    std::shared_ptr<BodyRoute> route;
    std::shared_ptr<Server> server;
    std::shared_ptr<AsyncClient> client;
};

TEST_P(AnAsyncTransfer, DeliversBodiesOfEverySize)
{
    auto headers = slate::make_dictionary();
    headers->set("X-H", "!");
    for (const auto verb : {UploadOptions::Verb::Put, UploadOptions::Verb::Post}) {
        for (const std::size_t size : {0u, 1u, 999u, 1000u, 1001u, 2000u, 12345u}) {
            const std::string body = make_body(size);
            UploadOptions options;
            options.verb = verb;
            options.chunk_bytes = 1000;
            AsyncUpload upload(client, "/body", headers, options);
            for (std::size_t at = 0; at < size; at += 700) {
                const auto reply = upload.write(body.substr(at, 700)).get();
                EXPECT_EQ(reply->status(), Status::NoContent);
                EXPECT_FALSE(reply->is_local());
            }
            const auto reply = upload.finish().get();
            EXPECT_EQ(reply->text_or(""), verb == UploadOptions::Verb::Put ? "put!" : "post!") << size;
            EXPECT_EQ(route->body(), body);
            EXPECT_EQ(upload.acknowledged_bytes(), size);
            EXPECT_EQ(upload.finish().get(), reply);
            EXPECT_EQ(upload.write("late").get(), reply);
        }
    }
    EXPECT_EQ(route->calls(), 14);
}

TEST_P(AnAsyncTransfer, FetchesBodiesOfEverySize)
{
    for (const std::size_t size : {0u, 1u, 999u, 1000u, 1001u, 2000u, 12345u}) {
        route->set_body(make_body(size));
        AsyncDownload download(client, "/body");
        std::string body;
        auto reply = download.read().get();
        for (; reply->has_body() && !reply->data().empty(); reply = download.read().get())
            body += reply->data();
        EXPECT_TRUE(reply->good());
        EXPECT_TRUE(download.result().good());
        EXPECT_EQ(download.result().bytes, size);
        EXPECT_EQ(body, make_body(size));
        EXPECT_FALSE(download.read().get()->has_body());
    }
}

TEST_P(AnAsyncTransfer, RunsManyAtATime)
{
    constexpr std::size_t size = 50000;
    route->set_body(make_body(size));
    std::vector<std::unique_ptr<AsyncUpload>> uploads;
    std::vector<Pending> steps;
    UploadOptions options;
    options.chunk_bytes = 1000;
    for (int i = 0; i < 8; ++i) { // a server keeps ten
        uploads.push_back(std::make_unique<AsyncUpload>(client, "/body", nullptr, options));
        steps.push_back(uploads.back()->write(make_body(size)));
    }
    for (Pending& step : steps)
        EXPECT_TRUE(step.get()->good());
    for (const auto& upload : uploads)
        EXPECT_TRUE(upload->finish().get()->good());
    EXPECT_EQ(route->body(), make_body(size));
}

TEST_P(AnAsyncTransfer, ReportsItsProgressInOrder)
{
    Journal progress;
    UploadOptions options;
    options.chunk_bytes = 1000;
    options.progress = [&](std::uint64_t bytes) {
        progress.add(std::to_string(bytes));
        throw std::runtime_error("nobody's business");
    };
    AsyncUpload upload(client, "/body", nullptr, options);
    EXPECT_TRUE(upload.write(make_body(2500)).get()->good());
    std::promise<ReplyPointer> ended;
    upload.finish().then([&](const ReplyPointer& reply) { ended.set_value(reply); });
    EXPECT_TRUE(ended.get_future().get()->good());
    EXPECT_EQ(progress.entries(), (std::vector<std::string>{"1000", "2000", "2500"}));
}

TEST_P(AnAsyncTransfer, IsForgottenByTheServerWhenItIsAborted)
{
    UploadOptions options;
    options.chunk_bytes = 1000;
    for (int i = 0; i < 30; ++i) { // more than a server keeps
        AsyncUpload upload(client, "/body", nullptr, options);
        EXPECT_TRUE(upload.write(make_body(1500)).get()->good());
        if (i % 2 == 0)
            upload.abort();
    }
    AsyncUpload upload(client, "/body", nullptr, options);
    EXPECT_TRUE(upload.write(make_body(1500)).get()->good());
    EXPECT_TRUE(upload.finish().get()->good());
    EXPECT_EQ(route->calls(), 1);
    EXPECT_TRUE(wait_until([&] { return client->in_flight() == 0; })); // nobody waits for the last answers
}

INSTANTIATE_SERVER_KINDS(AnAsyncTransfer);

class AnAsyncTransferWithAPeer : public RuntimeTest {
protected:
    static Message status_reply(Status status) { return answer_of(status); }

    std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    AsyncPeer peer{uri};
    std::shared_ptr<AsyncClient> client = make_async_client(uri);
    UploadOptions small_chunks{.chunk_bytes = 10, .chunk_timeout = long_time, .last_timeout = long_time};
};

TEST_F(AnAsyncTransferWithAPeer, HasOneChunkInFlightAndOneStepAtATime)
{
    AsyncUpload upload(client, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(35, 'x'));
    for (int chunk = 0; chunk < 3; ++chunk) {
        const auto request = peer.next().value();
        EXPECT_EQ(request.request.chunk_number(), static_cast<std::uint32_t>(chunk));
        EXPECT_EQ(request.request.data().size(), 10u);
        EXPECT_FALSE(peer.next(std::chrono::milliseconds(20))); // nothing more before the answer
        const auto refused = upload.write("more").get();
        EXPECT_EQ(refused->status(), Status::TooManyRequests);
        EXPECT_EQ(refused->local_cause(), LocalCause::TooMany);
        EXPECT_FALSE(step.ready());
        peer.answer(request, status_reply(Status::NoContent));
    }
    EXPECT_TRUE(step.get()->good());
    auto last = upload.finish();
    const auto rest = peer.next().value();
    EXPECT_EQ(rest.request.data(), "xxxxx");
    peer.answer(rest, status_reply(Status::NoContent));
    const auto end = peer.next().value();
    EXPECT_EQ(end.request.chunk_number(), 4u);
    peer.answer(end, status_reply(Status::Created));
    EXPECT_EQ(last.get()->status(), Status::Created);
}

TEST_F(AnAsyncTransferWithAPeer, EndsAnUploadAtTheFirstBadAnswer)
{
    AsyncUpload upload(client, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(35, 'x'));
    peer.answer(peer.next().value(), status_reply(Status::NoContent));
    peer.answer(peer.next().value(), status_reply(Status::Conflict));
    EXPECT_EQ(step.get()->status(), Status::Conflict);
    EXPECT_EQ(upload.finish().get()->status(), Status::Conflict);
    EXPECT_EQ(upload.acknowledged_bytes(), 10u);
    EXPECT_FALSE(peer.next(std::chrono::milliseconds(20)));
}

TEST_F(AnAsyncTransferWithAPeer, TakesARequestForNoAnswer)
{
    AsyncUpload upload(client, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(10, 'x'));
    peer.answer(peer.next().value(), get_message("/a"));
    EXPECT_TRUE(step.get()->bad());
    EXPECT_EQ(step.get()->message, nullptr);
}

TEST_F(AnAsyncTransferWithAPeer, MakesTheServerForgetAfterTheChunkThatIsOnItsWay)
{
    for (const bool cancel : {false, true}) {
        AsyncUpload upload(client, "/a", nullptr, small_chunks);
        auto step = upload.write(std::string(15, 'x'));
        const auto chunk = peer.next().value();
        if (cancel)
            step.cancel();
        else
            upload.abort();
        EXPECT_EQ(step.get()->local_cause(), LocalCause::Cancelled);
        EXPECT_EQ(upload.finish().get()->local_cause(), LocalCause::Cancelled);
        EXPECT_FALSE(peer.next(std::chrono::milliseconds(20)));
        peer.answer(chunk, status_reply(Status::NoContent));
        const auto forgetting = peer.next().value();
        EXPECT_EQ(forgetting.request.chunk_number(), 2u); // beyond a gap
        EXPECT_EQ(forgetting.request.data(), std::string(1, '\0'));
        peer.answer(forgetting, status_reply(Status::Conflict));
    }
}

TEST_F(AnAsyncTransferWithAPeer, IsStoppedBetweenTwoChunks)
{
    std::stop_source stop;
    small_chunks.stop = stop.get_token();
    AsyncUpload upload(client, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(25, 'x'));
    const auto chunk = peer.next().value();
    stop.request_stop();
    EXPECT_FALSE(step.ready());
    peer.answer(chunk, status_reply(Status::NoContent));
    EXPECT_EQ(step.get()->local_cause(), LocalCause::Cancelled);
    EXPECT_EQ(peer.next().value().request.chunk_number(), 2u);
}

TEST_F(AnAsyncTransferWithAPeer, OutlivesNothingWhenItIsDestroyed)
{
    auto upload = std::make_unique<AsyncUpload>(client, "/a", nullptr, small_chunks);
    auto step = upload->write(std::string(15, 'x'));
    const auto chunk = peer.next().value();
    client.reset(); // which the upload keeps
    upload.reset();
    EXPECT_EQ(step.get()->local_cause(), LocalCause::Cancelled);
    peer.answer(chunk, status_reply(Status::NoContent));
    const auto forgetting = peer.next().value();
    EXPECT_EQ(providers("zmq.async_client"), 1u);
    peer.answer(forgetting, status_reply(Status::Conflict));
    EXPECT_TRUE(wait_until([] { return providers("zmq.async_client") == 0; }));
}

TEST_F(AnAsyncTransferWithAPeer, EndsWithTheRuntime)
{
    AsyncUpload upload(client, "/a", nullptr, small_chunks);
    AsyncDownload download(client, "/a");
    auto step = upload.write(std::string(15, 'x'));
    auto chunk = download.read();
    (void)peer.next_ones(2);
    runtime.reset();
    EXPECT_EQ(step.get()->local_cause(), LocalCause::Ended);
    EXPECT_EQ(chunk.get()->local_cause(), LocalCause::Ended);
    EXPECT_EQ(upload.finish().get()->local_cause(), LocalCause::Ended);
    EXPECT_TRUE(download.read().get()->bad());
}

TEST_F(AnAsyncTransferWithAPeer, AsksForAChunkWhenItIsReadAndNotBefore)
{
    AsyncDownload download(client, "/a", nullptr, {.chunk_timeout = long_time});
    EXPECT_FALSE(peer.next(std::chrono::milliseconds(20)));
    for (const std::string text : {"one", "two"}) {
        auto chunk = download.read();
        EXPECT_EQ(download.read().get()->local_cause(), LocalCause::TooMany);
        const auto request = peer.next().value();
        EXPECT_EQ(request.request.header(chunk_header::transfer, ""), text == "one" ? "" : "id");
        EXPECT_EQ(request.request.header(chunk_header::supported, ""), "true");
        peer.answer(request, chunk_reply(text, "id"));
        EXPECT_EQ(chunk.get()->data(), text);
        EXPECT_FALSE(peer.next(std::chrono::milliseconds(20)));
    }
    auto end = download.read();
    peer.answer(peer.next().value(), chunk_reply("", "id"));
    EXPECT_TRUE(end.get()->good());
    EXPECT_TRUE(download.result().good());
    EXPECT_EQ(download.result().bytes, 6u);
}

TEST_F(AnAsyncTransferWithAPeer, FetchesABodyInOneReply)
{
    AsyncDownload download(client, "/a");
    auto chunk = download.read();
    peer.answer(peer.next().value(), "all of it");
    EXPECT_EQ(chunk.get()->data(), "all of it");
    EXPECT_FALSE(download.read().get()->has_body());
    EXPECT_EQ(download.result().reply->data(), "all of it");
    EXPECT_EQ(download.result().bytes, 9u);
}

TEST_F(AnAsyncTransferWithAPeer, GivesNoBodyOfARefusalForAChunk)
{
    AsyncDownload download(client, "/a");
    auto chunk = download.read();
    Message refusal = chunk_reply("an explanation");
    refusal.mutable_response()->set_status(Status::Forbidden);
    peer.answer(peer.next().value(), refusal);
    EXPECT_EQ(chunk.get()->status(), Status::Forbidden);
    EXPECT_FALSE(chunk.get()->has_body());
    EXPECT_EQ(download.result().reply->data(), "an explanation");
    EXPECT_EQ(download.read().get()->status(), Status::Forbidden);
}

TEST_F(AnAsyncTransferWithAPeer, CancelsADownload)
{
    std::stop_source stop;
    auto download = std::make_unique<AsyncDownload>(
        client, "/a", nullptr, DownloadOptions{.chunk_timeout = long_time, .stop = stop.get_token()});
    auto chunk = download->read();
    (void)peer.next();
    stop.request_stop();
    EXPECT_EQ(chunk.get()->local_cause(), LocalCause::Cancelled);
    EXPECT_EQ(download->read().get()->local_cause(), LocalCause::Cancelled);
    EXPECT_EQ(download->result().reply->local_cause(), LocalCause::Cancelled);

    download = std::make_unique<AsyncDownload>(client, "/a");
    auto destroyed = download->read();
    download.reset();
    EXPECT_EQ(destroyed.get()->local_cause(), LocalCause::Cancelled);
}

/// Makes no PUT from a certain one on.
class FailingFactory : public ForwardingFactory {
public:
    using ForwardingFactory::make_put;
    MessagePtr make_put(std::string_view path, std::string&& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        if (left_-- <= 0)
            throw std::runtime_error("no more");
        return ForwardingFactory::make_put(path, std::move(body), headers, ttl);
    }

private:
    mutable std::atomic<int> left_{2};
};

TEST_F(AnAsyncTransferWithAPeer, EndsAnUploadWhoseNextChunkCannotBeMade)
{
    const auto poor = make_async_client(uri, {.factory = std::make_shared<FailingFactory>()});
    AsyncUpload upload(poor, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(35, 'x'));
    for (int i = 0; i < 2; ++i)
        peer.answer(peer.next().value(), status_reply(Status::NoContent));
    ASSERT_TRUE(step.wait_for(slate::Seconds(20)));
    EXPECT_EQ(step.get()->status(), Status::BadRequest);
    EXPECT_EQ(step.get()->local_cause(), LocalCause::InvalidRequest);
    EXPECT_EQ(upload.finish().get()->local_cause(), LocalCause::InvalidRequest);
    EXPECT_EQ(upload.acknowledged_bytes(), 20u);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "upload to /a ended: no more"));
}

TEST_F(AnAsyncTransferWithAPeer, PassesTheLimitOfItsClient)
{
    const auto busy = make_async_client(uri, {.max_in_flight = 1});
    auto other = busy->get("/other", {.timeout = long_time});
    EXPECT_EQ(peer.next().value().request.path(), "/other");
    EXPECT_EQ(busy->get("/refused").get()->local_cause(), LocalCause::TooMany);

    AsyncUpload upload(busy, "/a", nullptr, small_chunks);
    auto step = upload.write(std::string(20, 'x'));
    const auto first = peer.next().value();
    EXPECT_EQ(busy->in_flight(), 2u);
    peer.answer(first, status_reply(Status::NoContent));
    peer.answer(peer.next().value(), status_reply(Status::NoContent));
    EXPECT_TRUE(step.get()->good());
    upload.abort();
    EXPECT_EQ(peer.next().value().request.data(), std::string(1, '\0')); // which has the server forget it

    AsyncDownload download(busy, "/a");
    auto chunk = download.read();
    peer.answer(peer.next().value(), "all of it");
    EXPECT_EQ(chunk.get()->data(), "all of it");
    EXPECT_EQ(busy->get("/refused").get()->local_cause(), LocalCause::TooMany);
}

TEST_F(AnAsyncTransferWithAPeer, CancelsTheRequestOfAReadThatIsCancelled)
{
    for (const bool destroy : {false, true}) {
        auto download = std::make_unique<AsyncDownload>(client, "/a", nullptr,
                                                        DownloadOptions{.chunk_timeout = long_time});
        auto chunk = download->read();
        (void)peer.next();
        EXPECT_EQ(client->in_flight(), 1u);
        if (destroy)
            download.reset();
        else
            chunk.cancel();
        EXPECT_EQ(chunk.get()->local_cause(), LocalCause::Cancelled);
        EXPECT_EQ(client->in_flight(), 0u);
    }
}

TEST_F(AnAsyncTransferWithAPeer, ThrowsForWhatIsABugOfTheCaller)
{
    EXPECT_THROW(AsyncUpload(nullptr, "/a"), Exception);
    EXPECT_THROW(AsyncDownload(nullptr, "/a"), Exception);
    AsyncUpload upload(client, "/a@b");
    EXPECT_THROW((void)upload.finish(), Exception);
    EXPECT_TRUE(upload.finish().get()->bad());
    AsyncDownload download(client, "/a@b");
    EXPECT_THROW((void)download.read(), Exception);
    EXPECT_TRUE(download.read().get()->bad());
}
} // namespace
