// SPDX-License-Identifier: Apache-2.0
// The processes of a soak that aren't programs of ours already; soak.py starts and kills them:
//
//   soak_process service DIRECTORY NAME WORKERS [RELAY...]   values, uploads and downloads, in DIRECTORY/NAME
//   soak_process watch DIRECTORY NAME RELAY...               counts what the relays forward
//   soak_process client DIRECTORY ROUTER SERVICE...          asks the services for everything, for ever
//
// ROUTER and each RELAY are the names of processes that have their sockets in DIRECTORY. Each process prints
// "ready" once it answers, and runs until SIGTERM. A client also prints "acked SERVICE KEY VALUE" for each
// value that a service has acknowledged, "wrong ..." for each answer that can't be right, and each second
// "beat REQUESTS GOOD REFUSED UNANSWERED LONGEST_MS".

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <deque>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <tarn/tarn.h>

namespace {
using namespace std::chrono_literals;
using tarn::MessageException;
using tarn::Status;

/// The services have so many values.
constexpr unsigned int keys = 8;
/// Short, because clients are killed in the middle of uploads.
constexpr const char* session_ttl = "10s";

sigset_t block_termination_signals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void wait_for(const sigset_t& signals)
{
    std::cout << "ready" << std::endl;
    int signal = 0;
    sigwait(&signals, &signal);
}

tarn::Endpoint endpoint_of(const std::filesystem::path& directory, const std::string& name,
                           const char* socket = "zmq.sock")
{
    return slate::make_uri("ipc://" + (directory / name / socket).string());
}

/// Bytes that tell where they stand.
std::string pattern_of(std::size_t size)
{
    std::string bytes(size, '\0');
    unsigned int state = 1;
    for (char& byte : bytes)
        byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
}

std::string checksum_of(const std::string& bytes)
{
    return std::to_string(bytes.size()) + " " + slate::md5_hash_string(bytes);
}

/// Numbers in files, which only ever grow: a request whose client gave up long ago may still arrive.
class Numbers : public tarn::ResourceBase {
public:
    Numbers(const std::filesystem::path& folder,
            std::function<void(const std::string&, unsigned long)> publish)
        : ResourceBase(slate::add_provider("numbers", "", true)),
          folder_(folder),
          publish_(std::move(publish))
    {
    }

    std::vector<tarn::Format> formats() const override { return {tarn::Format::Text}; }
    std::string name() const override { return "numbers"; }
    using ResourceBase::exists;
    bool exists(const std::shared_ptr<slate::Dictionary>& params) const override
    {
        return store(params).exists(0);
    }

    std::pair<std::string, tarn::Format> read(const std::shared_ptr<slate::Dictionary>& params,
                                              tarn::Format) const override
    {
        const auto text = store(params).read(0);
        if (!text)
            throw MessageException(Status::NotFound, "not written yet");
        return {*text, tarn::Format::Text};
    }

    void write(const std::shared_ptr<slate::Dictionary>& params, const tarn::Format&, const std::string& data,
               const tarn::WritePolicy&) override
    {
        unsigned long number = 0;
        if (!slate::try_parse(data, &number))
            throw MessageException(Status::BadRequest, "not a number");
        auto file = store(params);
        unsigned long stored = 0;
        if (const auto text = file.read(0); text && (!slate::try_parse(*text, &stored)))
            throw std::runtime_error("the file is corrupt: " + *text);
        if (number <= stored)
            throw MessageException(Status::Conflict, "there is a newer one");
        file.write(data);
        publish_(params->get("key", ""), number);
    }

private:
    tarn::FileStore store(const std::shared_ptr<slate::Dictionary>& params) const
    {
        unsigned int key = 0;
        if (!slate::try_parse(std::string(params->get("key", "")), &key) || key >= keys)
            throw MessageException(Status::NotFound, "no such number");
        return {folder_ / std::to_string(key), provider()};
    }

    const std::filesystem::path folder_;
    const std::function<void(const std::string&, unsigned long)> publish_;
};

class NumbersRoute : public tarn::Route {
public:
    explicit NumbersRoute(std::shared_ptr<Numbers> numbers)
        : Route("numbers", "get,put", "/number/:key", tarn::Access::Public),
          numbers_(std::move(numbers))
    {
    }

    void get(tarn::Context& context) const override
    {
        const auto answer = [&](tarn::Content content) {
            context.reply.set_header("ETag", content.etag);
            context.reply.set_reply_text(std::move(content.data));
        };
        numbers_->save_into(answer, "text/plain", context.params);
    }

    void put(tarn::Context& context) override
    {
        numbers_->write(context.params, tarn::Format::Text, context.request.data(),
                        tarn::WritePolicy::Replace);
    }

private:
    const std::shared_ptr<Numbers> numbers_;
};

class UploadRoute : public tarn::Route {
public:
    UploadRoute() : Route("upload", "put,post", "/upload/:name", tarn::Access::Public) {}

