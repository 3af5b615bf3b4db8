// SPDX-License-Identifier: Apache-2.0
// The resource and the route of examples/resource, over a socket.
#include <filesystem>
#include <fstream>
#include <future>
#include <string>

#include <google/protobuf/util/json_util.h>

#include "network_settings.h"
#include "resource_route.h"
#include "support/runtime_test.h"

namespace {
using namespace std::chrono_literals;
using namespace tarn_test;
using example::Network;
using tarn::Format;
using tarn::Status;

const std::string pump = R"({"hostname": "pump-7", "address": "192.168.0.10/24", "gateway": "192.168.0.1"})";

Network network_of(const std::string& json)
{
    Network network;
    EXPECT_TRUE(google::protobuf::util::JsonStringToMessage(json, &network).ok()) << json;
    return network;
}

std::shared_ptr<slate::Dictionary> headers(const std::string& key, const std::string& value)
{
    auto result = slate::make_dictionary();
    result->set(key, std::string_view(value));
    return result;
}

/// A line of text with a tag of its own.
class Line : public tarn::ResourceBase {
public:
    Line(std::string text, std::string tag, bool takes_chunks = false)
        : ResourceBase(slate::add_provider("line", "", true)),
          text_(std::move(text)),
          tag_(std::move(tag)),
          takes_chunks_(takes_chunks)
    {
    }

    using Params = std::shared_ptr<slate::Dictionary>;
    using ResourceBase::exists;
    std::string name() const override { return "line"; }
    bool exists(const Params&) const override { return true; }
    bool supports_chunked_transfer() const override { return takes_chunks_; }
    std::vector<Format> formats() const override { return {Format::Text}; }
    std::pair<std::string, Format> read(const Params&, Format) const override
    {
        const std::lock_guard lock(mutex_);
        return {text_, Format::Text};
    }
    void write(const Params&, const Format&, const std::string& data, const tarn::WritePolicy&) override
    {
        const std::lock_guard lock(mutex_);
        text_ = data;
    }
    std::pair<std::string, Format> etag(const Params&, Format) const override { return {tag_, Format::Text}; }

private:
    mutable std::mutex mutex_; // guards text_, which tests read beside the server
    std::string text_;
    const std::string tag_;
    const bool takes_chunks_;
};

class TheResourceExample : public RuntimeTest {
protected:
    /// A client of a server with just that resource, at "/line".
    std::shared_ptr<tarn::Client> serve_line(const std::shared_ptr<Line>& line)
    {
        const auto uri = scratch_endpoint("ipc");
        serve(uri)->add(std::make_shared<example::ResourceRoute>("/line", line));
        return tarn::make_client(uri);
    }

    void start(std::function<void(const Network&)> apply = {})
    {
        if (!apply)
            apply = [applied = applied_](const Network& network) { applied->add(network.hostname()); };
        settings_ = std::make_shared<example::NetworkSettings>(file_, apply);
        settings_->apply_stored();
        const auto uri = scratch_endpoint("ipc");
        serve(uri)->add(std::make_shared<example::ResourceRoute>("/network", settings_));
        client_ = tarn::make_client(uri);
    }

    std::shared_ptr<tarn::Reply> put(const std::string& body, const std::string& type = "application/json")
    {
        return client_->put("/network", body, headers("Content-Type", type));
    }

    const std::filesystem::path file_ = folder.path() / "settings" / "network.json";
    // Shared with works that may still run when the test has ended.
    const std::shared_ptr<Journal> applied_ = std::make_shared<Journal>();
    std::shared_ptr<example::NetworkSettings> settings_;
    std::shared_ptr<tarn::Client> client_;
};

TEST_F(TheResourceExample, HasNoSettingsAtFirst)
{
    start();

    const auto reply = client_->get("/network");
    EXPECT_EQ(reply->status(), Status::NotFound);
    EXPECT_EQ(reply->status_message(), "no network settings");
    EXPECT_FALSE(reply->has_header("ETag"));
    EXPECT_EQ(client_->head("/network")->status(), Status::NotFound);
    EXPECT_EQ(client_->del("/network")->status(), Status::NotFound);
    EXPECT_FALSE(settings_->exists(1));
}

TEST_F(TheResourceExample, KeepsWhatIsWrittenAndAppliesIt)
{
    start();

    EXPECT_EQ(put(pump)->status(), Status::NoContent);

    EXPECT_TRUE(wait_until([&] { return applied_->entries() == std::vector<std::string>{"pump-7"}; }));
    const std::string kept = slate::slurp_file<std::string>(file_.string(), std::ios::binary);
    EXPECT_EQ(network_of(kept).gateway(), "192.168.0.1");
    EXPECT_TRUE(settings_->exists(1));
    EXPECT_TRUE(settings_->has_behavior(tarn::Resource::Behavior::Persistent));
}

TEST_F(TheResourceExample, FindsItsSettingsAgainAndAppliesThem)
{
    std::filesystem::create_directory(file_.parent_path());
    std::ofstream(file_) << pump;
    start();

    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "pump-7");
    EXPECT_TRUE(wait_until([&] { return applied_->entries() == std::vector<std::string>{"pump-7"}; }));
}

