// SPDX-License-Identifier: Apache-2.0
// Requests and replies over a unix socket without any library: what the kernel takes for the way there and
// back.
//
//   bench_raw_unix_socket server endpoint=PATH size=BYTES
//   bench_raw_unix_socket client endpoint=PATH size=BYTES

#include <cstdlib>
#include <string>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "../support/bench.h"

namespace {
constexpr std::size_t request_bytes = 64;

sockaddr_un address_of(const bench::Arguments& arguments)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    arguments.text("endpoint").copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

/// False at the end of the connection.
bool receive(int descriptor, std::string& bytes)
{
    std::size_t received = 0;
    while (received < bytes.size()) {
        const auto result = read(descriptor, bytes.data() + received, bytes.size() - received);
        if (result <= 0)
            return false;
        received += static_cast<std::size_t>(result);
    }
    return true;
}

void send(int descriptor, const std::string& bytes)
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        const auto result = ::send(descriptor, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        bench::require(result > 0, "cannot send");
        sent += static_cast<std::size_t>(result);
    }
}

void server(const bench::Arguments& arguments)
{
    const auto address = address_of(arguments);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    bench::require(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
                       listen(listener, 1) == 0,
                   "cannot listen");
    std::thread([&] {
        std::string request(request_bytes, '\0');
        const std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
        const int descriptor = accept(listener, nullptr, nullptr);
        while (receive(descriptor, request))
            send(descriptor, body);
    }).detach();
    bench::serve();
    std::_Exit(0); // the thread may still wait
}

void client(const bench::Arguments& arguments)
{
    const auto address = address_of(arguments);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    bench::require(connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0,
                   "cannot connect");
    const std::string request(request_bytes, '/');
    std::string body(static_cast<std::size_t>(arguments.number("size")), '\0');
    bench::measure([&] {
        send(descriptor, request);
        bench::require(receive(descriptor, body), "no reply");
    });
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"server", server}, {"client", client}});
}