    void put(tarn::Context& context) override
    {
        context.reply.set_reply_text(checksum_of(context.request.data()));
    }
    void post(tarn::Context& context) override { put(context); }
};

/// Answers with a body of the size that the path says, in chunks if the client takes them. Keeps as many
/// downloads as it has clients, and one more.
class DownloadRoute : public tarn::Route {
public:
    DownloadRoute() : Route("download", "get", "/download/:size", tarn::Access::Public) {}

    void get(tarn::Context& context) const override
    {
        const auto size = context.variable<unsigned long>("size");
        if (size > max_size)
            throw MessageException(Status::BadRequest, "too large");
        if (!context.request.has_header(tarn::chunk_header::supported)) {
            context.reply.set_reply_data(tarn::Format::Bin, pattern_.substr(0, size));
            return;
        }
        const std::string asked = context.request.header(tarn::chunk_header::transfer, "");
        const std::string id = asked.empty() ? begin() : asked;
        const auto download = std::find_if(downloads_.begin(), downloads_.end(),
                                           [&](const Download& each) { return each.id == id; });
        if (download == downloads_.end())
            throw MessageException(Status::Conflict, "begin again");

        const std::string chunk =
            pattern_.substr(download->position, std::min(chunk_bytes, size - download->position));
        download->position += chunk.size();
        if (chunk.empty())
            downloads_.erase(download);
        else
            context.reply.set_header(tarn::chunk_header::transfer, id);
        context.reply.set_reply_data(tarn::Format::Bin, chunk);
    }

    static constexpr std::size_t max_size = 4 << 20;

private:
    struct Download {
        std::string id;
        std::size_t position = 0;
    };

    std::string begin() const
    {
        if (downloads_.size() == max_downloads) // killed clients never finish
            downloads_.pop_front();
        downloads_.push_back({slate::make_uuid().to_string()});
        return downloads_.back().id;
    }

    static constexpr std::size_t max_downloads = 3;
    static constexpr std::size_t chunk_bytes = 1 << 20;
    const std::string pattern_ = pattern_of(max_size);
    // Handlers of one route run one at a time, so this needs no lock.
    mutable std::deque<Download> downloads_;
};

void run_service(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
                 const sigset_t& signals)
{
    const std::string name = arguments.at(0);
    unsigned long workers = 0;
    if (!slate::try_parse(arguments.at(1), &workers))
        throw std::runtime_error("not a number of workers: " + arguments.at(1));

    const auto settings = slate::make_dictionary();
    settings->set("session_ttl", session_ttl);
    tarn::ZmqSubsystem subsystem(settings);
    std::vector<std::shared_ptr<tarn::Publisher>> publishers;
    for (std::size_t i = 2; i < arguments.size(); ++i)
        publishers.push_back(tarn::make_publisher(endpoint_of(directory, arguments[i], "in.sock"),
                                                  slate::Seconds(2), 0,
                                                  endpoint_of(directory, arguments[i])));
    const auto publish = [publishers, name](const std::string& key, unsigned long number) {
        for (const auto& publisher : publishers)
            publisher->put("/changes/" + name + "/" + key, std::to_string(number));
    };
    const auto count = std::make_shared<std::atomic<unsigned long>>(0);
    const auto count_route = tarn::make_uint64_route(
        "count", "get,put,post,delete", "/count", [count](tarn::Context&) { return count->load(); },
        [count](tarn::Context&, unsigned long value) { *count += value; },
        [count](tarn::Context&) { *count = 0; });
    const auto server = subsystem.serve(
        endpoint_of(directory, name),
        {std::make_shared<NumbersRoute>(std::make_shared<Numbers>(directory / name / "numbers", publish)),
         std::make_shared<UploadRoute>(), std::make_shared<DownloadRoute>(), count_route},
        workers);
    wait_for(signals);
}

/// Keeps the last change of each number, as a relay forwarded it.
class ChangesRoute : public tarn::Route {
public:
    ChangesRoute() : Route("changes", "put", "/changes/:service/:key", tarn::Access::Public) {}

    void put(tarn::Context& context) override
    {
        const std::lock_guard lock(mutex_);
        heard_[context.variable("service") + "/" + context.variable("key")] = context.request.data();
    }

