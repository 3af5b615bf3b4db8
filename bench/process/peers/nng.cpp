// SPDX-License-Identifier: Apache-2.0
// Requests and changes with NNG over ipc. Changes go straight from the publisher to the subscribers.
//
//   bench_peers_nng server endpoint=E size=BYTES
//   bench_peers_nng client endpoint=E size=BYTES operation=get|put
//   bench_peers_nng publisher out=E size=BYTES
//   bench_peers_nng subscriber out=E

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <nng/nng.h>
#include <nng/protocol/pubsub0/pub.h>
#include <nng/protocol/pubsub0/sub.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "../support/bench.h"

namespace {
const std::string topic = "/machine";
constexpr int marks = 1000; // as many messages wait for a subscriber as with libzmq; 16 by default

void checked(int result)
{
    if (result != 0)
        throw std::runtime_error(nng_strerror(result));
}

nng_socket open(int (*opener)(nng_socket*))
{
    nng_socket socket{};
    checked(opener(&socket));
    checked(nng_socket_set_size(socket, NNG_OPT_RECVMAXSZ, 0)); // no limit
    return socket;
}

void send(nng_socket socket, std::string_view head, std::string_view body)
{
    nng_msg* message = nullptr;
    checked(nng_msg_alloc(&message, 0));
    checked(nng_msg_append(message, head.data(), head.size()));
    checked(nng_msg_append(message, body.data(), body.size()));
    checked(nng_sendmsg(socket, message, 0));
}

template <class Use>
void receive(nng_socket socket, const Use& use)
{
    nng_msg* message = nullptr;
    checked(nng_recvmsg(socket, &message, 0));
    use(std::string_view(static_cast<const char*>(nng_msg_body(message)), nng_msg_len(message)));
    nng_msg_free(message);
}

void server(const bench::Arguments& arguments)
{
    const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
    const auto socket = open(nng_rep0_open);
    checked(nng_listen(socket, arguments.text("endpoint").c_str(), nullptr, 0));
    std::thread([&] {
        for (;;) {
            bool is_put = false;
            receive(socket, [&](std::string_view request) { is_put = request.size() == body.size(); });
            send(socket, {}, is_put ? std::string_view() : body);
        }
    }).detach();
    bench::serve();
    std::_Exit(0); // the thread runs for ever
}

void client(const bench::Arguments& arguments)
{
    const bool is_put = arguments.text("operation") == "put";
    const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
    const std::string request = is_put ? body : std::string(64, '/');
    const std::size_t expected = is_put ? 0 : body.size();
    const auto socket = open(nng_req0_open);
    checked(nng_dial(socket, arguments.text("endpoint").c_str(), nullptr, 0));
    bench::measure([&] {
        send(socket, {}, request);
        receive(socket, [&](std::string_view reply) {
            bench::require(reply.size() == expected, "the reply has the wrong size");
        });
    });
}

void publisher(const bench::Arguments& arguments)
{
    const auto socket = open(nng_pub0_open);
    checked(nng_socket_set_int(socket, NNG_OPT_SENDBUF, marks));
    checked(nng_listen(socket, arguments.text("out").c_str(), nullptr, 0));
    bench::publish(static_cast<std::size_t>(arguments.number("size")),
                   [&](const std::string& change) { send(socket, topic, change); });
}

void subscriber(const bench::Arguments& arguments)
{
    bench::Arrivals arrivals;
    const auto socket = open(nng_sub0_open);
    checked(nng_socket_set_int(socket, NNG_OPT_RECVBUF, marks));
    checked(nng_socket_set(socket, NNG_OPT_SUB_SUBSCRIBE, topic.data(), topic.size()));
    checked(nng_dial(socket, arguments.text("out").c_str(), nullptr, 0));
    std::thread([&] {
        for (;;)
            receive(socket, [&](std::string_view message) { arrivals.take(message.substr(topic.size())); });
    }).detach();
    arrivals.report();
    std::_Exit(0); // the thread runs for ever
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(
        argc, argv,
        {{"server", server}, {"client", client}, {"publisher", publisher}, {"subscriber", subscriber}});
}
