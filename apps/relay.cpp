// SPDX-License-Identifier: Apache-2.0
// A relay that also answers for its statistics, as publishers require at their start:
//
//   tarn_relay ENDPOINT RELAY_IN RELAY_OUT
//
// The relay answers "/relay/stats" at ENDPOINT, publishers connect to RELAY_IN, and subscribers to RELAY_OUT.
// Each is an endpoint, such as ipc:///run/tide/relay/in.sock. Runs until SIGINT or SIGTERM.

#include <exception>
#include <iostream>
#include <stdexcept>

#include <tarn/tarn.h>

#include "start.h"
#include "termination_signal.h"

namespace {
void run(const TerminationSignal& termination, const std::shared_ptr<const slate::Uri>& endpoint,
         const std::shared_ptr<const slate::Uri>& relay_in,
         const std::shared_ptr<const slate::Uri>& relay_out)
{
    start::refuse_if_served({endpoint, relay_in, relay_out});
    tarn::ZmqSubsystem subsystem(start::make_settings());
    const auto relay = tarn::make_relay(relay_in, relay_out);
    const auto server = subsystem.add_server({endpoint}, relay_out);
    server->add(tarn::make_relay_stats_route());
    if (tarn::make_client(endpoint, 0)->get("/relay/stats")->bad())
        throw std::runtime_error("cannot answer at " + endpoint->to_string());
    std::cout << "relaying from " << relay_in->to_string() << " to " << relay_out->to_string() << std::endl;
    termination.wait();
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: tarn_relay ENDPOINT RELAY_IN RELAY_OUT\n";
        return 2;
    }
    const TerminationSignal termination;
    start::raise_descriptor_limit();
    const auto endpoint = slate::make_uri(argv[1]);
    const auto relay_in = slate::make_uri(argv[2]);
    const auto relay_out = slate::make_uri(argv[3]);
    for (int i = 0; i < 3; ++i) {
        if (!slate::make_uri(argv[i + 1])) {
            std::cerr << "tarn_relay: not an endpoint: " << argv[i + 1] << "\n";
            return 2;
        }
    }
    try {
        run(termination, endpoint, relay_in, relay_out);
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_relay: " << error.what() << "\n";
        return 1;
    }
}
