// SPDX-License-Identifier: Apache-2.0
// Bodies of any size as a client sends and fetches them, against a peer that is told what to answer.
#include "tarn/client.h"

#include <fstream>
#include <sstream>

#include "support/forwarding_factory.h"
#include "support/peers.h"
#include "support/runtime_test.h"
#include "support/telling_peer.h"
#include "unit/tarn/messages.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;

constexpr std::size_t mebibyte = 1 << 20;
const std::string transfer = "X-Tarn-Chunked-Transfer";
const std::string number = "X-Tarn-Chunk-Number";
const std::string supported = "X-Tarn-Supports-Chunked-Transfer";

class AStreamingClient : public RuntimeTest {
protected:
    bool has_chunk_headers() const { return headers->has(transfer) || headers->has(number); }

    const std::shared_ptr<const slate::Uri> uri = scratch_endpoint();
    const std::shared_ptr<slate::Dictionary> headers = dictionary_of({{"X-Own", "1"}});
    const slate::Duration brief = slate::Milliseconds(50);
};

// --- Upload: both verbs -------------------------------------------------------------------------------

enum class Verb { Put, Post };

std::ostream& operator<<(std::ostream& stream, Verb verb)
{
    return stream << (verb == Verb::Put ? "Put" : "Post");
}

class AStreamUpload : public AStreamingClient, public testing::WithParamInterface<Verb> {
protected:
    std::shared_ptr<Reply> upload(Client& client, std::istream& stream,
                                  const slate::Duration& timeout = default_timeout(),
                                  const std::string& path = "/a")
    {
        return GetParam() == Verb::Put ? client.put(path, stream, headers, timeout)
                                       : client.post(path, stream, headers, timeout);
    }
    std::shared_ptr<Reply> upload(std::istream& stream)
    {
        return upload(*make_client(uri, 0), stream, slate::Seconds(20));
    }

    bool is_right_verb(const Request& request) const
    {
        return GetParam() == Verb::Put ? request.message->has_put() : request.message->has_post();
    }

    /// Number and size of each chunk.
    static std::vector<std::pair<std::string, std::size_t>> chunks(const TellingPeer& peer)
    {
        std::vector<std::pair<std::string, std::size_t>> result;
        for (const Request& request : peer.requests())
            result.emplace_back(request.header(number, "none"), request.data().size());
        return result;
    }
    using Chunks = std::vector<std::pair<std::string, std::size_t>>;
};
INSTANTIATE_TEST_SUITE_P(Verbs, AStreamUpload, testing::Values(Verb::Put, Verb::Post),
                         testing::PrintToStringParamName());

TEST_P(AStreamUpload, GoesInChunksOfOneMebibyteAndEndsWithAnEmptyOne)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::string body;
    while (body.size() < 2 * mebibyte + mebibyte / 2)
        body += std::to_string(body.size()) + ",";
    body.resize(2 * mebibyte + mebibyte / 2);
    std::istringstream stream(body);

    EXPECT_EQ(upload(stream)->status(), Status::NoContent);

    EXPECT_EQ(chunks(peer),
              (Chunks{{"0", mebibyte}, {"1", mebibyte}, {"2", mebibyte / 2}, {"3", std::size_t{0}}}));
    std::string sent;
    for (const Request& request : peer.requests())
        sent += request.data();
    EXPECT_TRUE(sent == body);
}

TEST_P(AStreamUpload, NamesOneNewTransferInAllItsChunks)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream first("first");
    std::istringstream second("second");

    upload(first);
    upload(second);

    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 4u);
    const std::string id = sent[0].header(transfer, "");
    EXPECT_EQ(slate::Uuid(id).to_string(), id);
    EXPECT_EQ(sent[1].header(transfer, ""), id);
    EXPECT_NE(sent[2].header(transfer, ""), id);
    EXPECT_EQ(sent[2].header(transfer, ""), sent[3].header(transfer, ""));
}

