// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/upload.h"

#include <chrono>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stop_token>
#include <thread>

#include "support/environment.h"
#include "support/forwarding_factory.h"
#include "support/peers.h"
#include "support/server_kinds.h"
#include "support/telling_peer.h"
#include "unit/tarn/messages.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
namespace fs = std::filesystem;
using Verb = UploadOptions::Verb;
using Sizes = std::vector<std::size_t>;

constexpr Verb verbs[] = {Verb::Put, Verb::Post};
constexpr std::size_t mebibyte = 1 << 20;
constexpr std::size_t chunk_bytes = 1000;
const slate::Duration generous = slate::Seconds(20);

/// A body that no other one equals at any place.
std::string body_of(std::size_t size)
{
    std::string body;
    for (std::size_t i = 0; body.size() < size; ++i)
        body += std::to_string(i) + ",";
    body.resize(size);
    return body;
}

UploadOptions options_of(Verb verb, std::size_t bytes = chunk_bytes)
{
    UploadOptions options;
    options.verb = verb;
    options.chunk_bytes = bytes;
    options.chunk_timeout = generous;
    return options;
}

std::string name_of(Verb verb)
{
    return verb == Verb::Put ? "put" : "post";
}

/// Notes the id of the transfer that each request belongs to.
class NotingFactory : public ForwardingFactory {
public:
    using ForwardingFactory::make_post;
    using ForwardingFactory::make_put;

    MessagePtr make_put(std::string_view path, std::string&& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        id = headers->get(chunk_header::transfer, "");
        return ForwardingFactory::make_put(path, std::move(body), headers, ttl);
    }
    MessagePtr make_post(std::string_view path, std::string&& body, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        id = headers->get(chunk_header::transfer, "");
        return ForwardingFactory::make_post(path, std::move(body), headers, ttl);
    }

    mutable std::string id;
};

/// Wants every chunk as it comes.
class RouteForChunks : public TestRoute {
public:
    using TestRoute::TestRoute;
    bool supports_chunked_transfer() const override { return true; }
};

// --- Against a server ---------------------------------------------------------------------------------

/// A server with a route "/a", which gets bodies whole and answers "done", and a route "/chunks", which gets
/// every chunk.
class AnUpload : public ServerTest {
protected:
    struct Delivery {
        std::string verb;
        Request request;
    };

    void SetUp() override
    {
        server = make({uri});
        const auto whole = make_test_route("whole", "put,post", "/a");
        add(whole, "done");
        const auto chunks =
            std::make_shared<RouteForChunks>("chunks", "put,post", RoutePattern("/chunks"), Access::Public);
        add(chunks, "");
    }

    void add(const std::shared_ptr<TestRoute>& route, const std::string& answer)
    {
        const auto handler = [this, answer](const std::string& verb) {
            return [this, answer, verb](Context& context) {
                TestRoute::Handler next;
                {
                    const std::lock_guard lock(mutex);
                    deliveries.push_back(
                        {verb, Request(std::make_shared<Message>(*context.request.message))});
                    next = on_request_;
                }
                if (next)
                    next(context);
                if (!answer.empty())
                    context.reply.set_reply_text(answer);
            };
        };
        route->on_put = handler("put");
        route->on_post = handler("post");
        server->add(route);
    }

    /// What the handlers do besides.
    void on_request(const TestRoute::Handler& handler)
    {
        const std::lock_guard lock(mutex);
        on_request_ = handler;
    }

    void forget_deliveries()
    {
        const std::lock_guard lock(mutex);
        deliveries.clear();
    }
    std::vector<Delivery> delivered() const
    {
        const std::lock_guard lock(mutex);
        return deliveries;
    }
    Sizes delivered_sizes() const
    {
        Sizes sizes;
        for (const Delivery& delivery : delivered())
            sizes.push_back(delivery.request.data().size());
        return sizes;
    }

    /// Whether the server doesn't know the transfer that the client's last request belonged to.
    bool is_forgotten()
    {
        const auto headers = dictionary_of({{chunk_header::transfer, factory->id}});
        const auto reply = make_client(uri)->put("/a", "x", headers, generous);
        return reply->status() == Status::Conflict && !reply->is_local();
    }
    bool has_no_files() const { return files_below(area).empty(); }

