// SPDX-License-Identifier: Apache-2.0
// Serves a device's network settings and keeps them in a file next to the socket:
//
//   resource_service /tmp/network.sock

#include <iostream>

#include "../../apps/shared/termination_signal.h"
#include "network_settings.h"
#include "resource_route.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: resource_service SOCKET\n";
        return 2;
    }
    const TerminationSignal termination;

    const std::filesystem::path socket = argv[1];
    auto file = std::filesystem::absolute(socket); // a store needs a path with a folder
    file.replace_extension(".json");

    tarn::ZmqSubsystem subsystem;
    const auto settings =
        std::make_shared<example::NetworkSettings>(file, [](const example::Network& network) {
            // A device would set up its interface here.
            slate::log_info(SLATE_HERE, "applied: ", network.ShortDebugString());
        });
    settings->apply_stored();
    subsystem.serve(slate::make_uri("ipc://" + socket.string()),
                    {std::make_shared<example::ResourceRoute>("/network", settings)});

    std::cout << "serving at " << socket.string() << ", settings in " << file.string() << std::endl;
    termination.wait();
}
