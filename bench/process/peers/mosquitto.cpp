// SPDX-License-Identifier: Apache-2.0
// Changes by MQTT, with quality of service 0, through the broker mosquitto at a unix socket:
//
//   bench_peers_mosquitto broker out=PATH
//   bench_peers_mosquitto publisher out=PATH size=BYTES
//   bench_peers_mosquitto subscriber out=PATH

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include <mosquitto.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "../support/bench.h"

namespace {
const char* const topic = "machine/load";

void checked(int result)
{
    if (result != MOSQ_ERR_SUCCESS)
        throw std::runtime_error(mosquitto_strerror(result));
}

/// Its own thread sends and receives.
mosquitto* connect(const bench::Arguments& arguments, bench::Arrivals* arrivals = nullptr)
{
    mosquitto_lib_init();
    mosquitto* const client = mosquitto_new(nullptr, true, arrivals);
    checked(mosquitto_connect(client, arguments.text("out").c_str(), 0, 60));
    if (arrivals) {
        mosquitto_message_callback_set(client, [](mosquitto*, void* taker, const mosquitto_message* message) {
            static_cast<bench::Arrivals*>(taker)->take(
                {static_cast<const char*>(message->payload), static_cast<std::size_t>(message->payloadlen)});
        });
        checked(mosquitto_subscribe(client, nullptr, topic, 0));
    }
    checked(mosquitto_loop_start(client));
    return client;
}

void publisher(const bench::Arguments& arguments)
{
    mosquitto* const client = connect(arguments);
    bench::publish(static_cast<std::size_t>(arguments.number("size")), [&](const std::string& change) {
        checked(mosquitto_publish(client, nullptr, topic, static_cast<int>(change.size()), change.data(), 0,
                                  false));
    });
    std::_Exit(0); // the thread runs for ever
}

void subscriber(const bench::Arguments& arguments)
{
    bench::Arrivals arrivals;
    connect(arguments, &arrivals);
    arrivals.report();
    std::_Exit(0); // the thread runs for ever
}

bool is_served(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    const bool result = connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return result;
}

void broker(const bench::Arguments& arguments)
{
    const auto path = arguments.text("out");
    const auto configuration = path + ".conf";
    std::ofstream(configuration) << "listener 0 " << path << "\nallow_anonymous true\nuser root\n"
                                 << "log_type error\n";
    // The broker replaces this process, whose id is known; its child says when it serves.
    if (fork() == 0) {
        while (!is_served(path) && getppid() != 1)
            usleep(10'000);
        bench::serve();
        return;
    }
    execl(MOSQUITTO, MOSQUITTO, "-c", configuration.c_str(), nullptr);
    throw std::runtime_error("cannot execute " MOSQUITTO);
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, {{"broker", broker}, {"publisher", publisher}, {"subscriber", subscriber}});
}
