// SPDX-License-Identifier: Apache-2.0
// Requests and replies by HTTP with cpp-httplib, over a unix socket that is kept open:
//
//   bench_peers_httplib server endpoint=PATH size=BYTES
//   bench_peers_httplib client endpoint=PATH size=BYTES operation=get|put

#include <cstdlib>
#include <limits>
#include <string>
#include <thread>

#include <httplib.h>

#include "../support/bench.h"

namespace {
const char* const type = "application/octet-stream";

void server(const bench::Arguments& arguments)
{
    const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
    httplib::Server server;
    server.set_address_family(AF_UNIX);
    server.set_keep_alive_max_count(std::numeric_limits<std::size_t>::max());
    server.set_tcp_nodelay(false); // no such thing here
    server.Get("/data/0",
               [&](const httplib::Request&, httplib::Response& reply) { reply.set_content(body, type); });
    server.Put("/data/0", [&](const httplib::Request& request, httplib::Response& reply) {
        reply.status = request.body.size() == body.size() ? 204 : 400;
    });
    bench::require(server.bind_to_port(arguments.text("endpoint"), 80), "cannot bind"); // any port will do
    std::thread([&] { server.listen_after_bind(); }).detach();
    bench::serve();
    std::_Exit(0); // the thread runs for ever
}

void client(const bench::Arguments& arguments)
{
    const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
    httplib::Client client(arguments.text("endpoint"));
    client.set_address_family(AF_UNIX);
    client.set_keep_alive(true);
    if (arguments.text("operation") == "get")
        bench::measure([&] {
            const auto reply = client.Get("/data/0");
            bench::require(reply && reply->body.size() == body.size(), "GET failed");
        });
    else
        bench::measure([&] {
            const auto reply = client.Put("/data/0", body, type);
            bench::require(reply && reply->status == 204, "PUT failed");
        });
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"server", server}, {"client", client}});
}
