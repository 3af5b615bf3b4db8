// SPDX-License-Identifier: Apache-2.0
// What a router does, over libzmq alone and without looking at the requests: a proxy between ZMQ_ROUTER and
// ZMQ_DEALER, and three workers that pass each request on to the service and the reply back.
//
//   bench_raw_proxy proxy endpoint=E service=E connection=new|kept
//
// With "new", a worker makes a ZMQ_REQ socket for each request, as tarn's router does; with "kept", one for
// all.

#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <zmq.hpp>

#include "../support/bench.h"

namespace {
constexpr int workers = 3; // as tarn's router has

zmq::socket_t connected(zmq::context_t& context, int type, const std::string& endpoint)
{
    zmq::socket_t socket(context, type);
    socket.set(zmq::sockopt::linger, 0);
    socket.connect(endpoint);
    return socket;
}

void forward_for_ever(zmq::context_t& context, const std::string& service, bool keeps_connection)
{
    auto back = connected(context, ZMQ_REP, "inproc://workers");
    std::optional<zmq::socket_t> to_service;
    for (zmq::message_t message; back.recv(message);) {
        if (!keeps_connection || !to_service)
            to_service = connected(context, ZMQ_REQ, service);
        to_service->send(message, zmq::send_flags::none);
        (void)to_service->recv(message); // without a limit, so it returns with a message
        back.send(message, zmq::send_flags::none);
    }
}

void proxy(const bench::Arguments& arguments)
{
    const auto service = arguments.text("service");
    const bool keeps_connection = arguments.text("connection") == "kept";
    zmq::context_t context;
    zmq::socket_t front(context, ZMQ_ROUTER);
    front.bind(arguments.text("endpoint"));
    zmq::socket_t back(context, ZMQ_DEALER);
    back.bind("inproc://workers");
    std::vector<std::thread> threads;
    for (int i = 0; i < workers; ++i)
        threads.emplace_back([&] { forward_for_ever(context, service, keeps_connection); });
    threads.emplace_back([&] { (void)zmq_proxy(front.handle(), back.handle(), nullptr); });
    bench::serve();
    std::_Exit(0); // the threads run for ever
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"proxy", proxy}});
}