    std::string heard(const std::string& number) const
    {
        const std::lock_guard lock(mutex_);
        const auto found = heard_.find(number);
        return found == heard_.end() ? "" : found->second;
    }

private:
    mutable std::mutex mutex_;
    std::map<std::string, std::string> heard_;
};

void run_watch(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
               const sigset_t& signals)
{
    tarn::ZmqSubsystem subsystem;
    std::map<std::string, std::shared_ptr<ChangesRoute>> relays;
    for (std::size_t i = 1; i < arguments.size(); ++i) {
        auto& route = relays[arguments[i]];
        route = std::make_shared<ChangesRoute>();
        subsystem.add_subscriber(endpoint_of(directory, arguments[i], "out.sock"))->add(route);
    }
    const auto heard = [&relays](tarn::Context& context) {
        const auto relay = relays.find(context.variable("relay"));
        if (relay == relays.end())
            throw MessageException(Status::NotFound, "no such relay");
        return relay->second->heard(context.variable("service") + "/" + context.variable("key"));
    };
    subsystem.serve(endpoint_of(directory, arguments.at(0)),
                    {tarn::make_string_route("heard", "get", "/heard/:relay/:service/:key", heard)});
    wait_for(signals);
}

/// One client process: one request after the other, at random.
class Load {
public:
    Load(const std::filesystem::path& directory, const std::string& router, std::vector<std::string> services)
        : directory_(directory),
          services_(std::move(services)),
          through_router_(tarn::make_client(endpoint_of(directory, router), 0))
    {
        for (const auto& service : services_)
            direct_[service] = tarn::make_client(endpoint_of(directory, service), 0);
    }

    void run(const std::stop_token& stop)
    {
        auto next_beat = std::chrono::steady_clock::now() + 1s;
        while (!stop.stop_requested()) {
            step();
            if (std::chrono::steady_clock::now() >= next_beat) {
                std::cout << "beat " << requests_ << " " << good_ << " " << refused_ << " " << unanswered_
                          << " " << longest_.count() << std::endl;
                longest_ = 0ms;
                next_beat += 1s;
            }
            std::this_thread::sleep_for(pause); // the rate of the load
        }
    }

private:
    static constexpr auto pause = 10ms;
    static constexpr std::size_t small_body = 3 << 20;
    /// More than a server keeps in memory.
    static constexpr std::size_t large_body = 12 << 20;

    unsigned int random(unsigned int below)
    {
        return std::uniform_int_distribution<unsigned int>(0, below - 1)(random_);
    }

    void step()
    {
        const std::string service = services_[random(static_cast<unsigned int>(services_.size()))];
        const bool is_direct = random(3) == 0;
        const auto& client = is_direct ? direct_[service] : through_router_;
        const std::string root = is_direct ? "" : "/" + service;
        const auto what = random(100);
        if (what < 30)
            put_number(*client, root, service);
        else if (what < 60)
            get_number(*client, root, service);
        else if (what < 75)
            count(*client, root);
        else if (what < 80)
            upload(client, root, random(small_body), tarn::UploadOptions::Verb::Put);
        else if (what < 83)
            upload(client, root, random(small_body), tarn::UploadOptions::Verb::Post);
        else if (what < 84)
            upload(client, root, large_body + random(1000), tarn::UploadOptions::Verb::Put);
        else if (what < 86)
            abandon_upload(client, root);
        else if (what < 93)
            download(client, root);
        else
            refuse(*client, root);
    }

    template <class Ask>
    std::shared_ptr<tarn::Reply> timed(const Ask& ask)
    {
        const auto begin = std::chrono::steady_clock::now();
        const auto reply = ask();
        const auto lasted =
            std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        longest_ = std::max(longest_, lasted);
        ++requests_;
        if (reply->good())
            ++good_;
        else if (is_no_answer(*reply))
            ++unanswered_;
        else
            ++refused_;
        return reply;
    }

    /// Nobody answered, or the one that had the upload's beginning was killed.
    static bool is_no_answer(const tarn::Reply& reply)
    {
        return reply.is_local() || reply.status() == Status::RequestTimeout ||
               reply.status() == Status::Conflict;
    }

    static void wrong(const std::string& what, const tarn::Reply& reply)
    {
        std::cout << "wrong " << what << ": " << tarn::Status_Name(reply.status()) << " "
                  << reply.status_message() << std::endl;
    }

    static void expect_good(const std::string& what, const tarn::Reply& reply, bool is_right)
    {
        if (reply.good() ? !is_right : !is_no_answer(reply))
            wrong(what, reply);
    }

    void put_number(tarn::Client& client, const std::string& root, const std::string& service)
    {
        const auto key = random(keys);
        // Greater than any before, from whatever process.
        const auto number =
            static_cast<unsigned long>(std::chrono::steady_clock::now().time_since_epoch().count());
        const auto reply = timed([&] {
            return client.put(root + "/number/" + std::to_string(key), std::to_string(number), nullptr,
                              timeout_);
        });
        expect_good("put number", *reply, true);
        if (reply->good()) {
            acked_[service][key] = std::max(acked_[service][key], number);
            std::cout << "acked " << service << " " << key << " " << number << std::endl;
        }
    }