    const fs::path area = folder.path() / "area";
    const fs::path temporary = (fs::create_directories(area / "tmp"), area / "tmp");
    const TemporaryFolderVariable variable{temporary};
    mutable std::mutex mutex; // guards deliveries and on_request_
    std::vector<Delivery> deliveries;
    TestRoute::Handler on_request_;
    std::shared_ptr<Server> server; // after what its handlers use
    std::shared_ptr<NotingFactory> factory = std::make_shared<NotingFactory>();
    std::shared_ptr<Client> client = make_client(uri, 0, factory);
};
INSTANTIATE_SERVER_KINDS(AnUpload);

const Sizes body_sizes = {
    0, 1, chunk_bytes - 1, chunk_bytes, chunk_bytes + 1, 2 * chunk_bytes, 3 * chunk_bytes + chunk_bytes / 2};

TEST_P(AnUpload, OfAnySizeReachesItsRouteOnceAndWhole)
{
    for (const Verb verb : verbs) {
        for (const std::size_t size : body_sizes) {
            forget_deliveries();
            const std::string body = body_of(size);

            Upload upload(client, "/a", nullptr, options_of(verb));
            EXPECT_TRUE(upload.write(body));
            const TransferResult result = upload.finish();

            EXPECT_TRUE(result.good()) << size << ": " << result.reply->status_message();
            EXPECT_EQ(result.reply->text_or("none"), "done");
            EXPECT_FALSE(result.reply->is_local());
            EXPECT_EQ(result.bytes, size);
            ASSERT_EQ(delivered().size(), 1u) << size;
            EXPECT_EQ(delivered()[0].verb, name_of(verb));
            EXPECT_TRUE(delivered()[0].request.data() == body) << size;
        }
    }
}

TEST_P(AnUpload, EndsWithOneEmptyChunkWhateverItsSize)
{
    for (const Verb verb : verbs) {
        for (const std::size_t size : body_sizes) {
            forget_deliveries();
            Upload upload(client, "/chunks", nullptr, options_of(verb));
            EXPECT_TRUE(upload.write(body_of(size)));

            EXPECT_TRUE(upload.finish().good()) << size;

            Sizes expected(size / chunk_bytes, chunk_bytes);
            if (size % chunk_bytes != 0)
                expected.push_back(size % chunk_bytes);
            expected.push_back(0);
            EXPECT_EQ(delivered_sizes(), expected) << size;
            std::string whole;
            const auto got = delivered();
            for (std::size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(got[i].request.header(chunk_header::number, ""), std::to_string(i));
                whole += got[i].request.data();
            }
            EXPECT_TRUE(whole == body_of(size)) << size;
        }
    }
}

TEST_P(AnUpload, OfAStreamIsThatOfItsRest)
{
    for (const Verb verb : verbs) {
        for (const std::size_t size : body_sizes) {
            forget_deliveries();
            std::istringstream stream("head" + body_of(size));
            stream.ignore(4);

            const TransferResult result = upload(client, "/a", stream, options_of(verb));

            EXPECT_TRUE(result.good()) << size;
            EXPECT_EQ(result.bytes, size);
            ASSERT_EQ(delivered().size(), 1u) << size;
            EXPECT_TRUE(delivered()[0].request.data() == body_of(size)) << size;
        }
    }
}

TEST_P(AnUpload, OfManySmallWritesGoesInWholeChunks)
{
    for (const Verb verb : verbs) {
        forget_deliveries();
        const std::string body = body_of(2500);
        Upload upload(client, "/chunks", nullptr, options_of(verb));

        for (std::size_t i = 0; i < body.size(); i += 7)
            ASSERT_TRUE(upload.write(std::string_view(body).substr(i, 7)));
        EXPECT_EQ(upload.acknowledged_bytes(), 2000u); // the rest is still collected
        EXPECT_TRUE(upload.finish().good());

        EXPECT_EQ(delivered_sizes(), (Sizes{1000, 1000, 500, 0}));
    }
}

