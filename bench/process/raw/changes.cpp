// SPDX-License-Identifier: Apache-2.0
// Changes over libzmq alone, in two frames, topic and body, as tarn sends them:
//
//   bench_raw_changes relay in=E out=E [marks=N]
//   bench_raw_changes publisher in=E size=BYTES [marks=N]
//   bench_raw_changes subscriber out=E [marks=N]
//
// `marks` are the high-water marks of all sockets; libzmq's own are 1,000.

#include <cstdlib>
#include <string>
#include <thread>

#include <zmq.hpp>

#include "../support/bench.h"

namespace {
const std::string topic = "/machine";

zmq::socket_t make_socket(zmq::context_t& context, int type, const bench::Arguments& arguments)
{
    zmq::socket_t socket(context, type);
    const int marks = static_cast<int>(arguments.number("marks", 1000));
    socket.set(zmq::sockopt::sndhwm, marks);
    socket.set(zmq::sockopt::rcvhwm, marks);
    return socket;
}

void relay(const bench::Arguments& arguments)
{
    zmq::context_t context;
    auto in = make_socket(context, ZMQ_XSUB, arguments);
    in.bind(arguments.text("in"));
    auto out = make_socket(context, ZMQ_XPUB, arguments);
    out.bind(arguments.text("out"));
    std::thread([&] { (void)zmq_proxy(in.handle(), out.handle(), nullptr); }).detach();
    bench::serve();
    std::_Exit(0); // the thread runs for ever
}

void publisher(const bench::Arguments& arguments)
{
    zmq::context_t context;
    auto socket = make_socket(context, ZMQ_PUB, arguments);
    socket.connect(arguments.text("in"));
    bench::publish(static_cast<std::size_t>(arguments.number("size")), [&](const std::string& change) {
        socket.send(zmq::buffer(topic), zmq::send_flags::sndmore);
        socket.send(zmq::buffer(change), zmq::send_flags::none);
    });
}

void subscriber(const bench::Arguments& arguments)
{
    zmq::context_t context;
    auto socket = make_socket(context, ZMQ_SUB, arguments);
    socket.connect(arguments.text("out"));
    socket.set(zmq::sockopt::subscribe, topic);
    bench::Arrivals arrivals;
    std::thread([&] {
        for (zmq::message_t frame; socket.recv(frame);) {
            (void)socket.recv(frame);
            arrivals.take(frame.to_string_view());
        }
    }).detach();
    arrivals.report();
    std::_Exit(0); // the thread runs for ever
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"relay", relay}, {"publisher", publisher}, {"subscriber", subscriber}});
}