    void get_number(tarn::Client& client, const std::string& root, const std::string& service)
    {
        const auto key = random(keys);
        const auto acked = acked_[service][key];
        const auto reply =
            timed([&] { return client.get(root + "/number/" + std::to_string(key), nullptr, timeout_); });
        if (reply->status() == Status::NotFound && acked == 0)
            return;
        unsigned long number = 0;
        expect_good("get number, " + std::to_string(acked) + " acknowledged, got " + reply->text_or(""),
                    *reply, slate::try_parse(reply->text_or(""), &number) && number >= acked);
    }

    void count(tarn::Client& client, const std::string& root)
    {
        expect_good("post count",
                    *timed([&] { return client.post(root + "/count", "1", nullptr, timeout_); }), true);
        unsigned long value = 0;
        const auto reply = timed([&] { return client.get(root + "/count", nullptr, timeout_); });
        expect_good("get count", *reply, slate::try_parse(reply->text_or(""), &value));
    }

    void upload(const std::shared_ptr<tarn::Client>& client, const std::string& root, std::size_t size,
                tarn::UploadOptions::Verb verb)
    {
        const std::string body = pattern_of(size);
        const auto reply = timed([&] {
            tarn::UploadOptions options;
            options.verb = verb;
            options.chunk_timeout = timeout_;
            options.last_timeout = last_timeout_;
            std::istringstream in(body);
            return tarn::upload(client, root + "/upload/it", in, options).reply;
        });
        expect_good("upload " + checksum_of(body) + ", got " + reply->text_or(""), *reply,
                    reply->text_or("") == checksum_of(body));
    }

    /// A killed client never tells the server, either.
    void abandon_upload(const std::shared_ptr<tarn::Client>& client, const std::string& root)
    {
        const auto headers = slate::make_dictionary();
        headers->set(tarn::chunk_header::transfer, slate::make_uuid().to_string());
        headers->set(tarn::chunk_header::number, "0");
        const auto reply =
            timed([&] { return client->put(root + "/upload/half", pattern_of(1 << 18), headers, timeout_); });
        expect_good("half an upload", *reply, true);
    }

    void download(const std::shared_ptr<tarn::Client>& client, const std::string& root)
    {
        const std::size_t size = random(DownloadRoute::max_size);
        std::ostringstream out;
        const auto reply = timed([&] {
            tarn::DownloadOptions options;
            options.chunk_timeout = timeout_;
            return tarn::download(client, root + "/download/" + std::to_string(size), out, options).reply;
        });
        expect_good("download of " + std::to_string(size), *reply, out.str() == pattern_of(size));
    }

    void refuse(tarn::Client& client, const std::string& root)
    {
        const auto ask = [&](const std::string& path, Status status) {
            const auto reply = timed([&] { return client.put(root + path, "nonsense", nullptr, timeout_); });
            if (reply->status() != status && !is_no_answer(*reply))
                wrong("put " + path, *reply);
        };
        ask("/nobody/has/this", Status::NotFound);
        ask("/download/1", Status::MethodNotAllowed);
        ask("/count", Status::BadRequest);
    }

    const std::filesystem::path directory_;
    const std::vector<std::string> services_;
    const std::shared_ptr<tarn::Client> through_router_;
    std::map<std::string, std::shared_ptr<tarn::Client>> direct_;
    std::map<std::string, std::map<unsigned int, unsigned long>> acked_;
    const slate::Duration timeout_ = slate::Seconds(2);
    const slate::Duration last_timeout_ = slate::Seconds(10);
    std::mt19937 random_{std::random_device{}()};
    unsigned long requests_ = 0;
    unsigned long good_ = 0;
    unsigned long refused_ = 0;
    unsigned long unanswered_ = 0;
    std::chrono::milliseconds longest_{0};
};

void run_client(const std::filesystem::path& directory, const std::vector<std::string>& arguments,
                const sigset_t& signals)
{
    tarn::ZmqSubsystem subsystem;
    Load load(directory, arguments.at(0), {arguments.begin() + 1, arguments.end()});
    const std::jthread thread([&](const std::stop_token& stop) { load.run(stop); });
    wait_for(signals);
}
} // namespace

int main(int argc, char** argv)
{
    const auto signals = block_termination_signals();
    const std::map<std::string, decltype(&run_service)> roles = {
        {"service", run_service}, {"watch", run_watch}, {"client", run_client}};
    const auto role = argc > 1 ? roles.find(argv[1]) : roles.end();
    if (argc < 5 || role == roles.end()) {
        std::cerr << "usage: soak_process service|watch|client DIRECTORY ...\n";
        return 2;
    }
    try {
        role->second(argv[2], {argv + 3, argv + argc}, signals);
    }
    catch (const std::exception& error) {
        std::cerr << "soak_process: " << error.what() << "\n";
        return 1;
    }
}