TEST_P(AStreamUpload, SendsEachChunkAsARequestOfItsOwnWithAllHeadersAndItsTimeout)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream("body");

    upload(*make_client(uri), stream, slate::Seconds(7), "/some/path?format=json");

    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 2u);
    for (const Request& request : sent) {
        EXPECT_TRUE(is_right_verb(request));
        EXPECT_EQ(request.path(), "/some/path");
        EXPECT_EQ(request.format(), Format::Json);
        EXPECT_EQ(request.header("X-Own", ""), "1");
        EXPECT_EQ(request.meta("ttl"), "7s");
        EXPECT_FALSE(request.has_header("X-Tarn-Transfer-Begin"));
        EXPECT_EQ(pairs_of(request.head().headers()).size(), 3u);
    }
}

TEST_P(AStreamUpload, GivesTheReplyToTheLastChunkWhateverItIs)
{
    Message last = answer_of(Status::Conflict);
    last.mutable_response()->set_status_message("transfer interrupted try again");
    TellingPeer peer(uri, {answer_of(Status::NoContent), last});
    std::istringstream stream("body");

    const auto reply = upload(stream);

    EXPECT_EQ(reply->status(), Status::Conflict);
    EXPECT_EQ(reply->status_message(), "transfer interrupted try again");
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, OfExactlyOneMebibyteSendsTwoEmptyChunks)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream(std::string(mebibyte, 'x'));

    upload(stream);

    EXPECT_EQ(chunks(peer), (Chunks{{"0", mebibyte}, {"1", std::size_t{0}}, {"2", std::size_t{0}}}));
}

TEST_P(AStreamUpload, OfAnEmptyStreamSendsTwoEmptyChunks)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream;

    upload(stream);

    EXPECT_EQ(chunks(peer), (Chunks{{"0", std::size_t{0}}, {"1", std::size_t{0}}}));
}

TEST_P(AStreamUpload, SendsTheRestOfAStream)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream("gone,rest");
    std::string gone;
    std::getline(stream, gone, ',');

    upload(stream);

    EXPECT_EQ(peer.requests().at(0).data(), "rest");
}

TEST_P(AStreamUpload, IsAbandonedAtTheFirstBadReply)
{
    Message bad = answer_of(Status::InternalServerError);
    bad.mutable_response()->set_status_message("flush failed, out of disk space?");
    TellingPeer peer(uri, {answer_of(Status::NoContent), bad});
    std::istringstream stream(std::string(5 * mebibyte, 'x'));

    const auto reply = upload(stream);

    EXPECT_EQ(reply->status(), Status::InternalServerError);
    EXPECT_EQ(reply->status_message(), "flush failed, out of disk space?");
    EXPECT_EQ(peer.count(), 2u);
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, IsAbandonedWithoutAnEndIfTheOnlyChunkGetsABadReply)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NotFound)});
    std::istringstream stream("body");

    EXPECT_EQ(upload(stream)->status(), Status::NotFound);

    EXPECT_EQ(peer.count(), 1u);
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, IsAbandonedAtAReplyThatIsNotAMessage)
{
    TellingPeer peer(uri, std::vector<std::string>{"\xFF no message"});
    std::istringstream stream("body");

    const auto reply = upload(stream);

    EXPECT_EQ(reply->message, nullptr);
    EXPECT_EQ(peer.count(), 1u);
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, WaitsForEachChunkAsForAnyOtherRequest)
{
    const std::string good = answer_of(Status::NoContent).SerializeAsString();
    TellingPeer peer(uri, std::vector<std::string>{good, good, ""});
    std::istringstream stream(std::string(4 * mebibyte, 'x'));
    const auto client = make_client(uri, 1);

    // Long enough for the chunks that are answered.
    const auto reply = upload(*client, stream, slate::Milliseconds(1500));

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "),
              GetParam() == Verb::Put ? 2u : 1u);
    EXPECT_EQ(chunks(peer), (Chunks{{"0", mebibyte}, {"1", mebibyte}, {"2", mebibyte}}));
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, GivesATimeoutIfTheEmptyChunkAtTheEndGetsNoReply)
{
    TellingPeer peer(uri, std::vector<std::string>{answer_of(Status::NoContent).SerializeAsString(), ""});
    std::istringstream stream("body");

    EXPECT_EQ(upload(*make_client(uri, 0), stream, slate::Milliseconds(1500))->status(),
              Status::RequestTimeout);

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 4u}, {"1", 0u}}));
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, LeavesTheCallersHeadersAsTheyWere)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream("body");

    upload(stream);

    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}}));
}

