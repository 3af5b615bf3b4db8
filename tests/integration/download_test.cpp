// SPDX-License-Identifier: Apache-2.0
#include "tarn/transfer/download.h"

#include <mutex>
#include <sstream>
#include <stop_token>
#include <streambuf>

#include "support/server_kinds.h"
#include "support/telling_peer.h"
#include "unit/tarn/messages.h"

namespace {
using namespace tarn;
using namespace tarn_test;
using Chunks = std::vector<std::string>;

const slate::Duration generous = slate::Seconds(20);

/// All chunks that a download gives.
Chunks read_all(Download& download)
{
    Chunks chunks;
    while (const auto chunk = download.read())
        chunks.push_back(*chunk);
    return chunks;
}

// --- Against a peer that is told what to answer -------------------------------------------------------

class ADownload : public RuntimeTest {
protected:
    const std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
};

TEST_F(ADownload, NeedsAClient)
{
    EXPECT_THROW(Download(nullptr, "/a"), tarn::Exception);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "cannot download without a client: /a"));
}

TEST_F(ADownload, OfABodyInOneReplyIsOneChunkAndOneRequest)
{
    TellingPeer peer(uri, std::vector{chunk_reply("whole body")});
    Download download(make_client(uri), "/a");

    EXPECT_EQ(read_all(download), Chunks{"whole body"});

    EXPECT_TRUE(download.result().good());
    EXPECT_EQ(download.result().bytes, 10u);
    EXPECT_EQ(download.result().reply->data(), "whole body");
    EXPECT_FALSE(download.result().reply->is_local());
    ASSERT_EQ(peer.count(), 1u);
    EXPECT_TRUE(peer.requests()[0].message->has_get());
    EXPECT_EQ(peer.requests()[0].header(chunk_header::supported, ""), "true");
    EXPECT_FALSE(peer.requests()[0].has_header(chunk_header::transfer));
}

TEST_F(ADownload, GivesEachChunkUntilAnEmptyOne)
{
    const std::string second("t\0wo", 4);
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply(second, "another"), chunk_reply("three"),
                           chunk_reply("")});
    Download download(make_client(uri), "/a?format=json");

    EXPECT_EQ(read_all(download), (Chunks{"one", second, "three"}));

    EXPECT_EQ(download.result().reply->status(), Status::Ok);
    EXPECT_EQ(download.result().bytes, 12u);
    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 4u);
    EXPECT_FALSE(sent[0].has_header(chunk_header::transfer));
    for (const Request& request : {sent[1], sent[2], sent[3]})
        EXPECT_EQ(request.header(chunk_header::transfer, ""), "id-7"); // the first reply names it
    for (const Request& request : sent) {
        EXPECT_TRUE(request.message->has_get());
        EXPECT_EQ(request.path(), "/a");
        EXPECT_EQ(request.format(), Format::Json);
    }
}

TEST_F(ADownload, EndsWithAGoodReplyThatHasNoBody)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), answer_of(Status::NoContent)});
    Download download(make_client(uri), "/a");

    EXPECT_EQ(read_all(download), Chunks{"one"});
    EXPECT_TRUE(download.result().good());
    EXPECT_EQ(peer.count(), 2u);
}

TEST_F(ADownload, OfAnEmptyBodyGivesNoChunkAndIsGood)
{
    Message hollow = answer_of(Status::Ok);
    hollow.mutable_response()->mutable_body();
    for (const Message& answer :
         {chunk_reply(""), chunk_reply("", "id"), answer_of(Status::NoContent), hollow}) {
        const auto endpoint = scratch_endpoint();
        TellingPeer peer(endpoint, std::vector{answer});
        Download download(make_client(endpoint), "/a");

        EXPECT_EQ(read_all(download), Chunks());

        EXPECT_TRUE(download.result().good());
        EXPECT_EQ(download.result().bytes, 0u);
        EXPECT_EQ(peer.count(), 1u);
    }
}

TEST_F(ADownload, AsksForNothingMoreOnceItHasEnded)
{
    TellingPeer peer(uri, std::vector{chunk_reply("whole")});
    Download download(make_client(uri), "/a");
    read_all(download);

    EXPECT_FALSE(download.read());
    EXPECT_FALSE(download.read());

    EXPECT_EQ(peer.count(), 1u);
    EXPECT_TRUE(download.result().good());
}

TEST_F(ADownload, HasABadResultOfItsOwnBeforeAnythingIsRead)
{
    const Download download(make_client(uri), "/a");

    EXPECT_TRUE(download.result().bad());
    EXPECT_EQ(download.result().reply->local_cause(), LocalCause::InvalidRequest);
    EXPECT_EQ(download.result().bytes, 0u);
}

