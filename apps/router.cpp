// SPDX-License-Identifier: Apache-2.0
// A router for all services of a device:
//
//   tarn_router DIRECTORY ENDPOINT...
//
// DIRECTORY is the run-time directory, such as /run/tide. It holds a directory for each service, with the
// service's socket "zmq.sock" in it. The router takes requests at each ENDPOINT, such as
// ipc:///run/tide/router.sock. Runs until SIGINT or SIGTERM.

#include <exception>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <vector>

#include <unistd.h>

#include <tarn/tarn.h>

#include "start.h"
#include "termination_signal.h"

namespace {
void run(const TerminationSignal& termination, const std::filesystem::path& directory,
         const std::vector<std::shared_ptr<const slate::Uri>>& endpoints)
{
    start::refuse_if_served(endpoints);
    tarn::ZmqSubsystem subsystem(start::make_settings());
    const auto router = subsystem.add_router(endpoints, directory);
    for (const auto& endpoint : endpoints) {
        // Another process may hold the endpoint, or have taken over its path. "." never names a service, so
        // the router itself answers "/.", with status 404.
        const auto reply = tarn::make_client(endpoint, 0)->get("/.");
        if (!reply->message || reply->head().from().pid() != getpid())
            throw std::runtime_error("cannot answer at " + endpoint->to_string());
    }
    std::cout << "routing to the services below " << directory.string() << std::endl;
    termination.wait();
}
} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::cerr << "usage: tarn_router DIRECTORY ENDPOINT...\n";
        return 2;
    }
    const TerminationSignal termination;
    start::raise_descriptor_limit();
    std::vector<std::shared_ptr<const slate::Uri>> endpoints;
    for (int i = 2; i < argc; ++i) {
        endpoints.push_back(slate::make_uri(argv[i]));
        if (!endpoints.back()) {
            std::cerr << "tarn_router: not an endpoint: " << argv[i] << "\n";
            return 2;
        }
    }
    try {
        run(termination, argv[1], endpoints);
    }
    catch (const std::exception& error) {
        std::cerr << "tarn_router: " << error.what() << "\n";
        return 1;
    }
}
