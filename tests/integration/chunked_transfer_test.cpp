// SPDX-License-Identifier: Apache-2.0
// Uploads in chunks as a server sees them, from requests that are made by hand: one suite for both kinds of
// servers, and each behaviour for put and post.
#include "tarn/internal/server/chunked_transfer.h"

#include <atomic>
#include <barrier>
#include <fstream>
#include <future>
#include <map>
#include <semaphore>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/environment.h"
#include "support/peers.h"
#include "support/server_kinds.h"
#include "tarn/internal/server/temporary_file_list.h"

namespace {
/// While it exists, the next write of more than ten MiB stands still until it may go on.
class SlowDisk {
public:
    SlowDisk() { active = this; }
    ~SlowDisk()
    {
        go_on();
        active = nullptr;
    }
    SlowDisk(const SlowDisk&) = delete;
    SlowDisk& operator=(const SlowDisk&) = delete;

    void wait_for_write() { begun_.acquire(); }
    void go_on() { may_go_on_.release(); }

    void stand_still()
    {
        begun_.release();
        may_go_on_.acquire();
    }

    static std::atomic<SlowDisk*> active;

private:
    std::counting_semaphore<> begun_{0};
    std::counting_semaphore<> may_go_on_{0};
};
std::atomic<SlowDisk*> SlowDisk::active{nullptr};
} // namespace

// In place of the C library's.
extern "C" ssize_t write(int file, const void* bytes, size_t size)
{
    constexpr size_t large = 10 << 20;
    if (SlowDisk* disk = SlowDisk::active; disk && size > large)
        disk->stand_still();
    return syscall(SYS_write, file, bytes, size);
}

namespace {
using namespace std::chrono_literals;
using namespace tarn;
using namespace tarn_test;
namespace fs = std::filesystem;

constexpr std::size_t mebibyte = 1 << 20;
constexpr std::size_t threshold = 10 * mebibyte;
const std::string interrupted = "transfer interrupted try again";
const std::string in_progress = "transfer already in progress";

enum class Verb { Put, Post };
constexpr Verb verbs[] = {Verb::Put, Verb::Post};

std::string name_of(Verb verb)
{
    return verb == Verb::Put ? "put" : "post";
}

/// One request of an upload.
struct Chunk {
    Verb verb = Verb::Put;
    std::string id;
    std::optional<std::string> number;
    std::string data;
    std::string path = "/a";
    Format format = Format::Unknown;
    std::map<std::string, std::string> headers = {};
    bool as_text = false;
};

Chunk chunk(Verb verb, const std::string& id, int number, const std::string& data)
{
    return {.verb = verb, .id = id, .number = std::to_string(number), .data = data};
}

Chunk unnumbered(Verb verb, const std::string& id, const std::string& data)
{
    return {.verb = verb, .id = id, .number = std::nullopt, .data = data};
}

template <class Write>
void fill(Write& write, const Chunk& chunk)
{
    const auto add = [&](const std::string& key, const std::string& value) {
        KeyValue* header = write.mutable_head()->add_headers();
        header->set_key(key);
        header->set_value(value);
    };
    write.mutable_head()->set_path(chunk.path);
    write.mutable_head()->set_format(chunk.format);
    write.mutable_head()->mutable_from()->set_pid(1);
    add("X-Tarn-Chunked-Transfer", chunk.id);
    if (chunk.number)
        add("X-Tarn-Chunk-Number", *chunk.number);
    for (const auto& [key, value] : chunk.headers)
        add(key, value);
    if (chunk.as_text)
        write.mutable_body()->set_txt(chunk.data);
    else
        write.mutable_body()->set_bin(chunk.data);
}

Message message_of(const Chunk& chunk)
{
    Message message;
    if (chunk.verb == Verb::Put)
        fill(*message.mutable_put(), chunk);
    else
        fill(*message.mutable_post(), chunk);
    return message;
}

Response exchange_on(RawPeer& peer, const Message& message)
{
    Message answer;
    EXPECT_TRUE(answer.ParseFromString(peer.exchange(message.SerializeAsString())));
    return answer.response();
}

/// A body that no other one equals at any place.
std::string body_of(const std::string& seed, std::size_t size)
{
    std::string body;
    body.reserve(size + 64);
    for (std::size_t i = 0; body.size() < size; ++i)
        body += seed + ":" + std::to_string(i) + ",";
    body.resize(size);
    return body;
}

/// What routes have been given.
struct Delivery {
    std::string route;
    Verb verb;
    Request request;
    std::map<std::string, std::string> params;
    std::string body;
    std::size_t capacity; // of the text in the request that holds the body
};

class Deliveries {
public:
    void add(const std::string& route, Verb verb, const Context& context)
    {
        Delivery delivery{route, verb, {}, {}, context.request.data(), context.request.data().capacity()};
        delivery.request.message = std::make_shared<Message>(*context.request.message);
        for (const std::string& key : context.params->keys()) {
            if (!key.ends_with('_')) // those are the route's own
                delivery.params[key] = context.params->get(key, "");
        }
        const std::lock_guard lock(mutex_);
        all_.push_back(std::move(delivery));
    }
    std::vector<Delivery> all() const
    {
        const std::lock_guard lock(mutex_);
        return all_;
    }
    std::size_t count() const { return all().size(); }

private:
    mutable std::mutex mutex_; // guards all_
    std::vector<Delivery> all_;
};

/// Wants every chunk as it comes.
class RouteForChunks : public TestRoute {
public:
    using TestRoute::TestRoute;
    bool supports_chunked_transfer() const override { return true; }
};

fs::path make_folder(const fs::path& path)
{
    fs::create_directories(path);
    return path;
}

class AChunkedUpload : public ServerTest {
protected:
    /// A server with a route "a" at "/a".
    void start()
    {
        server = make({uri});
        add_route("a", "/a");
    }

    /// A route that notes what it gets and answers "done".
    void add_route(const std::string& name, const std::string& pattern)
    {
        const auto handler = [this, name](Verb verb) {
            return [this, name, verb](Context& context) {
                deliveries.add(name, verb, context);
                context.reply.set_reply_text("done");
            };
        };
        add_route(name, pattern, handler(Verb::Put), handler(Verb::Post));
    }

    void add_route(const std::string& name, const std::string& pattern, const TestRoute::Handler& on_put,
                   const TestRoute::Handler& on_post)
    {
        const auto route = make_test_route(name, "put,post", pattern);
        route->on_put = on_put;
        route->on_post = on_post;
        server->add(route);
    }

    Response send(const Message& message)
    {
        if (!peer)
            peer.emplace(uri);
        return exchange_on(*peer, message);
    }
    Response send(const Chunk& chunk) { return send(message_of(chunk)); }

    /// Sends a chunk of a transfer that is to be unknown.
    bool is_gone(Verb verb, const std::string& transfer, const std::string& path = "/a")
    {
        Chunk next = unnumbered(verb, transfer, "x");
        next.path = path;
        const Response reply = send(next);
        return reply.status() == Status::Conflict && reply.status_message() == interrupted;
    }

    /// The one file of all transfers.
    fs::path only_file()
    {
        const auto files = files_below(area);
        EXPECT_EQ(files.size(), 1u);
        return files.empty() ? fs::path() : files.front();
    }
    bool has_no_files() { return files_below(area).empty(); }

    /// The expiry that a log line about a session shows.
    slate::Duration logged_expiry(const std::string& beginning)
    {
        const auto texts = logs.texts(slate::ExtremeLevel, beginning);
        if (texts.size() != 1)
            return {};
        const std::string& text = texts.front();
        const auto start = text.find(", path: ") + 8;
        return slate::Duration::from(text.substr(start, text.size() - 2 - start), {});
    }