TEST_F(TheResourceExample, AnswersInTheFormatThatIsAskedFor)
{
    start();
    put(pump);
    const auto expected = network_of(pump);

    for (const std::string accept :
         {"", "application/json", "image/png", "*/*", "text/csv,application/json"}) {
        const auto reply = client_->get("/network", headers("Accept", accept));
        EXPECT_EQ(reply->status(), Status::Ok);
        EXPECT_EQ(reply->format(), Format::Json) << accept;
        EXPECT_EQ(network_of(reply->data()).ShortDebugString(), expected.ShortDebugString());
    }

    const auto text = client_->get("/network", headers("accept", "application/json;q=0.1,text/plain;q=0.9"));
    EXPECT_EQ(text->format(), Format::Text);
    EXPECT_FALSE(text->is_binary());
    EXPECT_EQ(text->data(), expected.DebugString());

    const auto proto = client_->get("/network", headers("Accept", "application/x-protobuf"));
    EXPECT_EQ(proto->format(), Format::Proto);
    EXPECT_TRUE(proto->is_binary());
    EXPECT_EQ(proto->into<Network>().ShortDebugString(), expected.ShortDebugString());

    // The query is stronger.
    EXPECT_EQ(client_->get("/network?format=text", headers("Accept", "application/json"))->format(),
              Format::Text);
}

TEST_F(TheResourceExample, SendsATagAndNotAgainWhatTheClientHolds)
{
    start();
    put(pump);
    const auto first = client_->get("/network");
    const std::string tag = first->header("ETag", "");
    EXPECT_EQ(tag, slate::md5_hash_string(first->data()));

    const auto again = client_->get("/network", headers("If-None-Match", tag));
    EXPECT_EQ(again->status(), Status::NotModified);
    EXPECT_EQ(again->header("ETag", ""), tag);
    EXPECT_EQ(again->data(), "");
    const auto head = client_->head("/network", headers("If-None-Match", tag));
    EXPECT_EQ(head->status(), Status::NotModified);
    EXPECT_EQ(head->header("ETag", ""), tag);
    EXPECT_FALSE(head->has_header("Content-Length")); // which would be that of the data

    const auto other = client_->get("/network", headers("If-None-Match", "another tag"));
    EXPECT_EQ(other->status(), Status::Ok);
    EXPECT_EQ(other->data(), first->data());
    const auto other_format = client_->get("/network?format=text", headers("If-None-Match", tag));
    EXPECT_EQ(other_format->status(), Status::Ok);
    EXPECT_NE(other_format->header("ETag", ""), tag);

    put(R"({"hostname": "pump-8"})");
    const auto changed = client_->get("/network", headers("If-None-Match", tag));
    EXPECT_EQ(changed->status(), Status::Ok);
    EXPECT_EQ(network_of(changed->data()).hostname(), "pump-8");
}

TEST_F(TheResourceExample, KnowsItsTagInAListAndTakesAStarForAnyTag)
{
    const auto client = serve_line(std::make_shared<Line>("hello", "t1"));

    for (const std::string held : {"t1", "*", "t0,t1", "t0, t1 , t2", " t1"})
        EXPECT_EQ(client->get("/line", headers("If-None-Match", held))->status(), Status::NotModified)
            << held;
    for (const std::string held : {"", "t", "t1t2", "t0,t2", "t1 t2", "t*", "T1"})
        EXPECT_EQ(client->get("/line", headers("If-None-Match", held))->data(), "hello") << held;
}

