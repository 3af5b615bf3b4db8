// SPDX-License-Identifier: Apache-2.0
// Publishes this machine's load ten times a second through a relay (see tarnd):
//
//   changes_publisher ENDPOINT RELAY_IN SECONDS
//
// The relay answers for its statistics at ENDPOINT, and takes changes in at RELAY_IN.

#include <fstream>
#include <iostream>
#include <thread>

#include <tarn/tarn.h>

int main(int argc, char** argv)
{
    long seconds = 0;
    if (argc != 4 || !slate::try_parse(argv[3], &seconds)) {
        std::cerr << "usage: changes_publisher ENDPOINT RELAY_IN SECONDS\n";
        return 2;
    }
    tarn::ZmqSubsystem subsystem;
    try {
        // Returns once the relay has received a message from this publisher.
        const auto publisher = tarn::make_publisher(slate::make_uri(argv[2]), tarn::default_timeout(), 0,
                                                    slate::make_uri(argv[1]));
        std::cout << "publishing through " << publisher->url()->to_string() << std::endl;

        for (long tick = 0; tick < seconds * 10; ++tick) {
            std::string load;
            std::ifstream("/proc/loadavg") >> load;
            publisher->put("/machine/load", load);
            publisher->put("/machine/tick", std::to_string(tick));
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        publisher->del("/machine/tick");
    }
    catch (const std::exception& error) {
        std::cerr << "changes_publisher: " << error.what() << "\n";
        return 1;
    }
}