    const fs::path area = folder.path() / "area";
    const fs::path temporary = make_folder(area / "tmp");
    const TemporaryFolderVariable variable{temporary};
    Deliveries deliveries;
    std::optional<RawPeer> peer;
    std::shared_ptr<Server> server; // last, as its handlers use the above
};
INSTANTIATE_SERVER_KINDS(AChunkedUpload);

// --- Bodies in one request ----------------------------------------------------------------------------

TEST_P(AChunkedUpload, IsNotBegunByAWriteWithoutATransferId)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    const auto client = make_client(uri);
    const auto headers = slate::make_dictionary();
    headers->set("X-Tarn-Chunk-Number", "0");
    headers->set("X-Tarn-Transfer-Begin", "1");

    EXPECT_EQ(client->put("/a", "one", headers)->data(), "done");
    EXPECT_EQ(client->post("/a", "two", headers)->data(), "done");

    const auto got = deliveries.all();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].body, "one");
    EXPECT_EQ(got[0].verb, Verb::Put);
    EXPECT_EQ(got[1].body, "two");
    EXPECT_EQ(got[1].verb, Verb::Post);
    EXPECT_EQ(got[1].request.header("X-Tarn-Chunk-Number", ""), "0");
    EXPECT_EQ(logs.count(slate::DebugLevel, "add: "), 0u);
}

TEST_P(AChunkedUpload, IsNotBegunByAnEmptyTransferId)
{
    start();
    for (const Verb verb : verbs)
        EXPECT_EQ(send(chunk(verb, "", 5, "whole")).body().txt(), "done");
    EXPECT_EQ(deliveries.count(), 2u);
    EXPECT_EQ(deliveries.all().at(0).body, "whole");
}

TEST_P(AChunkedUpload, IsNotNeededForAPostWhoseServerHasNoTemporaryFolder)
{
    start();
    fs::remove_all(area);
    const auto client = make_client(uri);

    EXPECT_EQ(client->post("/a", "x")->data(), "done");
    EXPECT_EQ(client->put("/a", "x")->data(), "done");

    fs::create_directories(area);
}

// --- The way of a body --------------------------------------------------------------------------------

TEST_P(AChunkedUpload, ReachesItsRouteAsOneRequestWithTheWholeBody)
{
    start();
    for (const Verb verb : verbs) {
        const std::string transfer = name_of(verb);
        EXPECT_EQ(send(chunk(verb, transfer, 0, "one,")).status(), Status::NoContent);
        EXPECT_EQ(send(chunk(verb, transfer, 1, std::string("t\0wo,", 5))).status(), Status::NoContent);
        EXPECT_EQ(send(chunk(verb, transfer, 2, "three")).status(), Status::NoContent);
        ASSERT_EQ(deliveries.count(), verb == Verb::Put ? 0u : 1u);

        const Response last = send(chunk(verb, transfer, 3, ""));

        EXPECT_EQ(last.status(), Status::Ok);
        EXPECT_EQ(last.body().txt(), "done");
        const Delivery got = deliveries.all().back();
        EXPECT_EQ(got.verb, verb);
        EXPECT_EQ(got.body, std::string("one,t\0wo,three", 14));
        EXPECT_TRUE(is_gone(verb, transfer));
    }
    EXPECT_EQ(deliveries.count(), 2u);
}

TEST_P(AChunkedUpload, GetsAReplyOfNoContentForEachChunkButTheLast)
{
    start();
    for (const Verb verb : verbs) {
        Chunk first = chunk(verb, name_of(verb), 0, "x");
        first.format = Format::Json;

        const Response reply = send(first);

        EXPECT_EQ(reply.status(), Status::NoContent);
        EXPECT_EQ(reply.head().format(), Format::Empty);
        EXPECT_EQ(reply.head().path(), "/a");
        EXPECT_EQ(reply.status_message(), "");
        EXPECT_FALSE(reply.has_body());
    }
}

TEST_P(AChunkedUpload, GetsAReplyOfNoContentIfItsRouteWritesNone)
{
    start();
    const auto silent = [](Context&) {};
    add_route("silent", "/silent", silent, silent);
    for (const Verb verb : verbs) {
        Chunk only = chunk(verb, name_of(verb), 0, "");
        only.path = "/silent";
        EXPECT_EQ(send(only).status(), Status::NoContent);
    }
}

TEST_P(AChunkedUpload, HasThePathFormatAndOtherHeadersOfItsLastChunk)
{
    start();
    add_route("variable", "/v/:name");
    for (const Verb verb : verbs) {
        Chunk first = chunk(verb, name_of(verb), 0, "{}");
        first.path = "/v/first";
        first.format = Format::Xml;
        first.headers["X-First"] = "1";
        send(first);

        Chunk last = chunk(verb, name_of(verb), 1, "");
        last.path = "/v/last";
        last.format = Format::Json;
        last.headers["X-Last"] = "2";
        EXPECT_EQ(send(last).status(), Status::Ok);

        const Delivery got = deliveries.all().back();
        EXPECT_EQ(got.request.path(), "/v/last");
        EXPECT_EQ(got.request.format(), Format::Json);
        EXPECT_FALSE(got.request.has_header("X-First"));
        EXPECT_EQ(got.request.header("X-Last", ""), "2");
        EXPECT_EQ(got.params, (std::map<std::string, std::string>{{"name", "last"}, {"X-Last", "2"}}));
    }
}

TEST_P(AChunkedUpload, LeavesNoTraceInHeadersAndParamsButTheHeaderThatBeganIt)
{
    start();
    for (const Verb verb : verbs) {
        Chunk only = chunk(verb, name_of(verb), 0, "");
        only.headers["X-Tarn-Transfer-Begin"] = "1";
        only.headers["Z-Other"] = "z";
        EXPECT_EQ(send(only).status(), Status::Ok);

        const Delivery got = deliveries.all().back();
        EXPECT_FALSE(got.request.has_header("X-Tarn-Chunked-Transfer"));
        EXPECT_FALSE(got.request.has_header("X-Tarn-Chunk-Number"));
        EXPECT_TRUE(got.request.has_header("X-Tarn-Transfer-Begin"));
        EXPECT_TRUE(got.request.has_header("Z-Other"));
        EXPECT_EQ(got.params,
                  (std::map<std::string, std::string>{{"X-Tarn-Transfer-Begin", "1"}, {"Z-Other", "z"}}));
    }
}

TEST_P(AChunkedUpload, IsBytesOrTextByTheFormatOfItsLastChunk)
{
    start();
    int count = 0;
    for (const Verb verb : verbs) {
        for (const Format format :
             {Format::Unknown, Format::Bin, Format::Proto, Format::Json, Format::Text, Format::Xml}) {
            for (const bool as_text : {false, true}) {
                const std::string transfer = std::to_string(count++);
                Chunk first = chunk(verb, transfer, 0, "body");
                first.as_text = as_text;
                send(first);
                Chunk last = chunk(verb, transfer, 1, "");
                last.format = format;
                last.as_text = as_text;
                send(last);

                const Delivery got = deliveries.all().back();
                EXPECT_EQ(got.request.is_binary(), tarn_internal::is_binary_format(format)) << format;
                EXPECT_EQ(got.body, "body");
            }
        }
    }
}