TEST_F(TheResourceExample, SendsNoEmptyTagAndAlwaysItsData)
{
    const auto client = serve_line(std::make_shared<Line>("hello", ""));

    const auto reply = client->get("/line");
    EXPECT_EQ(reply->status(), Status::Ok);
    EXPECT_EQ(reply->data(), "hello");
    EXPECT_FALSE(reply->has_header("ETag"));
    for (const std::string held : {"", ",", "t1"})
        EXPECT_EQ(client->get("/line", headers("If-None-Match", held))->data(), "hello") << held;
}

TEST_F(TheResourceExample, RefusesToBeReadWhileItIsWriteOnly)
{
    const auto line = std::make_shared<Line>("secret", "t1");
    line->set_behavior(tarn::Resource::Behavior::WriteOnly);
    const auto client = serve_line(line);

    const auto reply = client->get("/line", headers("If-None-Match", "t1"));
    EXPECT_EQ(reply->status(), Status::MethodNotAllowed);
    EXPECT_EQ(reply->status_message(), "line can only be written");
    EXPECT_FALSE(reply->has_header("ETag"));
    EXPECT_EQ(client->head("/line")->status(), Status::MethodNotAllowed);
    EXPECT_EQ(client->put("/line", "new", headers("Content-Type", "text/plain"))->status(),
              Status::NoContent);
    EXPECT_EQ(line->read(nullptr, Format::Text).first, "new");
}

TEST_F(TheResourceExample, TakesChunksIfItsResourceDoes)
{
    for (const bool takes_chunks : {false, true}) {
        const example::ResourceRoute route("/line", std::make_shared<Line>("", "", takes_chunks));
        EXPECT_EQ(route.supports_chunked_transfer(), takes_chunks);
    }
}

TEST_F(TheResourceExample, TellsLengthAndTagOfABodyThatIsNotAskedFor)
{
    start();
    put(pump);
    const auto whole = client_->get("/network");

    const auto head = client_->head("/network");

    EXPECT_EQ(head->status(), Status::Ok);
    EXPECT_EQ(head->header("Content-Length", ""), std::to_string(whole->data().size()));
    EXPECT_EQ(head->header("ETag", ""), whole->header("ETag", ""));
}

TEST_F(TheResourceExample, TakesJsonAndProtobufByHeaderOrQuery)
{
    start();
    Network network = network_of(pump);

    network.set_hostname("a");
    EXPECT_EQ(put(network.SerializeAsString(), "application/x-protobuf")->status(), Status::NoContent);
    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "a");
    EXPECT_EQ(put(R"({"hostname": "b"})", "application/json; charset=utf-8")->status(), Status::NoContent);
    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "b");
    EXPECT_EQ(client_->put("/network?format=json", R"({"hostname": "c"})")->status(), Status::NoContent);
    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "c");

    EXPECT_TRUE(wait_until([&] { return applied_->entries() == std::vector<std::string>{"a", "b", "c"}; }));
}

TEST_F(TheResourceExample, RefusesWhatItCannotTake)
{
    start();
    put(pump);
    const auto tag = client_->get("/network")->header("ETag", "");

    EXPECT_EQ(put("nonsense")->status(), Status::BadRequest);
    EXPECT_EQ(put("{}")->status(), Status::BadRequest);
    EXPECT_EQ(put(R"({"hostname": "a", "colour": "red"})")->status(), Status::BadRequest);
    EXPECT_EQ(put("\xff\xff", "application/x-protobuf")->status(), Status::BadRequest);
    EXPECT_EQ(put(pump, "text/plain")->status(), Status::UnsupportedMediaType);
    EXPECT_EQ(put(pump, "image/png")->status(), Status::UnsupportedMediaType);
    EXPECT_EQ(put(pump, "nonsense")->status(), Status::UnsupportedMediaType);
    EXPECT_EQ(client_->put("/network", pump)->status(), Status::UnsupportedMediaType);
    for (const bool has_empty_body : {false, true}) {
        auto message = factory()->make_put("/network", "", headers("Content-Type", "application/json"));
        has_empty_body ? message->mutable_put()->mutable_body()->Clear()
                       : message->mutable_put()->clear_body();
        const auto reply = client_->send(tarn::Request(message));
        EXPECT_EQ(reply->status(), Status::BadRequest);
        EXPECT_EQ(reply->status_message(), "no body");
    }
    EXPECT_EQ(client_->post("/network", pump, headers("Content-Type", "application/json"))->status(),
              Status::MethodNotAllowed);

    EXPECT_EQ(client_->get("/network")->header("ETag", ""), tag);
    EXPECT_TRUE(wait_until([&] { return applied_->entries() == std::vector<std::string>{"pump-7"}; }));
}