TEST_P(AnUpload, OfTextMayHaveACharacterOnACut)
{
    const std::string body = std::string(mebibyte - 1, 'a') + "\xC3\xB6" + std::string(mebibyte, 'b');
    for (const Verb verb : verbs) {
        forget_deliveries();
        Upload upload(client, "/a?format=text", nullptr, options_of(verb, max_chunk_bytes));

        EXPECT_TRUE(upload.write(body));
        EXPECT_TRUE(upload.finish().good());

        ASSERT_EQ(delivered().size(), 1u);
        EXPECT_EQ(delivered()[0].request.format(), Format::Text);
        EXPECT_TRUE(delivered()[0].request.message->has_put()
                        ? delivered()[0].request.message->put().body().has_txt()
                        : delivered()[0].request.message->post().body().has_txt());
        EXPECT_TRUE(delivered()[0].request.data() == body);
    }
}

TEST_P(AnUpload, CarriesTheCallersHeadersAndLeavesThemAlone)
{
    const Pairs own = {{"X-Own", "1"}, {"Accept", "text/plain"}};
    const auto headers = dictionary_of(own);
    for (const Verb verb : verbs) {
        forget_deliveries();
        Upload upload(client, "/a", headers, options_of(verb));
        headers->set("X-Own", "changed since"); // they are copied
        EXPECT_TRUE(upload.write(body_of(2500)));
        EXPECT_TRUE(upload.finish().good());
        headers->set("X-Own", "1");

        ASSERT_EQ(delivered().size(), 1u);
        EXPECT_EQ(pairs_of(delivered()[0].request.head().headers()), pairs_of(*dictionary_of(own)));
        EXPECT_EQ(pairs_of(*headers), pairs_of(*dictionary_of(own)));
    }
}

TEST_P(AnUpload, TellsItsProgressInGrowingNumbers)
{
    for (const Verb verb : verbs) {
        std::vector<std::uint64_t> told;
        const auto thread = std::this_thread::get_id();
        auto options = options_of(verb);
        options.progress = [&](std::uint64_t bytes) {
            EXPECT_EQ(std::this_thread::get_id(), thread);
            told.push_back(bytes);
        };
        Upload upload(client, "/a", nullptr, options);
        EXPECT_TRUE(upload.write(body_of(2500)));
        EXPECT_TRUE(upload.finish().good());

        EXPECT_EQ(told, (std::vector<std::uint64_t>{1000, 2000, 2500}));
    }
}

TEST_P(AnUpload, ReportsTheRoutesRefusalOfTheWholeBody)
{
    on_request([](const Context&) { throw MessageException(Status::InsufficientStorage, "full"); });
    for (const Verb verb : verbs) {
        forget_deliveries();
        Upload upload(client, "/a", nullptr, options_of(verb));
        EXPECT_TRUE(upload.write(body_of(2500)));

        const TransferResult result = upload.finish();

        EXPECT_EQ(result.reply->status(), Status::InsufficientStorage);
        EXPECT_EQ(result.reply->status_message(), "full");
        EXPECT_FALSE(result.reply->is_local());
        EXPECT_EQ(result.bytes, 2500u);
        EXPECT_EQ(delivered().size(), 1u);
        EXPECT_TRUE(is_forgotten());
    }
}

TEST_P(AnUpload, EndsWithTheFirstChunkThatTheRouteRefuses)
{
    on_request([](const Context& context) {
        if (context.request.chunk_number() == 1u)
            throw MessageException(Status::InsufficientStorage, "full");
    });
    for (const Verb verb : verbs) {
        forget_deliveries();
        Upload upload(client, "/chunks", nullptr, options_of(verb));

        EXPECT_FALSE(upload.write(body_of(5000)));
        EXPECT_FALSE(upload.write("more"));
        const TransferResult result = upload.finish();

        EXPECT_EQ(result.reply->status(), Status::InsufficientStorage);
        EXPECT_EQ(result.reply->status_message(), "full");
        EXPECT_EQ(result.bytes, 1000u);
        EXPECT_EQ(upload.finish().reply, result.reply);
        upload.abort(); // has nothing to do
        EXPECT_EQ(delivered_sizes(), (Sizes{1000, 1000}));
    }
}