TEST_P(AChunkedUpload, OfOneEmptyChunkHandsOverAnEmptyBody)
{
    start();
    for (const Verb verb : verbs) {
        EXPECT_EQ(send(chunk(verb, name_of(verb), 0, "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "");
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, IsBegunByAHeaderInPlaceOfANumber)
{
    start();
    for (const Verb verb : verbs) {
        Chunk first = unnumbered(verb, name_of(verb), "one,");
        first.headers["X-Tarn-Transfer-Begin"] = "";
        EXPECT_EQ(send(first).status(), Status::NoContent);
        EXPECT_EQ(send(unnumbered(verb, name_of(verb), "two")).status(), Status::NoContent);
        EXPECT_EQ(send(unnumbered(verb, name_of(verb), "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "one,two");
    }
}

TEST_P(AChunkedUpload, MayMixNumberedAndOtherChunks)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "0"));
        EXPECT_EQ(send(unnumbered(verb, name_of(verb), "1")).status(), Status::NoContent);
        EXPECT_EQ(send(chunk(verb, name_of(verb), 2, "2")).status(), Status::NoContent);
        EXPECT_EQ(send(unnumbered(verb, name_of(verb), "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "012");
    }
}

TEST_P(AChunkedUpload, MayEndWithTheOtherVerb)
{
    start();
    send(chunk(Verb::Put, "t", 0, "body"));
    EXPECT_EQ(send(chunk(Verb::Post, "t", 1, "")).status(), Status::Ok);
    EXPECT_EQ(deliveries.all().at(0).verb, Verb::Post);
    EXPECT_EQ(deliveries.all().at(0).body, "body");
}

TEST_P(AChunkedUpload, IsToldFromOthersByItsId)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, "x", 0, "x0"));
        send(chunk(verb, "y", 0, "y0"));
        send(chunk(verb, "x", 1, "x1"));
        send(chunk(verb, "y", 1, "y1"));
        send(chunk(verb, "y", 2, ""));
        EXPECT_EQ(deliveries.all().back().body, "y0y1");
        send(chunk(verb, "x", 2, ""));
        EXPECT_EQ(deliveries.all().back().body, "x0x1");
    }
}

TEST_P(AChunkedUpload, MayUseAnIdAgainOnceItHasEnded)
{
    start();
    for (const Verb verb : verbs) {
        for (const std::string body : {"first", "second"}) {
            EXPECT_EQ(send(chunk(verb, "t", 0, body)).status(), Status::NoContent);
            EXPECT_EQ(send(chunk(verb, "t", 1, "")).status(), Status::Ok);
            EXPECT_EQ(deliveries.all().back().body, body);
        }
    }
}

TEST_P(AChunkedUpload, IsLoggedAtItsBeginningAndItsEnd)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    for (const Verb verb : verbs) {
        logs.clear();
        send(chunk(verb, name_of(verb), 0, "x"));
        EXPECT_EQ(logs.count(slate::ExtremeLevel, "begin: WriteSession { id: " + name_of(verb) + ", path: "),
                  1u);
        EXPECT_EQ(logs.count(slate::ExtremeLevel, "end: "), 0u);
        send(chunk(verb, name_of(verb), 1, ""));
        EXPECT_EQ(logs.count(slate::ExtremeLevel, "end: WriteSession { id: " + name_of(verb) + ", path: "),
                  1u);
        for (const LoggedLine& line : logs.lines()) {
            if (line.text.starts_with("begin: ") || line.text.starts_with("end: ")) {
                EXPECT_EQ(line.provider, "zmq.server[4711]");
            }
        }
    }
}

// --- Memory and files ---------------------------------------------------------------------------------

TEST_P(AChunkedUpload, OfTenMebibytesStaysInMemoryAndIsHandedOverWithoutACopy)
{
    start();
    const std::string body = body_of("body", threshold);
    for (const Verb verb : verbs) {
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(send(chunk(verb, name_of(verb), i,
                                 body.substr(static_cast<std::size_t>(i) * mebibyte, mebibyte)))
                          .status(),
                      Status::NoContent);
            EXPECT_TRUE(has_no_files());
        }
        EXPECT_EQ(send(chunk(verb, name_of(verb), 10, "")).status(), Status::Ok);
        EXPECT_TRUE(deliveries.all().back().body == body);
    }
}

TEST_P(AChunkedUpload, HandsTheMemoryOfItsTransferOver)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "small"));
        send(chunk(verb, name_of(verb), 1, ""));
        EXPECT_EQ(deliveries.all().back().body, "small");
        EXPECT_GE(deliveries.all().back().capacity, threshold); // a copy would be as small as the text
    }
}

TEST_P(AChunkedUpload, BeyondTenMebibytesLiesInAHiddenFileInTheTemporaryFolderForAPut)
{
    start();
    send(chunk(Verb::Put, "t", 0, std::string(threshold, 'x')));
    EXPECT_TRUE(has_no_files());
    send(chunk(Verb::Put, "t", 1, "y"));

    const fs::path file = only_file();
    EXPECT_EQ(file.parent_path(), temporary);
    EXPECT_EQ(file.filename().string().size(), 33u);
    EXPECT_TRUE(file.filename().string().starts_with('.'));
    EXPECT_EQ(fs::file_size(file), threshold + 1);
}

TEST_P(AChunkedUpload, BeyondTenMebibytesLiesInAHiddenFileBesideTheTemporaryFolderForAPost)
{
    start();
    send(chunk(Verb::Post, "t", 0, std::string(threshold, 'x')));
    EXPECT_TRUE(has_no_files());
    send(chunk(Verb::Post, "t", 1, "y"));

    const fs::path file = only_file();
    EXPECT_EQ(file.parent_path(), area);
    EXPECT_EQ(file.filename().string().size(), 5u + 32u);
    EXPECT_TRUE(file.filename().string().starts_with(".tmp_"));
    EXPECT_EQ(fs::file_size(file), threshold + 1);
}

TEST_P(AChunkedUpload, OfManyMebibytesArrivesWholeAndItsFileIsGone)
{
    start();
    const std::string body = body_of("large", 25 * mebibyte + 12345);
    for (const Verb verb : verbs) {
        int number = 0;
        for (std::size_t at = 0; at < body.size(); at += 4 * mebibyte)
            ASSERT_EQ(send(chunk(verb, name_of(verb), number++, body.substr(at, 4 * mebibyte))).status(),
                      Status::NoContent);
        EXPECT_FALSE(has_no_files());

        EXPECT_EQ(send(chunk(verb, name_of(verb), number, "")).status(), Status::Ok);

        EXPECT_TRUE(deliveries.all().back().body == body);
        EXPECT_TRUE(has_no_files());
    }
}

TEST_P(AChunkedUpload, LosesItsFileWithTheServer)
{
    start();
    for (const Verb verb : verbs)
        send(chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x')));
    EXPECT_EQ(files_below(area).size(), 2u);

    server.reset();

    EXPECT_TRUE(has_no_files());
}

TEST_P(AChunkedUpload, MakesATemporaryFolderAgainThatWasDeletedMeanwhile)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "x"));
        fs::remove_all(area);

        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, std::string(threshold, 'x'))).status(),
                  Status::NoContent);
        EXPECT_EQ(send(chunk(verb, name_of(verb), 2, "")).status(), Status::Ok);

        EXPECT_TRUE(deliveries.all().back().body == std::string(threshold + 1, 'x'));
        EXPECT_TRUE(has_no_files());
        fs::create_directories(temporary);
    }
}

// --- What fails ---------------------------------------------------------------------------------------