TEST_P(AStreamUpload, NeedsNoHeaders)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::istringstream stream("body");
    const auto client = make_client(uri, 0);

    const auto reply = GetParam() == Verb::Put ? client->put("/a", stream, nullptr, slate::Seconds(20))
                                               : client->post("/a", stream, nullptr, slate::Seconds(20));

    EXPECT_EQ(reply->status(), Status::NoContent);
    EXPECT_EQ(chunks(peer), (Chunks{{"0", 4u}, {"1", 0u}}));
    for (const Request& request : peer.requests())
        EXPECT_EQ(request.header(transfer, ""), peer.requests().at(0).header(transfer, "none"));
}

TEST_P(AStreamUpload, TakesAChunkNumberOfTheCallersAway)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    headers->set(number, "77");
    std::istringstream stream("body");

    upload(stream);

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 4u}, {"1", 0u}}));
    EXPECT_FALSE(has_chunk_headers());
}

TEST_P(AStreamUpload, CleansTheHeadersIfItsPathIsRefusedByAnException)
{
    std::istringstream stream("body");
    const auto client = make_client(uri);

    EXPECT_THROW(upload(*client, stream, brief, "/a@x"), tarn::Exception);

    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}}));
}

/// Gives a megabyte and a half, and then throws.
class BreakingBuffer : public std::streambuf {
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
    std::string text_ = std::string(mebibyte + mebibyte / 2, 'x');
};

TEST_P(AStreamUpload, CleansTheHeadersIfItsStreamThrows)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    BreakingBuffer buffer;
    std::istream stream(&buffer);
    stream.exceptions(std::ios::badbit);

    EXPECT_THROW(upload(stream), std::runtime_error);

    EXPECT_EQ(peer.count(), 1u);
    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}}));
}

TEST_P(AStreamUpload, OfAStreamThatCannotBeReadSendsNothing)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    std::ifstream missing("/nowhere/to/be/found");

    EXPECT_EQ(upload(missing)->status(), Status::BadRequest);

    EXPECT_EQ(peer.count(), 0u);
    EXPECT_TRUE(logs.has(slate::ErrorLevel, "upload abandoned, the stream can't be read"));
    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}}));
}

TEST_P(AStreamUpload, IsAbandonedWithoutAnEndIfItsStreamFails)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    BreakingBuffer buffer;
    std::istream stream(&buffer);

    EXPECT_EQ(upload(stream)->status(), Status::BadRequest);

    EXPECT_EQ(peer.count(),
              1u); // the chunk before; no empty one, which would end the transfer as if it were whole
}

TEST_P(AStreamUpload, OfACallersOwnTransferGoesAsOneRequest)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::Accepted)});
    headers->set(transfer, "own");
    headers->set(number, "5");
    std::istringstream stream(std::string(3 * mebibyte, 'x'));

    EXPECT_EQ(upload(stream)->status(), Status::Accepted);

    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(is_right_verb(sent[0]));
    EXPECT_EQ(sent[0].data().size(), 3 * mebibyte);
    EXPECT_EQ(sent[0].header(transfer, ""), "own");
    EXPECT_EQ(sent[0].header(number, ""), "5");
    EXPECT_EQ(headers->get(transfer, ""), "own");
    EXPECT_EQ(headers->get(number, ""), "5");
}

TEST_P(AStreamUpload, OfACallersOwnTransferAddsNoChunkNumber)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::Accepted)});
    headers->set(transfer, "");
    std::istringstream stream("body");

    upload(stream);

    ASSERT_EQ(peer.count(), 1u);
    EXPECT_FALSE(peer.requests().at(0).has_header(number));
    EXPECT_FALSE(headers->has(number));
}