TEST_P(AnUpload, HasMoreTimeForItsLastStepThanForAChunk)
{
    // What is tested is time, so this takes it: the handler is slower than a chunk may be.
    on_request([](const Context&) { std::this_thread::sleep_for(1500ms); });
    ASSERT_TRUE(client->get("/index")->good()); // connected, so that no chunk is late
    auto options = options_of(Verb::Put);
    options.chunk_timeout = slate::Seconds(1);
    options.last_timeout = generous;
    Upload upload(client, "/a", nullptr, options);
    EXPECT_TRUE(upload.write(body_of(2500)));

    EXPECT_EQ(upload.finish().reply->text_or("none"), "done");
}

// --- Giving up ----------------------------------------------------------------------------------------

/// The ways in which an upload is given up between two chunks. Each gets 11 chunks of a mebibyte, so that the
/// server has a file.
class AnAbandonedUpload : public AnUpload {
protected:
    void begin(Upload& upload)
    {
        ASSERT_TRUE(upload.write(body_of(11 * mebibyte)));
        ASSERT_EQ(upload.acknowledged_bytes(), 11 * mebibyte);
        ASSERT_EQ(files_below(area).size(), 1u);
    }

    void expect_cancelled(const TransferResult& result)
    {
        EXPECT_EQ(result.reply->status(), Status::RequestTimeout);
        EXPECT_EQ(result.reply->local_cause(), LocalCause::Cancelled);
        EXPECT_EQ(result.bytes, 11 * mebibyte);
    }

    void expect_nothing_left()
    {
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_forgotten());
        EXPECT_TRUE(delivered().empty());
    }
};
INSTANTIATE_SERVER_KINDS(AnAbandonedUpload);

TEST_P(AnAbandonedUpload, IsForgottenByTheServerIfItIsStopped)
{
    for (const Verb verb : verbs) {
        std::stop_source stop;
        auto options = options_of(verb, mebibyte);
        options.stop = stop.get_token();
        Upload upload(client, "/a", nullptr, options);
        begin(upload);

        stop.request_stop();
        EXPECT_FALSE(upload.write(body_of(mebibyte)));

        expect_cancelled(upload.finish());
        expect_nothing_left();
    }
}

TEST_P(AnAbandonedUpload, IsForgottenByTheServerIfItIsStoppedBeforeItsLastStep)
{
    std::stop_source stop;
    auto options = options_of(Verb::Put, mebibyte);
    options.stop = stop.get_token();
    Upload upload(client, "/a", nullptr, options);
    begin(upload);

    stop.request_stop();

    expect_cancelled(upload.finish());
    expect_nothing_left();
}

TEST_P(AnAbandonedUpload, IsForgottenByTheServerIfItIsAborted)
{
    for (const Verb verb : verbs) {
        Upload upload(client, "/a", nullptr, options_of(verb, mebibyte));
        begin(upload);

        upload.abort();

        EXPECT_TRUE(has_no_files());
        EXPECT_FALSE(upload.write("x"));
        expect_cancelled(upload.finish());
        expect_nothing_left();
    }
}

TEST_P(AnAbandonedUpload, IsForgottenByTheServerIfItIsDestroyed)
{
    for (const Verb verb : verbs) {
        {
            Upload upload(client, "/a", nullptr, options_of(verb, mebibyte));
            begin(upload);
        }
        expect_nothing_left();
    }
}

/// Gives that many bytes, and then throws.
class BreakingBuffer : public std::streambuf {
public:
    explicit BreakingBuffer(std::size_t bytes) : text_(body_of(bytes)) {}

protected:
    int_type underflow() override
    {
        if (broken_)
            throw std::runtime_error("broken");
        broken_ = true;
        setg(text_.data(), text_.data(), text_.data() + text_.size());
        return traits_type::to_int_type(text_.front());
    }

private:
    bool broken_ = false;
    std::string text_;
};