TEST_P(AChunkedUpload, IsNotTouchedByAWriteToARouteWithoutTheVerb)
{
    start();
    server->add(make_test_route("closed", "get", "/closed"));
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "one,"));

        Chunk strayed = chunk(verb, name_of(verb), 1, "astray,");
        strayed.path = "/closed";
        const Response refusal = send(strayed);
        EXPECT_EQ(refusal.status(), Status::MethodNotAllowed);
        EXPECT_EQ(refusal.status_message(),
                  std::string("route [closed] doesn't support ") + (verb == Verb::Put ? "PUT" : "POST"));
        EXPECT_TRUE(logs.has(slate::ErrorLevel, refusal.status_message()));

        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, "two")).status(), Status::NoContent);
        EXPECT_EQ(send(chunk(verb, name_of(verb), 2, "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "one,two");
    }
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AChunkedUpload, EndsWithABadChunkNumber)
{
    start();
    for (const Verb verb : verbs) {
        for (const std::string number : {"one", "", "-1", "1x", "4294967296"}) {
            const std::string transfer = name_of(verb) + number;
            send(chunk(verb, transfer, 0, std::string(threshold + 1, 'x')));
            Chunk bad = chunk(verb, transfer, 1, "x");
            bad.number = number;
            const auto errors = counted("err");

            const Response reply = send(bad);

            EXPECT_EQ(reply.status(), Status::BadRequest) << number;
            EXPECT_EQ(reply.status_message(), "invalid chunk number");
            EXPECT_EQ(counted("err"), errors);
            EXPECT_TRUE(has_no_files());
            EXPECT_TRUE(is_gone(verb, transfer));
        }
    }
    EXPECT_EQ(deliveries.count(), 0u);
}

TEST_P(AChunkedUpload, EndsWithAChunkTooFarAhead)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x')));
        const auto errors = counted("err");

        const Response reply = send(chunk(verb, name_of(verb), 2, "x"));

        EXPECT_EQ(reply.status(), Status::BadRequest);
        EXPECT_EQ(reply.status_message(), "wrong chunk; expected 1 but got 2");
        EXPECT_TRUE(logs.has(slate::ErrorLevel, "wrong chunk; expected 1 but got 2"));
        EXPECT_EQ(counted("err"), errors);
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, EndsWithABeginningThatIsTooFarAhead)
{
    start();
    for (const Verb verb : verbs) {
        Chunk first = chunk(verb, name_of(verb), 5, "x");
        first.headers["X-Tarn-Transfer-Begin"] = "1";

        const Response reply = send(first);

        EXPECT_EQ(reply.status(), Status::BadRequest);
        EXPECT_EQ(reply.status_message(), "wrong chunk; expected 0 but got 5");
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, IsRefusedAndCountedAsAnErrorIfNobodyBeganIt)
{
    start();
    for (const Verb verb : verbs) {
        auto errors = counted("err");
        for (const Chunk& stray : {chunk(verb, "unknown", 1, "x"), unnumbered(verb, "unknown", "x"),
                                   chunk(verb, "unknown", 3, ""), unnumbered(verb, "unknown", "")}) {
            const Response reply = send(stray);
            EXPECT_EQ(reply.status(), Status::Conflict);
            EXPECT_EQ(reply.status_message(), interrupted);
            EXPECT_EQ(counted("err"), ++errors);
        }
        EXPECT_EQ(logs.count(slate::ErrorLevel, interrupted), errors);
    }
    EXPECT_EQ(deliveries.count(), 0u);
}

TEST_P(AChunkedUpload, EndsWithASecondBeginningByNumber)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x')));
        const auto errors = counted("err");

        // Though it is the chunk before, sent again.
        const Response reply = send(chunk(verb, name_of(verb), 0, "x"));

        EXPECT_EQ(reply.status(), Status::Conflict);
        EXPECT_EQ(reply.status_message(), in_progress);
        EXPECT_TRUE(logs.has(slate::ErrorLevel, in_progress));
        EXPECT_EQ(counted("err"), errors);
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, EndsWithASecondBeginningByHeader)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "x"));
        Chunk again = chunk(verb, name_of(verb), 1, "x");
        again.headers["X-Tarn-Transfer-Begin"] = "1";

        const Response reply = send(again);

        EXPECT_EQ(reply.status(), Status::Conflict);
        EXPECT_EQ(reply.status_message(), in_progress);
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
    EXPECT_EQ(counted("err"), 2u); // those of the two chunks that looked for it
}

TEST_P(AChunkedUpload, EndsWithAChunkThatHasNoBody)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x')));
        Message bodyless = message_of(chunk(verb, name_of(verb), 1, "x"));
        if (verb == Verb::Put)
            bodyless.mutable_put()->clear_body();
        else
            bodyless.mutable_post()->clear_body();

        EXPECT_EQ(send(bodyless).status(), Status::InternalServerError);

        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, EndsIfItsFileCannotBeOpened)
{
    start();
    // A file where the folder was: other than a folder without permission, it stops root too.
    const std::map<Verb, std::pair<fs::path, std::string>> expected = {
        {Verb::Put, {temporary, temporary.string() + "/."}}, {Verb::Post, {area, area.string() + "/.tmp_"}}};
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "x"));
        const auto& [place, beginning] = expected.at(verb);
        fs::remove_all(place);
        std::ofstream(place) << "no folder";
        const auto errors = counted("err");

        const Response reply = send(chunk(verb, name_of(verb), 1, std::string(threshold, 'x')));

        EXPECT_EQ(reply.status(), Status::InternalServerError);
        const std::string text = "flush failed, failed to open: " + beginning;
        EXPECT_TRUE(reply.status_message().starts_with(text)) << reply.status_message();
        EXPECT_EQ(reply.status_message().size(), text.size() + 32);
        EXPECT_TRUE(logs.has(slate::ErrorLevel, reply.status_message()));
        EXPECT_TRUE(logs.has(slate::ErrorLevel, "InternalServerError; " + reply.status_message()));
        EXPECT_EQ(counted("err"), errors);
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
        fs::remove_all(area);
        fs::create_directories(temporary);
    }
}

