// SPDX-License-Identifier: Apache-2.0
// The C++ side of the interop tests. Its processes give fixed process ids, so that whole messages can be
// compared with what is documented.
//
// A service, until standard input ends:
//   interop_peer serve ENDPOINT WORKERS
// A client that prints the reply; of a download, the MD5 of its body:
//   interop_peer get ENDPOINT RECIPIENT
//   interop_peer upload ENDPOINT RECIPIENT FILE
//   interop_peer download ENDPOINT RECIPIENT
// A publisher of each line of standard input, "/path value" to put and "/path" to delete:
//   interop_peer publish URL SUB
// A subscriber that prints each change of "/machine/...", until standard input ends:
//   interop_peer subscribe PUB
// The table of formats that is in docs/wire.md:
//   interop_peer formats

#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>

#include <tarn/tarn.h>

namespace {
constexpr int service_pid = 877;
constexpr int client_pid = 1203;

class FixedPid : public tarn_internal::PidFinder {
public:
    explicit FixedPid(int pid) : pid_(pid) {}
    int my_pid() const override { return pid_; }

private:
    const int pid_;
};

std::shared_ptr<tarn::MessageFactory> factory_of(int pid)
{
    return tarn::make_message_factory(std::make_shared<FixedPid>(pid));
}

void wait_for_end_of_input()
{
    std::string line;
    while (std::getline(std::cin, line)) {
    }
}

/// Answers with the whole request, as JSON.
class EchoRoute : public tarn::Route {
public:
    EchoRoute() : Route("echo", "get,put,post,delete", "/echo/:name", tarn::Access::Public) {}

    void get(tarn::Context& context) const override { echo(context); }
    void put(tarn::Context& context) override { echo(context); }
    void post(tarn::Context& context) override { echo(context); }
    void del(tarn::Context& context) override { echo(context); }

private:
    static void echo(tarn::Context& context) { context.reply.set_reply_json(*context.request.message); }
};

/// Keeps one body, and serves it in chunks to a client that can take them.
class FileRoute : public tarn::Route {
public:
    FileRoute() : Route("file", "get,put,post", "/file", tarn::Access::Public) {}

    void put(tarn::Context& context) override { store(context, tarn::Status::Ok); }
    void post(tarn::Context& context) override { store(context, tarn::Status::Created); }

    void get(tarn::Context& context) const override
    {
        const tarn::Request& request = context.request;
        if (!request.has_header("X-Tarn-Supports-Chunked-Transfer")) {
            answer(context, content_);
            return;
        }
        std::string transfer = request.header("X-Tarn-Chunked-Transfer", "");
        if (transfer.empty()) {
            transfer = "download-" + std::to_string(++transfers_);
            positions_[transfer] = 0;
        }
        const auto position = positions_.find(transfer);
        if (position == positions_.end())
            throw tarn::MessageException(tarn::Status::Gone, "no such download");
        answer(context, content_.substr(position->second, chunk_bytes));
        context.reply.set_header("X-Tarn-Chunked-Transfer", transfer);
        position->second += context.reply.data().size();
        if (context.reply.data().empty())
            positions_.erase(position);
    }

private:
    static constexpr std::size_t chunk_bytes = 700'000;

    void store(tarn::Context& context, tarn::Status status)
    {
        content_ = context.request.data();
        context.reply.set_reply_text(std::to_string(content_.size()) + " bytes, MD5 " +
                                     slate::md5_hash_string(content_));
        context.reply.set_status(status);
    }

    static void answer(tarn::Context& context, const std::string& chunk)
    {
        context.reply.set_format_status(tarn::Format::Bin, tarn::Status::Ok);
        context.reply.message->mutable_response()->mutable_body()->set_bin(chunk);
    }