TEST_P(AnAbandonedUpload, IsForgottenByTheServerIfItsStreamFails)
{
    for (const Verb verb : verbs) {
        BreakingBuffer buffer(11 * mebibyte);
        std::istream stream(&buffer);

        const TransferResult result = upload(client, "/a", stream, options_of(verb, mebibyte));

        EXPECT_EQ(result.reply->status(), Status::BadRequest);
        EXPECT_EQ(result.reply->local_cause(), LocalCause::InvalidRequest);
        EXPECT_EQ(result.reply->status_message(), "the stream can't be read");
        EXPECT_EQ(result.bytes, 11 * mebibyte);
        expect_nothing_left();
    }
}

// --- Against a peer that is told what to answer -------------------------------------------------------

class AnUploadOnTheWire : public RuntimeTest {
protected:
    /// Number and size of each chunk, whatever gets came before.
    using Chunks = std::vector<std::pair<std::string, std::size_t>>;
    static Chunks chunks(const TellingPeer& peer)
    {
        Chunks result;
        for (const Request& request : peer.requests()) {
            if (!request.message->has_get())
                result.emplace_back(request.header(chunk_header::number, "none"), request.data().size());
        }
        return result;
    }

    const std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    const Message ok = answer_of(Status::NoContent);
};

TEST_F(AnUploadOnTheWire, NeedsAClient)
{
    EXPECT_THROW(Upload(nullptr, "/a"), tarn::Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot upload without a client: /a"));
}

TEST_F(AnUploadOnTheWire, NeedsNothingButAClientAndAPath)
{
    TellingPeer peer(uri, std::vector{ok});
    Upload upload(make_client(uri), "/a");
    EXPECT_TRUE(upload.write(body_of(mebibyte + 1)));

    EXPECT_TRUE(upload.finish().good());

    EXPECT_EQ(chunks(peer), (Chunks{{"0", mebibyte}, {"1", 1u}, {"2", 0u}}));
    EXPECT_TRUE(peer.requests().at(0).message->has_put());
    EXPECT_EQ(peer.requests().at(0).meta("ttl"), "4s");
    EXPECT_EQ(peer.requests().at(2).meta("ttl"), "1min");
}

TEST_F(AnUploadOnTheWire, SendsNothingBeforeAChunkIsFull)
{
    TellingPeer peer(uri, std::vector{ok});
    Upload upload(make_client(uri), "/a", nullptr, options_of(Verb::Put));
    EXPECT_TRUE(upload.write(body_of(chunk_bytes - 1)));
    EXPECT_EQ(peer.count(), 0u);
    EXPECT_TRUE(upload.write("x"));
    EXPECT_EQ(peer.count(), 1u);
}

TEST_F(AnUploadOnTheWire, HasChunksOfOneByteToOneMebibyte)
{
    for (const auto& [wanted, size] : {std::pair<std::size_t, std::size_t>{0, 1},
                                       {1, 1},
                                       {7, 7},
                                       {mebibyte, mebibyte},
                                       {2 * mebibyte, mebibyte}}) {
        const auto endpoint = scratch_endpoint();
        TellingPeer peer(endpoint, std::vector{ok});
        Upload upload(make_client(endpoint), "/a", nullptr, options_of(Verb::Put, wanted));

        EXPECT_TRUE(upload.write(body_of(size + 1)));
        EXPECT_TRUE(upload.finish().good());

        EXPECT_EQ(chunks(peer), (Chunks{{"0", size}, {"1", 1u}, {"2", 0u}})) << wanted;
    }
}

TEST_F(AnUploadOnTheWire, IsATransferOfItsOwnWhateverTheCallersHeadersSay)
{
    TellingPeer peer(uri, std::vector{ok});
    const Pairs given = {{"X-Tarn-Chunked-Transfer", "mine"},
                         {"x-tarn-chunk-number", "77"},
                         {"X-TARN-TRANSFER-BEGIN", "1"},
                         {"X-Tarn-Supports-Chunked-Transfer", "true"},
                         {"X-Own", "1"}};
    const auto headers = dictionary_of(given);
    std::set<std::string> ids;
    for (int i = 0; i < 2; ++i) {
        Upload upload(make_client(uri), "/a", headers, options_of(Verb::Put));
        EXPECT_TRUE(upload.write("x"));
        EXPECT_TRUE(upload.finish().good());
    }

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 1u}, {"1", 0u}, {"0", 1u}, {"1", 0u}}));
    for (const Request& request : peer.requests()) {
        EXPECT_EQ(request.head().headers_size(), 3) << request.to_string(); // and those of its own
        EXPECT_EQ(request.header("X-Own", ""), "1");
        ids.insert(request.header(chunk_header::transfer, ""));
    }
    EXPECT_EQ(ids.size(), 2u);
    EXPECT_FALSE(ids.contains("mine"));
    EXPECT_EQ(pairs_of(*headers), pairs_of(*dictionary_of(given)));
}