TEST_F(TheResourceExample, RefusesChangesWhileItIsReadOnly)
{
    start();
    put(pump);
    settings_->set_behavior(tarn::Resource::Behavior::ReadOnly);

    const auto reply = put(R"({"hostname": "pump-8"})");
    EXPECT_EQ(reply->status(), Status::MethodNotAllowed);
    EXPECT_EQ(reply->status_message(), "network settings can only be read");
    EXPECT_EQ(client_->del("/network")->status(), Status::MethodNotAllowed);
    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "pump-7");

    settings_->clear_behavior(tarn::Resource::Behavior::ReadOnly);
    EXPECT_EQ(put(R"({"hostname": "pump-8"})")->status(), Status::NoContent);
}

TEST_F(TheResourceExample, ErasesItsSettings)
{
    start();
    put(pump);

    EXPECT_EQ(client_->del("/network")->status(), Status::NoContent);

    EXPECT_EQ(client_->get("/network")->status(), Status::NotFound);
    EXPECT_FALSE(std::filesystem::exists(file_));
}

TEST_F(TheResourceExample, AnswersWritesBeforeTheyAreAppliedAndRefusesTooMany)
{
    runtime.reset();
    runtime =
        std::make_unique<tarn::ZmqSubsystem>(settings, [](slate::Queue& queue) { queue.set_capacity(1); });
    std::promise<void> running;
    std::promise<void> go;
    start([&, may_go = go.get_future().share()](const Network& network) {
        if (network.hostname() == "first") {
            running.set_value();
            may_go.wait();
        }
        applied_->add(network.hostname());
    });

    EXPECT_EQ(put(R"({"hostname": "first"})")->status(), Status::NoContent);
    ASSERT_EQ(running.get_future().wait_for(20s), std::future_status::ready);
    EXPECT_EQ(put(R"({"hostname": "second"})")->status(), Status::NoContent);
    const auto refused = put(R"({"hostname": "third"})");
    EXPECT_EQ(refused->status(), Status::TooManyRequests);
    EXPECT_EQ(refused->status_message(), "saved, but not applied: too many requests");
    EXPECT_EQ(network_of(client_->get("/network")->data()).hostname(), "third");
    EXPECT_TRUE(applied_->entries().empty());

    go.set_value();
    EXPECT_TRUE(wait_until([&] { return applied_->entries().size() == 2; }));
    EXPECT_EQ(put(R"({"hostname": "third"})")->status(), Status::NoContent);
    EXPECT_TRUE(wait_until([&] {
        return applied_->entries() == std::vector<std::string>{"first", "second", "third"};
    }));
}

TEST_F(TheResourceExample, LogsThatItsSettingsCouldNotBeApplied)
{
    start([](const Network&) { throw std::runtime_error("no cable"); });

    EXPECT_EQ(put(pump)->status(), Status::NoContent);

    EXPECT_TRUE(
        wait_until([&] { return logs.has(slate::ErrorLevel, "network settings not applied: no cable"); }));
}

TEST_F(TheResourceExample, TellsThatItsFileHoldsNoSettings)
{
    std::filesystem::create_directory(file_.parent_path());
    std::ofstream(file_) << "edited by hand";
    start();

    EXPECT_EQ(logs.count(slate::ErrorLevel, "stored network settings not applied: "), 1U);
    EXPECT_EQ(client_->get("/network")->status(), Status::InternalServerError);
    EXPECT_EQ(put(pump)->status(), Status::NoContent);
    EXPECT_EQ(client_->get("/network")->status(), Status::Ok);
}

TEST_F(TheResourceExample, RefusesToApplyWhenTheRuntimeIsGone)
{
    runtime.reset();
    example::NetworkSettings resource(file_, [](const Network&) {});

    try {
        resource.write(nullptr, Format::Json, pump, tarn::WritePolicy::Replace);
        ADD_FAILURE() << "applied";
    }
    catch (const tarn::MessageException& error) {
        EXPECT_EQ(error.status, Status::ServiceUnavailable);
    }
    EXPECT_EQ(resource.read(nullptr, Format::Any).second, Format::Json);
    EXPECT_THROW(resource.read(nullptr, Format::Png), tarn::MessageException);
}
} // namespace