TEST_F(ADownload, CarriesTheCallersHeadersAndLeavesThemAlone)
{
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply("")});
    const Pairs given = {{"X-Own", "1"},
                         {"X-Tarn-Chunked-Transfer", "mine"},
                         {"x-tarn-chunk-number", "77"},
                         {"x-tarn-supports-chunked-transfer", "false"}};
    const auto headers = dictionary_of(given);
    Download download(make_client(uri), "/a", headers);
    headers->set("X-Own", "changed since"); // they are copied

    EXPECT_EQ(read_all(download), Chunks{"one"});

    headers->set("X-Own", "1");
    EXPECT_EQ(pairs_of(*headers), pairs_of(*dictionary_of(given)));
    EXPECT_EQ(pairs_of(peer.requests().at(0).head().headers()),
              pairs_of(*dictionary_of({{"X-Own", "1"}, {chunk_header::supported, "true"}})));
    EXPECT_EQ(peer.requests().at(1).header(chunk_header::transfer, ""), "id-7");
    EXPECT_EQ(peer.requests().at(1).header("X-Own", ""), "1");
}

TEST_F(ADownload, TellsItsProgressInGrowingNumbers)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), chunk_reply("three"), chunk_reply("")});
    std::vector<std::uint64_t> told;
    DownloadOptions options;
    options.progress = [&](std::uint64_t bytes) { told.push_back(bytes); };
    Download download(make_client(uri), "/a", nullptr, options);

    read_all(download);

    EXPECT_EQ(told, (std::vector<std::uint64_t>{3, 8}));
}

TEST_F(ADownload, WaitsForEachChunkAsLongAsItIsTold)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), chunk_reply("")});
    DownloadOptions options;
    options.chunk_timeout = slate::Seconds(7);
    Download download(make_client(uri), "/a", nullptr, options);

    read_all(download);

    for (const Request& request : peer.requests())
        EXPECT_EQ(request.meta("ttl"), "7s");
}

TEST_F(ADownload, FailsWithTheReplyThatFailed)
{
    Message bad = chunk_reply("what went wrong", "id");
    bad.mutable_response()->set_status(Status::Gone);
    TellingPeer peer(uri, {chunk_reply("one", "id"), bad});
    Download download(make_client(uri), "/a");

    EXPECT_EQ(read_all(download), Chunks{"one"});

    EXPECT_EQ(download.result().reply->status(), Status::Gone);
    EXPECT_EQ(download.result().reply->data(), "what went wrong");
    EXPECT_FALSE(download.result().reply->is_local());
    EXPECT_EQ(download.result().bytes, 3u);
    EXPECT_EQ(peer.count(), 2u);
}

TEST_F(ADownload, FailsWithoutAnAnswerAndAsksOnlyOnce)
{
    TellingPeer peer(uri, std::vector{chunk_reply("one", "id").SerializeAsString(), std::string()});
    const auto client = make_client(uri, 1);
    DownloadOptions options;
    options.chunk_timeout = slate::Seconds(1);
    Download download(client, "/a", nullptr, options);

    EXPECT_EQ(read_all(download), Chunks{"one"});

    EXPECT_EQ(download.result().reply->status(), Status::RequestTimeout);
    EXPECT_EQ(download.result().reply->local_cause(), LocalCause::NoAnswerInTime);
    EXPECT_EQ(download.result().bytes, 3u);
    EXPECT_EQ(peer.count(), 2u);
}

TEST_F(ADownload, FailsIfWhatComesIsNotAResponse)
{
    for (const Message& answer :
         {*message_of("call {}"), *message_of("call { result { status: Ok } }"),
          *message_of(R"(put { body { txt: "body" } })"), *message_of(R"(head { path: "/a" })")}) {
        for (const bool at_once : {true, false}) {
            const auto endpoint = scratch_endpoint();
            TellingPeer peer(endpoint,
                             at_once ? std::vector{answer} : std::vector{chunk_reply("one", "id"), answer});
            Download download(make_client(endpoint), "/a", nullptr, {});

            EXPECT_EQ(read_all(download), at_once ? Chunks() : Chunks{"one"});

            EXPECT_TRUE(download.result().bad()) << answer.ShortDebugString();
        }
    }
}

TEST_F(ADownload, FailsIfWhatComesIsNotAMessage)
{
    TellingPeer peer(
        uri, std::vector{chunk_reply("one", "id").SerializeAsString(), std::string("\xFF no message")});
    Download download(make_client(uri), "/a");

    EXPECT_EQ(read_all(download), Chunks{"one"});

    EXPECT_TRUE(download.result().bad());
    EXPECT_EQ(download.result().reply->message, nullptr);
}

TEST_F(ADownload, AsksForNothingOnceItIsStopped)
{
    for (const bool before : {true, false}) {
        const auto endpoint = scratch_endpoint();
        TellingPeer peer(endpoint, {chunk_reply("one", "id"), chunk_reply("two"), chunk_reply("")});
        std::stop_source stop;
        DownloadOptions options;
        options.stop = stop.get_token();
        options.progress = [&](std::uint64_t) { stop.request_stop(); };
        if (before)
            stop.request_stop();
        Download download(make_client(endpoint), "/a", nullptr, options);

        EXPECT_EQ(read_all(download), before ? Chunks() : Chunks{"one"});

        EXPECT_EQ(download.result().reply->status(), Status::RequestTimeout);
        EXPECT_EQ(download.result().reply->local_cause(), LocalCause::Cancelled);
        EXPECT_EQ(download.result().bytes, before ? 0u : 3u);
        EXPECT_EQ(peer.count(), before ? 0u : 1u);
    }
}