TEST_F(AnUploadOnTheWire, SendsNoChunkAgainWhoseAnswerIsLost)
{
    for (const Verb verb : verbs) {
        const auto endpoint = scratch_endpoint();
        // Answers the greeting and the first chunk.
        TellingPeer peer(endpoint,
                         std::vector{ok.SerializeAsString(), ok.SerializeAsString(), std::string()});
        const auto client = make_client(endpoint, 1);
        ASSERT_TRUE(client->get("/hello", nullptr, generous)->good()); // connected, so that no chunk is late
        {
            auto options = options_of(verb);
            options.chunk_timeout = slate::Seconds(1);
            Upload upload(client, "/a", nullptr, options);

            EXPECT_FALSE(upload.write(body_of(5000)));
            EXPECT_FALSE(upload.write("more"));
            const TransferResult result = upload.finish();

            EXPECT_EQ(result.reply->status(), Status::RequestTimeout);
            EXPECT_EQ(result.reply->local_cause(), LocalCause::NoAnswerInTime);
            EXPECT_EQ(result.bytes, 1000u);
            EXPECT_EQ(upload.acknowledged_bytes(), 1000u);
            upload.abort();
        }
        ASSERT_TRUE(wait_until([&] { return peer.count() == 3; }));
        EXPECT_EQ(chunks(peer), (Chunks{{"0", 1000u}, {"1", 1000u}}));
        EXPECT_EQ(logs.count(slate::ErrorLevel, "upload to /a failed after bytes acknowledged: 1000"), 1u);
        logs.clear();
    }
}

TEST_F(AnUploadOnTheWire, IsNotBegunOnceItIsStopped)
{
    TellingPeer peer(uri, std::vector{ok});
    std::stop_source stop;
    stop.request_stop();
    auto options = options_of(Verb::Put);
    options.stop = stop.get_token();
    for (const std::size_t size : {std::size_t{0}, std::size_t{1}, 5 * chunk_bytes}) {
        Upload upload(make_client(uri), "/a", nullptr, options);

        EXPECT_EQ(upload.write(body_of(size)), size < chunk_bytes);
        const TransferResult result = upload.finish();

        EXPECT_EQ(result.reply->status(), Status::RequestTimeout);
        EXPECT_EQ(result.reply->local_cause(), LocalCause::Cancelled);
        EXPECT_EQ(result.bytes, 0u);
    }
    EXPECT_EQ(peer.count(), 0u);
}

TEST_F(AnUploadOnTheWire, ThatHasSentNothingIsAbortedSilently)
{
    TellingPeer peer(uri, std::vector{ok});
    {
        Upload upload(make_client(uri), "/a", nullptr, options_of(Verb::Put));
        EXPECT_TRUE(upload.write("x"));
        upload.abort();
        EXPECT_EQ(upload.finish().reply->local_cause(), LocalCause::Cancelled);
    }
    {
        const Upload never_used(make_client(uri), "/a");
    }
    EXPECT_EQ(peer.count(), 0u);
}

TEST_F(AnUploadOnTheWire, IsNotAbortedOnceItHasFinished)
{
    TellingPeer peer(uri, std::vector{ok});
    {
        Upload upload(make_client(uri), "/a", nullptr, options_of(Verb::Put));
        EXPECT_TRUE(upload.write("x"));
        const TransferResult result = upload.finish();
        EXPECT_TRUE(result.good());

        upload.abort();

        EXPECT_TRUE(upload.finish().good());
        EXPECT_EQ(upload.finish().reply, result.reply);
        EXPECT_FALSE(upload.write("x"));
    }
    EXPECT_EQ(chunks(peer), (Chunks{{"0", 1u}, {"1", 0u}}));
}