TEST_P(AChunkedUpload, EndsIfTheTemporaryFolderIsReadOnly)
{
    // Nobody can make files there, not even root.
    const TemporaryFolderVariable read_only(fs::path("/proc/self"));
    start();
    for (const Verb verb : verbs) {
        EXPECT_EQ(send(chunk(verb, name_of(verb), 0, "x")).status(), Status::NoContent);

        const Response reply = send(chunk(verb, name_of(verb), 1, std::string(threshold, 'x')));

        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_TRUE(reply.status_message().starts_with("flush failed, failed to open: /proc/"))
            << reply.status_message();
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, DoesNotBeginWithoutATemporaryFolder)
{
    const TemporaryFolderVariable missing(area / "missing");
    start();
    for (const Verb verb : verbs) {
        const Response reply = send(chunk(verb, name_of(verb), 0, "x"));

        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_TRUE(reply.status_message().starts_with("filesystem error: ")) << reply.status_message();
        EXPECT_EQ(counted("err"), verb == Verb::Put ? 0u : 1u);
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
    EXPECT_FALSE(fs::exists(area / "missing"));
}

TEST_P(AChunkedUpload, DoesNotBeginForAPostBesideAHiddenTemporaryFolder)
{
    const TemporaryFolderVariable hidden(make_folder(area / ".hidden"));
    start();

    const Response reply = send(chunk(Verb::Post, "t", 0, "x"));

    EXPECT_EQ(reply.status(), Status::InternalServerError);
    EXPECT_EQ(reply.status_message(), "The destination for the temporary file cannot be a hidden file!");
    EXPECT_TRUE(is_gone(Verb::Post, "t"));
    EXPECT_EQ(send(chunk(Verb::Put, "u", 0, "x")).status(), Status::NoContent);
}

TEST_P(AChunkedUpload, DoesNotBeginForAPostBesideARelativeTemporaryFolder)
{
    const TemporaryFolderVariable relative(fs::path("."));
    start();

    const Response reply = send(chunk(Verb::Post, "t", 0, "x"));

    EXPECT_EQ(reply.status(), Status::InternalServerError);
    EXPECT_EQ(reply.status_message(), "The destination for the temporary file must be an absolute path!");
    EXPECT_TRUE(is_gone(Verb::Post, "t"));
    EXPECT_EQ(send(chunk(Verb::Put, "u", 0, "x")).status(), Status::NoContent);
}

TEST_P(AChunkedUpload, EndsIfTheDiskIsFull)
{
    start();
    for (const Verb verb : verbs) {
        const FileSizeLimit limit(12 * mebibyte);
        send(chunk(verb, name_of(verb), 0, std::string(11 * mebibyte, 'x')));
        const auto errors = counted("err");

        const Response reply = send(chunk(verb, name_of(verb), 1, std::string(11 * mebibyte, 'x')));

        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_EQ(reply.status_message(), "flush failed, out of disk space?");
        EXPECT_TRUE(logs.has(slate::ErrorLevel, "flush failed, out of disk space?"));
        EXPECT_EQ(counted("err"), errors);
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

TEST_P(AChunkedUpload, EndsIfTheDiskIsFullWhenItsRestIsWritten)
{
    start();
    for (const Verb verb : verbs) {
        const FileSizeLimit limit(11 * mebibyte);
        send(chunk(verb, name_of(verb), 0, std::string(11 * mebibyte, 'x')));
        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, "the rest")).status(), Status::NoContent);

        const Response reply = send(chunk(verb, name_of(verb), 2, ""));

        EXPECT_EQ(reply.status(), Status::InternalServerError);
        EXPECT_EQ(reply.status_message(), "flush failed, out of disk space?");
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
    EXPECT_EQ(deliveries.count(), 0u);
}

TEST_P(AChunkedUpload, EndsIfItsRouteFails)
{
    start();
    add_route(
        "failing", "/failing", [](Context&) { throw MessageException(Status::Forbidden, "not this body"); },
        [](Context&) { throw std::runtime_error("broken"); });
    for (const Verb verb : verbs) {
        Chunk part = chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x'));
        part.path = "/failing";
        send(part);
        const auto errors = counted("err");

        Chunk last = chunk(verb, name_of(verb), 1, "");
        last.path = "/failing";
        const Response reply = send(last);

        EXPECT_EQ(reply.status(), verb == Verb::Put ? Status::Forbidden : Status::InternalServerError);
        EXPECT_EQ(reply.status_message(), verb == Verb::Put ? "not this body" : "broken");
        EXPECT_EQ(counted("err"), errors);
        EXPECT_TRUE(has_no_files());
        EXPECT_TRUE(is_gone(verb, name_of(verb), "/failing"));
    }
}

// --- Chunks out of order ------------------------------------------------------------------------------

TEST_P(AChunkedUpload, IgnoresAChunkThatWasSentTwice)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "one,"));
        send(chunk(verb, name_of(verb), 1, "two"));
        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, "two")).status(), Status::NoContent);
        EXPECT_EQ(send(chunk(verb, name_of(verb), 2, "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "one,two");
    }
}

TEST_P(AChunkedUpload, EndsWithAnEmptyChunkEvenIfItsNumberWasSentBefore)
{
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, "one,"));
        send(chunk(verb, name_of(verb), 1, "two"));
        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "one,two");
        EXPECT_TRUE(is_gone(verb, name_of(verb)));
    }
}

// Deliberate: only a gap ahead is refused.
TEST_P(AChunkedUpload, TakesAnOlderChunkAsIfItWereRight)
{
    start();
    for (const Verb verb : verbs) {
        for (int i = 0; i < 3; ++i)
            send(chunk(verb, name_of(verb), i, std::to_string(i)));

        EXPECT_EQ(send(chunk(verb, name_of(verb), 1, "one again")).status(), Status::NoContent);

        EXPECT_EQ(send(chunk(verb, name_of(verb), 4, "")).status(), Status::Ok);
        EXPECT_EQ(deliveries.all().back().body, "012one again");
    }
}

// --- Upkeep -------------------------------------------------------------------------------------------

TEST_P(AChunkedUpload, MayPauseForAQuarterOfAnHourUnlessTheSettingsSayOtherwise)
{
    slate::set_log_level(slate::ExtremeLevel);
    const auto clock = slate::make_clock_factory()->make_clock(); // older than the server's
    start();
    for (const Verb verb : verbs) {
        logs.clear();
        send(chunk(verb, name_of(verb), 0, "x"));
        const auto now = slate::clock_ticks_to_duration(clock->ticks(), clock->frequency());

        EXPECT_GE(logged_expiry("begin: "), slate::Minutes(15));
        EXPECT_LE(logged_expiry("begin: "), slate::Minutes(15) + now);
    }
}

TEST_P(AChunkedUpload, MayPauseForAsLongAsTheSettingsSay)
{
    slate::set_log_level(slate::ExtremeLevel);
    settings->set("session_ttl", "90s");
    const auto clock = slate::make_clock_factory()->make_clock();
    start();

    send(chunk(Verb::Put, "t", 0, "x"));
    const auto now = slate::clock_ticks_to_duration(clock->ticks(), clock->frequency());

    EXPECT_GE(logged_expiry("begin: "), slate::Seconds(90));
    EXPECT_LE(logged_expiry("begin: "), slate::Seconds(90) + now);
}

TEST_P(AChunkedUpload, MayPauseForAsLongAsTheSettingsSayWhenAChunkArrives)
{
    slate::set_log_level(slate::ExtremeLevel);
    settings->set("session_ttl", "90s");
    const auto clock = slate::make_clock_factory()->make_clock();
    start();

    settings->set("session_ttl", "1h");
    add_route("b", "/b"); // the server's thread takes the same lock, and so sees the setting
    send(chunk(Verb::Put, "t", 0, "x"));
    const auto now = slate::clock_ticks_to_duration(clock->ticks(), clock->frequency());

    EXPECT_GE(logged_expiry("begin: "), slate::Minutes(60));
    EXPECT_LE(logged_expiry("begin: "), slate::Minutes(60) + now);
}

TEST_P(AChunkedUpload, MayPauseForAQuarterOfAnHourIfTheSettingIsNotADuration)
{
    slate::set_log_level(slate::ExtremeLevel);
    const auto clock = slate::make_clock_factory()->make_clock();
    settings->set("session_ttl", "a while");
    start();

    send(chunk(Verb::Put, "t", 0, "x"));
    const auto now = slate::clock_ticks_to_duration(clock->ticks(), clock->frequency());

    EXPECT_GE(logged_expiry("begin: "), slate::Minutes(15));
    EXPECT_LE(logged_expiry("begin: "), slate::Minutes(15) + now);
}

TEST_P(AChunkedUpload, IsRefusedBeyondTheSizeThatTheSettingsAllow)
{
    settings->set("max_transfer_bytes", "15");
    start();
    EXPECT_EQ(send(chunk(Verb::Put, "t", 0, "0123456789")).status(), Status::NoContent);
    EXPECT_EQ(send(chunk(Verb::Put, "t", 1, "01234")).status(), Status::NoContent);
    const Response refused = send(chunk(Verb::Put, "t", 2, "5"));
    EXPECT_EQ(refused.status(), Status::PayloadTooLarge);
    EXPECT_EQ(refused.status_message(), "transfer of more than 15 bytes");
    EXPECT_EQ(send(chunk(Verb::Put, "t", 3, "")).status(), Status::Conflict);
}

TEST_P(AChunkedUpload, HasNoLimitIfTheSettingIsNotANumber)
{
    for (const std::string text : {"15 bytes", "-1", "0", "", "99999999999999999999"}) {
        settings->set("max_transfer_bytes", std::string_view(text));
        logs.clear();
        server.reset();
        start();
        EXPECT_TRUE(
            logs.has(slate::ErrorLevel, "setting is not a number of bytes: max_transfer_bytes = " + text));
        EXPECT_EQ(send(chunk(Verb::Put, "t", 0, "0123456789012345")).status(), Status::NoContent);
    }
}

