// SPDX-License-Identifier: Apache-2.0
// A relay with the statistics that publishers ask for when they start:
//
//   tarn_relay URL SUB PUB
//
// URL is where it answers "/relay/stats", SUB where publishers connect, PUB where subscribers connect.
// Endpoints such as ipc:///run/relay/sub.sock. Runs until SIGINT or SIGTERM.

#include <exception>
#include <iostream>
#include <stdexcept>

#include <tarn/tarn.h>

#include "wait_for_signal.h"

namespace {
void run(const TerminationSignal& termination, const std::shared_ptr<const slate::Uri>& url,
         const std::shared_ptr<const slate::Uri>& sub, const std::shared_ptr<const slate::Uri>& pub)
{
    tarn::ZmqSubsystem subsystem;
    const auto relay = tarn::make_relay(sub, pub);
    const auto server = subsystem.add_server({url}, pub);
    server->add(tarn::make_relay_stats_route());
    if (tarn::make_client(url, 0)->get("/relay/stats")->bad())
        throw std::runtime_error("cannot answer at " + url->to_string());
    std::cout << "relaying from " << sub->to_string() << " to " << pub->to_string() << std::endl;
    termination.wait();
}
} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::cerr << "usage: tarn_relay URL SUB PUB\n";
        return 2;
    }
    const TerminationSignal termination;
    const auto url = slate::make_uri(argv[1]);
    const auto sub = slate::make_uri(argv[2]);
    const auto pub = slate::make_uri(argv[3]);
    for (int i = 0; i < 3; ++i) {
        if (!slate::make_uri(argv[i + 1])) {
            std::cerr << "tarn_relay: no endpoint: " << argv[i + 1] << "\n";
            return 2;
        }
    }
    try {
        run(termination, url, sub, pub);
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_relay: " << error.what() << "\n";
        return 1;
    }
}