TEST_P(AStreamUpload, NeedsNothingButAPathAndAStream)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    const auto client = make_client(uri);
    std::istringstream stream("body");

    EXPECT_TRUE((GetParam() == Verb::Put ? client->put("/a", stream) : client->post("/a", stream))->good());

    EXPECT_EQ(chunks(peer), (Chunks{{"0", 4u}, {"1", 0u}}));
    EXPECT_EQ(peer.requests().at(0).meta("ttl"), "4s");
}

/// A factory that notes by which overload bodies come, and in which memory.
class NotingFactory : public ForwardingFactory {
public:
    MessagePtr make_put(std::string_view path, const std::string& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        ++copied;
        return ForwardingFactory::make_put(path, body, headers, ttl);
    }
    MessagePtr make_put(std::string_view path, std::string&& body, const Headers& headers,
                        const slate::Duration& ttl) const override
    {
        const char* const memory = body.data();
        auto message = ForwardingFactory::make_put(path, std::move(body), headers, ttl);
        moved += message->put().body().bin().data() == memory ? 1 : 0;
        return message;
    }
    MessagePtr make_post(std::string_view path, const std::string& body, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        ++copied;
        return ForwardingFactory::make_post(path, body, headers, ttl);
    }
    MessagePtr make_post(std::string_view path, std::string&& body, const Headers& headers,
                         const slate::Duration& ttl) const override
    {
        const char* const memory = body.data();
        auto message = ForwardingFactory::make_post(path, std::move(body), headers, ttl);
        moved += message->post().body().bin().data() == memory ? 1 : 0;
        return message;
    }

    mutable int copied = 0;
    mutable int moved = 0;
};

TEST_P(AStreamUpload, MovesItsChunksIntoTheirRequests)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    const auto noting = std::make_shared<NotingFactory>();
    const auto client = make_client(uri, 0, noting);
    std::istringstream stream(std::string(2 * mebibyte + 5000, 'x'));

    upload(*client, stream);

    EXPECT_EQ(noting->copied, 0);
    EXPECT_GE(noting->moved, 3); // and the empty one, which has no memory of its own
}

/// Uses the client while the client reads it.
class UsingBuffer : public std::streambuf {
public:
    explicit UsingBuffer(Client& client) : client_(client) {}

protected:
    int_type underflow() override
    {
        client_.get("/between");
        if (chunks_++ == 2)
            return traits_type::eof();
        setg(text_.data(), text_.data(), text_.data() + text_.size());
        return traits_type::to_int_type(text_.front());
    }

private:
    Client& client_;
    int chunks_ = 0;
    std::string text_ = std::string(mebibyte, 'x');
};

TEST_P(AStreamUpload, LetsOtherRequestsFallBetweenItsChunks)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});
    const auto client = make_client(uri);
    UsingBuffer buffer(*client);
    std::istream stream(&buffer);

    upload(*client, stream, slate::Seconds(20));

    std::vector<std::string> verbs;
    for (const Request& request : peer.requests())
        verbs.push_back(request.message->has_get() ? "get" : request.header(number, ""));
    EXPECT_EQ(verbs, (std::vector<std::string>{"get", "0", "get", "1", "get", "2", "3"}));
}

// --- Download -----------------------------------------------------------------------------------------

class AStreamDownload : public AStreamingClient {
protected:
    std::shared_ptr<Reply> download() { return make_client(uri)->get("/a", out, headers); }

    std::ostringstream out;
};

TEST_F(AStreamDownload, OfABodyInOneReplyIsOneRequest)
{
    TellingPeer peer(uri, std::vector{chunk_reply("whole body")});

    const auto reply = download();

    EXPECT_EQ(reply->status(), Status::Ok);
    EXPECT_EQ(reply->data(), "whole body");
    EXPECT_EQ(out.str(), "whole body");
    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_TRUE(sent[0].message->has_get());
    EXPECT_EQ(pairs_of(sent[0].head().headers()), (Pairs{{"X-Own", "1"}, {supported, "true"}}));
    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}, {supported, "true"}}));
}