TEST_F(ADownload, ThrowsForARecipientThatCannotBeTakenApart)
{
    Download download(make_client(uri), "/a@x");
    EXPECT_THROW((void)download.read(), tarn::Exception);
}

// --- Into a stream ------------------------------------------------------------------------------------

TEST_F(ADownload, IntoAStreamAppendsToWhatItHolds)
{
    TellingPeer peer(uri, {chunk_reply("one,", "id"), chunk_reply("two"), chunk_reply("")});
    std::ostringstream out;
    out << "before,";

    const TransferResult result = download(make_client(uri), "/a", out);

    EXPECT_TRUE(result.good());
    EXPECT_EQ(result.bytes, 7u);
    EXPECT_EQ(out.str(), "before,one,two");
}

TEST_F(ADownload, IntoAStreamTakesItsHeadersAlong)
{
    TellingPeer peer(uri, std::vector{chunk_reply("body")});
    std::ostringstream out;

    EXPECT_TRUE(download(make_client(uri), "/a", out, dictionary_of({{"X-Own", "1"}}), {}).good());

    EXPECT_EQ(peer.requests().at(0).header("X-Own", ""), "1");
}

TEST_F(ADownload, IntoAStreamThatIsBrokenEndsWithItsFirstChunk)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), chunk_reply("two"), chunk_reply("")});
    std::ostringstream out;
    out.setstate(std::ios::badbit);

    const TransferResult result = download(make_client(uri), "/a", out);

    EXPECT_EQ(result.reply->status(), Status::BadRequest);
    EXPECT_EQ(result.reply->local_cause(), LocalCause::InvalidRequest);
    EXPECT_EQ(result.reply->status_message(), "the stream can't be written");
    EXPECT_EQ(peer.count(), 1u);
}

/// Has room for that many bytes.
class FullBuffer : public std::streambuf {
public:
    explicit FullBuffer(std::size_t bytes) : room_(bytes, '\0') { setp(room_.data(), room_.data() + bytes); }

private:
    std::string room_;
};

TEST_F(ADownload, IntoAStreamThatBecomesFullEndsThere)
{
    TellingPeer peer(uri,
                     {chunk_reply("one", "id"), chunk_reply("two"), chunk_reply("three"), chunk_reply("")});
    FullBuffer buffer(5);
    std::ostream out(&buffer);

    const TransferResult result = download(make_client(uri), "/a", out);

    EXPECT_EQ(result.reply->status(), Status::BadRequest);
    EXPECT_EQ(result.reply->status_message(), "the stream can't be written");
    EXPECT_EQ(peer.count(), 2u);
}

// --- Against a server ---------------------------------------------------------------------------------

/// A server whose route "/a" gives its body in chunks of a mebibyte to those that can take them.
class ADownloadFromAServer : public ServerTest {
protected:
    void SetUp() override
    {
        server = make({uri});
        const auto route = make_test_route("a", "get", "/a");
        route->on_get = [this](Context& context) {
            const std::lock_guard lock(mutex);
            if (!context.request.has_header(chunk_header::supported)) {
                context.reply.set_reply_data(Format::Bin, body);
                return;
            }
            if (!context.request.has_header(chunk_header::transfer))
                given = 0;
            const std::string chunk = body.substr(std::min(given, body.size()), max_chunk_bytes);
            given += chunk.size();
            context.reply.set_reply_data(Format::Bin, chunk);
            context.reply.set_header(chunk_header::transfer, "id");
        };
        server->add(route);
    }

    std::mutex mutex; // guards what is below, but for the server
    std::string body;
    std::size_t given = 0; // by the handler
    std::shared_ptr<Server> server;
};
INSTANTIATE_SERVER_KINDS(ADownloadFromAServer);

TEST_P(ADownloadFromAServer, ArrivesWholeWhateverItsSize)
{
    const std::size_t chunk = max_chunk_bytes;
    for (const std::size_t size :
         {std::size_t{0}, std::size_t{1}, chunk - 1, chunk, chunk + 1, 2 * chunk, 3 * chunk + chunk / 2}) {
        std::string expected;
        while (expected.size() < size)
            expected += std::to_string(expected.size()) + ",";
        expected.resize(size);
        {
            const std::lock_guard lock(mutex);
            body = expected;
        }
        std::ostringstream out;
        DownloadOptions options;
        options.chunk_timeout = generous;

        const TransferResult result = download(make_client(uri), "/a", out, options);

        EXPECT_TRUE(result.good()) << size;
        EXPECT_EQ(result.bytes, size);
        EXPECT_TRUE(out.str() == expected) << size;
    }
}
} // namespace
