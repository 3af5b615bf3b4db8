// SPDX-License-Identifier: Apache-2.0
// Many requests in flight over libzmq alone: a ZMQ_DEALER socket that numbers its requests, to the server of
// bench_raw_request. One operation is a reply, and the next request.
//
//   bench_raw_window client endpoint=E size=BYTES window=N

#include <cstdint>
#include <cstring>
#include <string>

#include <zmq.hpp>

#include "../support/bench.h"

namespace {
void client(const bench::Arguments& arguments)
{
    const auto size = static_cast<std::size_t>(arguments.number("size"));
    const std::string request(64, '/');
    zmq::context_t context;
    zmq::socket_t socket(context, ZMQ_DEALER);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::rcvtimeo, 4000);
    socket.connect(arguments.text("endpoint"));

    std::uint64_t next = 0, answered = 0;
    const auto send = [&] {
        socket.send(zmq::buffer(&next, sizeof next), zmq::send_flags::sndmore);
        socket.send(zmq::message_t(), zmq::send_flags::sndmore);
        socket.send(zmq::buffer(request), zmq::send_flags::none);
        ++next;
    };
    for (long i = 0; i < arguments.number("window"); ++i)
        send();
    bench::measure([&] {
        zmq::message_t number, delimiter, reply;
        bench::require(socket.recv(number) && socket.recv(delimiter) && socket.recv(reply),
                       "no reply in time");
        // One replier answers in order.
        bench::require(std::memcmp(number.data(), &answered, sizeof answered) == 0 && reply.size() == size,
                       "a wrong reply");
        ++answered;
        send();
    });
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"client", client}});
}
