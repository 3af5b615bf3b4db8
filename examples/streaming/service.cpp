// SPDX-License-Identifier: Apache-2.0
// Takes an image of any size, and serves it, chunk by chunk in both directions:
//
//   streaming_service /tmp/streaming.sock

#include <iostream>

#include "../../apps/shared/termination_signal.h"
#include "routes.h"

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: streaming_service SOCKET\n";
        return 2;
    }
    const TerminationSignal termination;

    const std::filesystem::path socket = argv[1];
    auto image = socket;
    image.replace_extension(".image");

    tarn::ZmqSubsystem subsystem;
    subsystem.serve(
        slate::make_uri("ipc://" + socket.string()),
        {std::make_shared<example::UploadRoute>(image), std::make_shared<example::DownloadRoute>(image)});
    std::cout << "serving at " << socket.string() << ", image in " << image.string() << std::endl;
    termination.wait();
}