TEST_P(AChunkedUpload, LivesLongerWithEachChunk)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    for (const Verb verb : verbs) {
        logs.clear();
        send(chunk(verb, name_of(verb), 0, "x"));
        const auto begun = std::chrono::steady_clock::now(); // a tick of the clock has up to a millisecond
        ASSERT_TRUE(wait_until([&] { return std::chrono::steady_clock::now() - begun > 1ms; }));
        send(chunk(verb, name_of(verb), 1, ""));

        EXPECT_GT(logged_expiry("end: "), logged_expiry("begin: "));
    }
}

TEST_P(AChunkedUpload, LivesForAsLongAsItMayPauseAtLeast)
{
    settings->set("session_ttl", "100ms");
    start();
    const auto begun = std::chrono::steady_clock::now();
    send(chunk(Verb::Put, "t", 0, "x"));

    EXPECT_TRUE(wait_until([&] {
        send(get_message("/nowhere"));
        return logs.has(slate::WarnLevel, "removing expired file transfer session: t");
    }));

    EXPECT_GE(std::chrono::steady_clock::now() - begun, 100ms);
}

TEST_P(AChunkedUpload, IsRemovedWithItsFileWhenItHasPausedForTooLong)
{
    settings->set("session_ttl", "-1s");
    start();
    for (const Verb verb : verbs) {
        send(chunk(verb, name_of(verb), 0, std::string(threshold + 1, 'x')));

        // The request that begins it is followed by upkeep like any other.
        EXPECT_TRUE(wait_until([&] {
            return logs.has(slate::WarnLevel, "removing expired file transfer session: " + name_of(verb));
        }));

        EXPECT_TRUE(wait_until([&] { return has_no_files(); }));
        const Response reply = send(chunk(verb, name_of(verb), 1, "x"));
        EXPECT_EQ(reply.status(), Status::Conflict);
        EXPECT_EQ(reply.status_message(), interrupted);
    }
    EXPECT_EQ(counted("err"), 2u);
    for (const LoggedLine& line : logs.lines()) {
        if (line.level == slate::WarnLevel && line.text.starts_with("removing")) {
            EXPECT_EQ(line.provider, "zmq.server[4711]");
        }
    }
}

TEST_P(AChunkedUpload, OutlivesItsTimeWhileTheServerIsIdleAndIsRemovedAfterTheNextRequest)
{
    settings->set("session_ttl", "200ms");
    start();
    const auto removed = [&](const std::string& transfer) {
        return logs.has(slate::WarnLevel, "removing expired file transfer session: " + transfer);
    };

    // The upkeep after the very request that begins a transfer removes it if the machine is slow enough, so
    // there are several attempts to see one that outlives its time.
    std::string transfer;
    for (int attempt = 0; attempt < 10; ++attempt) {
        transfer = "t" + std::to_string(attempt);
        send(chunk(Verb::Put, transfer, 0, "x"));
        const auto begun = std::chrono::steady_clock::now();
        wait_until([&] { return std::chrono::steady_clock::now() - begun > 300ms; });
        if (!removed(transfer))
            break;
    }
    ASSERT_FALSE(removed(transfer));

    send(get_message("/nowhere"));
    EXPECT_TRUE(wait_until([&] { return removed(transfer); }));
}

TEST_P(AChunkedUpload, IsAlsoRemovedAfterAFrameThatIsNotARequest)
{
    settings->set("session_ttl", "200ms");
    start();
    send(chunk(Verb::Put, "t", 0, "x"));

    EXPECT_TRUE(wait_until([&] {
        RawPeer(uri).exchange("\xFF no message");
        return logs.has(slate::WarnLevel, "removing expired file transfer session: t");
    }));
}

TEST_P(AChunkedUpload, IsDiscardedWithItsFileWhenItIsTheOldestOfEleven)
{
    start();
    for (const Verb verb : verbs) {
        const auto transfer = [&](int i) { return name_of(verb) + std::to_string(i); };
        for (int i = 0; i < 10; ++i)
            send(chunk(verb, transfer(i), 0, i == 0 ? std::string(threshold + 1, 'x') : "x"));
        EXPECT_EQ(files_below(area).size(), 1u);

        send(chunk(verb, transfer(10), 0, "x"));

        EXPECT_TRUE(wait_until([&] {
            return logs.has(slate::WarnLevel,
                            "too many file transfer sessions; discarding oldest: " + transfer(0));
        }));
        EXPECT_TRUE(wait_until([&] { return has_no_files(); }));
        EXPECT_TRUE(is_gone(verb, transfer(0)));
        for (int i = 1; i <= 10; ++i)
            EXPECT_EQ(send(chunk(verb, transfer(i), 1, "")).status(), Status::Ok) << i;
    }
    EXPECT_EQ(logs.count(slate::WarnLevel, "too many "), 2u);
}

TEST_P(AChunkedUpload, IsNotDiscardedAsTheOldestOfTen)
{
    start();
    for (int i = 0; i < 10; ++i)
        send(chunk(Verb::Put, std::to_string(i), 0, "x"));
    for (int i = 0; i < 20; ++i)
        send(get_message("/nowhere"));

    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(send(chunk(Verb::Put, std::to_string(i), 1, "")).status(), Status::Ok);
    EXPECT_EQ(logs.count(slate::WarnLevel, "too many "), 0u);
}

// --- Routes that want chunks --------------------------------------------------------------------------

TEST_P(AChunkedUpload, GoesChunkByChunkToARouteThatWantsItSo)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    const auto route =
        std::make_shared<RouteForChunks>("chunks", "put,post", RoutePattern("/chunks"), Access::Public);
    const auto answer = [this](Verb verb) {
        return [this, verb](Context& context) {
            deliveries.add("chunks", verb, context);
            context.reply.set_reply_text("got " + context.request.header("X-Tarn-Chunk-Number", ""));
        };
    };
    route->on_put = answer(Verb::Put);
    route->on_post = answer(Verb::Post);
    server->add(route);

    for (const Verb verb : verbs) {
        // Not in the order that a transfer needs elsewhere: the route is on its own.
        for (const int number : {7, 0, 0}) {
            Chunk part = chunk(verb, "t", number, number == 7 ? "" : "x");
            part.path = "/chunks";

            const Response reply = send(part);

            EXPECT_EQ(reply.status(), Status::Ok);
            EXPECT_EQ(reply.body().txt(), "got " + std::to_string(number));
            const Delivery got = deliveries.all().back();
            EXPECT_EQ(got.verb, verb);
            EXPECT_EQ(got.body, part.data);
            EXPECT_EQ(got.request.header("X-Tarn-Chunked-Transfer", ""), "t");
            EXPECT_EQ(got.params.at("X-Tarn-Chunked-Transfer"), "t");
            EXPECT_EQ(got.params.at("X-Tarn-Chunk-Number"), std::to_string(number));
        }
    }
    EXPECT_EQ(deliveries.count(), 6u);
    EXPECT_EQ(logs.count(slate::DebugLevel, "add: "), 0u);
}

TEST_P(AChunkedUpload, GetsThePresetReplyFromARouteForChunksThatWritesNone)
{
    start();
    const auto route =
        std::make_shared<RouteForChunks>("chunks", "put,post", RoutePattern("/chunks"), Access::Public);
    route->on_put = route->on_post = [](Context&) {};
    server->add(route);

    for (const Verb verb : verbs) {
        Chunk part = chunk(verb, "t", 3, "x");
        part.path = "/chunks";
        EXPECT_EQ(send(part).status(), Status::NoContent);
    }
}

