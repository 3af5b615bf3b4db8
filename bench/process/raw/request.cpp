// SPDX-License-Identifier: Apache-2.0
// Requests and replies over libzmq alone: what tarn's are measured against.
//
//   bench_raw_request server endpoint=E size=BYTES [operation=O] [workers=N]
//   bench_raw_request client endpoint=E size=BYTES [operation=O]
//
// The operations:
//
//   get        64 bytes there, `size` bytes back, and the replier copies them from what it keeps
//   protobuf   the same, in messages of libprotobuf's own: a string there, bytes back
//   put        `size` bytes there in one frame, and an empty frame back
//   upload     `size` bytes there in chunks, which the replier appends, and an empty chunk
//   download   64 bytes there and a chunk back, until one is empty
//
// One worker is a ZMQ_REP socket at the endpoint. More are threads with a ZMQ_REP socket each, behind a proxy
// between ZMQ_ROUTER and ZMQ_DEALER.

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <google/protobuf/wrappers.pb.h>
#include <zmq.hpp>

#include "../support/bench.h"

namespace {
constexpr std::size_t request_bytes = 64; // about what a GET of tarn's has

zmq::message_t copy_of(const std::string& bytes, std::size_t begin = 0, std::size_t size = std::string::npos)
{
    return zmq::message_t(bytes.data() + begin, std::min(size, bytes.size() - begin));
}

zmq::message_t serialised(const google::protobuf::Message& message)
{
    zmq::message_t frame(message.ByteSizeLong());
    bench::require(message.SerializeToArray(frame.data(), static_cast<int>(frame.size())),
                   "cannot serialise");
    return frame;
}

template <class Message>
Message parsed(const zmq::message_t& frame)
{
    Message message;
    bench::require(message.ParseFromArray(frame.data(), static_cast<int>(frame.size())), "cannot parse");
    return message;
}

/// Makes the reply to each request of one worker.
class Replier {
public:
    Replier(const std::string& operation, std::size_t size) : operation_(operation), body_(size, 'x') {}

    zmq::message_t operator()(const zmq::message_t& request)
    {
        if (operation_ == "get")
            return copy_of(body_);
        if (operation_ == "protobuf") {
            bench::require(!parsed<google::protobuf::StringValue>(request).value().empty(), "no path");
            google::protobuf::BytesValue reply;
            reply.set_value(body_);
            return serialised(reply);
        }
        if (operation_ == "upload")
            append(request);
        else if (operation_ == "download")
            return next_chunk();
        return {};
    }

private:
    void append(const zmq::message_t& chunk)
    {
        uploaded_.append(chunk.data<char>(), chunk.size());
        if (chunk.size() != 0)
            return;
        bench::require(uploaded_.size() == body_.size(), "the upload has the wrong size");
        std::string().swap(uploaded_);
    }

    zmq::message_t next_chunk()
    {
        auto chunk = copy_of(body_, downloaded_, bench::chunk_bytes);
        downloaded_ = chunk.size() == 0 ? 0 : downloaded_ + chunk.size();
        return chunk;
    }

    const std::string operation_;
    const std::string body_;
    std::string uploaded_;
    std::size_t downloaded_ = 0;
};

void reply_for_ever(zmq::socket_t& socket, Replier replier)
{
    for (zmq::message_t request; socket.recv(request);)
        socket.send(replier(request), zmq::send_flags::none);
}

void server(const bench::Arguments& arguments)
{
    const Replier replier(arguments.text("operation", "get"),
                          static_cast<std::size_t>(arguments.number("size")));
    const auto workers = arguments.number("workers", 1);
    zmq::context_t context;
    std::vector<std::thread> threads;
    zmq::socket_t front(context, workers == 1 ? ZMQ_REP : ZMQ_ROUTER);
    front.bind(arguments.text("endpoint"));
    zmq::socket_t back(context, ZMQ_DEALER);
    back.bind("inproc://workers");
    if (workers == 1) {
        threads.emplace_back([&] { reply_for_ever(front, replier); });
    }
    else {
        for (long i = 0; i < workers; ++i)
            threads.emplace_back([&] {
                zmq::socket_t socket(context, ZMQ_REP);
                socket.connect("inproc://workers");
                reply_for_ever(socket, replier);
            });
        threads.emplace_back([&] { (void)zmq_proxy(front.handle(), back.handle(), nullptr); });
    }
    bench::serve();
    std::_Exit(0); // the threads run for ever
}

class Client {
public:
    explicit Client(const bench::Arguments& arguments)
        : socket_(context_, ZMQ_REQ),
          body_(static_cast<std::size_t>(arguments.number("size")), 'x')
    {
        socket_.set(zmq::sockopt::linger, 0);
        socket_.set(zmq::sockopt::rcvtimeo, 4000);
        socket_.connect(arguments.text("endpoint"));
    }

    void get()
    {
        bench::require(ask(copy_of(request_)).size() == body_.size(), "the reply has the wrong size");
    }

    void protobuf()
    {
        google::protobuf::StringValue request;
        request.set_value(request_);
        const auto reply = parsed<google::protobuf::BytesValue>(ask(serialised(request)));
        bench::require(reply.value().size() == body_.size(), "the reply has the wrong size");
    }

    void put() { ask(copy_of(body_)); }

    void upload()
    {
        for (std::size_t sent = 0; sent < body_.size(); sent += bench::chunk_bytes)
            ask(copy_of(body_, sent, bench::chunk_bytes));
        ask({});
    }

    void download()
    {
        std::string downloaded;
        for (auto chunk = ask(copy_of(request_)); chunk.size() != 0; chunk = ask(copy_of(request_)))
            downloaded.append(chunk.data<char>(), chunk.size());
        bench::require(downloaded.size() == body_.size(), "the download has the wrong size");
    }

private:
    zmq::message_t ask(zmq::message_t request)
    {
        socket_.send(request, zmq::send_flags::none);
        zmq::message_t reply;
        bench::require(socket_.recv(reply).has_value(), "no reply in time");
        return reply;
    }

    zmq::context_t context_;
    zmq::socket_t socket_;
    const std::string request_ = std::string(request_bytes, '/');
    const std::string body_;
};

void client(const bench::Arguments& arguments)
{
    const std::map<std::string, void (Client::*)()> operations = {
        {"get", &Client::get},       {"protobuf", &Client::protobuf}, {"put", &Client::put},
        {"upload", &Client::upload}, {"download", &Client::download},
    };
    Client client(arguments);
    bench::measure(std::bind(operations.at(arguments.text("operation", "get")), &client));
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"server", server}, {"client", client}});
}