TEST_F(AStreamDownload, AppendsEachChunkUntilAnEmptyOne)
{
    TellingPeer peer(uri, {chunk_reply("one,", "id-7"), chunk_reply(std::string("t\0wo,", 5)),
                           chunk_reply("three"), chunk_reply("")});

    const auto reply = download();

    EXPECT_EQ(reply->status(), Status::Ok);
    EXPECT_EQ(reply->data(), "");
    EXPECT_EQ(out.str(), std::string("one,t\0wo,three", 14));
    EXPECT_EQ(peer.count(), 4u);
}

TEST_F(AStreamDownload, NamesTheTransferInEachRequestButTheFirst)
{
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply("two", "another"), chunk_reply("")});

    make_client(uri)->get("/a?format=json", out, headers, slate::Seconds(7));

    const auto sent = peer.requests();
    ASSERT_EQ(sent.size(), 3u);
    EXPECT_FALSE(sent[0].has_header(transfer));
    EXPECT_EQ(sent[1].header(transfer, ""), "id-7");
    EXPECT_EQ(sent[2].header(transfer, ""), "id-7"); // the first reply names it
    for (const Request& request : sent) {
        EXPECT_TRUE(request.message->has_get());
        EXPECT_EQ(request.path(), "/a");
        EXPECT_EQ(request.format(), Format::Json);
        EXPECT_EQ(request.header(supported, ""), "true");
        EXPECT_EQ(request.header("X-Own", ""), "1");
        EXPECT_EQ(request.meta("ttl"), "7s");
        EXPECT_FALSE(request.has_header(number));
    }
}

TEST_F(AStreamDownload, NeedsNoHeaders)
{
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply("two"), chunk_reply("")});

    const auto reply = make_client(uri, 0)->get("/a", out, nullptr, slate::Seconds(20));

    EXPECT_EQ(reply->status(), Status::Ok);
    EXPECT_EQ(out.str(), "onetwo");
    for (const Request& request : peer.requests())
        EXPECT_EQ(request.header(supported, ""), "true");
}

TEST_F(AStreamDownload, LeavesItsHeadersInTheDictionary)
{
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply("")});

    download();

    EXPECT_EQ(pairs_of(*headers), (Pairs{{"X-Own", "1"}, {transfer, "id-7"}, {supported, "true"}}));
}

TEST_F(AStreamDownload, CarriesAnOldTransferIntoItsFirstRequestIfTheDictionaryIsUsedAgain)
{
    TellingPeer peer(uri, {chunk_reply("one", "id-7"), chunk_reply(""), chunk_reply("other")});

    download();
    download();

    EXPECT_EQ(peer.requests().at(2).header(transfer, ""), "id-7");
    EXPECT_EQ(out.str(), "oneother");
}

TEST_F(AStreamDownload, WritesTextAndBytesAlike)
{
    Message text = answer_of(Status::Ok);
    text.mutable_response()->mutable_body()->set_txt("text");
    TellingPeer peer(uri, {chunk_reply("bytes,", "id"), text, chunk_reply("")});

    download();

    EXPECT_EQ(out.str(), "bytes,text");
}

TEST_F(AStreamDownload, WritesNothingOfABadReply)
{
    Message bad = chunk_reply("what went wrong", "id");
    bad.mutable_response()->set_status(Status::NotFound);
    TellingPeer peer(uri, std::vector{bad});

    const auto reply = download();

    EXPECT_EQ(reply->status(), Status::NotFound);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(peer.count(), 1u);
    EXPECT_FALSE(headers->has(transfer));
    EXPECT_TRUE(headers->has(supported));
}

TEST_F(AStreamDownload, KeepsTheChunksBeforeABadReplyAndEndsWithIt)
{
    Message bad = chunk_reply("what went wrong");
    bad.mutable_response()->set_status(Status::Gone);
    TellingPeer peer(uri, {chunk_reply("one,", "id"), chunk_reply("two"), bad});

    const auto reply = download();

    EXPECT_EQ(reply->status(), Status::Gone);
    EXPECT_EQ(reply->data(), "what went wrong");
    EXPECT_EQ(out.str(), "one,two");
    EXPECT_EQ(peer.count(), 3u);
}