TEST_F(AnUploadOnTheWire, IsAbortedByAChunkBeyondAGapThatIsNotEmpty)
{
    TellingPeer peer(uri, std::vector{ok});
    Upload upload(make_client(uri), "/a", nullptr, options_of(Verb::Post));
    EXPECT_TRUE(upload.write(body_of(1500)));

    upload.abort();

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 1000u}, {"2", 1u}}));
    EXPECT_TRUE(peer.requests().at(1).message->has_post());
    EXPECT_EQ(peer.requests().at(1).header(chunk_header::transfer, "second"),
              peer.requests().at(0).header(chunk_header::transfer, "first"));
}

TEST_F(AnUploadOnTheWire, FailsWithTheReplyThatIsNotAMessage)
{
    TellingPeer peer(uri, std::vector<std::string>{"\xFF no message"});
    Upload upload(make_client(uri), "/a", nullptr, options_of(Verb::Put));

    EXPECT_FALSE(upload.write(body_of(5000)));

    EXPECT_EQ(upload.finish().reply->message, nullptr);
    EXPECT_EQ(upload.finish().bytes, 0u);
    EXPECT_EQ(peer.count(), 1u);
}

TEST_F(AnUploadOnTheWire, IsNotAcknowledgedByAMessageThatIsNotAResponse)
{
    for (const std::string answer : {"call {}", "call { result { status: Ok } }", "get {}", "put {}"}) {
        const auto endpoint = scratch_endpoint();
        TellingPeer peer(endpoint, std::vector{*message_of(answer)});
        Upload upload(make_client(endpoint), "/a", nullptr, options_of(Verb::Put));

        EXPECT_FALSE(upload.write(body_of(5000))) << answer;

        EXPECT_TRUE(upload.finish().bad()) << answer;
        EXPECT_EQ(upload.finish().bytes, 0u) << answer;
        EXPECT_EQ(peer.count(), 1u) << answer;
    }
}

TEST_F(AnUploadOnTheWire, ThrowsForARecipientThatCannotBeTakenApart)
{
    const auto client = make_client(uri);
    Upload upload(client, "/a@x", nullptr, options_of(Verb::Put));
    EXPECT_THROW((void)upload.write(body_of(5000)), tarn::Exception);
    std::istringstream stream("x");
    EXPECT_THROW((void)tarn::upload(client, "/a@x", stream), tarn::Exception);
}

TEST_F(AnUploadOnTheWire, OfAStreamTakesItsHeadersAlong)
{
    TellingPeer peer(uri, std::vector{ok});
    std::istringstream stream("body");

    EXPECT_TRUE(
        upload(make_client(uri), "/a?format=json", stream, dictionary_of({{"X-Own", "1"}}), {}).good());

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 4u}, {"1", 0u}}));
    for (const Request& request : peer.requests()) {
        EXPECT_EQ(request.path(), "/a");
        EXPECT_EQ(request.format(), Format::Json);
        EXPECT_EQ(request.header("X-Own", ""), "1");
    }
}

TEST_F(AnUploadOnTheWire, OfAStreamThatCannotBeReadSendsNothing)
{
    TellingPeer peer(uri, std::vector{ok});
    std::ifstream missing("/nowhere/to/be/found");

    const TransferResult result = upload(make_client(uri), "/a", missing);

    EXPECT_EQ(result.reply->status(), Status::BadRequest);
    EXPECT_TRUE(result.reply->is_local());
    EXPECT_EQ(result.bytes, 0u);
    EXPECT_EQ(peer.count(), 0u);
}

TEST_F(AnUploadOnTheWire, OfAStreamStopsReadingItWhenAChunkFails)
{
    TellingPeer peer(uri, std::vector{ok, answer_of(Status::Gone)});
    std::istringstream stream(body_of(mebibyte));

    const TransferResult result = upload(make_client(uri), "/a", stream, options_of(Verb::Put, 100000));

    EXPECT_EQ(result.reply->status(), Status::Gone);
    EXPECT_EQ(result.bytes, 100000u);
    EXPECT_EQ(peer.count(), 2u);
    EXPECT_LT(stream.tellg(), 300000);
}
} // namespace