// --- From a client's stream ---------------------------------------------------------------------------

TEST_P(AChunkedUpload, OfAStreamArrivesWhole)
{
    start();
    const std::string body = body_of("stream", 2 * mebibyte + mebibyte / 2);
    const auto client = make_client(uri);

    std::istringstream put(body);
    std::istringstream post(body);
    EXPECT_EQ(client->put("/a", put)->data(), "done");
    EXPECT_EQ(client->post("/a", post)->data(), "done");

    ASSERT_EQ(deliveries.count(), 2u);
    EXPECT_TRUE(deliveries.all()[0].body == body);
    EXPECT_TRUE(deliveries.all()[1].body == body);
    EXPECT_TRUE(wait_until([&] { return counted("tx") == 8u; }));
    EXPECT_EQ(counted("err"), 0u);
}

TEST_P(AChunkedUpload, OfAStreamBeyondTenMebibytesArrivesWhole)
{
    start();
    const std::string body = body_of("stream", 21 * mebibyte + 1);
    const auto client = make_client(uri);

    std::istringstream put(body);
    std::istringstream post(body);
    EXPECT_EQ(client->put("/a", put, slate::make_dictionary(), slate::Seconds(30))->data(), "done");
    EXPECT_EQ(client->post("/a", post, slate::make_dictionary(), slate::Seconds(30))->data(), "done");

    ASSERT_EQ(deliveries.count(), 2u);
    EXPECT_TRUE(deliveries.all()[0].body == body);
    EXPECT_TRUE(deliveries.all()[1].body == body);
    EXPECT_TRUE(has_no_files());
}

TEST_P(AChunkedUpload, OfAStreamThatEndsWithAChunkIsDeliveredAndAnsweredAsInterrupted)
{
    start();
    const auto client = make_client(uri);

    for (const std::string& body : {std::string(), body_of("stream", mebibyte)}) {
        std::istringstream stream(body);
        const auto reply = client->put("/a", stream);

        EXPECT_EQ(reply->status(), Status::Conflict);
        EXPECT_EQ(reply->status_message(), interrupted);
        EXPECT_TRUE(deliveries.all().back().body == body);
    }
    EXPECT_EQ(deliveries.count(), 2u);
    EXPECT_EQ(counted("err"), 2u);
}

// --- Many threads -------------------------------------------------------------------------------------

class AnUploadBesideOthers : public AChunkedUpload {
protected:
    /// Begins transfers at route "b" until an older one is discarded. They go out without waiting for
    /// replies and are more than needed, since those that are meant for a worker that stands still have to
    /// wait for it.
    void crowd_out(const std::string& transfer)
    {
        for (int i = 0; i < 20; ++i) {
            Chunk first = chunk(Verb::Put, "crowd" + std::to_string(i), 0, "x");
            first.path = "/b";
            crowd.send({"", message_of(first).SerializeAsString()});
        }
        EXPECT_TRUE(wait_until([&] {
            return logs.has(slate::WarnLevel,
                            "too many file transfer sessions; discarding oldest: " + transfer);
        }));
    }

    RawPeer crowd{uri, zmq::socket_type::dealer};
};
INSTANTIATE_TEST_SUITE_P(Kinds, AnUploadBesideOthers, testing::Values(ServerKind{"MultiThreaded", 4}),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(AnUploadBesideOthers, KeepsNoneWaitingWhileItsRouteIsAtWorkAndSurvivesBeingDiscarded)
{
    start();
    add_route("b", "/b");
    std::promise<void> entered;
    std::promise<void> go;
    add_route(
        "slow", "/slow",
        [&](Context& context) {
            entered.set_value();
            go.get_future().wait();
            deliveries.add("slow", Verb::Put, context);
            context.reply.set_reply_text("done at last");
        },
        nullptr);
    const std::string body(threshold + 1, 'x');
    Chunk part = chunk(Verb::Put, "slow", 0, body);
    part.path = "/slow";
    send(part);
    auto last = std::async(std::launch::async, [&] {
        RawPeer other(uri);
        part.number = "1";
        part.data.clear();
        return exchange_on(other, message_of(part));
    });
    entered.get_future().wait();

    crowd_out("slow");
    go.set_value();

    EXPECT_EQ(last.get().body().txt(), "done at last");
    EXPECT_TRUE(deliveries.all().back().body == body);
    EXPECT_TRUE(has_no_files());
}

TEST_P(AnUploadBesideOthers, KeepsNoneWaitingWhileItsFileIsWrittenAndSurvivesBeingDiscarded)
{
    start();
    add_route("b", "/b");
    send(chunk(Verb::Put, "slow", 0, std::string(threshold + 1, 'x')));
    const fs::path file = only_file();
    SlowDisk disk;
    auto next = std::async(std::launch::async, [&] {
        RawPeer other(uri);
        return exchange_on(other, message_of(chunk(Verb::Put, "slow", 1, std::string(threshold + 1, 'y'))));
    });
    disk.wait_for_write();

    crowd_out("slow");

    EXPECT_EQ(fs::file_size(file), threshold + 1); // the worker's, still
    disk.go_on();
    EXPECT_EQ(next.get().status(), Status::NoContent);
    EXPECT_FALSE(fs::exists(file));
    EXPECT_TRUE(is_gone(Verb::Put, "slow"));
}

TEST_P(AnUploadBesideOthers, MayBeFedByManyAtOnce)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    for (const std::string name : {"b", "c", "d"})
        add_route(name, "/" + name);
    send(chunk(Verb::Put, "t", 0, "x"));

    {
        std::vector<std::jthread> threads;
        for (const std::string path : {"/a", "/b", "/c", "/d"}) {
            threads.emplace_back([this, path] {
                RawPeer other(uri);
                Chunk part = unnumbered(Verb::Put, "t", "12345");
                part.path = path;
                for (int i = 0; i < 50; ++i)
                    EXPECT_EQ(exchange_on(other, message_of(part)).status(), Status::NoContent);
            });
        }
    }

    EXPECT_EQ(send(unnumbered(Verb::Put, "t", "")).status(), Status::Ok);
    EXPECT_EQ(deliveries.all().at(0).body.size(), 1u + 4 * 50 * 5);
}

TEST_P(AnUploadBesideOthers, MayBeBegunAndEndedByManyAtOnce)
{
    slate::set_log_level(slate::ExtremeLevel);
    start();
    for (const std::string name : {"b", "c", "d"})
        add_route(name, "/" + name);

    {
        std::vector<std::jthread> threads;
        for (const std::string path : {"/a", "/b", "/c", "/d"}) {
            threads.emplace_back([this, path] {
                RawPeer other(uri);
                for (int i = 0; i < 100; ++i) {
                    Chunk part = chunk(Verb::Put, "t", 0, "x");
                    part.path = path;
                    const Status first = exchange_on(other, message_of(part)).status();
                    EXPECT_TRUE(first == Status::NoContent || first == Status::Conflict) << first;

                    part.number.reset();
                    const Status next = exchange_on(other, message_of(part)).status();
                    EXPECT_TRUE(next == Status::NoContent || next == Status::Conflict) << next;

                    part.data.clear();
                    const Status last = exchange_on(other, message_of(part)).status();
                    EXPECT_TRUE(last == Status::Ok || last == Status::Conflict) << last;
                }
            });
        }
    }

    EXPECT_EQ(make_client(uri)->get("/index")->status(), Status::Ok);
}

