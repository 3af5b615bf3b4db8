// SPDX-License-Identifier: Apache-2.0
// Serves the state of this machine, and one setting, at an ipc socket:
//
//   machine_status_service /tmp/status.sock

#include <fstream>
#include <iostream>

#include <tarn/tarn.h>

#include "../../apps/shared/termination_signal.h"

namespace {
double read_number(const std::string& file, int position)
{
    std::ifstream stream(file);
    double value = 0;
    for (int i = 0; i <= position; ++i)
        stream >> value;
    return value;
}

/// The load of the last 1, 5 or 15 minutes, as the path says.
double load(tarn::Context& context)
{
    const std::string minutes = context.variable("minutes");
    for (const auto& [name, position] : {std::pair("1", 0), std::pair("5", 1), std::pair("15", 2)}) {
        if (minutes == name)
            return read_number("/proc/loadavg", position);
    }
    throw tarn::MessageException(tarn::Status::NotFound, "no load average over " + minutes + " minutes");
}

/// A custom route: memory in kibibytes, as text or as JSON, whichever the request asks for.
class MemoryRoute : public tarn::Route {
public:
    MemoryRoute() : Route("memory", "get", "/memory", tarn::Access::Public) {}

    void get(tarn::Context& context) const override
    {
        std::ifstream meminfo("/proc/meminfo");
        std::string label, unit;
        long total = 0, free = 0, available = 0;
        meminfo >> label >> total >> unit >> label >> free >> unit >> label >> available;

        for (const tarn::Format format : context.request.formats()) {
            if (format == tarn::Format::Json) {
                context.reply.set_reply_json("{\"total\": " + std::to_string(total) +
                                             ", \"available\": " + std::to_string(available) + "}");
                return;
            }
        }
        context.reply.set_reply_text(std::to_string(available) + " of " + std::to_string(total) +
                                     " KiB available");
    }
};
} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: machine_status_service SOCKET\n";
        return 2;
    }
    const TerminationSignal termination;

    // The setting needs no lock: the server has one thread, so its handlers run one at a time. It is declared
    // before the subsystem, whose server uses it to the end.
    const std::string standard = "workshop";
    std::string location = standard;

    tarn::ZmqSubsystem subsystem;
    // With all its routes from the first moment: whoever asks early gets an answer, and not 404.
    subsystem.serve(
        slate::make_uri("ipc://" + std::string(argv[1])),
        {tarn::make_double_route("load", "get", "/load/(:minutes=1)", load),
         tarn::make_double_route("uptime", "get", "/uptime",
                                 [](tarn::Context&) { return read_number("/proc/uptime", 0); }),
         std::make_shared<MemoryRoute>(),
         tarn::make_string_route(
             "location", "get,put,delete", "/settings/location", [&](tarn::Context&) { return location; },
             [&](tarn::Context&, std::string text) { location = std::move(text); },
             [&](tarn::Context&) { location = standard; })});

    std::cout << "serving at " << argv[1] << std::endl;
    termination.wait();
}