TEST_F(AStreamDownload, EndsWithAGoodReplyThatHasNoBody)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), answer_of(Status::NoContent)});

    const auto reply = download();

    EXPECT_EQ(reply->status(), Status::NoContent);
    EXPECT_FALSE(reply->message->response().has_body());
    EXPECT_EQ(out.str(), "one");
    EXPECT_EQ(peer.count(), 2u);
}

TEST_F(AStreamDownload, EndsWithAGoodReplyWhoseBodyHasNoContent)
{
    Message hollow = answer_of(Status::Ok);
    hollow.mutable_response()->mutable_body();
    TellingPeer peer(uri, {chunk_reply("one", "id"), hollow});

    EXPECT_EQ(download()->status(), Status::Ok);

    EXPECT_EQ(out.str(), "one");
    EXPECT_EQ(peer.count(), 2u);
}

TEST_F(AStreamDownload, EndsAtOnceIfTheFirstReplyIsGoodAndHasNoBody)
{
    TellingPeer peer(uri, std::vector{answer_of(Status::NoContent)});

    EXPECT_EQ(download()->status(), Status::NoContent);

    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(peer.count(), 1u);
}

TEST_F(AStreamDownload, OfAnEmptyBodyIsEmpty)
{
    TellingPeer peer(uri, std::vector{chunk_reply("")});

    EXPECT_EQ(download()->status(), Status::Ok);

    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(peer.count(), 1u);
}

TEST_F(AStreamDownload, EndsWithAReplyThatIsNotAMessage)
{
    TellingPeer peer(
        uri, std::vector<std::string>{chunk_reply("one", "id").SerializeAsString(), "\xFF no message"});

    const auto reply = download();

    EXPECT_EQ(reply->message, nullptr);
    EXPECT_TRUE(reply->bad());
    EXPECT_EQ(out.str(), "one");
}

TEST_F(AStreamDownload, EndsWithATimeoutOfOneChunk)
{
    TellingPeer peer(uri, std::vector<std::string>{chunk_reply("one", "id").SerializeAsString(), ""});

    const auto reply = make_client(uri, 1)->get("/a", out, headers, slate::Milliseconds(1500));

    EXPECT_EQ(reply->status(), Status::RequestTimeout);
    EXPECT_EQ(out.str(), "one");
    EXPECT_EQ(peer.count(), 2u);
    EXPECT_EQ(logs.count(slate::ErrorLevel, "request timeout; no reply to "), 2u);
}

TEST_F(AStreamDownload, GoesOnIfItsStreamFails)
{
    TellingPeer peer(uri, {chunk_reply("one", "id"), chunk_reply("two"), chunk_reply("")});
    out.setstate(std::ios::badbit);

    EXPECT_EQ(download()->status(), Status::Ok);

    EXPECT_EQ(peer.count(), 3u);
    EXPECT_EQ(out.str(), "");
}

TEST_F(AStreamDownload, AppendsToWhatTheStreamHolds)
{
    TellingPeer peer(uri, std::vector{chunk_reply("body")});
    out << "before,";

    download();

    EXPECT_EQ(out.str(), "before,body");
}

TEST_F(AStreamDownload, NeedsNothingButAPathAndAStream)
{
    TellingPeer peer(uri, {chunk_reply("one,", "id"), chunk_reply("two"), chunk_reply("")});
    const auto client = make_client(uri);

    EXPECT_EQ(client->get("/a", out)->status(), Status::Ok);
    EXPECT_EQ(out.str(), "one,two");

    // Nothing is left over for the next one.
    client->get("/a", out);
    EXPECT_FALSE(peer.requests().at(3).has_header(transfer));
}

TEST_F(AStreamDownload, OfManyMebibytesInChunksArrivesWhole)
{
    const std::string first(3 * mebibyte, 'a');
    const std::string second(4 * mebibyte, 'b');
    TellingPeer peer(uri, {chunk_reply(first, "id"), chunk_reply(second), chunk_reply("")});

    make_client(uri)->get("/a", out, headers, slate::Seconds(30));

    EXPECT_TRUE(out.str() == first + second);
}
} // namespace