TEST_P(AnUploadBesideOthers, EndsWellOrIsInterruptedWhenThereAreTooMany)
{
    constexpr unsigned int clients = 8;
    constexpr unsigned int rounds = 3;
    start();
    add_route("shared", "/shared");
    for (unsigned int i = 0; i < clients; ++i)
        add_route("own" + std::to_string(i), "/own" + std::to_string(i));

    const auto size_of = [](unsigned int client, unsigned int round) {
        return client % 4 == round ? threshold + client + 1
                                   : std::size_t{1000} + client; // some go through a file
    };
    struct Outcome {
        std::size_t good = 0;
        std::size_t interrupted = 0;
        std::vector<std::string> problems;
    };
    std::vector<Outcome> outcomes(clients);
    // All of a round have begun two transfers each before any goes on, so that some are discarded while
    // workers are at them.
    std::barrier<> all_begun(clients);

    const auto upload = [&](unsigned int client) {
        Outcome& outcome = outcomes[client];
        RawPeer other(uri);
        for (unsigned int round = 0; round < rounds; ++round) {
            std::vector<Chunk> parts(2);
            std::vector<std::string> bodies(2);
            std::vector<bool> running(2, true);
            for (unsigned int k = 0; k < 2; ++k) {
                Chunk& part = parts[k];
                part.id = std::to_string(client) + "-" + std::to_string(round) + "-" + std::to_string(k);
                part.verb = (client + k + round) % 2 == 0 ? Verb::Put : Verb::Post;
                part.path = k == 0 ? "/own" + std::to_string(client) : "/shared";
                part.headers["X-Name"] = part.id;
                bodies[k] = body_of(part.id, size_of(client, round));
            }
            for (unsigned int step = 0; step < 4; ++step) {
                for (unsigned int k = 0; k < 2; ++k) {
                    if (!running[k])
                        continue;
                    const std::size_t third = bodies[k].size() / 3;
                    parts[k].number = std::to_string(step);
                    parts[k].data = step == 3   ? std::string()
                                    : step == 2 ? bodies[k].substr(2 * third)
                                                : bodies[k].substr(step * third, third);
                    const Response reply = exchange_on(other, message_of(parts[k]));
                    if (reply.status() == Status::Conflict && reply.status_message() == interrupted) {
                        running[k] = false;
                        ++outcome.interrupted;
                    }
                    else if (reply.status() != (step == 3 ? Status::Ok : Status::NoContent)) {
                        running[k] = false;
                        outcome.problems.push_back(reply.ShortDebugString());
                    }
                    else if (step == 3) {
                        ++outcome.good;
                    }
                }
                if (step == 0)
                    all_begun.arrive_and_wait();
            }
        }
    };
    {
        std::vector<std::jthread> threads;
        for (unsigned int client = 0; client < clients; ++client)
            threads.emplace_back(upload, client);
    }

    std::size_t good = 0;
    std::size_t cut = 0;
    for (const Outcome& outcome : outcomes) {
        good += outcome.good;
        cut += outcome.interrupted;
        EXPECT_EQ(outcome.problems, std::vector<std::string>());
    }
    EXPECT_EQ(good + cut, clients * rounds * 2);
    EXPECT_GE(logs.count(slate::WarnLevel, "too many "), 1u);
    EXPECT_EQ(counted("err"), cut);
    const auto got = deliveries.all();
    EXPECT_EQ(got.size(), good);
    for (const Delivery& delivery : got) {
        const std::string name = delivery.request.header("X-Name", "");
        const auto client = static_cast<unsigned int>(name.at(0) - '0');
        const auto round = static_cast<unsigned int>(name.at(2) - '0');
        EXPECT_TRUE(delivery.body == body_of(name, size_of(client, round))) << name;
    }
    server.reset();
    EXPECT_TRUE(has_no_files());
}

// --- Memory that was never written --------------------------------------------------------------------

std::size_t resident_kibibytes()
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:"))
            return std::stoul(line.substr(6));
    }
    return 0;
}

/// How much a server's memory grows by eleven transfers of one byte.
std::size_t kibibytes_of_eleven_transfers(const std::shared_ptr<const slate::Uri>& uri, unsigned long workers)
{
    const LogCapture logs;
    const auto settings = slate::make_dictionary();
    const ZmqSubsystem runtime(settings);
    const auto server = make_server(workers, settings, {uri}, nullptr, make_message_factory());
    const auto route = make_test_route("a", "put", "/a");
    route->on_put = [](Context&) {};
    server->add(route);
    RawPeer peer(uri);
    for (const char* data : {"x", ""}) // what everything takes when it is used for the first time
        exchange_on(peer, message_of(chunk(Verb::Put, "first", *data == '\0' ? 1 : 0, data)));

    const auto before = resident_kibibytes();
    for (int i = 0; i < 11; ++i)
        exchange_on(peer, message_of(chunk(Verb::Put, std::to_string(i), 0, "x")));
    const auto after = resident_kibibytes();
    return after > before ? after - before : 0;
}

TEST(ElevenUploads, OfOneByteDoNotTakeTheMemoryThatIsReservedForThem)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's memory is its own affair";
#endif
    for (const unsigned long workers : {1UL, 4UL}) {
        const ScratchFolder folder;
        const auto uri = slate::make_uri("ipc://" + (folder.path() / "s.sock").string());
        int pipe_ends[2];
        ASSERT_EQ(pipe(pipe_ends), 0);

        // A process of its own, whose memory nobody has used before.
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const std::size_t grown = kibibytes_of_eleven_transfers(uri, workers);
            const bool written = write(pipe_ends[1], &grown, sizeof grown) == sizeof grown;
            _exit(written ? 0 : 1);
        }
        close(pipe_ends[1]);
        std::size_t grown = 0;
        EXPECT_EQ(read(pipe_ends[0], &grown, sizeof grown), static_cast<ssize_t>(sizeof grown));
        close(pipe_ends[0]);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

        RecordProperty("kibibytes_with_" + std::to_string(workers) + "_workers", static_cast<int>(grown));
        EXPECT_LT(grown, 20u * 1024);
    }
}

/// A service that is killed in the middle of an upload of each kind.
void kill_in_the_middle(const std::shared_ptr<const slate::Uri>& uri, unsigned long workers)
{
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        slate::set_log_sinks({});
        ZmqSubsystem subsystem;
        const auto server = subsystem.serve(uri, {make_test_route("a", "put,post", "/a")}, workers);
        RawPeer peer(uri);
        for (const Verb verb : verbs) {
            for (const std::string part : {"1", "2"})
                exchange_on(
                    peer, message_of(chunk(verb, name_of(verb) + part, 0, std::string(threshold + 1, 'x'))));
        }
        (void)!write(ready[1], "x", 1);
        while (true)
            pause();
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    kill(child, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
}

TEST(AKilledService, LeavesNoUploadsBehindItsNextStart)
{
    for (const unsigned long workers : {1UL, 4UL}) {
        const ScratchFolder folder;
        const fs::path area = make_folder(folder.path() / "area");
        const TemporaryFolderVariable variable(make_folder(area / "tmp"));
        const auto uri = slate::make_uri("ipc://" + (folder.path() / "s.sock").string());
        const fs::path list = tarn_internal::TemporaryFileList::for_endpoints({uri})->path();
        std::ofstream(area / "precious") << "x";

        for (int i = 0; i < 3; ++i) {
            kill_in_the_middle(uri, workers);
            EXPECT_EQ(files_below(area).size(), 1u + 4u); // and not more with each kill
            EXPECT_TRUE(fs::exists(list));
        }
        const LogCapture logs;
        ZmqSubsystem subsystem;
        const auto server = subsystem.serve(uri, {make_test_route("a", "put,post", "/a")}, workers);

        EXPECT_EQ(files_below(area), std::vector{area / "precious"});
        EXPECT_FALSE(fs::exists(list));
    }
}
} // namespace
