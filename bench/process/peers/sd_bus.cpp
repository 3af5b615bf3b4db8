// SPDX-License-Identifier: Apache-2.0
// Method calls and signals over D-Bus, with systemd's client library, through dbus-broker:
//
//   bench_peers_sd_bus broker bus=PATH
//   bench_peers_sd_bus server bus=PATH size=BYTES
//   bench_peers_sd_bus client bus=PATH size=BYTES
//   bench_peers_sd_bus publisher bus=PATH size=BYTES
//   bench_peers_sd_bus subscriber bus=PATH

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <csignal>

#include "../support/bench.h"

namespace {
const char* const name = "org.example.Bench";
const char* const object = "/org/example/Bench";

int checked(int result)
{
    if (result < 0)
        throw std::runtime_error(std::strerror(-result));
    return result;
}

sd_bus* connect(const bench::Arguments& arguments)
{
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_address(bus, ("unix:path=" + arguments.text("bus")).c_str()));
    checked(sd_bus_set_bus_client(bus, true));
    checked(sd_bus_start(bus));
    return bus;
}

void process_for_ever(sd_bus* bus)
{
    for (;;) {
        if (checked(sd_bus_process(bus, nullptr)) == 0)
            checked(sd_bus_wait(bus, UINT64_MAX));
    }
}

std::string_view bytes_of(sd_bus_message* message)
{
    const void* data = nullptr;
    std::size_t size = 0;
    checked(sd_bus_message_read_array(message, 'y', &data, &size));
    return {static_cast<const char*>(data), size};
}

void append_bytes(sd_bus_message* message, const std::string& bytes)
{
    checked(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()));
}

int get(sd_bus_message* call, void* body, sd_bus_error* /*error*/)
{
    sd_bus_message* reply = nullptr;
    checked(sd_bus_message_new_method_return(call, &reply));
    append_bytes(reply, *static_cast<const std::string*>(body));
    const int result = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return result;
}

void server(const bench::Arguments& arguments)
{
    static const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Get", "s", "ay", get, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
    std::string body(static_cast<std::size_t>(arguments.number("size")), 'x');
    sd_bus* const bus = connect(arguments);
    checked(sd_bus_add_object_vtable(bus, nullptr, object, name, methods, &body));
    checked(sd_bus_request_name(bus, name, 0));
    std::thread(process_for_ever, bus).detach();
    bench::serve();
    std::_Exit(0); // the thread runs for ever
}

void client(const bench::Arguments& arguments)
{
    const auto size = static_cast<std::size_t>(arguments.number("size"));
    sd_bus* const bus = connect(arguments);
    bench::measure([&] {
        sd_bus_message* reply = nullptr;
        checked(sd_bus_call_method(bus, name, object, name, "Get", nullptr, &reply, "s", "/data/0"));
        bench::require(bytes_of(reply).size() == size, "the reply has the wrong size");
        sd_bus_message_unref(reply);
    });
}

void publisher(const bench::Arguments& arguments)
{
    sd_bus* const bus = connect(arguments);
    bench::publish(static_cast<std::size_t>(arguments.number("size")), [&](const std::string& change) {
        sd_bus_message* signal = nullptr;
        checked(sd_bus_message_new_signal(bus, &signal, object, name, "Changed"));
        append_bytes(signal, change);
        checked(sd_bus_send(bus, signal, nullptr));
        sd_bus_message_unref(signal);
        std::uint64_t queued = 0;
        checked(sd_bus_get_n_queued_write(bus, &queued));
        if (queued > 0)
            checked(sd_bus_flush(bus));
    });
}

int take(sd_bus_message* signal, void* arrivals, sd_bus_error* /*error*/)
{
    static_cast<bench::Arrivals*>(arrivals)->take(bytes_of(signal));
    return 0;
}

void subscriber(const bench::Arguments& arguments)
{
    bench::Arrivals arrivals;
    sd_bus* const bus = connect(arguments);
    checked(sd_bus_match_signal(bus, nullptr, nullptr, object, name, "Changed", take, &arrivals));
    std::thread(process_for_ever, bus).detach();
    arrivals.report();
    std::_Exit(0); // the thread runs for ever
}

#define BATCH "bta(btbs)a(btssssuutt)a(btssssuutt)"
#define POLICY "a(u(" BATCH "))a(buu(" BATCH "))a(ss)bs"

/// Everybody may connect, own names, send and receive. Of the form that version 33 expects.
void append_policy(sd_bus_message* message)
{
    checked(sd_bus_message_open_container(message, 'v', "(" POLICY ")"));
    checked(sd_bus_message_append(message, "(" POLICY ")", 1, UINT32_MAX, true, UINT64_C(1), 1, true,
                                  UINT64_C(1), true, "", 1, true, UINT64_C(1), "", "", "", "", 0, 0,
                                  UINT64_C(0), UINT64_C(0), 1, true, UINT64_C(1), "", "", "", "", 0, 0,
                                  UINT64_C(0), UINT64_C(0), 0, 0, false, "system"));
    checked(sd_bus_message_close_container(message));
}

/// What dbus-broker-launch does, which works under systemd only: tells the broker where to listen.
void control(int controller, int listener)
{
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus));
    checked(sd_bus_set_fd(bus, controller, controller));
    checked(sd_bus_start(bus));
    sd_bus_message* call = nullptr;
    checked(sd_bus_message_new_method_call(bus, &call, nullptr, "/org/bus1/DBus/Broker",
                                           "org.bus1.DBus.Broker", "AddListener"));
    checked(sd_bus_message_append(call, "oh", "/org/bus1/DBus/Listener/0", listener));
    append_policy(call);
    checked(sd_bus_call(bus, call, 0, nullptr, nullptr));
    bench::serve();
}

void broker(const bench::Arguments& arguments)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    arguments.text("bus").copy(address.sun_path, sizeof address.sun_path - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    bench::require(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                       listen(listener, 64) == 0,
                   "cannot listen");
    int ends[2];
    bench::require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "no socket pair");

    // The broker replaces this process, whose id is known, and the controller is its child.
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        control(ends[0], listener);
        return;
    }
    close(ends[0]);
    // The limits of a system's bus.
    execl(DBUS_BROKER, DBUS_BROKER, "--controller", std::to_string(ends[1]).c_str(), "--machine-id",
          "00000000000000000000000000000001", "--max-bytes", "536870912", "--max-fds", "4096",
          "--max-matches", "131072", nullptr);
    throw std::runtime_error("cannot execute " DBUS_BROKER);
}
} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv,
                      {{"broker", broker},
                       {"server", server},
                       {"client", client},
                       {"publisher", publisher},
                       {"subscriber", subscriber}});
}