    std::string content_;
    // get() is const, and is called one at a time.
    mutable std::map<std::string, std::size_t> positions_;
    mutable int transfers_ = 0;
};

/// A GET that does whatever it is told.
class GetRoute : public tarn::Route {
public:
    GetRoute(const std::string& route_name, std::function<void(tarn::Context&)> handler)
        : Route(route_name, "get", "/" + route_name, tarn::Access::Public),
          handler_(std::move(handler))
    {
    }
    void get(tarn::Context& context) const override { handler_(context); }

private:
    const std::function<void(tarn::Context&)> handler_;
};

void add_routes(tarn::Server& server)
{
    server.add(tarn::make_string_route("greeting", "get", "/greeting/:name", [](tarn::Context& context) {
        return "Hello, " + context.params->get("name", "") + "!";
    }));
    const auto volume = std::make_shared<int>(5);
    server.add(tarn::make_int32_route(
        "volume", "get,put", "/volume", [volume](tarn::Context&) { return *volume; },
        [volume](tarn::Context&, int value) { *volume = value; }));
    server.add(tarn::make_string_route(
        "private", "get", "/private", [](tarn::Context&) { return "for myself"; }, {}, {},
        tarn::Access::Private));
    server.add(std::make_shared<EchoRoute>());
    server.add(std::make_shared<FileRoute>());
    server.add(std::make_shared<GetRoute>("nothing", [](tarn::Context&) {}));
    server.add(std::make_shared<GetRoute>("teapot", [](tarn::Context&) {
        throw tarn::MessageException(tarn::Status::ImATeapot, "short and stout");
    }));
    server.add(std::make_shared<GetRoute>("broken",
                                          [](tarn::Context&) { throw std::runtime_error("out of order"); }));
    server.add(std::make_shared<tarn::Route>("unfinished", "get", "/unfinished", tarn::Access::Public));
    // Gives its arguments back.
    server.suppress_add_remote_call_warning();
    server.add(7, [](tarn::Message& message) {
        tarn::Call* call = message.mutable_call();
        *call->mutable_result()->mutable_value() = call->params().param();
    });
}

int serve(const std::string& endpoint, unsigned long workers)
{
    tarn::ZmqSubsystem subsystem;
    const auto server = tarn::make_server(workers, subsystem.settings(), {slate::make_uri(endpoint)}, nullptr,
                                          factory_of(service_pid));
    add_routes(*server);
    std::cout << "serving" << std::endl;
    wait_for_end_of_input();
    return 0;
}

std::shared_ptr<tarn::Client> client_of(const std::string& endpoint)
{
    return tarn::make_client(slate::make_uri(endpoint), 0, factory_of(client_pid));
}

void print(const tarn::Reply& reply, const std::string& body)
{
    std::cout << static_cast<int>(reply.status()) << "|" << tarn::Format_Name(reply.format()) << "|"
              << reply.status_message() << "|" << body << std::endl;
}

int get(const std::string& endpoint, const std::string& recipient)
{
    tarn::ZmqSubsystem subsystem;
    const auto headers = slate::make_dictionary();
    headers->set("accept", "text/plain");
    const auto reply = client_of(endpoint)->get(recipient, headers);
    print(*reply, reply->message->response().has_body() ? reply->data() : "");
    return 0;
}

int upload(const std::string& endpoint, const std::string& recipient, const std::string& file)
{
    tarn::ZmqSubsystem subsystem;
    std::ifstream stream(file, std::ios::binary);
    const auto reply = client_of(endpoint)->put(recipient, stream);
    print(*reply, reply->message->response().has_body() ? reply->data() : "");
    return 0;
}

int download(const std::string& endpoint, const std::string& recipient)
{
    tarn::ZmqSubsystem subsystem;
    std::ostringstream body;
    const auto reply = client_of(endpoint)->get(recipient, body);
    print(*reply, slate::md5_hash_string(body.str()));
    return 0;
}

int publish(const std::string& url, const std::string& sub)
{
    tarn::ZmqSubsystem subsystem;
    const auto publisher = tarn::make_publisher(slate::make_uri(sub), tarn::default_timeout(), 0,
                                                slate::make_uri(url), factory_of(client_pid));
    std::cout << "publishing" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        const auto blank = line.find(' ');
        if (blank == std::string::npos)
            publisher->del(line);
        else
            publisher->put(line.substr(0, blank), line.substr(blank + 1));
    }
    return 0;
}

/// Prints each change: verb, path, sender's pid and tag, body.
class MachineRoute : public tarn::Route {
public:
    MachineRoute() : Route("machine", "", "/machine/:what", tarn::Access::Public) {}

    void put(tarn::Context& change) override { show("put", change, change.request.data()); }
    void del(tarn::Context& change) override { show("del", change, ""); }

private:
    static void show(const std::string& verb, const tarn::Context& change, const std::string& body)
    {
        const tarn::Identity& from = change.request.head().from();
        std::cout << verb << "|" << change.request.path() << "|" << from.pid() << "|" << from.tag() << "|"
                  << body << std::endl;
    }
};

int subscribe(const std::string& pub)
{
    tarn::ZmqSubsystem subsystem;
    const auto subscriber =
        tarn::make_subscriber(subsystem.settings(), slate::make_uri(pub), factory_of(service_pid));
    subscriber->add(std::make_shared<MachineRoute>());
    std::cout << "subscribed" << std::endl;
    wait_for_end_of_input();
    return 0;
}

int formats()
{
    const auto& values = *tarn::Format_descriptor();
    for (int i = 0; i < values.value_count(); ++i) {
        const auto format = static_cast<tarn::Format>(values.value(i)->number());
        const std::string mime = tarn::to_mime_type(format);
        const std::string extension = tarn::to_extension(format);
        std::cout << "| " << tarn::Format_Name(format) << " | " << format << " | "
                  << (mime.empty() ? "" : "`" + mime + "`") << " | "
                  << (extension.empty() ? "" : "`" + extension.substr(1) + "`") << " | "
                  << (tarn_internal::is_binary_format(format) ? "bin" : "txt") << " |\n";
    }
    return 0;
}

int run(const std::vector<std::string>& arguments)
{
    const std::string command = arguments.empty() ? "" : arguments[0];
    const auto is = [&](std::string_view name, std::size_t count) {
        return command == name && arguments.size() == count + 1;
    };
    unsigned long workers = 0;
    if (is("serve", 2) && slate::try_parse(arguments[2], &workers))
        return serve(arguments[1], workers);
    if (is("get", 2))
        return get(arguments[1], arguments[2]);
    if (is("upload", 3))
        return upload(arguments[1], arguments[2], arguments[3]);
    if (is("download", 2))
        return download(arguments[1], arguments[2]);
    if (is("publish", 2))
        return publish(arguments[1], arguments[2]);
    if (is("subscribe", 1))
        return subscribe(arguments[1]);
    if (is("formats", 0))
        return formats();
    std::cerr << "usage: as this file's first lines say\n";
    return 2;
}
} // namespace

int main(int argc, char** argv)
{
    try {
        return run({argv + 1, argv + argc});
    }
    catch (const std::exception& error) {
        std::cerr << "interop_peer: " << error.what() << "\n";
        return 1;
    }
}
